// Index expressions and the kernel writer: what they print.
#include <gtest/gtest.h>

#include "codegen/expression.h"
#include "codegen/kernel_writer.h"
#include "codegen/precision.h"

namespace kevra::codegen {
namespace {

const HipBackend hip;

TEST(Expression, FoldsLiteralsTruncatingTowardZeroAndNothingElse) {
  EXPECT_EQ((Expr(3) + 4).to_text(), "7");
  EXPECT_EQ((Expr(-7) / 2).to_text(), "-3");
  EXPECT_EQ((Expr(-7) % 2).to_text(), "-1");
  EXPECT_EQ((Expr(int64_t{1} << 40) * 4).to_text(), "4398046511104");
  EXPECT_EQ((Expr("n") + 0).to_text(), "n + 0");
  EXPECT_EQ((Expr(2) * 3 - Expr("n") * 1).to_text(), "6 - n * 1");
}

TEST(Expression, WrapsOnlyWhatNeedsIt) {
  const Expr a("a"), b("b"), c("c");
  EXPECT_EQ((a + b + c).to_text(), "a + b + c");
  EXPECT_EQ((a + (b + c)).to_text(), "a + (b + c)");
  EXPECT_EQ((a - (b - c)).to_text(), "a - (b - c)");
  EXPECT_EQ((a - b + c).to_text(), "(a - b) + c");
  EXPECT_EQ((a * b / c).to_text(), "(a * b) / c");
  EXPECT_EQ(((a + b) * c % 4).to_text(), "((a + b) * c) % 4");
  EXPECT_EQ(negate(a).to_text(), "-a");
  EXPECT_EQ(negate(a + b).to_text(), "-(a + b)");
  EXPECT_EQ(negate(negate(a)).to_text(), "-(-a)");
  EXPECT_EQ(negate(Expr(-7)).to_text(), "-(-7)");
  EXPECT_EQ(index(a + b, a + c).to_text(), "(a + b)[a + c]");
  EXPECT_EQ(member(index(a, b), "x").to_text(), "a[b].x");
}

TEST(KernelWriter, NamesShareOneCounterAndStatementsTwoBlanks) {
  KernelWriter w(kFloat, hip);
  EXPECT_EQ(w.fresh("t"), "t0");
  EXPECT_EQ(w.fresh("g"), "g1");
  EXPECT_EQ(w.fresh("t"), "t2");
  w.line("#if 1");
  w.for_loop("i", "tid", "64", "TPF", [&](const std::string& i) {
    w.if_block("i > $", [&] { w.stmt("x[$] = $;", i, 3); });
  });
  w.barrier();
  const std::string y = w.multiply_constant(w.scale_real("x", 0.5), 0, -1);
  EXPECT_EQ(y, "v5");
  EXPECT_EQ(w.str(),
            "#if 1\n"
            "  for (int i = tid; i < 64; i += TPF) {\n"
            "  if (i > $) {\n"
            "  x[i] = 3;\n"
            "  }\n"
            "  }\n"
            "  __syncthreads();\n"
            "  cplx v3 = cmk(x.x*(float)0.5, x.y*(float)0.5);\n"
            "  cplx v4 = cmk((float)0, (float)-1);\n"
            "  cplx v5 = cmul(v3, v4);\n");
}

std::string twiddle_text(int prec, int order, bool from_shared, bool conjugate,
                         const std::vector<TwiddleTable>& tables = {}) {
  KernelWriter w(prec, hip);
  w.twiddle_tables = tables;
  w.twiddle("ii", order, from_shared, conjugate);
  return w.str();
}

TEST(KernelWriter, TwiddlesComeFromSharedMemoryThenATableThenSincos) {
  const std::vector<TwiddleTable> tables{{1000, "small"}, {1024, "tw"}, {4096, "large"}};
  EXPECT_EQ(twiddle_text(kDouble, 16, true, true, tables),
            "  cplx v0 = twsh[ii];\n  cplx v1 = cmk(v0.x, -v0.y);\n");
  EXPECT_EQ(twiddle_text(kDouble, 16, false, false, tables), "  cplx v0 = tw[(ii) * 64];\n");
  EXPECT_EQ(twiddle_text(kDouble, 8, false, true, tables),
            "  cplx v0 = small[(ii) * 125];\n  cplx v1 = cmk(v0.x, -v0.y);\n");
  EXPECT_EQ(twiddle_text(kFloat, 8, false, true),
            "  float a0 = fmaf((float)(0.78539816339744828), (float)(ii), "
            "(float)(-2.1855695031547384e-08) * (float)(ii));\n"
            "  float c1, s2; __sincosf(a0, &s2, &c1);\n"
            "  cplx v3 = cmk((float)c1, (float)s2);\n");
  EXPECT_EQ(twiddle_text(kDouble, 8192, false, false, tables),
            "  double a0 = (double)(-0.00076699039394282058) * (double)(ii);\n"
            "  double c1, s2; sincos(a0, &s2, &c1);\n"
            "  cplx v3 = cmk((double)c1, (double)s2);\n");
  EXPECT_EQ(twiddle_text(kHalf, 4, false, false),
            "  float a0 = (float)(-1.5707963267948966) * (float)(ii);\n"
            "  float c1, s2; __sincosf(a0, &s2, &c1);\n"
            "  cplx v3 = cmk((__half)c1, (__half)s2);\n");
}

TEST(KernelWriter, OnlyDoubleKernelsLeaveTheDialectsFloatFunctions) {
  for (int prec : {kHalf, kFloat, kDouble}) {
    const KernelWriter w(prec, hip);
    const std::string f = prec == kDouble ? "" : "f";
    EXPECT_EQ(w.log_of("x") + w.exp_of("x") + w.sqrt_of("x") + w.pow_of("x", "y"),
              "log" + f + "(x)exp" + f + "(x)sqrt" + f + "(x)pow" + f + "(x, y)");
  }
}

}  // namespace
}  // namespace kevra::codegen
