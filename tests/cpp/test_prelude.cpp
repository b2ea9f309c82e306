// The vocabulary of every kernel, run: index macros, reflection, bit reversal, thread maps.
#include <gtest/gtest.h>

#include "codegen/prelude.h"
#include "codegen/thread_map.h"
#include "kernel_run.h"

namespace kevra::codegen {
namespace {

const HipBackend hip;

// Runs a kernel `probe(out, nrows)` of ints that begin as -1.
std::vector<int> run_ints(const std::string& head, const std::string& body, size_t count,
                          kevra_test::Launch launch, int nrows = 1) {
  const kevra_test::OnDevice<int> out(std::vector<int>(count, -1));
  const std::string text =
      head +
      KernelSignature("probe", hip).add_pointer("int", "out").add_scalar("int", "nrows").head();
  launch.name = "probe";
  kevra_test::run_text(text + body + "}\n", launch, out.buffer.p, nrows);
  return out.values();
}

std::vector<int> each_index(const std::string& head, const std::string& value, int count) {
  return run_ints(head, "  int i = threadIdx.x;\n  out[i] = " + value + ";\n", count,
                  {"", 1, static_cast<unsigned>(count), 0});
}

TEST(Prelude, PaddingLeavesOneSlotFreeBehindEachGroup) {
  for (const auto& [define, shift] : {std::pair{shp_define(true), 4},
                                      {shp_define(false), 30},
                                      {shp_define_shift(3), 3},
                                      {shp_define_spaced(5), 5},
                                      {shp_define_spaced(0), 30}}) {
    const std::vector<int> place = each_index(define, "SHP(i - 1 + 1)", 200);
    for (int i = 0; i < 200; ++i) EXPECT_EQ(place[i], i + (i >> shift)) << define;
  }
  // The first definition stands.
  EXPECT_EQ(each_index(rsp_define(true) + rsp_define(false), "RSP(i)", 40)[39], 41);
  EXPECT_EQ(each_index(rsp_define(false) + rsp_define(true), "RSP(i)", 40)[39], 39);
}

TEST(Prelude, ReflectionRepeatsNoEdgeAndBitReversalSpansTheFrame) {
  StftConfig config;
  config.n_fft = 64;
  config.pad = 3;
  const std::string head = "#define SIG_LEN 5\n" + schedule_prelude(hip, config);
  EXPECT_EQ(each_index(head, "refl(i)", 11), (std::vector<int>{3, 2, 1, 0, 1, 2, 3, 4, 3, 2, 1}));
  const std::vector<int> reversed = each_index(head, "brev(i)", 32);
  for (int i = 0; i < 32; ++i) {
    const int want = (i & 1) << 4 | (i & 2) << 2 | (i & 4) | (i & 8) >> 2 | (i & 16) >> 4;
    EXPECT_EQ(reversed[i], want);
  }
}

TEST(ThreadMap, FramesShareABlockOrFillOne) {
  KernelWriter w(kFloat, hip);
  map_frames_per_block(w);
  w.stmt("out[((batch * 4 + frame) * 3 + tid)] = f_local;");
  // Two blocks of two frames of three threads, two batch rows.
  const std::vector<int> got =
      run_ints("#define TPF 3\n#define F 2\n", w.str(), 24, {"", 2, 6, 0, 2});
  for (int i = 0; i < 24; ++i) EXPECT_EQ(got[i], i / 3 % 2) << i;

  KernelWriter one(kFloat, hip);
  map_frame_per_block(one);
  one.stmt("out[(batch * 3 + frame) * 2 + tid] = 1;");
  const std::vector<int> whole = run_ints("#define NF 2\n", one.str(), 12, {"", 3, 2, 0, 2});
  EXPECT_EQ(whole, (std::vector<int>{1, 1, 1, 1, -1, -1, 1, 1, 1, 1, -1, -1}));
}

TEST(ThreadMap, SurplusRowsWorkOnTheLastOne) {
  KernelWriter w(kFloat, hip);
  w.stmt("extern __shared__ cplx shbuf[];");
  map_rows_in_block(w, 3, 7);
  w.stmt("out[batch * 2 + tid] = (int)brow * 100 + (int)(bufA - shbuf);");
  const std::vector<int> got =
      run_ints(complex_prelude(hip, kFloat) + "#define TPF 2\n", w.str(), 12, {"", 2, 6, 256}, 4);
  EXPECT_EQ(got, (std::vector<int>{0, 0, 107, 107, 214, 214, 300, 300, 307, 307, 314, 314}));

  KernelWriter pairs(kFloat, hip);
  pairs.stmt("I64 batch = threadIdx.x;");
  row_pair(pairs);
  pairs.stmt("out[batch] = (int)(row0 * 1000 + row1 * 100 + r0c * 10 + r1c);");
  EXPECT_EQ(run_ints(i64_prelude(hip), pairs.str(), 3, {"", 1, 3, 0}, 3),
            (std::vector<int>{101, 2322, 4522}));
}

TEST(ThreadMap, AFlatLoopMeetsEachElementOfEachRow) {
  KernelWriter w(kFloat, hip);
  flat_row_index(w, "e", "300");
  split_row(w, "b", "f");
  w.stmt("out[row * 300 + e] = (int)(b * 10 + f);");
  const std::vector<int> got =
      run_ints(i64_prelude(hip) + "#define NF 2\n", w.str(), 900, {"", 2, 256, 0, 3});
  for (int i = 0; i < 900; ++i) EXPECT_EQ(got[i], i / 600 * 10 + i / 300 % 2) << i;
}

}  // namespace
}  // namespace kevra::codegen
