// What a transform of one length needs ready before its passes run: radices, twiddles, chirps.
// Plans are built on first use, never change and are never freed.
#pragma once

#include <complex>
#include <cstdint>
#include <vector>

#include "host_fft/aligned_vector.h"
#include "host_fft/passes.h"

namespace kevra::host_fft {

// Plan of the planned route for one length and direction. Angles, sines and cosines are computed
// in double in both precisions.
template <class T>
struct HostFftPlan {
  std::vector<int> radices;
  std::vector<int64_t> twiddle_offsets;  // of each pass, into `twiddles`
  // Of each later pass, for every j in [1, radix): all cosines, then all sines, each twice in a
  // row, so that a pass over interleaved values multiplies them as they lie.
  AlignedVector<T> twiddles;
  std::vector<int64_t> packed_offsets;
  // (cos, sin) pairs, of later passes of radix 2 and 4, and one value that is read but not used:
  // a pass loads the sines as a vector that begins one value later.
  AlignedVector<T> packed_twiddles;
  AlignedVector<T> root_re;  // of each pass, the roots of unity of its radix
  AlignedVector<T> root_im;
  std::vector<int64_t> root_offsets;

  PassTables<T> tables() const;
};

// Plan of the chirp route: a transform of n points as a convolution of m.
template <class T>
struct BluesteinHostPlan {
  int n;
  int m;
  AlignedVector<T> chirp;   // n complex
  AlignedVector<T> filter;  // m complex, the spectrum of the conjugate chirp
  // Real (imaginary) parts, each twice in a row.
  AlignedVector<T> chirp_re;
  AlignedVector<T> chirp_im;
  AlignedVector<T> filter_re;
  AlignedVector<T> filter_im;
};

enum class HostRoute { kPlanned, kGroup, kChirp };

// Prime factors above 13, or large beside log2 n, go by a chirp; lengths below 16 and odd ones
// below 512 in groups of rows; all others by a plan.
HostRoute host_route(int n);

// Radices of the planned route, first pass first. The first pass needs no twiddles, so in lengths
// with at most one factor 2 it goes to a repeated prime or to the largest, and the 2 goes last.
std::vector<int> host_radices(int n);
// Factors of the group route.
std::vector<int> host_group_factors(int n);

// exp(-2 pi i k / n) for k below n.
const std::complex<double>* host_roots(int n);

// `direction` is 0 forward, 1 inverse. The pointers stay valid until the process ends.
template <class T>
const HostFftPlan<T>* host_plan(int n, int direction);
template <class T>
const BluesteinHostPlan<T>* bluestein_host_plan(int n, int direction);

}  // namespace kevra::host_fft
