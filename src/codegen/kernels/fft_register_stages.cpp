#include "codegen/kernels/fft_register_stages.h"

#include <numbers>
#include <utility>

#include "codegen/butterfly.h"
#include "codegen/expression.h"
#include "codegen/precision.h"
#include "codegen/stages.h"

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

std::vector<RegisterStage> stages_of(const RegisterLayout& k) {
  std::vector<RegisterStage> stages;
  int blocks = 1;
  for (int r : k.radices) {
    const int length = k.n / blocks;
    stages.push_back({r, blocks, length, length / r, k.ept() / r, length == r});
    blocks *= r;
  }
  return stages;
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

void transform_items(KernelWriter& w, const RegisterStage& s, RegisterItems& items) {
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
void name_reversed_block(KernelWriter& w, const RegisterLayout& k, const std::string& b,
                         int first) {
  const int last = static_cast<int>(k.radices.size()) - 1;
  int weight = k.n / k.radices[last];  // of digit i in t
  int reversed = 1;                    // in the block's number
  w.stmt("int $ = 0; { int rem = tid + $;", b, first);
  for (int i = last - 1; i >= 0; --i) {
    weight /= k.radices[i];
    w.stmt("  { int d = rem / $; rem = rem % $; $ += d * $; }", weight, weight, b, reversed);
    reversed *= k.radices[i];
  }
  w.stmt("}");
}

RegisterItems name_items(KernelWriter& w, const RegisterLayout& k, const RegisterStage& s) {
  RegisterItems items;
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

void exchange_in_order(KernelWriter& w, const RegisterStage& s, const RegisterItems& from,
                       const RegisterStage& next, const RegisterItems& to) {
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
void exchange_windows(KernelWriter& w, const RegisterLayout& k, const RegisterStage& s,
                      const RegisterItems& from, const RegisterStage& next,
                      const RegisterItems& to) {
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

}  // namespace

void map_register_threads(KernelWriter& w, const RegisterLayout& layout, int rows) {
  const std::string thread = w.backend.thread_index();
  const int t = layout.threads();
  w.stmt("int tid = $ % $;", thread, t);
  w.stmt("I64 batch = (I64)$ * $ + $ / $;", w.backend.block_index_x(), rows, thread, t);
}

void name_exchange_buffer(KernelWriter& w, const RegisterLayout& layout, const std::string& type,
                          int pitch) {
  w.stmt("TG $* v = shbuf + ($ / $) * $;", type, w.backend.thread_index(), layout.threads(), pitch);
  if (layout.windows && layout.exchanges()) w.stmt("int wb = tid * $;", layout.ept() + 1);
}

RegisterItems name_first_items(KernelWriter& w, const RegisterLayout& layout) {
  std::string j = "tid";
  if (layout.exchanges()) {
    j = w.fresh("j");
    w.stmt("int $ = tid;", j);
  }
  Names u(layout.ept());
  for (std::string& name : u) name = w.fresh("u");
  return {{"0"}, {j}, {u}};
}

RegisterItems emit_register_stages(KernelWriter& w, const RegisterLayout& layout,
                                   RegisterItems first) {
  const std::vector<RegisterStage> stages = stages_of(layout);
  RegisterItems items = std::move(first);
  for (size_t i = 0; i < stages.size(); ++i) {
    const RegisterStage& s = stages[i];
    w.line(format("  // radix $ in blocks of $", {std::to_string(s.r), std::to_string(s.length)}));
    transform_items(w, s, items);
    if (s.last) break;
    const RegisterItems next = name_items(w, layout, stages[i + 1]);
    if (layout.windows) {
      exchange_windows(w, layout, s, items, stages[i + 1], next);
    } else {
      exchange_in_order(w, s, items, stages[i + 1], next);
    }
    items = next;
  }
  return items;
}

}  // namespace kevra::codegen
