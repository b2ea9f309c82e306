// Transforms in registers: every radix against the definition, stage twiddles, prime lengths.
#include <gtest/gtest.h>

#include <set>

#include "codegen/butterfly.h"
#include "codegen/rader.h"
#include "codegen/sizes.h"
#include "kernel_run.h"

namespace kevra::codegen {
namespace {

using kevra_test::Spectrum;

std::vector<std::string> loads(KernelWriter& w, const std::string& array, int r) {
  std::vector<std::string> x(r);
  for (int j = 0; j < r; ++j) x[j] = w.complex_load(array, std::to_string(j));
  return x;
}

std::string butterfly_text(int prec, int r, bool conjugate) {
  KernelWriter w(prec, backend());
  const std::vector<std::string> y = butterfly(w, loads(w, "x", r), r, conjugate);
  for (int k = 0; k < r; ++k) w.stmt("out[$] = $;", k, y[k]);
  return w.str();
}

// A prime radix leaves conjugate roots unscaled, a composite one divides by itself.
double gain(int r, bool conjugate) {
  return conjugate && !is_prime(r) ? 1.0 / r : 1.0;
}

void expect_transforms(int prec, bool conjugate, const std::vector<int>& radices) {
  // One kernel, its arrays moved on from radix to radix: compiling costs more than running.
  std::string body;
  Spectrum x;
  for (int r : radices) {
    const std::string size = std::to_string(r);
    body += "  {\n" + butterfly_text(prec, r, conjugate) + "  }\n  x += " + size +
            "; out += " + size + ";\n";
    const Spectrum more = kevra_test::random_values(r, r);
    x.insert(x.end(), more.begin(), more.end());
  }
  const Spectrum y =
      kevra_test::run_probe(prec, kevra_test::probe_text(prec, "", body), x, x.size());
  auto from = x.begin();
  auto to = y.begin();
  for (int r : radices) {
    Spectrum want = kevra_test::dft(Spectrum(from, from + r), conjugate ? 1 : -1);
    for (auto& value : want) value *= gain(r, conjugate);
    // A prime above 13 is a long sum or a convolution and loses more than a stage of its size.
    const double allowed = kevra_test::tolerance(prec, r) * (r > 13 && is_prime(r) ? 2 : 1);
    EXPECT_LT(kevra_test::relative_error(Spectrum(to, to + r), want), allowed)
        << "radix " << r << " precision " << prec << " conjugate " << conjugate;
    from += r;
    to += r;
  }
}

std::vector<int> small_radices() {
  std::vector<int> radices{49};
  for (int r = 2; r <= 32; ++r) radices.push_back(r);
  return radices;
}

TEST(Butterfly, EveryFloatRadixIsTheTransformInBothDirections) {
  for (bool conjugate : {false, true}) expect_transforms(kFloat, conjugate, small_radices());
}

TEST(Butterfly, EveryDoubleRadixIsTheTransformInBothDirections) {
  for (bool conjugate : {false, true}) expect_transforms(kDouble, conjugate, small_radices());
}

TEST(Butterfly, AProductOfLargePrimesIsOneRadix) {
  expect_transforms(kFloat, false, {323});
}

TEST(Butterfly, AProductOfLargePrimesIsOneConjugateRadix) {
  expect_transforms(kDouble, true, {323});
}

TEST(Butterfly, RadixOneWritesNothing) {
  KernelWriter w(kFloat, backend());
  EXPECT_EQ(butterfly(w, {"a"}, 1, true), std::vector<std::string>{"a"});
  EXPECT_EQ(w.str(), "");
}

// The largest error of the twiddles that a stage of radix r multiplies ones by.
double twiddle_error(int prec, int r, int stage_len, int index, bool conjugate, bool table) {
  KernelWriter w(prec, backend());
  if (table) w.twiddle_tables.push_back({2 * stage_len, "tw"});
  std::vector<std::string> g = loads(w, "x", r);
  w.stmt("int ii = $;", index);
  stage_twiddles(w, g, "ii", stage_len, r, conjugate);
  for (int q = 0; q < r; ++q) w.stmt("out[$] = $;", q, g[q]);
  const Spectrum got =
      kevra_test::run_probe(prec, kevra_test::probe_text(prec, "", w.str()), Spectrum(r, 1), r, 1,
                            1, kevra_test::forward_roots(2 * stage_len));
  double worst = 0;
  for (int q = 0; q < r; ++q) {
    std::complex<double> want(kevra_test::root((long long)q * index, stage_len));
    if (!conjugate) want = std::conj(want);
    worst = std::max(worst, std::abs(got[q] - want));
  }
  return worst;
}

TEST(StageTwiddles, AreTheRootsAndLongChainsKeepTheirAccuracy) {
  for (bool conjugate : {false, true}) {
    EXPECT_LT(twiddle_error(kDouble, 9, 144, 13, conjugate, true), 0x1p-52);
    EXPECT_LT(twiddle_error(kDouble, 9, 144, 13, conjugate, false), 16 * 0x1p-52);
    EXPECT_LT(twiddle_error(kFloat, 16, 256, 15, conjugate, false), 16 * 0x1p-23);
    EXPECT_LT(twiddle_error(kFloat, 323, 646, 1, conjugate, false), 16 * 0x1p-23);
    EXPECT_LT(twiddle_error(kFloat, 289, 578, 1, conjugate, false), 16 * 0x1p-23);
  }
}

TEST(Rader, MapsArePermutationsAndTheFilterHasTheModulusOfAGaussSum) {
  EXPECT_EQ(primitive_root(17), 3);
  EXPECT_EQ(primitive_root(23), 5);
  EXPECT_EQ(primitive_root(191), 19);
  EXPECT_EQ(pow_mod(3, 0, 17), 1);
  for (int p = 17; p < 200; ++p) {
    if (!is_prime(p)) continue;
    const int g = primitive_root(p);
    const RaderMaps maps = rader_maps(p, g);
    std::set<int> places(maps.log.begin() + 1, maps.log.end());
    std::set<int> outputs(maps.out.begin(), maps.out.end());
    EXPECT_EQ(places.size(), p - 1u) << p;
    EXPECT_EQ(outputs.size(), p - 1u) << p;
    std::vector<double> re, im;
    rader_filter(p, g, re, im);
    EXPECT_NEAR(re[0], -1, 1e-15) << p;
    EXPECT_NEAR(im[0], 0, 1e-15) << p;
    for (int i = 1; i < p - 1; ++i) {
      EXPECT_NEAR(std::hypot(re[i], im[i]), std::sqrt(p), 4 * std::sqrt(p) * 0x1p-53) << p << i;
    }
  }
}

}  // namespace
}  // namespace kevra::codegen
