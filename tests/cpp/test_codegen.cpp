// The text floor: templates, number literals, the HIP dialect, kernel heads, the rms kernel.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <limits>
#include <numbers>
#include <stdexcept>
#include <utility>

#include "codegen/backend.h"
#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernels/rms.h"

namespace kevra::codegen {
namespace {

const HipBackend hip;

std::string golden(const std::string& name) {
  const std::string path = std::string(KEVRA_GOLDEN_FOLDER) + "/" + name;
  std::ifstream file(path);
  EXPECT_TRUE(file) << "missing " << path;
  return {std::istreambuf_iterator<char>(file), {}};
}

// `text` with every `from` replaced; at least one must be there.
std::string replaced(std::string text, const std::string& from, const std::string& to) {
  size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos) << "no '" << from << "' in\n" << text;
  for (; at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

TEST(Format, FillsPlaceholdersInOrderAndCopiesArgumentsUnscanned) {
  EXPECT_EQ(format("a$b", {"1"}), "a1b");
  EXPECT_EQ(format("$$", {"x", "y"}), "xy");
  EXPECT_EQ(format("", {}), "");
  EXPECT_EQ(format("$, $", {"$", "a$b"}), "$, a$b");
}

TEST(Format, TellsATemplateThatDoesNotFitItsArguments) {
  const auto message = [](const char* fmt, const std::vector<std::string>& args) -> std::string {
    try {
      return format(fmt, args);
    } catch (const std::logic_error& error) {
      return error.what();
    }
  };
  EXPECT_EQ(message("$", {}), "codegen format: too few args: $");
  EXPECT_EQ(message("$ + $", {"a"}), "codegen format: too few args: $ + $");
  EXPECT_EQ(message("a", {"x"}), "codegen format: too many args: a");
}

TEST(NumberLiteral, IsTheShorterFormWithoutSuffixAndReadsBackExactly) {
  EXPECT_EQ(number_literal(0.5), "0.5");
  EXPECT_EQ(number_literal(1.0), "1");
  EXPECT_EQ(number_literal(std::sqrt(0.5)), "0.70710678118654757");
  EXPECT_EQ(number_literal(-2 * std::numbers::pi), "-6.2831853071795862");
  EXPECT_EQ(number_literal(6.123233995736766e-17), "6.123233995736766e-17");
  EXPECT_EQ(number_literal(1e22), "1e+22");
  using Limits = std::numeric_limits<double>;
  for (double value : {0.1, 1e-10, 123456789.125, -Limits::max(), Limits::min(),
                       Limits::denorm_min(), std::nextafter(1.0, 2.0)}) {
    const std::string text = number_literal(value);
    EXPECT_EQ(std::strtod(text.c_str(), nullptr), value) << text;
  }
}

TEST(HipBackend, SpellsTheDialect) {
  const std::pair<std::string, std::string> rows[] = {
      // what it says, what it should
      {hip.scalar_type(0) + " " + hip.scalar_type(1) + " " + hip.scalar_type(2),
       "__half float double"},
      {hip.vector2_type(0) + " " + hip.vector2_type(1) + " " + hip.vector2_type(2),
       "__half2 float2 double2"},
      {hip.scalar_type(3) + hip.vector2_type(-1) + hip.convert_scalar(7, "x"),
       "floatfloat2(float)(x)"},
      {hip.const_pointer_type("T"), "const T* __restrict__"},
      {hip.pointer_type("T"), "T* __restrict__"},
      {hip.shared_pointer_type("T"), "T*"},
      {hip.shared_array("T", "a"), "extern __shared__ T a[];"},
      {hip.thread_index() + hip.block_index_x() + hip.block_index_y() + hip.block_size(),
       "threadIdx.xblockIdx.xblockIdx.yblockDim.x"},
      {hip.barrier_call(), "__syncthreads();"},
      {hip.sincos_call(1, "a", "c", "s"), "__sincosf(a, &s, &c);"},
      {hip.sincos_call(2, "a", "c", "s"), "sincos(a, &s, &c);"},
      {hip.cos_call(0, "a") + hip.cos_call(2, "a"), "__cosf(a)cos(a)"},
      {hip.shuffle_xor("v", "16"), "__shfl_xor(v, 16, 32)"},
      {hip.log10_call("x") + hip.sqrt_call("x") + hip.log_call("x") + hip.exp_call("x"),
       "log10f(x)sqrtf(x)logf(x)expf(x)"},
      {hip.pow_call("a", "b"), "powf(a, b)"},
      {hip.atomic_add("y[i]", "v"), "atomicAdd(&(y[i]), v);"},
      {hip.atomic_add_wide("y[i]", "v"), "atomicAdd(&(y[i]), v);"},
      {hip.make_vector2(0, "a", "b"), "__floats2half2_rn((float)(a),(float)(b))"},
      {hip.make_vector2(1, "a", "b"), "make_float2((float)(a),(float)(b))"},
      {hip.make_vector2(2, "a", "b"), "make_double2((double)(a),(double)(b))"},
      {hip.convert_scalar(0, "x") + hip.convert_scalar(2, "x"),
       "__float2half_rn((float)(x))(double)(x)"},
      {hip.device_inline(), "__device__ __forceinline__ "},
      {hip.uint_type() + " " + hip.int64_type(), "unsigned long long"},
      {hip.bit_reverse("x"), "__brev(x)"},
      {hip.source_preamble(0) + hip.group_space() + hip.device_space() + hip.extra_params() +
           hip.extra_params_shared("T", "a"),
       ""},
  };
  for (const auto& [got, want] : rows) EXPECT_EQ(got, want);
  EXPECT_EQ(hip.shuffle_width(), 32);
  EXPECT_TRUE(hip.has_vector_loads());
}

TEST(KernelSignature, PrintsBoundsParametersAndSharedBlock) {
  KernelSignature bare("kevra_fft", hip);
  EXPECT_EQ(bare.head(), "extern \"C\" __global__ void kevra_fft() {\n");

  KernelSignature full("kevra_fft", hip);
  full.add_const_pointer("iot", "x").add_pointer("iot", "out").add_scalar("I64", "rows");
  full.set_launch_bounds(256, 2).set_shared("char", "old").set_shared("cplx", "shbuf");
  EXPECT_EQ(full.head(),
            "extern \"C\" __global__ void __launch_bounds__(256) kevra_fft("
            "const iot* __restrict__ x, iot* __restrict__ out, I64 rows) {\n"
            "  extern __shared__ cplx shbuf[];\n");
}

TEST(RmsKernel, FloatTextMatchesTheGoldenFile) {
  EXPECT_EQ(RmsKernel{1}.source(hip), golden("rms_float.hip"));
}

TEST(RmsKernel, OtherPrecisionsDifferInTypesAndConversionsAlone) {
  const std::string single = RmsKernel{1}.source(hip);
  EXPECT_EQ(replaced(replaced(single, "float", "double"), "sqrtf(", "sqrt("),
            RmsKernel{2}.source(hip));

  const std::string root = "(float)(sqrtf(red[0] / (float)frame_length))";
  const std::string half =
      replaced(replaced(single, "float* __restrict__", "__half* __restrict__"),  //
               root, "__float2half_rn(" + root + ")");
  EXPECT_EQ(half, RmsKernel{0}.source(hip));

  for (int prec : {3, -1, 100}) EXPECT_EQ(RmsKernel{prec}.source(hip), single) << prec;
  for (int prec : {0, 1, 2}) EXPECT_EQ(RmsKernel{prec}.key(), "rms_" + std::to_string(prec));
  EXPECT_EQ(RmsKernel{0}.shared_bytes(), 1024u);
  EXPECT_EQ(RmsKernel{2}.shared_bytes(), 2048u);
}

}  // namespace
}  // namespace kevra::codegen
