#include "codegen/butterfly.h"

#include <cmath>
#include <numbers>
#include <utility>

#include "codegen/precision.h"
#include "codegen/rader.h"
#include "codegen/sizes.h"

namespace kevra::codegen {
namespace {

using Names = std::vector<std::string>;

constexpr int kLargestSymmetricForward = 13;

std::string times_i(KernelWriter& w, const std::string& a) {
  return w.complex_value("-" + a + ".y", a + ".x");
}

// a - i b forward and a + i b under conjugate, where `rotated` is i b; the mirrored output gets
// the other sign.
std::string turn(KernelWriter& w, const std::string& a, const std::string& rotated,
                 bool conjugate) {
  return conjugate ? w.cadd(a, rotated) : w.csub(a, rotated);
}

Names radix3_closed(KernelWriter& w, const Names& x, bool conjugate) {
  constexpr double kSin60 = 0.8660254037844386;
  const std::string s = w.cadd(x[1], x[2]);
  const std::string d = w.csub(x[1], x[2]);
  const std::string y0 = w.cadd(x[0], s);
  const std::string h = w.scale_real(s, 0.5);
  const std::string t = w.csub(x[0], h);
  const std::string v = times_i(w, w.scale_real(d, kSin60));
  const std::string y1 = turn(w, t, v, conjugate);
  const std::string y2 = turn(w, t, v, !conjugate);
  return {y0, y1, y2};
}

Names radix5_closed(KernelWriter& w, const Names& x, bool conjugate) {
  constexpr double kSin72 = 0.9510565162951535;
  constexpr double kSin36 = 0.5877852522924732;
  constexpr double kQuarterRoot5 = 0.5590169943749475;
  const std::string a = w.cadd(x[1], x[4]);
  const std::string b = w.cadd(x[2], x[3]);
  const std::string c = w.csub(x[1], x[4]);
  const std::string d = w.csub(x[2], x[3]);
  const std::string s = w.cadd(a, b);
  const std::string y0 = w.cadd(x[0], s);
  const std::string quarter = w.scale_real(s, 0.25);
  const std::string e = w.csub(x[0], quarter);
  const std::string g = w.scale_real(w.csub(a, b), kQuarterRoot5);
  const std::string p = w.cadd(e, g);
  const std::string q = w.csub(e, g);
  const std::string c1 = w.scale_real(c, kSin72);
  const std::string d2 = w.scale_real(d, kSin36);
  const std::string m = times_i(w, w.cadd(c1, d2));
  const std::string c2 = w.scale_real(c, kSin36);
  const std::string d1 = w.scale_real(d, kSin72);
  const std::string n = times_i(w, w.csub(c2, d1));
  const std::string y1 = turn(w, p, m, conjugate);
  const std::string y4 = turn(w, p, m, !conjugate);
  const std::string y2 = turn(w, q, n, conjugate);
  const std::string y3 = turn(w, q, n, !conjugate);
  return {y0, y1, y2, y3, y4};
}

// Every output is a sum of its own: a float multiplication costs no more than an addition.
Names direct(KernelWriter& w, const Names& x, int r, bool conjugate) {
  Names y(r);
  for (int k = 0; k < r; ++k) {
    y[k] = x[0];
    for (int j = 1; j < r; ++j) {
      const int e = j * k % r;
      const std::string term = e == 0 ? x[j] : w.cmul(x[j], w.root_constant(e, r, conjugate));
      y[k] = w.cadd(y[k], term);
    }
  }
  return y;
}

// Sums and differences of mirrored inputs halve the products of an odd prime.
Names symmetric_prime(KernelWriter& w, const Names& x, int r, bool conjugate) {
  const int m = (r - 1) / 2;
  Names sum(m + 1);
  Names difference(m + 1);
  for (int j = 1; j <= m; ++j) {
    sum[j] = w.cadd(x[j], x[r - j]);
    difference[j] = w.csub(x[j], x[r - j]);
  }
  Names y(r);
  y[0] = x[0];
  for (int j = 1; j <= m; ++j) y[0] = w.cadd(y[0], sum[j]);

  for (int k = 1; k <= m; ++k) {
    std::string t;
    std::string u;
    for (int j = 1; j <= m; ++j) {
      const double angle = 2 * std::numbers::pi * (j * k % r) * (1.0 / r);
      const std::string even = w.scale_real(sum[j], std::cos(angle));
      const std::string odd = w.scale_real(difference[j], std::sin(angle));
      t = j == 1 ? even : w.cadd(t, even);
      u = j == 1 ? odd : w.cadd(u, odd);
    }
    const std::string e = w.cadd(x[0], t);
    const std::string v = times_i(w, u);
    y[k] = turn(w, e, v, conjugate);
    y[r - k] = turn(w, e, v, !conjugate);
  }
  return y;
}

// A Stockham transform over the primes of r whose array is a list of names.
Names composite(KernelWriter& w, const Names& x, int r, bool conjugate) {
  Names a = x;
  int done = 1;  // length of the sub-transforms behind us
  for (const int p : prime_factors(r)) {
    const int length = p * done;
    const int m = r / p;
    Names b(r);
    for (int t = 0; t < m; ++t) {
      const int ii = t % done;
      const int jj = t / done;
      Names g(p);
      for (int q = 0; q < p; ++q) {
        g[q] = a[t + q * m];
        if (q * ii != 0) g[q] = w.cmul(g[q], w.root_constant(q * ii, length, conjugate));
      }
      const Names out = butterfly(w, g, p, conjugate);
      for (int q = 0; q < p; ++q) b[jj * length + q * done + ii] = out[q];
    }
    a = b;
    done = length;
  }
  if (conjugate) {
    for (std::string& name : a) name = w.scale_real(name, 1.0 / r);
  }
  return a;
}

}  // namespace

Names butterfly(KernelWriter& w, const Names& x, int r, bool conjugate) {
  if (r < 2) return x;
  if (r > kLargestSymmetricForward && !conjugate && is_prime(r)) return register_rader(w, x, r);
  if (r == 2) {
    const std::string y0 = w.cadd(x[0], x[1]);
    const std::string y1 = w.csub(x[0], x[1]);
    return {y0, y1};
  }
  if (r == 3 && w.prec == kDouble) return radix3_closed(w, x, conjugate);
  if (r == 5 && w.prec == kDouble) return radix5_closed(w, x, conjugate);
  if (!is_prime(r)) return composite(w, x, r, conjugate);
  return r >= 7 ? symmetric_prime(w, x, r, conjugate) : direct(w, x, r, conjugate);
}

TwiddlePowers::TwiddlePowers(KernelWriter& w, std::string index, int order, bool conjugate)
    : w_(w), index_(std::move(index)), order_(order), conjugate_(conjugate) {}

std::string TwiddlePowers::root(int q) {
  return w_.twiddle(std::to_string(q) + " * " + index_, order_, false, conjugate_);
}

std::string TwiddlePowers::next() {
  // A power carries the rounding of the root that often: 322 factors lose eleven times the unit of
  // the last place, and 15 put a float transform of 512 at 0.81 eps sqrt(log2 n) where 7 give 0.50.
  constexpr int kChain = 8;
  ++q_;
  if (w_.table_stride(order_) != 0) return root(q_);
  if (q_ == 1) {
    first_ = power_ = w_.twiddle(index_, order_, false, conjugate_);
  } else {
    power_ = q_ % kChain == 1 ? root(q_) : w_.cmul(power_, first_);
  }
  return power_;
}

void stage_twiddles(KernelWriter& w, Names& g, const std::string& index, int stage_len, int r,
                    bool conjugate) {
  TwiddlePowers powers(w, index, stage_len, conjugate);
  for (int q = 1; q < r; ++q) g[q] = w.cmul(g[q], powers.next());
}

}  // namespace kevra::codegen
