#include "codegen/kernels/frame_transform.h"

#include <stdexcept>

#include "codegen/format.h"
#include "codegen/kernels/frame_load.h"
#include "codegen/kernels/frame_registers.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"
#include "codegen/sizes.h"
#include "codegen/stages.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {
namespace {

bool is_mixed(const StftConfig& s) {
  return s.core == StftCore::kMixed;
}

// Whether the kernel's roots are the two halves of a power-of-two table: those of the transform,
// then those of the split.
bool reads_halved_table(const StftConfig& s) {
  return s.wide && (s.core == StftCore::kCooleyTukey || s.core == StftCore::kWarp);
}

std::string define(const char* name, const std::string& value) {
  return format("#define $ $\n", {name, value});
}
std::string define(const char* name, int value) {
  return define(name, std::to_string(value));
}

void emit_mixed_transform(KernelWriter& w, const StftConfig& config) {
  const int points = config.pair ? config.n_fft : config.n_fft / 2;
  const std::vector<int> radices = factorize(points);
  register_twiddle_table(w, config.prec, config.pair ? 2 * config.n_fft : config.n_fft, "tw",
                         radices);
  if (config.pair) {
    frame_pair_load(w, config, "bufA");
  } else {
    packed_frame_load(w, config, "bufA");
  }
  w.barrier();
  emit_fft_stages(w, "bufA", points, radices, config.tpf, false);
}

// zkr, zki and znr, zni: point k of `size` and its mirror.
void emit_mirror_points(KernelWriter& w, const StftConfig& config, const std::string& k, int size) {
  const std::string buffer = frame_buffer(config);
  w.stmt("cplx Zk = $[SHP($)];", buffer, k);
  w.stmt("cplx Znk = ($ == 0) ? $[0] : $[SHP($ - $)];", k, buffer, buffer, size, k);
  w.stmt("$ zkr=Zk.x, zki=Zk.y, znr=Znk.x, zni=Znk.y;", w.backend.scalar_type(config.prec));
}

// wr, wi: exp(-2 pi i k / n_fft).
void emit_split_root(KernelWriter& w, const StftConfig& config, const std::string& k) {
  const std::string root =
      reads_halved_table(config) ? format("twr[$]", {k}) : w.twiddle(k, config.n_fft, false, false);
  w.stmt("$ wr = $.x, wi = $.y;", w.backend.scalar_type(config.prec), root, root);
}

}  // namespace

std::string frame_key(const char* prefix, const StftConfig& s) {
  std::string text = prefix;
  for (int field :
       {s.n_fft, s.hop, s.prec, s.in_prec, s.out_prec, s.form, s.win_kind, s.pad, s.fpb, s.ept,
        s.tpf, static_cast<int>(s.core), s.shp_shift, int{s.padded}, int{s.tw_global}}) {
    text += "_" + std::to_string(field);
  }
  return text;
}

int frame_block(const StftConfig& config) {
  return config.tpf * config.fpb;
}

unsigned frame_blocks(const StftConfig& config, int frames) {
  const int per_block = config.pair ? 2 : config.fpb;
  return static_cast<unsigned>((static_cast<int64_t>(frames) + per_block - 1) / per_block);
}

std::string frame_title(const StftConfig& s) {
  const char* core = s.core == StftCore::kCooleyTukey ? "ct" : core_name(s.core);
  return format("// kevra rfft<$, EPT<$>, TPF<$>, FPB<$>> core=$\n",
                {std::to_string(s.n_fft), std::to_string(s.ept), std::to_string(s.tpf),
                 std::to_string(s.fpb), core});
}

std::string frame_prelude(const Backend& backend, const StftConfig& config) {
  if (!is_mixed(config)) return schedule_prelude(backend, config);
  const bool half = config.in_prec == kHalf || config.out_prec == kHalf;
  return backend.source_preamble(half ? kHalf : config.prec) +
         complex_prelude(backend, config.prec) + reflect_prelude(config.pad);
}

