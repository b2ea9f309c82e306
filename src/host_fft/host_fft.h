// The CPU transform: complex, of any length from 1, unscaled. It serves to build tables before a
// kernel can run.
#pragma once

#include <cstdint>

namespace kevra::host_fft {

// out[k] = sum over j of in[j] exp(-2 pi i j k / n). `in` and `out` hold n complex values, real
// part first, and do not overlap. May be called from any thread.
template <class T>
void host_fft(const T* in, T* out, int n);

// The same for `rows` rows of n that lie one behind the other, times `scale`, with the sign of the
// exponent turned for `inverse`. Rows are shared out over the threads of parallel_for.
template <class T>
void host_fft_rows(const T* in, T* out, int n, int64_t rows, bool inverse, T scale);

}  // namespace kevra::host_fft
