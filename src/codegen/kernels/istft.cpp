#include "codegen/kernels/istft.h"

#include <vector>

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/half_spectrum.h"
#include "codegen/kernels/overlap.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"
#include "codegen/sizes.h"
#include "codegen/stages.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {
namespace {

std::string scalar_cast(const KernelWriter& w) {
  return "(" + w.backend.scalar_type(w.prec) + ")";
}

// A loop of the block's threads over `count` elements.
template <class Body>
void each_element(KernelWriter& w, const char* var, int count, Body body) {
  w.for_loop(var, "tid", std::to_string(count), "TPF", [&](const std::string&) { body(); });
}

// Puts `value` into a frame's slot, or adds it to the row that frames share.
void emit_overlap(KernelWriter& w, const IstftKernel& k, const std::string& index,
                  const std::string& value) {
  const std::string target = "yraw[" + index + "]";
  if (k.slots) {
    w.stmt("$ = $;", target, value);
  } else {
    w.stmt("$", w.backend.atomic_add(target, value));
  }
}

// Where the first sample of `frame` stands in yraw.
std::string frame_base(const IstftKernel& k, const std::string& frame) {
  if (k.slots) return format("((I64)batch*NF + $) * $", {frame, std::to_string(k.n_fft)});
  return format("(I64)batch*out_len + (I64)$*HOP", {frame});
}

// The transform is a forward one of the conjugate, so that the stages of both directions are the
// same; the other conjugate stands where a value is stored.
void emit_transform(KernelWriter& w, const IstftKernel& k, const std::vector<int>& radices) {
  w.barrier();
  emit_fft_stages(w, "bufA", k.length(), radices, k.tpf, false);
}

// Even n_fft: sample 2m is the real part, sample 2m + 1 the imaginary part of value m.
void emit_folded_frame(KernelWriter& w, const IstftKernel& k, const std::vector<int>& radices) {
  const int h = k.length();
  const std::string scale = scalar_cast(w) + number_literal(1.0 / h);
  map_frame_per_block(w);
  w.stmt("TG cplx* bufA = sh_all;");
  w.stmt("const DEV icplx* Zb = Z + (I64)batch*sb + (I64)frame*st;");
  each_element(w, "k", h, [&] {
    emit_packed_bin(w, k.n_fft, k.storage, "Zb[(I64)k*sk]",
                    format("Zb[(I64)($ - k)*sk]", {std::to_string(h)}));
    w.stmt("bufA[SHP(k)] = cmk(er - ti, -(ei + tr));");
  });
  emit_transform(w, k, radices);
  w.stmt("I64 ob = $;", frame_base(k, "frame"));
  each_element(w, "k", h, [&] {
    w.stmt("cplx ck = bufA[SHP(k)];");
    w.stmt("$ re = ck.x*($), im = -ck.y*($);", w.backend.scalar_type(w.prec), scale, scale);
    emit_overlap(w, k, "ob + 2*k", "re * win[2*k]");
    emit_overlap(w, k, "ob + 2*k+1", "im * win[2*k+1]");
  });
}

// The spectrum of A + iB, of two frames' spectra that are known up to the middle.
void emit_pair_load(KernelWriter& w, const IstftKernel& k) {
  const std::string t = w.backend.scalar_type(w.prec);
  const std::string cast = scalar_cast(w);
  const std::string zero = cast + "0";
  each_element(w, "i", k.n_fft, [&] {
    w.stmt("I64 zi = (i < NB) ? (I64)i*sk : (I64)($ - i)*sk;", k.n_fft);
    w.stmt("icplx Ai = ZA[zi];");
    w.stmt("icplx Bi = ZB[zi];");
    w.stmt("$ sgn = (i < NB) ? $1 : $-1;", t, cast, cast);
    w.stmt("$ ar=$Ai.x, ai=(i==0)?$:sgn*$Ai.y;", t, cast, zero, cast);
    w.stmt("$ br=hasB?$Bi.x:$, bi=hasB?((i==0)?$:sgn*$Bi.y):$;", t, cast, zero, zero, cast, zero);
    w.stmt("bufA[SHP(i)] = cmk(ar - bi, -(ai + br));");
  });
}

// Odd n_fft: frame A is the real part of the transform, frame B the imaginary part.
void emit_frame_pair(KernelWriter& w, const IstftKernel& k, const std::vector<int>& radices) {
  const std::string scale = scalar_cast(w) + number_literal(1.0 / k.n_fft);
  w.stmt("int tid = $;", w.backend.thread_index());
  w.stmt("int fpair = $;", w.backend.block_index_x());
  w.stmt("int fA = 2*fpair, fB = 2*fpair + 1;");
  w.stmt("int batch = $;", w.backend.block_index_y());
  w.stmt("if (fA >= NF) return;");
  w.stmt("int hasB = (fB < NF);");
  w.stmt("TG cplx* bufA = sh_all;");
  w.stmt("const DEV icplx* ZA = Z + (I64)batch*sb + (I64)fA*st;");
  w.stmt("const DEV icplx* ZB = hasB ? Z + (I64)batch*sb + (I64)fB*st : ZA;");
  emit_pair_load(w, k);
  emit_transform(w, k, radices);
  w.stmt("I64 obA = $;", frame_base(k, "fA"));
  w.stmt("I64 obB = $;", frame_base(k, "fB"));
  each_element(w, "i", k.n_fft, [&] {
    w.stmt("cplx ck = bufA[SHP(i)];");
    w.stmt("$ ga = ck.x*($), gb = -ck.y*($);", w.backend.scalar_type(w.prec), scale, scale);
    w.stmt("$ wk = win[i];", w.backend.scalar_type(w.prec));
    emit_overlap(w, k, "obA + i", "ga * wk");
    w.stmt("if (hasB)");
    emit_overlap(w, k, "obB + i", "gb * wk");
  });
}

// Prelude of the kernels that read a spectrogram.
std::string spectrogram_prelude(int compute, int storage, const Backend& backend) {
  return backend.source_preamble(storage == kHalf ? kHalf : compute) +
         complex_prelude(backend, compute) +
         format("typedef $ icplx;\n", {backend.vector2_type(storage)});
}

}  // namespace

