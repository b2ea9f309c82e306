// The integer decisions about a transform size: radices, prime stages, what fits where. Pure
// functions, asked by those who write kernels and by those who report routes alike.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace kevra::codegen {

// Bytes of one complex value in shared memory, by precision code.
constexpr size_t complex_bytes(int prec) {
  return prec == 0 ? 4 : prec == 2 ? 16 : 8;
}

constexpr bool is_power_of_two(int n) {
  return n >= 1 && (n & (n - 1)) == 0;
}
// The least e with 2^e >= n; 0 for n of 1 and below.
int ceil_log2(int n);
bool is_prime(int n);

// The radices of an n-point transform, first stage first. Powers of two split as evenly as stages
// of at most 16 allow; other sizes greedily from 16 (25 with `radix25`) down. What the list
// cannot divide is the last entry and `rest`: a prime above 13 or a product of such primes.
std::vector<int> factorize(int n, int* rest = nullptr, bool radix25 = false);

// Primes with repetition, in the order of the in-register stages of a composite radix: 7, 5, 3,
// 2, then the others rising. `rest` is what was appended undivided at the end, else 1.
std::vector<int> prime_factors(int n, int* rest = nullptr);

// The prime above 13 that factorize leaves as a stage of its own; 0 when there is none.
int rader_prime(int n);
// Elements of scratch that the prime stage of size n needs behind its data.
int rader_extra(int n);

// A schedule whose later radices all divide the first, as the register kernels' exchange needs;
// the first is the largest in [lo, hi] that works. Empty when none does.
std::vector<int> find_uniform_schedule(int n, int lo, int hi);

// Bytes of shared memory of one unpadded row, the prime stage's scratch included.
size_t fft_shared_bytes(int n, int prec);
bool fits_shared(int n, int prec, int64_t cap);

// The most balanced (n1, n2) with n = n1 n2 and both sides in shared memory; (0, 0) when n itself
// fits or nothing does.
std::pair<int, int> four_step_split(int n, int prec, int64_t cap);

// Whether the largest prime of n is too large, measured by log2 of the size, for direct stages.
bool needs_bluestein(int n);
// The padded length: the least multiple of 4 of the form 4 2^a 3^b 5^c 7^d not below 2n - 1.
int bluestein_m(int n);

}  // namespace kevra::codegen
