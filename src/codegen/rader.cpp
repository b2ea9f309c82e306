#include "codegen/rader.h"

#include <complex>
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
  std::vector<std::complex<long double>> sum(q);
  const int64_t circle = static_cast<int64_t>(prime) * q;
  const long double step = -2 * std::numbers::pi_v<long double> / circle;
  for (int j = 0; j < q; ++j) {
    const int64_t root = static_cast<int64_t>(pow_mod(g, (q - j) % q, prime)) * q;
    for (int i = 0; i < q; ++i) {
      // Filter root times transform root is one root of unity; its place on the circle is reduced
      // in integers. Rounded only at the end: sums in double put 3.1 eps of error on a 289-point
      // transform, these 1.9.
      const int64_t place = (root + static_cast<int64_t>(i) * j % q * prime) % circle;
      sum[i] += std::polar(1.0L, step * static_cast<long double>(place));
    }
  }
  re.clear();
  im.clear();
  for (const std::complex<long double>& value : sum) {
    re.push_back(static_cast<double>(value.real()));
    im.push_back(static_cast<double>(value.imag()));
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
