#include "codegen/kernels/rms_adjoint.h"

#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/prelude.h"

namespace kevra::codegen {
namespace {

// sum: over the frames that read the padded position pos, their gradients over their levels.
void emit_frames_at(KernelWriter& w, const std::string& t) {
  w.stmt("I64 t0 = pos >= frame_length ? (pos - frame_length) / hop + 1 : 0;");
  w.stmt("I64 t1 = pos / hop; if (t1 >= frames) t1 = frames - 1;");
  w.stmt("for (I64 t = t0; t <= t1; ++t) {");
  w.stmt("  $ level = rms[batch * frames + t];", t);
  w.stmt("  if (level > 0) sum += gy[batch * frames + t] / (($)frame_length * level);", t);
  w.stmt("}");
}

}  // namespace

std::string RmsAdjointKernel::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string t = backend.scalar_type(prec);
  w.stmt("I64 n = (I64)$ * $ + $;", backend.block_index_x(), kBlock, backend.thread_index());
  w.stmt("I64 batch = (I64)$;", backend.block_index_y());
  w.stmt("if (n >= length) return;");
  w.stmt("$ sum = ($)0;", t, t);
  w.line("  // The sample stands at its own place and, mirrored, at minus that, both again every");
  w.line(
      "  // period; at the two ends, where the mirrors stand, these are the same places. A lone");
  w.line("  // sample has no mirror, and every frame lies within it.");
  w.stmt("I64 end = (frames - 1) * hop + frame_length;");
  w.stmt("I64 period = length > 1 ? 2 * (length - 1) : end;");
  w.stmt("int sides = n == 0 || n == length - 1 ? 1 : 2;");
  w.stmt("for (int side = 0; side < sides; ++side) {");
  w.stmt("I64 first = ((side == 0 ? n : -n) + pad) % period;");
  w.stmt("if (first < 0) first += period;");
  w.stmt("for (I64 pos = first; pos < end; pos += period) {");
  emit_frames_at(w, t);
  w.stmt("}");
  w.stmt("}");
  w.stmt("gx[batch * length + n] = sum * x[batch * length + n];");
  return i64_prelude(backend) +
         KernelSignature(kName, backend)
             .add_const_pointer(t, "x")
             .add_const_pointer(t, "rms")
             .add_const_pointer(t, "gy")
             .add_pointer(t, "gx")
             .add_scalar("I64", "length")
             .add_scalar("I64", "frames")
             .add_scalar("int", "frame_length")
             .add_scalar("int", "hop")
             .add_scalar("int", "pad")
             .set_launch_bounds(kBlock, -1)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