std::string frame_defines(const StftConfig& config) {
  const int half = config.n_fft / 2;
  const std::string text = define("NB", half + 1) + define("TPF", config.tpf);
  if (is_mixed(config)) return text + define("NF", "NFRAMES") + shp_define(config.padded);
  return text + define("F", config.fpb) +
         define("TWN", reads_halved_table(config) && !config.tw_global ? half + half / 2 : 0) +
         shp_define_spaced(config.shp_shift);
}

void emit_frame_map(KernelWriter& w, const StftConfig& config) {
  if (config.pair) {
    w.stmt("int tid = $;", w.backend.thread_index());
    w.stmt("int fpair = $;", w.backend.block_index_x());
    w.stmt("int fA = 2*fpair, fB = 2*fpair + 1;");
    w.stmt("int batch = $;", w.backend.block_index_y());
  } else if (is_mixed(config)) {
    map_frame_per_block(w);
  } else {
    map_frames_per_block(w);
  }
  if (is_mixed(config)) {
    w.stmt("TG cplx* bufA = sh_all;");
  } else {
    w.stmt("TG cplx* sh = sh_all + TWN + (long)f_local * $;",
           static_cast<int>(padded_bins(config)));
  }
  w.stmt("const DEV $* yb = y + (I64)batch * SIG_LEN;", w.backend.scalar_type(config.in_prec));
}

std::string frame_buffer(const StftConfig& config) {
  return is_mixed(config) ? "bufA" : "sh";
}

void emit_frame_transform(KernelWriter& w, const StftConfig& config) {
  switch (config.core) {
    case StftCore::kCooleyTukey:
      load_twiddles(w, config);
      bitrev_frame_load(w, config);
      w.barrier();
      return emit_ct_passes(w, config);
    case StftCore::kWarp:
      load_twiddles(w, config);
      return emit_warp_transform(w, config);
    case StftCore::kMixed:
      return emit_mixed_transform(w, config);
    case StftCore::kEpt16:
      return emit_ept16_transform(w, config);
    case StftCore::kFourStep:
      break;
  }
  throw std::logic_error(format("stft: FourStep core must route to the staged path (n1=$ n2=$)",
                                {std::to_string(config.n1), std::to_string(config.n2)}));
}

void emit_bins(KernelWriter& w, const StftConfig& config, const BinSink& sink) {
  const int half = config.n_fft / 2;
  const std::string type = w.backend.scalar_type(config.prec);
  const std::string buffer = frame_buffer(config);
  if (reads_halved_table(config)) w.stmt("const cplx* twr = twsh + $;", half / 2);
  w.for_loop("k", "tid", std::to_string(half), "TPF", [&](const std::string& k) {
    emit_mirror_points(w, config, k, half);
    w.stmt("$ xer = ($)0.5*(zkr + znr), xei = ($)0.5*(zki - zni);", type, type, type);
    w.stmt("$ dr = zkr - znr, di = zki + zni;", type);
    w.stmt("$ xo_r = ($)0.5*di, xo_i = ($)(-0.5)*dr;", type, type, type);
    emit_split_root(w, config, k);
    sink(k, "(" + type + ")(xer + wr*xo_r - wi*xo_i)", "(" + type + ")(xei + wr*xo_i + wi*xo_r)");
  });
  w.if_block("tid == 0", [&] {
    sink(std::to_string(half), format("($)($[0].x - $[0].y)", {type, buffer, buffer}),
         "(" + type + ")0");
  });
}

void emit_pair_bins(KernelWriter& w, const StftConfig& config, const BinSink& sink_a,
                    const BinSink& sink_b) {
  const std::string type = w.backend.scalar_type(config.prec);
  w.for_loop("k", "tid", "NB", "TPF", [&](const std::string& k) {
    emit_mirror_points(w, config, k, config.n_fft);
    w.stmt("$ axr=($)0.5*(zkr+znr), axi=($)0.5*(zki-zni);", type, type, type);
    w.stmt("$ bxr=($)0.5*(zki+zni), bxi=($)0.5*(znr-zkr);", type, type, type);
    w.if_block("fA < NFRAMES", [&] { sink_a(k, "axr", "axi"); });
    w.if_block("fB < NFRAMES", [&] { sink_b(k, "bxr", "bxi"); });
  });
}

}  // namespace kevra::codegen
