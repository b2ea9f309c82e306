#include "codegen/kernels/frame_registers.h"

#include <string>
#include <vector>

#include "codegen/butterfly.h"
#include "codegen/format.h"
#include "codegen/kernels/frame_load.h"
#include "codegen/sizes.h"
#include "codegen/stages.h"

namespace kevra::codegen {
namespace {

using Names = std::vector<std::string>;

// Points tid, tid + stride, tid + 2 stride, ... of the frame.
Names emit_strided_points(KernelWriter& w, const StftConfig& config, int count, int stride) {
  std::vector<SamplePair> pairs;
  for (int q = 0; q < count; ++q) {
    const std::string number = std::to_string(q);
    w.stmt("int ie$ = tid + $;", q, q * stride);
    pairs.push_back({"a" + number, "b" + number, "ie" + number});
  }
  emit_sample_pairs(w, config, pairs);
  Names points;
  for (const SamplePair& p : pairs) points.push_back(w.complex_value(p.even, p.odd));
  return points;
}

// One radix-2 stage of decimation in frequency over the lanes: of two lanes `d` apart the lower
// keeps the sum, the upper the difference times a root of order `lanes`.
void emit_lane_stage(KernelWriter& w, Names& points, int d, int lanes) {
  const std::string lower = "(tid & " + std::to_string(d) + ") == 0";
  const std::string mask = std::to_string(d);
  std::string root;  // of the nearest neighbours it is 1
  if (d > 1) {
    root = w.twiddle(
        format("((tid & $) * $)", {std::to_string(d - 1), std::to_string(lanes / (2 * d))}), lanes,
        false, false);
  }
  for (std::string& point : points) {
    const std::string other = w.complex_value(w.backend.shuffle_xor(point + ".x", mask),
                                              w.backend.shuffle_xor(point + ".y", mask));
    const std::string difference = format("csub($, $)", {other, point});
    const std::string next = w.fresh("z");
    w.stmt("cplx $ = $ ? cadd($, $) : $;", next, lower, point, other,
           root.empty() ? difference : format("cmul($, $)", {difference, root}));
    point = next;
  }
}

}  // namespace

void emit_warp_transform(KernelWriter& w, const StftConfig& config) {
  const int half = config.n_fft / 2;
  const int lanes = w.backend.shuffle_width();
  const int per = half / lanes;

  Names points = emit_strided_points(w, config, per, lanes);
  w.line("  // a transform over the lane's own points, then one over the lanes");
  points = butterfly(w, points, per, false);
  TwiddlePowers powers(w, "tid", half, false);
  for (int q = 1; q < per; ++q) points[q] = w.cmul(points[q], powers.next());
  for (int d = lanes / 2; d > 0; d /= 2) emit_lane_stage(w, points, d, lanes);

  w.line("  // lane tid holds the bit-reversed output");
  w.stmt("$ lane = $ >> (32 - $);", w.backend.uint_type(),
         w.backend.bit_reverse("(" + w.backend.uint_type() + ")tid"), ceil_log2(lanes));
  for (int q = 0; q < per; ++q) w.stmt("sh[SHP($ + $*lane)] = $;", q, per, points[q]);
  w.barrier();
}

void emit_ept16_transform(KernelWriter& w, const StftConfig& config) {
  const int half = config.n_fft / 2;
  const std::vector<int> radices = factorize(half);
  const int first = radices.front();
  register_twiddle_table(w, config.prec, config.n_fft, "tw", {});

  w.line(format("  {  // EPT16 stage 0: fused load + radix-$", {std::to_string(first)}));
  const Names points = emit_strided_points(w, config, first, half / first);
  const Names y = butterfly(w, points, first, false);
  for (int q = 0; q < first; ++q) w.stmt("sh[SHP(tid*$ + $)] = $;", first, q, y[q]);
  w.stmt("}");
  w.barrier();

  int done = first;
  for (size_t i = 1; i < radices.size(); ++i) {
    const int r = radices[i];
    emit_stage(w, {"sh", half, r, done, config.tpf, false},
               format("EPT16 stage $: radix-$ (Ls=$)",
                      {std::to_string(i), std::to_string(r), std::to_string(done)}));
    done *= r;
  }
}

}  // namespace kevra::codegen