std::string IstftKernel::normalize_key() const {
  return format("raw_istft_$_$_$_$_$",
                {std::to_string(n_fft), std::to_string(hop), std::to_string(compute),
                 std::to_string(storage), slots ? "slots" : "sums"});
}
std::string IstftKernel::frames_key() const {
  return normalize_key() + "_" + std::to_string(tpf);
}

size_t IstftKernel::shared_bytes() const {
  return fft_shared_bytes(length(), compute);
}

std::string istft_frames_source(const IstftKernel& kernel, const Backend& backend) {
  const std::vector<int> radices = factorize(kernel.length());
  KernelWriter w(kernel.compute, backend);
  register_twiddle_table(w, kernel.compute, kernel.table_size(), "twg", radices);
  if (kernel.pairs()) {
    emit_frame_pair(w, kernel, radices);
  } else {
    emit_folded_frame(w, kernel, radices);
  }
  const std::string scalar = backend.scalar_type(kernel.compute);
  return spectrogram_prelude(kernel.compute, kernel.storage, backend) +
         format("#define NB $\n#define TPF $\n#define HOP $\n",
                {std::to_string(kernel.bins()), std::to_string(kernel.tpf),
                 std::to_string(kernel.hop)}) +
         shp_define(false) +
         KernelSignature(IstftKernel::kFramesName, backend)
             .add_const_pointer("icplx", "Z")
             .add_pointer(scalar, "yraw")
             .add_const_pointer(scalar, "win")
             .add_const_pointer("cplx", "twg")
             .add_scalar("int", "NF")
             .add_scalar("I64", "out_len")
             .add_scalar("I64", "sb")
             .add_scalar("I64", "sk")
             .add_scalar("I64", "st")
             .set_launch_bounds(kernel.tpf, 0)
             .set_shared("cplx", "sh_all")
             .head() +
         w.str() + "}\n";
}

