#include "codegen/rader.h"

#include <cmath>
#include <cstdint>
#include <numbers>

#include "codegen/butterfly.h"

namespace kevra::codegen {

int pow_mod(int a, int e, int m) {
  int64_t result = 1;
  for (int64_t square = a % m; e > 0; e >>= 1) {
    if (e & 1) result = result * square % m;
    square = square * square % m;
  }
  return static_cast<int>(result);
}

int primitive_root(int prime) {
  std::vector<int> divisors;  // the primes of prime - 1
  int left = prime - 1;
  for (int d = 2; static_cast<int64_t>(d) * d <= left; ++d) {
    if (left % d == 0) divisors.push_back(d);
    while (left % d == 0) left /= d;
  }
  if (left > 1) divisors.push_back(left);

  const auto has_full_order = [&](int g) {
    for (int q : divisors) {
      if (pow_mod(g, (prime - 1) / q, prime) == 1) return false;
    }
    return true;
  };
  int g = 2;
  while (!has_full_order(g)) ++g;
  return g;
}

RaderMaps rader_maps(int prime, int g) {
  const int q = prime - 1;
  const int inverse = pow_mod(g, prime - 2, prime);
  RaderMaps maps{std::vector<int>(prime), std::vector<int>(q)};
  for (int i = 0; i < q; ++i) {
    maps.log[pow_mod(g, i, prime)] = i;
    maps.out[i] = pow_mod(inverse, i, prime);
  }
  return maps;
}

void rader_filter(int prime, int g, std::vector<double>& re, std::vector<double>& im) {
  const int q = prime - 1;
  re.assign(q, 0);
  im.assign(q, 0);
  for (int j = 0; j < q; ++j) {
    const double root = static_cast<double>(pow_mod(g, (q - j) % q, prime)) / prime;
    for (int i = 0; i < q; ++i) {
      // Root and transform multiply to one root of unity; the product j i is reduced exactly.
      const double turns = root + static_cast<double>(static_cast<int64_t>(i) * j % q) / q;
      re[i] += std::cos(-2 * std::numbers::pi * turns);
      im[i] += std::sin(-2 * std::numbers::pi * turns);
    }
  }
}

std::vector<std::string> register_rader(KernelWriter& w, const std::vector<std::string>& x,
                                        int prime) {
  const int q = prime - 1;
  const int g = primitive_root(prime);
  const RaderMaps maps = rader_maps(prime, g);
  std::vector<double> re;
  std::vector<double> im;
  rader_filter(prime, g, re, im);

  std::vector<std::string> y(prime);
  y[0] = x[0];
  for (int j = 1; j < prime; ++j) y[0] = w.cadd(y[0], x[j]);

  std::vector<std::string> cyclic(q);
  for (int j = 1; j < prime; ++j) cyclic[maps.log[j]] = x[j];
  cyclic = butterfly(w, cyclic, q, false);
  for (int i = 0; i < q; ++i) cyclic[i] = w.multiply_constant(cyclic[i], re[i], im[i]);
  cyclic = butterfly(w, cyclic, q, true);  // q is composite, so this divides by q: the inverse
  for (int m = 0; m < q; ++m) y[maps.out[m]] = w.cadd(x[0], cyclic[m]);
  return y;
}

}  // namespace kevra::codegen
