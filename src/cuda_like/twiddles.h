// Tables of roots of unity. Double kernels read their twiddles from one; float kernels compute
// them and get a placeholder under the same parameter.
#pragma once

#include <complex>
#include <vector>

#include "codegen/stft_config.h"
#include "cuda_like/device.h"

namespace kevra {

// exp(-2 pi i k / n) for k below n; behind them, when `rader` is a prime P and M = P - 1, the M
// roots of order M, the M values of the prime stage's filter spectrum, and M index pairs
// (log(k + 1), g^-k mod P), g being the least primitive root of P.
std::vector<std::complex<double>> twiddle_table(int n, int rader);

// For power-of-two frames: the first half of the roots of order n / 2, then the first half of
// those of order n.
std::vector<std::complex<double>> twiddle_table_pow2(int n);

// The complex transform's table on the current device: twiddle_table(n, rader) for the double
// twin, one zero for the float twin.
devptr_t fft_twiddles(int n, int rader, bool wide);

// The table of a frame kernel, as its core reads it; one zero unless the arithmetic is double.
devptr_t frame_twiddles(const codegen::StftConfig& config);

}  // namespace kevra
