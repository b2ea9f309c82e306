#include "codegen/kernels/rms.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"

namespace kevra::codegen {
namespace {

std::string rms_head(const Backend& backend, const std::string& storage) {
  return KernelSignature(RmsKernel::kName, backend)
      .add_const_pointer(storage, "x")
      .add_pointer(storage, "out")
      .add_scalar("I64", "length")
      .add_scalar("I64", "frames")
      .add_scalar("int", "frame_length")
      .add_scalar("int", "hop")
      .add_scalar("int", "pad")
      .set_shared("char", "smem")
      .head();
}

}  // namespace

std::string RmsKernel::source(const Backend& backend) const {
  const int compute = compute_precision(prec);
  const int storage = storage_precision(prec);
  const std::string a = backend.scalar_type(compute);
  const std::string a_pointer = backend.shared_pointer_type(a);
  const std::string block = std::to_string(kBlock);
  const std::string mean = "red[0] / (" + a + ")frame_length";
  const std::string root = compute == kDouble ? "sqrt(" + mean + ")" : backend.sqrt_call(mean);

  std::string text = format("typedef $ I64;\n", {backend.int64_type()});
  text += rms_head(backend, backend.scalar_type(storage));
  text += format("  $ red = ($)smem;\n", {a_pointer, a_pointer});
  text += format("  int tid = $;\n", {backend.thread_index()});
  text += format("  I64 row = (I64)$;\n", {backend.block_index_x()});
  text +=
      "  I64 batch = row / frames, frame = row - batch * frames;\n"
      "  I64 start = frame * hop - pad;\n";
  text += format("  $ sum = ($)0;\n", {a, a});

  // The modulo makes the reflection valid for a pad of any length.
  text += format("  for (int j = tid; j < frame_length; j += $) {\n", {block});
  text +=
      "    I64 q = start + j;\n"
      "    if (q < 0 || q >= length) {  // reflect, the edge sample not repeated\n"
      "      I64 period = 2 * (length - 1);\n"
      "      q %= period; if (q < 0) q += period;\n"
      "      if (q >= length) q = period - q;\n"
      "    }\n";
  text += format("    $ v = ($)x[batch * length + q];\n", {a, a});
  text +=
      "    sum += v * v;\n"
      "  }\n";

  text += format(
      "  red[tid] = sum;\n"
      "  $\n"
      "  for (int s = $; s > 0; s >>= 1) {  // halve the partial sums\n"
      "    if (tid < s) red[tid] += red[tid + s];\n"
      "    $\n"
      "  }\n"
      "  if (tid == 0)\n"
      "    out[row] = $;\n"
      "}\n",
      {backend.barrier_call(), std::to_string(kBlock / 2), backend.barrier_call(),
       backend.convert_scalar(storage, root)});
  return text;
}

}  // namespace kevra::codegen
