#include "codegen/kernels/rfft_parts.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {

std::string real_prelude(const RealRows& rows, const Backend& backend) {
  return backend.source_preamble(rows.storage == kHalf ? kHalf : rows.compute) +
         complex_prelude(backend, rows.compute) +
         storage_typedef(backend, rows.compute, rows.storage);
}

std::string real_head(const RealRows& rows, const std::string& defines, int block,
                      const std::string& shared_type, const Backend& backend) {
  std::string text = real_prelude(rows, backend) + defines;
  KernelSignature signature(rows.kernel_name(), backend);
  const std::string sample = backend.scalar_type(rows.storage);
  if (rows.inverse) {
    text += format("#define INVSC (($)(1.0 / $))\n",
                   {backend.scalar_type(rows.compute), std::to_string(rows.length())});
    signature.add_const_pointer("iot", "X").add_pointer(sample, "out");
  } else {
    signature.add_const_pointer(sample, "x").add_pointer("iot", "out");
  }
  return text + signature.add_const_pointer("cplx", "tw")
                    .add_scalar("int", "nrows")
                    .set_launch_bounds(block, 0)
                    .set_shared(shared_type, "shbuf")
                    .head();
}

void name_real_rows(KernelWriter& w, const RealRows& rows) {
  const std::string type = rows.inverse ? "iot" : w.backend.scalar_type(rows.storage);
  const char* from = rows.inverse ? "X" : "x";
  const int pitch = rows.inverse ? rows.bins() : rows.n;
  if (rows.paired()) {
    row_pair(w);
    w.stmt("const DEV $* $a = $ + r0c * $;", type, from, from, pitch);
    w.stmt("const DEV $* $c = $ + r1c * $;", type, from, from, pitch);
  } else {
    w.stmt("I64 brow = batch < nrows - 1 ? batch : nrows - 1;");
    w.stmt("const DEV $* $b = $ + brow * $;", type, from, from, pitch);
  }
}

const char* has_rows(const RealRows& rows) {
  return rows.paired() ? "row0 < nrows" : "batch < nrows";
}

std::string loaded_samples(const RealRows& rows, const std::string& j, const Backend& backend) {
  // Samples go one by one: a row of reals need not begin where a wider access may.
  const std::string t = backend.scalar_type(rows.compute);
  return rows.paired() ? format("cmk(($)xa[$], ($)xc[$])", {t, j, t, j})
                       : format("cmk(($)xb[2 * $], ($)xb[2 * $ + 1])", {t, j, t, j});
}

namespace {

// conj(A + i B) from the half spectra A and B; the imaginary parts of bins 0 count for nothing.
void load_pair_bins(KernelWriter& w, const RealRows& rows, const std::string& j,
                    const std::string& target) {
  const std::string t = w.backend.scalar_type(rows.compute);
  w.stmt("if ($ <= $) {", j, rows.n / 2);
  w.stmt("iot ta = Xa[$]; iot tb = Xc[$];", j, j);
  w.stmt("$ ay = $ == 0 ? ($)0 : ($)ta.y, by = $ == 0 ? ($)0 : ($)tb.y;", t, j, t, t, j, t, t);
  w.stmt("$ = cmk(($)ta.x - by, -(ay + ($)tb.x));", target, t, t);
  w.stmt("} else {");
  w.stmt("iot ta = Xa[$ - $]; iot tb = Xc[$ - $];", rows.n, j, rows.n, j);
  w.stmt("$ = cmk(($)ta.x + ($)tb.y, ($)ta.y - ($)tb.x);", target, t, t, t, t);
  w.stmt("}");
}

// Spectra of the even and of the odd samples, joined and conjugated; the imaginary parts of bins 0
// and n / 2 count for nothing.
void load_half_bins(KernelWriter& w, const RealRows& rows, const std::string& j,
                    const std::string& root, const std::string& target) {
  const std::string t = w.backend.scalar_type(rows.compute);
  w.stmt("iot Xks = Xb[$]; cplx Xk = cmk(($)Xks.x, ($)Xks.y);", j, t, t);
  w.stmt("iot Xms = Xb[$ - $]; cplx Xmk = cmk(($)Xms.x, ($)Xms.y);", rows.length(), j, t, t);
  w.stmt("if ($ == 0) { Xk.y = ($)0; Xmk.y = ($)0; }", j, t, t);
  w.stmt("$ er = ($)0.5 * (Xk.x + Xmk.x), ei = ($)0.5 * (Xk.y - Xmk.y);", t, t, t);
  w.stmt("$ dr = ($)0.5 * (Xk.x - Xmk.x), di = ($)0.5 * (Xk.y + Xmk.y);", t, t, t);
  w.stmt("$ twr = $.x, twi = $.y;", t, root, root);
  w.stmt("$ tr = -(twr * di + twi * dr), ti = twr * dr - twi * di;", t);
  w.stmt("$ = cmk(er + tr, -(ei + ti));", target);
}

}  // namespace

