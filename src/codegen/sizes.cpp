#include "codegen/sizes.h"

#include <algorithm>
#include <cmath>

namespace kevra::codegen {
namespace {

// Radices with a butterfly worth unrolling. 8 comes after the odd ones: a power of two that is
// left beside them is small, and one large odd radix spares a stage.
const std::vector<int>& radix_list(bool radix25) {
  static const std::vector<int> plain{16, 13, 11, 9, 8, 7, 5, 4, 3, 2};
  static const std::vector<int> with25{25, 16, 13, 11, 9, 8, 7, 5, 4, 3, 2};
  return radix25 ? with25 : plain;
}

// The largest radix that is not a prime stage.
constexpr int kLargestDirectPrime = 13;

int largest_prime_factor(int n) {
  int largest = 1;
  int left = n;
  for (int d = 2; static_cast<int64_t>(d) * d <= left; ++d) {
    while (left % d == 0) {
      largest = d;
      left /= d;
    }
  }
  return left > 1 ? left : largest;
}

std::vector<int> power_of_two_radices(int e) {
  const int stages = (e + 3) / 4;
  std::vector<int> radices;
  for (int s = 0; s < stages; ++s) radices.push_back(1 << (e / stages + (s < e % stages ? 1 : 0)));
  return radices;
}

}  // namespace

int ceil_log2(int n) {
  int e = 0;
  while ((int64_t{1} << e) < n) ++e;
  return e;
}

bool is_prime(int n) {
  return n >= 2 && largest_prime_factor(n) == n;
}

std::vector<int> factorize(int n, int* rest, bool radix25) {
  int left = n;
  std::vector<int> radices;
  if (n >= 2 && is_power_of_two(n)) {
    radices = power_of_two_radices(ceil_log2(n));
    left = 1;
  } else if (n >= 2) {
    for (int r : radix_list(radix25)) {
      for (; left % r == 0; left /= r) radices.push_back(r);
    }
    if (left != 1) radices.push_back(left);
  } else {
    left = 1;
  }
  if (rest != nullptr) *rest = left;
  return radices;
}

std::vector<int> prime_factors(int n, int* rest) {
  int left = n;
  std::vector<int> primes;
  const auto divide_out = [&](int p) {
    for (; left % p == 0; left /= p) primes.push_back(p);
  };
  for (int p : {7, 5, 3, 2}) divide_out(p);
  for (int p = 11; static_cast<int64_t>(p) * p <= left; p += 2) divide_out(p);
  if (left > 1) primes.push_back(left);
  if (rest != nullptr) *rest = left;
  return primes;
}

int rader_prime(int n) {
  for (int r : factorize(n)) {
    if (r > kLargestDirectPrime && is_prime(r)) return r;
  }
  return 0;
}

int rader_extra(int n) {
  const int p = rader_prime(n);
  return p == 0 ? 0 : n + n / p;
}

std::vector<int> find_uniform_schedule(int n, int lo, int hi) {
  constexpr int kLargestLater = 16;
  for (int first = std::min(n, hi); first >= std::max(lo, 2); --first) {
    if (n % first != 0) continue;
    std::vector<int> radices{first};
    int left = n / first;
    while (left > 1) {
      int r = std::min(first, kLargestLater);
      while (r >= 2 && (first % r != 0 || left % r != 0)) --r;
      if (r < 2) break;
      radices.push_back(r);
      left /= r;
    }
    if (left == 1) return radices;
  }
  return {};
}

size_t fft_shared_bytes(int n, int prec) {
  return (static_cast<size_t>(rader_extra(n)) + n) * complex_bytes(prec);
}

bool fits_shared(int n, int prec, int64_t cap) {
  return static_cast<int64_t>(fft_shared_bytes(n, prec)) <= cap;
}

std::pair<int, int> four_step_split(int n, int prec, int64_t cap) {
  if (n < 4 || fits_shared(n, prec, cap)) return {0, 0};
  int root = static_cast<int>(std::sqrt(static_cast<double>(n)));
  while (static_cast<int64_t>(root) * root > n) --root;
  for (int d = root; d >= 2; --d) {
    if (n % d == 0 && fits_shared(d, prec, cap) && fits_shared(n / d, prec, cap)) {
      return {d, n / d};
    }
  }
  return {0, 0};
}

bool needs_bluestein(int n) {
  // Direct stages of a prime p cost p per element; the detour costs a multiple of log2 of the size.
  constexpr double kPrimePerLog = 6.0;
  if (n <= 1 || is_power_of_two(n)) return false;
  return largest_prime_factor(n) > kPrimePerLog * std::log2(2.0 * n);
}

int bluestein_m(int n) {
  const int64_t least = 2 * static_cast<int64_t>(n) - 1;
  int64_t best = 16;
  while (best < least) best *= 2;
  const int64_t limit = best;
  for (int64_t p2 = 4; p2 <= limit; p2 *= 2) {
    for (int64_t p3 = p2; p3 <= limit; p3 *= 3) {
      for (int64_t p5 = p3; p5 <= limit; p5 *= 5) {
        for (int64_t p7 = p5; p7 <= limit; p7 *= 7) {
          if (p7 >= least) best = std::min(best, p7);
        }
      }
    }
  }
  return static_cast<int>(best);
}

}  // namespace kevra::codegen
