// The vocabulary of every kernel, run: index macros, reflection, bit reversal.
#include <gtest/gtest.h>

#include "codegen/prelude.h"
#include "kernel_run.h"

namespace kevra::codegen {
namespace {

const HipBackend hip;

// What an expression of i is worth for i below `count`, under the definitions of `head`.
std::vector<int> each_index(const std::string& head, const std::string& value, int count) {
  const kevra_test::OnDevice<int> out(std::vector<int>(count, -1));
  const std::string text = head + KernelSignature("probe", hip).add_pointer("int", "out").head() +
                           "  int i = threadIdx.x;\n  out[i] = " + value + ";\n}\n";
  kevra_test::run_text(text, {"probe", 1, static_cast<unsigned>(count), 0}, out.buffer.p);
  return out.values();
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

}  // namespace
}  // namespace kevra::codegen
