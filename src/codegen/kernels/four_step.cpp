#include "codegen/kernels/four_step.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/half_spectrum.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"
#include "codegen/stages.h"

namespace kevra::codegen {
namespace {

std::string complex_type(int compute, int storage, const Backend& backend) {
  return storage == compute ? "cplx" : backend.vector2_type(storage);
}

std::string prelude(int compute, bool halves, const Backend& backend) {
  return backend.source_preamble(halves ? kHalf : compute) + complex_prelude(backend, compute);
}

// A loop of the block's threads.
template <class Body>
void each(KernelWriter& w, int count, Body body) {
  w.for_loop("i", "tid", std::to_string(count), "TPF", body);
}

void name_block(KernelWriter& w, const char* first_column, int tile) {
  w.stmt("int tid = $;", w.backend.thread_index());
  w.stmt("int $ = $ * $;", first_column, w.backend.block_index_x(), tile);
  w.stmt("I64 row = $;", w.backend.block_index_y());
  w.stmt("TG cplx* scb = shbuf;");
}

// Two neighbouring complex floats as one 16-byte access.
bool moves_pairs(const ColumnPass& p, int storage, const Backend& backend) {
  return backend.has_vector_loads() && p.compute == kFloat && storage == kFloat;
}

// From a matrix of columns(): `tile` neighbours of each of its lines.
void load_columns(KernelWriter& w, const ColumnPass& p) {
  const char* sign = p.first && p.inverse ? "-" : "";
  const int c = p.tile;
  const int s = p.columns();
  if (moves_pairs(p, p.storage_in, w.backend) && c % 2 == 0 && s % 2 == 0) {
    const int h = c / 2;
    each(w, p.length() * h, [&](const std::string& i) {
      w.stmt("float4 q = ((const float4*)(xb + (I64)($ / $) * $ + t0))[$ % $];", i, h, s, i, h);
      w.stmt("int sb = ($ / $) * $ + 2 * ($ % $);", i, h, c, i, h);
      w.stmt("scb[RSP(sb)] = cmk(q.x, $q.y); scb[RSP(sb + 1)] = cmk(q.z, $q.w);", sign, sign);
    });
    return;
  }
  const std::string cast = "(" + w.backend.scalar_type(p.compute) + ")";
  each(w, p.length() * c, [&](const std::string& i) {
    w.stmt("$ g = xb[(I64)($ / $) * $ + t0 + ($ % $)];",
           complex_type(p.compute, p.storage_in, w.backend), i, c, s, i, c);
    w.stmt("scb[RSP($)] = cmk($g.x, $$g.y);", i, cast, sign, cast);
  });
}

// Each column is a line.
void load_lines(KernelWriter& w, const ColumnPass& p) {
  const bool conjugate = p.first && p.inverse;
  each(w, p.length() * p.tile, [&](const std::string& i) {
    w.stmt("int e = $ % $; int t = $ / $;", i, p.length(), i, p.length());
    w.stmt("cplx g = xb[(I64)(t0 + t) * $ + e];", p.length());
    w.stmt("scb[RSP(e * $ + t)] = $;", p.tile, conjugate ? w.complex_value("g.x", "-g.y") : "g");
  });
}

// Element `index` of tile column `column`, as it leaves the pass: twiddled by the first, scaled by
// the second of an inverse.
std::string leaving(KernelWriter& w, const ColumnPass& p, const std::string& index,
                    const std::string& column) {
  const std::string v = w.fresh("e");
  w.stmt("cplx $ = scb[RSP(($) * $ + $)];", v, index, p.tile, column);
  if (p.first) {
    // Below n, so that it fits an int, and its angle stays within one turn.
    const std::string power = format("((t0 + $) * ($))", {column, index});
    return w.cmul(v, w.twiddle(power, p.n(), false, false));
  }
  return p.inverse ? w.complex_value(v + ".x * INVSC", "-" + v + ".y * INVSC") : v;
}

void store_pair(KernelWriter& w, const std::string& line, const std::string& a,
                const std::string& b, const std::string& place) {
  w.stmt("((float4*)($))[$] = make_float4($.x, $.y, $.x, $.y);", line, place, a, a, b, b);
}

// Each column as a line of its own.
void store_lines(KernelWriter& w, const ColumnPass& p) {
  const int l = p.length();
  const std::string line = format("ob + (I64)(t0 + t) * $", {std::to_string(l)});
  if (moves_pairs(p, p.storage_out, w.backend) && l % 2 == 0) {
    each(w, l / 2 * p.tile, [&](const std::string& i) {
      w.stmt("int k2 = 2 * ($ % $); int t = $ / $;", i, l / 2, i, l / 2);
      const std::string a = leaving(w, p, "k2", "t");
      store_pair(w, line, a, leaving(w, p, "k2 + 1", "t"), "k2 / 2");
    });
    return;
  }
  each(w, l * p.tile, [&](const std::string& i) {
    w.stmt("int k2 = $ % $; int t = $ / $;", i, l, i, l);
    const std::string v = leaving(w, p, "k2", "t");
    w.stmt("($)[k2] = $;", line, v);
  });
}

// Each column at its place in the matrix.
void store_columns(KernelWriter& w, const ColumnPass& p) {
  const int c = p.tile;
  const std::string line = format("ob + (I64)k1 * $ + t0", {std::to_string(p.columns())});
  if (moves_pairs(p, p.storage_out, w.backend) && c % 2 == 0 && p.columns() % 2 == 0) {
    each(w, p.length() * (c / 2), [&](const std::string& i) {
      w.stmt("int k1 = $ / $; int u2 = $ % $;", i, c / 2, i, c / 2);
      const std::string a = leaving(w, p, "k1", "2 * u2");
      store_pair(w, line, a, leaving(w, p, "k1", "2 * u2 + 1"), "u2");
    });
    return;
  }
  each(w, p.length() * c, [&](const std::string& i) {
    w.stmt("int k1 = $ / $; int t = $ % $;", i, c, i, c);
    const std::string v = leaving(w, p, "k1", "t");
    w.stmt(
        "($)[t] = $;", line,
        p.storage_out == p.compute ? v : w.backend.make_vector2(p.storage_out, v + ".x", v + ".y"));
  });
}

// Head of the kernels with a thread a value.
std::string step_head(const RealStep& s, const KernelSignature& signature) {
  return prelude(s.compute, s.storage == kHalf, signature.backend) + signature.head();
}
KernelSignature step_signature(const char* name, const Backend& backend, const char* in,
                               const std::string& in_type, const char* out,
                               const std::string& out_type) {
  KernelSignature signature(name, backend);
  signature.add_const_pointer(in_type, in)
      .add_pointer(out_type, out)
      .add_const_pointer("cplx", "tw")
      .add_scalar("int", "nrows")
      .set_launch_bounds(RealStep::kBlock, 0);
  return signature;
}

std::string key_of(const char* prefix, std::initializer_list<int> numbers) {
  std::string key = prefix;
  for (int number : numbers) key += "_" + std::to_string(number);
  return key;
}

}  // namespace

std::string ColumnPass::key() const {
  // On pairs of reals the table has the roots of the split too.
  const char* prefix = !first ? "cfs2v2" : roots == n() ? "cfs1v2" : "cfr1";
  const char* places = lines_in ? (lines_out ? "ll" : "lc") : (lines_out ? "cl" : "cc");
  return key_of(prefix, {n1, n2, compute, storage_in, storage_out}) + (inverse ? "_i" : "_f") +
         std::to_string(tile) + "_" + std::to_string(threads) + places;
}

std::string column_pass_source(const ColumnPass& p, const Backend& backend) {
  const FftRows rows{p.n(), p.compute, p.storage_in, p.inverse && !p.first};
  KernelWriter w(p.compute, backend);
  register_twiddle_table(w, p.compute, p.roots, "tw", {});
  const std::string in = complex_type(p.compute, p.storage_in, backend);
  const std::string out = complex_type(p.compute, p.storage_out, backend);

  name_block(w, "t0", p.tile);
  w.stmt("const DEV $* xb = x + row * $;", in, p.n());
  w.stmt("DEV $* ob = out + row * $;", out, p.n());
  p.lines_in ? load_lines(w, p) : load_columns(w, p);
  w.barrier();
  emit_batched_fft(w, "scb", p.tile, p.length(), p.threads);
  p.lines_out ? store_lines(w, p) : store_columns(w, p);

  return prelude(p.compute, p.storage_in == kHalf || p.storage_out == kHalf, backend) +
         format("#define TPF $\n", {std::to_string(p.threads)}) + rsp_define(true) +
         inverse_define(rows, backend) +
         KernelSignature(ColumnPass::kName, backend)
             .add_const_pointer(in, "x")
             .add_pointer(out, "out")
             .add_const_pointer("cplx", "tw")
             .add_scalar("int", "nrows")
             .set_launch_bounds(p.threads, 0)
             .set_shared("cplx", "shbuf")
             .head() +
         w.str() + "}\n";
}

std::string RealPass::key() const {
  return key_of("cfr2", {n1, n2, compute, storage, tile, threads});
}

std::string real_pass_source(const RealPass& p, const Backend& backend) {
  const int c = p.tile;
  const int n2 = p.n2;
  KernelWriter w(p.compute, backend);
  register_twiddle_table(w, p.compute, 2 * p.m(), "tw", {});
  const std::string t = backend.scalar_type(p.compute);
  const std::string out = complex_type(p.compute, p.storage, backend);

  name_block(w, "u0", c);
  w.stmt("const DEV cplx* xb = x + row * $;", p.m());
  w.stmt("DEV $* ob = out + row * $;", out, p.m() + 1);
  w.line("  // columns u0 and on, then their mirrors");
  each(w, 2 * c * p.n1, [&](const std::string& i) {
    w.stmt("int r = $ % $; int e = $ / $;", i, 2 * c, i, 2 * c);
    w.stmt("int c = r < $ ? u0 + r : ($ - (u0 + r - $)) % $;", c, n2, c, n2);
    w.stmt("scb[RSP($)] = xb[(I64)e * $ + c];", i, n2);
  });
  w.barrier();
  emit_batched_fft(w, "scb", 2 * c, p.n1, p.threads);
  w.line("  // columns 0 and n2 / 2 are mirrors of themselves; behind the middle all is stored");
  each(w, c * p.n1, [&](const std::string& i) {
    w.stmt("int k1 = $ / $; int t = $ % $; int c = u0 + t;", i, c, i, c);
    w.stmt("if (c <= $) {", n2 / 2);
    w.stmt("int kp = c == 0 ? ($ - k1) % $ : $ - k1;", p.n1, p.n1, p.n1 - 1);
    w.stmt("cplx zk = scb[RSP(k1 * $ + t)];", 2 * c);
    w.stmt("cplx zn = scb[RSP(kp * $ + $ + t)];", 2 * c, c);
    w.stmt("int k = k1 * $ + c;", n2);
    emit_even_odd(w, "zk", "zn");
    emit_turned(w, 2 * p.m(), false);
    w.stmt("ob[k] = $;", backend.make_vector2(p.storage, "er + ti", "ei - tr"));
    w.stmt("if (c == 0 ? k1 == 0 : c < $) {", n2 / 2);
    w.stmt("int km = $ - k;", p.m());
    const std::string root = w.twiddle("km", 2 * p.m(), false, false);
    w.stmt("$ t2r = $.x * or_ + $.y * oi;", t, root, root);
    w.stmt("$ t2i = $.y * or_ - $.x * oi;", t, root, root);
    w.stmt("ob[km] = $;", backend.make_vector2(p.storage, "er - t2i", "t2r - ei"));
    w.stmt("}");
    w.stmt("}");
  });

  return prelude(p.compute, p.storage == kHalf, backend) +
         format("#define TPF $\n", {std::to_string(p.threads)}) + rsp_define(true) +
         KernelSignature(RealPass::kName, backend)
             .add_const_pointer("cplx", "x")
             .add_pointer(out, "out")
             .add_const_pointer("cplx", "tw")
             .add_scalar("int", "nrows")
             .set_launch_bounds(p.threads, 0)
             .set_shared("cplx", "shbuf")
             .head() +
         w.str() + "}\n";
}

std::string RealStep::split_key() const {
  return key_of("crsplit", {n, compute, storage}) + "_m" + std::to_string(form) +
         eps_key(form, eps);
}
std::string RealStep::pack_key() const {
  return key_of("crpack", {n, compute, storage});
}

std::string real_split_source(const RealStep& s, const Backend& backend) {
  const std::string m = std::to_string(s.m());
  const std::string out = output_type(backend, s.form, s.storage);
  KernelWriter w(s.compute, backend);
  register_twiddle_table(w, s.compute, s.n, "tw", {});
  w.stmt("I64 k = (I64)$ * $ + $;", backend.block_index_x(), RealStep::kBlock,
         backend.thread_index());
  w.stmt("if (k > $) return;", m);
  w.stmt("I64 row = $;", backend.block_index_y());
  w.stmt("const DEV cplx* zb = z + row * $;", m);
  w.stmt("DEV $* ob = out + row * $;", out, s.m() + 1);
  w.stmt("cplx zk = zb[k < $ ? k : 0];", m);
  w.stmt("cplx zn = zb[k == 0 ? 0 : $ - (k < $ ? k : $)];", m, m, m);
  emit_even_odd(w, "zk", "zn");
  emit_turned(w, s.n, false);
  emit_output_element(w, s.form, s.storage, "ob[k]", "er + ti", "ei - tr");
  return eps_define(s.form, s.eps) +
         step_head(s, step_signature(RealStep::kSplit, backend, "z", "cplx", "out", out)) +
         w.str() + "}\n";
}

std::string real_pack_source(const RealStep& s, const Backend& backend) {
  const std::string in = complex_type(s.compute, s.storage, backend);
  KernelWriter w(s.compute, backend);
  register_twiddle_table(w, s.compute, s.n, "tw", {});
  w.stmt("I64 k = (I64)$ * $ + $;", backend.block_index_x(), RealStep::kBlock,
         backend.thread_index());
  w.stmt("if (k >= $) return;", s.m());
  w.stmt("I64 row = $;", backend.block_index_y());
  w.stmt("const DEV $* xb = x + row * $;", in, s.m() + 1);
  w.stmt("DEV cplx* zb = z + row * $;", s.m());
  emit_packed_bin(w, s.n, s.storage, "xb[k]", format("xb[$ - k]", {std::to_string(s.m())}));
  w.stmt("zb[k] = cmk(er - ti, ei + tr);");
  return step_head(s, step_signature(RealStep::kPack, backend, "x", in, "z", "cplx")) + w.str() +
         "}\n";
}

}  // namespace kevra::codegen