std::string istft_normalize_source(const IstftKernel& kernel, const Backend& backend) {
  const std::string t = backend.scalar_type(kernel.compute);
  KernelWriter w(kernel.compute, backend);
  w.stmt("I64 i = (I64)$ * $ + $;", backend.block_index_x(), backend.block_size(),
         backend.thread_index());
  w.stmt("int batch = $;", backend.block_index_y());
  w.stmt("if (i >= L) return;");
  w.stmt("I64 p = (I64)pad + i;");
  emit_covering_frames(w, "p", kernel.n_fft, kernel.hop);
  w.stmt("$ env=($)0;", t, t);
  if (kernel.slots) w.stmt("$ acc=($)0;", t, t);
  w.stmt("for (int t=t0; t<=t1; ++t) {");
  w.stmt("  int j = (int)(p - (I64)t*$);", kernel.hop);
  w.stmt("  $ w = win[j]; env += w*w;", t);
  if (kernel.slots) w.stmt("  acc += yraw[((I64)batch*NF + t)*$ + j];", kernel.n_fft);
  w.stmt("}");
  if (!kernel.slots) w.stmt("$ acc = yraw[(I64)batch*out_len + p];", t);
  w.line("  // where hardly a window reaches there is no signal to tell of");
  w.stmt(
      "y[(I64)batch*L + i] = $;",
      backend.convert_scalar(kernel.storage, format("(env > ($)1e-8) ? acc/env : ($)0", {t, t})));
  return backend.source_preamble(kernel.storage == kHalf ? kHalf : kernel.compute) +
         i64_prelude(backend) +
         KernelSignature(IstftKernel::kNormalizeName, backend)
             .add_const_pointer(t, "yraw")
             .add_pointer(backend.scalar_type(kernel.storage), "y")
             .add_const_pointer(t, "win")
             .add_scalar("I64", "L")
             .add_scalar("int", "pad")
             .add_scalar("int", "NF")
             .add_scalar("I64", "out_len")
             .set_launch_bounds(IstftKernel::kNormalizeBlock, 0)
             .head() +
         w.str() + "}\n";
}

std::string IstftGather::key() const {
  return format("cistft_$_$_$_$", {packs() ? "zpack" : "zgather", std::to_string(n_fft),
                                   std::to_string(compute), std::to_string(storage)});
}

std::string IstftGather::source(const Backend& backend) const {
  KernelWriter w(compute, backend);
  flat_row_index(w, "k", std::to_string(count()));
  w.stmt("row += row0;");
  split_row(w, "bb", "tt");
  w.stmt("const DEV icplx* xb = Z + bb * sb + tt * st;");
  w.stmt("DEV cplx* zb = z + row * $;", count());
  if (packs()) {
    register_twiddle_table(w, compute, n_fft, "tw", {});
    emit_packed_bin(w, n_fft, storage, "xb[k * sk]",
                    format("xb[($ - k) * sk]", {std::to_string(n_fft / 2)}));
    w.stmt("zb[k] = cmk(er - ti, ei + tr);");
  } else {
    load_bin(w, storage, "xk", "xb[k * sk]");
    w.stmt("if (k == 0) xk.y = 0;");
    w.stmt("zb[k] = xk;");
  }
  KernelSignature signature(name(), backend);
  signature.add_const_pointer("icplx", "Z").add_pointer("cplx", "z");
  if (packs()) signature.add_const_pointer("cplx", "tw");
  signature.add_scalar("int", "NF")
      .add_scalar("I64", "sb")
      .add_scalar("I64", "sk")
      .add_scalar("I64", "st")
      .add_scalar("I64", "row0")
      .set_launch_bounds(kBlock, 0);
  return spectrogram_prelude(compute, storage, backend) + signature.head() + w.str() + "}\n";
}

std::string FrameWindow::key() const {
  return format("cistft_wscale_$_$", {std::to_string(n_fft), std::to_string(compute)});
}

std::string FrameWindow::source(const Backend& backend) const {
  const std::string t = backend.scalar_type(compute);
  KernelWriter w(compute, backend);
  w.stmt("int tid = $;", backend.thread_index());
  w.stmt("int t = $;", backend.block_index_x());
  w.stmt("I64 bb = $;", backend.block_index_y());
  w.stmt("DEV $* fb = frames + (bb * NF + t) * $;", t, n_fft);
  w.for_loop("i", "tid", std::to_string(n_fft), std::to_string(kBlock),
             [&](const std::string& i) { w.stmt("fb[$] = fb[$] * win[$];", i, i, i); });
  return i64_prelude(backend) +
         KernelSignature(kName, backend)
             .add_pointer(t, "frames")
             .add_const_pointer(t, "win")
             .add_scalar("int", "NF")
             .set_launch_bounds(kBlock, 0)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