void load_bins(KernelWriter& w, const RealRows& rows, const std::string& j, const std::string& root,
               const std::string& target) {
  rows.paired() ? load_pair_bins(w, rows, j, target) : load_half_bins(w, rows, j, root, target);
}

void split_pair(KernelWriter& w, const RealRows& rows, const std::string& buffer,
                const std::string& k) {
  const std::string t = w.backend.scalar_type(rows.compute);
  w.stmt("cplx Zk = $[SHP($)];", buffer, k);
  w.stmt("cplx Znk = ($ == 0) ? $[0] : $[SHP($ - $)];", k, buffer, buffer, rows.n, k);
  w.stmt("$ ar = ($)0.5 * (Zk.x + Znk.x), ai = ($)0.5 * (Zk.y - Znk.y);", t, t, t);
  w.stmt("$ br = ($)0.5 * (Zk.y + Znk.y), bi = ($)(-0.5) * (Zk.x - Znk.x);", t, t, t);
}

void split_half(KernelWriter& w, const RealRows& rows, const std::string& buffer,
                const std::string& k, const std::string& mirror, const std::string& root) {
  const std::string t = w.backend.scalar_type(rows.compute);
  w.stmt("cplx Zk = $[SHP($)];", buffer, k);
  w.stmt("cplx Znk = $;", mirror);
  w.stmt("$ xer = ($)0.5 * (Zk.x + Znk.x), xei = ($)0.5 * (Zk.y - Znk.y);", t, t, t);
  w.stmt("$ dr = Zk.x - Znk.x, di = Zk.y + Znk.y;", t);
  w.stmt("$ xor_ = ($)0.5 * di, xoi = ($)(-0.5) * dr;", t, t, t);
  w.stmt("$ wr = $.x, wi = $.y;", t, root, root);
  w.stmt("$ tr = wr * xor_ - wi * xoi, ti = wr * xoi + wi * xor_;", t);
}

void store_bin(KernelWriter& w, const RealRows& rows, const char* row, const std::string& k,
               const std::string& re, const std::string& im) {
  w.stmt("out[$ * $ + $] = $;", row, rows.bins(), k, w.backend.make_vector2(rows.storage, re, im));
}

void store_pair_bins(KernelWriter& w, const RealRows& rows, const std::string& k) {
  store_bin(w, rows, "row0", k, "ar", "ai");
  w.if_block("row1 < nrows", [&] { store_bin(w, rows, "row1", k, "br", "bi"); });
}

void store_samples(KernelWriter& w, const RealRows& rows, const std::string& j,
                   const std::string& value) {
  const std::string re = w.backend.convert_scalar(rows.storage, value + ".x * INVSC");
  const std::string im = w.backend.convert_scalar(rows.storage, "-" + value + ".y * INVSC");
  if (rows.paired()) {
    w.stmt("out[row0 * $ + $] = $;", rows.n, j, re);
    w.stmt("if (row1 < nrows) out[row1 * $ + $] = $;", rows.n, j, im);
  } else {
    w.stmt("out[batch * $ + 2 * $] = $;", rows.n, j, re);
    w.stmt("out[batch * $ + 2 * $ + 1] = $;", rows.n, j, im);
  }
}

}  // namespace kevra::codegen
