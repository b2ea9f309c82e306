#include "codegen/kernels/frame_load.h"

#include "codegen/format.h"
#include "codegen/precision.h"

namespace kevra::codegen {
namespace {

bool loads_float_pairs(const Backend& backend, const StftConfig& config) {
  return backend.has_vector_loads() && config.prec == kFloat && config.in_prec == kFloat &&
         config.hop % 2 == 0 && config.pad % 2 == 0;
}

void emit_float_pairs(KernelWriter& w, const StftConfig& config,
                      const std::vector<SamplePair>& pairs) {
  for (const SamplePair& p : pairs) {
    const std::string loaded = w.fresh("ld");
    w.stmt("float2 $ = *(const float2*)(yb + start + 2*($));", loaded, p.index);
    w.stmt("$ = $.x * $;", p.even, loaded, window_expr(w, config, "2*(" + p.index + ")"));
    w.stmt("$ = $.y * $;", p.odd, loaded, window_expr(w, config, "2*(" + p.index + ") + 1"));
  }
}

void emit_reflected_pairs(KernelWriter& w, const StftConfig& config,
                          const std::vector<SamplePair>& pairs) {
  for (const SamplePair& p : pairs) {
    w.stmt("$ = $;", p.even, windowed_sample(w, config, "frame", "2*(" + p.index + ")"));
    w.stmt("$ = $;", p.odd, windowed_sample(w, config, "frame", "2*(" + p.index + ") + 1"));
  }
}

// The points of a frame, each stored at the text that `place` gives for its number.
template <class Place>
void emit_frame_load(KernelWriter& w, const StftConfig& config, const std::string& buffer,
                     Place place) {
  w.for_loop("i", "tid", std::to_string(config.n_fft / 2), "TPF", [&](const std::string& i) {
    emit_sample_pairs(w, config, {{"v0", "v1", i}});
    w.stmt("$[SHP($)] = cmk(v0, v1);", buffer, place(i));
  });
}

}  // namespace

std::string window_expr(const KernelWriter& w, const StftConfig& config, const std::string& index) {
  if (config.win_kind == kNoWindow) return "(" + w.backend.scalar_type(config.prec) + ")1";
  return "win[" + index + "]";
}

std::string windowed_sample(const KernelWriter& w, const StftConfig& config,
                            const std::string& frame, const std::string& index) {
  const std::string cast =
      config.in_prec == config.prec ? "" : "(" + w.backend.scalar_type(config.prec) + ")";
  return format("$yb[refl($*$ + $)] * $",
                {cast, frame, std::to_string(config.hop), index, window_expr(w, config, index)});
}

void emit_sample_pairs(KernelWriter& w, const StftConfig& config,
                       const std::vector<SamplePair>& pairs) {
  const std::string type = w.backend.scalar_type(config.prec);
  for (const SamplePair& p : pairs) {
    w.stmt("$ $ = ($)0, $ = ($)0;", type, p.even, type, p.odd, type);
  }
  w.if_block("frame < NFRAMES", [&] {
    if (!loads_float_pairs(w.backend, config)) return emit_reflected_pairs(w, config, pairs);
    w.line(
        "  // two samples at once where the whole frame lies within the signal, at an even place");
    w.stmt("int start = frame*$ - $;", config.hop, config.pad);
    w.stmt("if ((SIG_LEN & 1)==0 && ((I64)yb & 7)==0 && start >= 0 && start + $ <= SIG_LEN) {",
           config.n_fft);
    emit_float_pairs(w, config, pairs);
    w.stmt("} else {");
    emit_reflected_pairs(w, config, pairs);
    w.stmt("}");
  });
}

void bitrev_frame_load(KernelWriter& w, const StftConfig& config) {
  emit_frame_load(w, config, "sh", [](const std::string& i) { return "brev(" + i + ")"; });
}

void packed_frame_load(KernelWriter& w, const StftConfig& config, const std::string& buffer) {
  emit_frame_load(w, config, buffer, [](const std::string& i) { return i; });
}

void frame_pair_load(KernelWriter& w, const StftConfig& config, const std::string& buffer) {
  const std::string type = w.backend.scalar_type(config.prec);
  w.for_loop("i", "tid", std::to_string(config.n_fft), "TPF", [&](const std::string& i) {
    w.stmt("$ vA = ($)0, vB = ($)0;", type, type, type);
    w.stmt("if (fA < NFRAMES) vA = $;", windowed_sample(w, config, "fA", i));
    w.stmt("if (fB < NFRAMES) vB = $;", windowed_sample(w, config, "fB", i));
    w.stmt("$[SHP($)] = cmk(vA, vB);", buffer, i);
  });
}

}  // namespace kevra::codegen
