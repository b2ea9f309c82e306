#include "codegen/kernels/fft_register.h"

#include <cmath>
#include <numbers>

#include "codegen/butterfly.h"
#include "codegen/expression.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/fft_register_power.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"
#include "codegen/stages.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {
namespace {

using Names = std::vector<std::string>;

// Decimation in frequency: item (b, j) of a stage transforms elements b * length + j + k * m of
// the row, k below r, and its output q is element (b * r + q) * m + j of the next.
struct RegisterStage {
  int r;
  int blocks;  // the product of the radices before it
  int length;  // of a block
  int m;       // a block's items
  int groups;  // items of a thread
  bool last;
};

// The items of a thread in one stage. Item number t splits into b = t / m and j = t % m where the
// row stands in its order, so that neighbouring threads walk along a block; under windows into
// b = t % blocks and j = t / blocks, so that they work on neighbouring blocks.
struct Items {
  Names b;
  Names j;
  std::vector<Names> values;
};

std::vector<RegisterStage> stages_of(const RegisterFftKernel& k) {
  std::vector<RegisterStage> stages;
  int blocks = 1;
  for (int r : k.radices) {
    const int length = k.data.n / blocks;
    stages.push_back({r, blocks, length, length / r, k.ept() / r, length == r});
    blocks *= r;
  }
  return stages;
}

int buffer_pitch(const RegisterFftKernel& k) {
  return k.windows ? k.threads() * (k.ept() + 1) + 32 : k.data.n + k.data.n / 16 + 1;
}

std::string buffer_type(const RegisterFftKernel& k, const Backend& backend) {
  if (!k.windows) return "cplx";
  if (k.form == RegisterFftKernel::kPair) return backend.vector2_type(kHalf);
  return backend.scalar_type(k.half_exchange ? kHalf : k.data.compute);
}

void map_rows(KernelWriter& w, const RegisterFftKernel& k) {
  const bool pair = k.form == RegisterFftKernel::kPair;
  const std::string thread = w.backend.thread_index();
  const int t = k.threads();
  w.stmt("int tid = $ % $;", thread, t);
  w.stmt("I64 batch = (I64)$ * $ + $ / $;", w.backend.block_index_x(), pair ? 1 : k.rows, thread,
         t);
  if (pair) {
    row_pair(w);
    w.stmt("const DEV iot* xa = x + r0c * $;", k.data.n);
    w.stmt("const DEV iot* xc = x + r1c * $;", k.data.n);
  } else {
    w.stmt("I64 brow = batch < nrows - 1 ? batch : nrows - 1;");
    w.stmt("const DEV iot* xb = x + brow * $;", k.data.n);
  }
  w.stmt("TG $* v = shbuf + ($ / $) * $;", buffer_type(k, w.backend), thread, t, buffer_pitch(k));
  if (k.windows) w.stmt("int wb = tid * $;", k.ept() + 1);
}

Items load_items(KernelWriter& w, const RegisterFftKernel& k) {
  const std::string j = w.fresh("j");
  w.stmt("int $ = tid;", j);
  Names u(k.ept());
  for (int i = 0; i < k.ept(); ++i) {
    const int at = i * k.threads();
    u[i] = w.fresh("u");
    if (k.form == RegisterFftKernel::kPair) {
      w.stmt("iot ta$ = xa[$ + $]; iot tb$ = xc[$ + $];", i, j, at, i, j, at);
      w.stmt("cplx $ = cmk(__halves2half2(ta$.x, tb$.x), __halves2half2(ta$.y, tb$.y));", u[i], i,
             i, i, i);
    } else {
      const std::string t = "t" + std::to_string(i);
      w.stmt("iot $ = xb[$ + $]; cplx $ = $;", t, j, at, u[i], loaded_value(k.data, t, w.backend));
    }
  }
  return {{"0"}, {j}, {u}};
}

// Two rows share a twiddle; its angle and its powers run in float, since eleven bits would not
// hold them.
void multiply_halves(KernelWriter& w, Names& g, const std::string& j, int order) {
  const std::string angle = w.fresh("ag");
  const std::string br = w.fresh("br");
  const std::string bi = w.fresh("bi");
  const std::string wr = w.fresh("wr");
  const std::string wi = w.fresh("wi");
  w.stmt("float $ = (float)($) * (float)($);", angle, j,
         number_literal(-2 * std::numbers::pi / order));
  w.stmt("float $, $; $", br, bi, w.backend.sincos_call(kFloat, angle, br, bi));
  w.stmt("float $ = $, $ = $;", wr, br, wi, bi);
  for (size_t q = 1; q < g.size(); ++q) {
    g[q] = w.cmul(g[q], w.complex_value("(__half)" + wr, "(__half)" + wi));
    if (q + 1 == g.size()) break;
    w.stmt("{ float t = $ * $ - $ * $; $ = $ * $ + $ * $; $ = t; }", wr, br, wi, bi, wi, wr, bi, wi,
           br, wr);
  }
}

void transform_items(KernelWriter& w, const RegisterStage& s, Items& items) {
  for (int g = 0; g < s.groups; ++g) {
    Names& values = items.values[g];
    values = butterfly(w, values, s.r, false);
    if (s.m == 1) continue;
    if (w.prec == kHalf) {
      multiply_halves(w, values, items.j[g], s.length);
    } else {
      stage_twiddles(w, values, items.j[g], s.length, s.r, false);
    }
  }
}

// Under windows the last stage's items are taken in an order that needs no reordering behind it:
// item t computes the block whose number is t with its digits reversed, and output o is then the
// natural element t + o * blocks.
void name_reversed_block(KernelWriter& w, const RegisterFftKernel& k, const std::string& b,
                         int first) {
  const int last = static_cast<int>(k.radices.size()) - 1;
  int weight = k.data.n / k.radices[last];  // of digit i in t
  int reversed = 1;                         // in the block's number
  w.stmt("int $ = 0; { int rem = tid + $;", b, first);
  for (int i = last - 1; i >= 0; --i) {
    weight /= k.radices[i];
    w.stmt("  { int d = rem / $; rem = rem % $; $ += d * $; }", weight, weight, b, reversed);
    reversed *= k.radices[i];
  }
  w.stmt("}");
}

Items name_items(KernelWriter& w, const RegisterFftKernel& k, const RegisterStage& s) {
  Items items;
  for (int g = 0; g < s.groups; ++g) {
    const Expr t = Expr("tid") + g * k.threads();
    const std::string b = w.fresh("q");
    std::string j = "0";
    if (k.windows && s.last) {
      name_reversed_block(w, k, b, g * k.threads());
    } else {
      j = w.fresh("j");
      const Expr along = k.windows ? t % s.blocks : t / s.m;
      const Expr across = k.windows ? t / s.blocks : t % s.m;
      w.stmt("int $ = $; int $ = $;", b, along.to_text(), j, across.to_text());
    }
    Names u(s.r);
    for (std::string& name : u) {
      name = w.fresh("u");
      w.stmt("cplx $;", name);
    }
    items.b.push_back(b);
    items.j.push_back(j);
    items.values.push_back(u);
  }
  return items;
}

void exchange_in_order(KernelWriter& w, const RegisterStage& s, const Items& from,
                       const RegisterStage& next, const Items& to) {
  for (int g = 0; g < s.groups; ++g) {
    for (int o = 0; o < s.r; ++o) {
      w.stmt("v[SHP(($ * $ + $) * $ + $)] = $;", from.b[g], s.r, o, s.m, from.j[g],
             from.values[g][o]);
    }
  }
  w.barrier();
  for (int g = 0; g < next.groups; ++g) {
    for (int c = 0; c < next.r; ++c) {
      w.stmt("$ = v[SHP($ * $ + $ + $)];", to.values[g][c], to.b[g], next.length, c * next.m,
             to.j[g]);
    }
  }
  w.barrier();
}

// Output o of item t stands in slot t / T + o * groups of the window of thread t % T.
void exchange_windows(KernelWriter& w, const RegisterFftKernel& k, const RegisterStage& s,
                      const Items& from, const RegisterStage& next, const Items& to) {
  Names item(next.groups);  // that computed input 0
  Names slot(next.groups);
  for (int g = 0; g < next.groups; ++g) {
    item[g] = w.fresh("e");
    slot[g] = w.fresh("k");
    w.stmt("int $ = $;", item[g], (Expr(to.j[g]) * s.blocks + Expr(to.b[g]) / s.r).to_text());
    w.stmt("int $ = $;", slot[g], (Expr(to.b[g]) % s.r * s.groups).to_text());
  }
  for (const char* part : {"x", "y"}) {
    for (int g = 0; g < s.groups; ++g) {
      for (int o = 0; o < s.r; ++o) {
        const std::string value = from.values[g][o] + "." + part;
        w.stmt("v[wb + $] = $;", g + o * s.groups,
               k.half_exchange ? w.backend.convert_scalar(kHalf, value) : value);
      }
    }
    w.barrier();
    for (int g = 0; g < next.groups; ++g) {
      for (int c = 0; c < next.r; ++c) {
        const Expr source = Expr(item[g]) + c * next.m * s.blocks;
        const Expr place = source % k.threads() * (k.ept() + 1) + source / k.threads() + slot[g];
        w.stmt(k.half_exchange ? "$.$ = (float)v[$];" : "$.$ = v[$];", to.values[g][c], part,
               place.to_text());
      }
    }
    // Nothing is written behind the last read.
    if (part[0] == 'x' || !next.last) w.barrier();
  }
}

void store_pair(KernelWriter& w, const RegisterFftKernel& k, const std::string& value, int at) {
  for (int row : {0, 1}) {
    const char* half = row == 0 ? "low" : "high";
    w.stmt(
        "if (row$ < nrows) out[row$ * $ + tid + $] = __halves2half2(__$2half($.x), __$2half($.y));",
        row, row, k.data.n, at, half, value, half, value);
  }
}

void store_windows(KernelWriter& w, const RegisterFftKernel& k, const RegisterStage& s,
                   const Items& items) {
  for (int g = 0; g < s.groups; ++g) {
    for (int o = 0; o < s.r; ++o) {
      const int at = g * k.threads() + o * s.blocks;
      const std::string& value = items.values[g][o];
      if (k.form == RegisterFftKernel::kPair) {
        store_pair(w, k, value, at);
      } else {
        w.stmt("if (batch < nrows) { out[batch * $ + tid + $] = $; }", k.data.n, at,
               stored_value(k.data, value, w.backend));
      }
    }
  }
}

// The outputs come in reversed order of their digits: one more pass through the buffer puts them
// into theirs, so that neighbouring threads store neighbours.
void store_in_order(KernelWriter& w, const RegisterFftKernel& k, const RegisterStage& s,
                    const Items& items) {
  for (int g = 0; g < s.groups; ++g) {
    const std::string first = w.fresh("o");
    w.stmt("int $ = 0; { int rem = $;", first, items.b[g]);
    int weight = s.blocks;
    int natural = 1;
    for (size_t i = 0; i + 1 < k.radices.size(); ++i) {
      weight /= k.radices[i];
      w.stmt("  { int d = rem / $; rem = rem % $; $ += d * $; }", weight, weight, first, natural);
      natural *= k.radices[i];
    }
    w.stmt("}");
    for (int o = 0; o < s.r; ++o) {
      w.stmt("v[SHP($ + $)] = $;", first, o * s.blocks, items.values[g][o]);
    }
  }
  w.barrier();
  for (int at = 0; at < k.data.n; at += k.threads()) {
    w.stmt("if (batch < nrows) { cplx t = v[SHP(tid + $)]; out[batch * $ + tid + $] = $; }", at,
           k.data.n, at, stored_value(k.data, "t", w.backend));
  }
}

std::string mixed_source(const RegisterFftKernel& k, const Backend& backend) {
  const bool pair = k.form == RegisterFftKernel::kPair;
  KernelWriter w(pair ? kHalf : k.data.compute, backend);
  register_twiddle_table(w, w.prec, k.data.n, "tw", k.radices);
  map_rows(w, k);
  const std::vector<RegisterStage> stages = stages_of(k);
  Items items = load_items(w, k);
  for (size_t i = 0; i < stages.size(); ++i) {
    const RegisterStage& s = stages[i];
    w.line(format("  // radix $ in blocks of $", {std::to_string(s.r), std::to_string(s.length)}));
    transform_items(w, s, items);
    if (s.last) break;
    const Items next = name_items(w, k, stages[i + 1]);
    if (k.windows) {
      exchange_windows(w, k, s, items, stages[i + 1], next);
    } else {
      exchange_in_order(w, s, items, stages[i + 1], next);
    }
    items = next;
  }
  k.windows ? store_windows(w, k, stages.back(), items)
            : store_in_order(w, k, stages.back(), items);
  const std::string prelude = pair ? packed_prelude(backend) : fft_prelude(k.data, backend);
  return fft_head(prelude, inverse_define(k.data, backend) + (k.windows ? "" : shp_define(true)),
                  k.block(), buffer_type(k, backend), backend) +
         w.str() + "}\n";
}

}  // namespace

std::string RegisterFftKernel::key() const {
  const std::string n = std::to_string(data.n);
  if (form == kPair) return format("cpair16_$e$", {n, std::to_string(ept())});
  const char* prefix = form == kTwoPass ? "ceptfft" : form == kThreePass ? "cept3" : "cregfft";
  std::string key =
      format("$_$_$_$_$_$", {prefix, n, std::to_string(data.compute), std::to_string(data.storage),
                             data.inverse ? "i" : "f", std::to_string(rows)});
  if (form != kMixed) return key;
  return key +
         format("w$e$$$", {n, std::to_string(ept()), windows ? "p" : "", half_exchange ? "h" : ""});
}

std::string register_fft_source(const RegisterFftKernel& kernel, const Backend& backend) {
  switch (kernel.form) {
    case RegisterFftKernel::kTwoPass:
      return two_pass_source(kernel, backend);
    case RegisterFftKernel::kThreePass:
      return three_pass_source(kernel, backend);
    default:
      return mixed_source(kernel, backend);
  }
}

}  // namespace kevra::codegen
