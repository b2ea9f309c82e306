// Whole transforms in shared memory, each emitter against the definition.
#include <gtest/gtest.h>

#include <algorithm>

#include "codegen/sizes.h"
#include "codegen/stages.h"
#include "codegen/thread_map.h"
#include "cuda_like/twiddles.h"
#include "kernel_run.h"

namespace kevra::codegen {
namespace {

using kevra_test::Spectrum;

// Moves `count` values into and out of `sh` around a body, element i at place(i).
std::string around(KernelWriter& w, int count, int threads, const std::string& place,
                   const std::function<void()>& body) {
  const auto loop = [&](const char* fmt) {
    w.for_loop("i", "tid", std::to_string(count), std::to_string(threads),
               [&](const std::string&) { w.stmt(fmt, place); });
  };
  w.stmt("cplx* sh = sh_all + TWN;");
  loop("sh[$(i)] = x[i];");
  w.barrier();
  body();
  loop("out[i] = sh[$(i)];");
  return w.str();
}

struct StagesCase {
  int n;
  int tpf;
  int prec = kFloat;
  bool padded = false;
  bool conjugate = false;
  bool radix25 = false;
  bool table = true;  // registered
};

void expect_stages(const StagesCase& c) {
  const std::vector<int> radices = factorize(c.n, nullptr, c.radix25);
  KernelWriter w(c.prec, backend());
  if (c.table) register_twiddle_table(w, c.prec, c.n, "tw", radices);
  const std::string body = around(
      w, c.n, c.tpf, "SHP", [&] { emit_fft_stages(w, "sh", c.n, radices, c.tpf, c.conjugate); });
  const std::string text =
      kevra_test::probe_text(c.prec, "#define TWN 0\n" + shp_define(c.padded), body);
  const Spectrum x = kevra_test::random_values(c.n, c.n);
  const int room = rader_extra(c.n) + (c.padded ? c.n + c.n / 16 + 1 : c.n);
  const Spectrum got = kevra_test::run_probe(c.prec, text, x, c.n, c.tpf, room,
                                             twiddle_table(c.n, rader_prime(c.n)));
  Spectrum want = kevra_test::dft(x, c.conjugate ? 1 : -1);
  double gain = 1;
  if (c.conjugate) {
    for (int r : radices) gain *= is_prime(r) ? 1 : 1.0 / r;
  }
  for (auto& value : want) value *= gain;
  EXPECT_LT(kevra_test::relative_error(got, want), (rader_prime(c.n) == 0 ? 1.0
                                                    : c.prec == kDouble   ? 1.5
                                                                          : 1.2) *
                                                       kevra_test::tolerance(c.prec, c.n))
      << "n " << c.n << " tpf " << c.tpf << " precision " << c.prec << " padded " << c.padded
      << " conjugate " << c.conjugate << " radix25 " << c.radix25;
}

TEST(FftStages, FloatSizesWithEveryRadix) {
  // One stage, threads below, at and above the number of butterflies, two and three rounds.
  for (const StagesCase& c : std::vector<StagesCase>{
           {2, 1}, {13, 4}, {16, 5}, {30, 32}, {77, 16}, {720, 90}, {720, 33}, {1024, 128}}) {
    expect_stages(c);
  }
  expect_stages({.n = 2002, .tpf = 250});
  expect_stages({.n = 4096, .tpf = 512});
}

TEST(FftStages, DoubleSizesReadTheTable) {
  for (int n : {3, 36, 143, 720, 1000, 2187}) {
    expect_stages({.n = n, .tpf = std::min(n, 256), .prec = kDouble});
  }
}

TEST(FftStages, PaddingAndRadix25ChangeNoResult) {
  expect_stages({.n = 720, .tpf = 64, .padded = true});
  expect_stages({.n = 512, .tpf = 64, .prec = kDouble, .padded = true});
  expect_stages({.n = 600, .tpf = 75, .padded = true, .radix25 = true});
}

TEST(FftStages, ConjugateRootsScaleByTheCompositeRadices) {
  expect_stages({.n = 64, .tpf = 8, .conjugate = true});
  expect_stages({.n = 1050, .tpf = 64, .conjugate = true});
  expect_stages({.n = 420, .tpf = 64, .prec = kDouble, .conjugate = true});
}

TEST(FftStages, APrimeRadixIsAConvolution) {
  for (int prec : {kFloat, kDouble}) {
    // One group and many, threads below and above their number; 272: the order of the cyclic
    // length divides n, and the first table that serves it holds no filter; 47: its cyclic length
    // has a prime radix of its own.
    for (const auto& [n, tpf] : std::vector<std::pair<int, int>>{
             {17, 1}, {34, 16}, {57, 2}, {272, 34}, {272, 5}, {1128, 141}, {1140, 64}}) {
      expect_stages({.n = n, .tpf = tpf, .prec = prec});
    }
  }
  expect_stages({.n = 272, .tpf = 16, .prec = kDouble, .table = false});
}

TEST(FftStages, AProductOfLargePrimesIsAPassEach) {
  for (int prec : {kFloat, kDouble}) {
    expect_stages({.n = 2 * 17 * 31, .tpf = 64, .prec = prec});
  }
}

TEST(FftStages, APrimeRadixThatHasNoStageIsRefused) {
  KernelWriter w(kFloat, backend());
  EXPECT_THROW(emit_fft_stages(w, "sh", 34, {2, 17}, 8, true), std::logic_error);
  EXPECT_THROW(emit_fft_stages(w, "sh", 34, {17, 2}, 8, false), std::logic_error);
}

TEST(CtPasses, GroupsHoldTheElementsOfAThread) {
  const auto groups = [](int half, int ept) {
    StftConfig config;
    config.n_fft = 2 * half;
    config.ept = ept;
    return ct_pass_groups(config);
  };
  EXPECT_EQ(groups(1024, 8), (std::vector<int>{3, 3, 3, 1}));
  EXPECT_EQ(groups(8, 8), std::vector<int>{3});
  EXPECT_EQ(groups(8, 1), (std::vector<int>{1, 1, 1}));
  EXPECT_EQ(groups(64, 5), (std::vector<int>{3, 3}));
  EXPECT_TRUE(groups(1, 8).empty());
}

struct CtCase {
  int half;
  int ept;
  int tpf;
  int prec = kFloat;
  bool tw_global = false;
  int shp_shift = 4;
};

void expect_ct_passes(const CtCase& c) {
  StftConfig config;
  config.prec = c.prec;
  config.n_fft = 2 * c.half;
  config.ept = c.ept;
  config.tpf = c.tpf;
  config.wide = c.prec == kDouble;
  config.tw_global = c.tw_global;
  const int table = config.wide && !c.tw_global ? c.half / 2 : 0;
  KernelWriter w(c.prec, backend());
  load_twiddles(w, config);
  const std::string body = around(w, c.half, c.tpf, "SHP", [&] { emit_ct_passes(w, config); });
  const std::string defines = "#define TPF " + std::to_string(c.tpf) + "\n#define TWN " +
                              std::to_string(table) + "\n" + shp_define_spaced(c.shp_shift);
  const Spectrum x = kevra_test::random_values(c.half, c.half);
  Spectrum reversed(c.half);
  for (int i = 0; i < c.half; ++i) {
    int from = 0;
    for (int bit = 0; (1 << bit) < c.half; ++bit) from = 2 * from + (i >> bit & 1);
    reversed[i] = x[from];
  }
  const Spectrum got =
      kevra_test::run_probe(c.prec, kevra_test::probe_text(c.prec, defines, body), reversed, c.half,
                            c.tpf, 2 * c.half + table + 1, kevra_test::forward_roots(c.half));
  EXPECT_LT(kevra_test::relative_error(got, kevra_test::dft(x)),
            kevra_test::tolerance(c.prec, c.half))
      << "half " << c.half << " ept " << c.ept << " tpf " << c.tpf << " precision " << c.prec;
}

TEST(CtPasses, TransformBitReversedData) {
  for (const CtCase& c :
       std::vector<CtCase>{{2, 8, 1}, {16, 4, 7}, {256, 16, 32}, {1024, 8, 128}}) {
    expect_ct_passes(c);
  }
  expect_ct_passes({.half = 512, .ept = 2, .tpf = 64, .shp_shift = 0});
  expect_ct_passes({.half = 64, .ept = 8, .tpf = 8, .prec = kDouble});
  expect_ct_passes({.half = 1024, .ept = 8, .tpf = 128, .prec = kDouble, .shp_shift = 3});
  expect_ct_passes({.half = 128, .ept = 16, .tpf = 8, .prec = kDouble, .tw_global = true});
}

void expect_batched(int prec, int count, int length, int threads, bool padded) {
  KernelWriter w(prec, backend());
  register_twiddle_table(w, prec, length, "tw", factorize(length));
  const int total = count * length;
  const std::string body =
      around(w, total, threads, "RSP", [&] { emit_batched_fft(w, "sh", count, length, threads); });
  const std::string text = kevra_test::probe_text(
      prec, "#define TWN 0\n" + rsp_define(padded) + rsp_define(!padded), body);
  const Spectrum x = kevra_test::random_values(total, total);
  const Spectrum got = kevra_test::run_probe(prec, text, x, total, threads, total + total / 16 + 1,
                                             kevra_test::forward_roots(length));
  for (int b = 0; b < count; ++b) {
    Spectrum in(length), out(length);
    for (int i = 0; i < length; ++i) {
      in[i] = x[i * count + b];
      out[i] = got[i * count + b];
    }
    EXPECT_LT(kevra_test::relative_error(out, kevra_test::dft(in)),
              2 * kevra_test::tolerance(prec, length))
        << "transform " << b << " of " << count << " x " << length << " precision " << prec;
  }
}

TEST(BatchedFft, TransformsSideBySide) {
  expect_batched(kFloat, 1, 16, 4, false);
  expect_batched(kFloat, 7, 60, 19, true);
  expect_batched(kFloat, 16, 64, 64, false);
  expect_batched(kDouble, 3, 46, 32, false);  // its radix 23 stays in registers
  expect_batched(kDouble, 5, 72, 256, true);
}

}  // namespace
}  // namespace kevra::codegen
