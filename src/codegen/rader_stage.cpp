#include "codegen/rader_stage.h"

#include <functional>
#include <vector>

#include "codegen/butterfly.h"
#include "codegen/prelude.h"
#include "codegen/rader.h"
#include "codegen/stages.h"

namespace kevra::codegen {
namespace {

// A loop of the transform's threads over `count` items: a hint can ask for fewer threads than
// there are groups.
void each_item(KernelWriter& w, const RaderStage& s, const char* item, int count,
               const std::function<void()>& body) {
  w.for_loop(item, "tid", std::to_string(count), std::to_string(s.tpf),
             [&](const std::string&) { body(); });
}

// Where the convolution stands: element i of group t at i * groups + t.
void convolve(KernelWriter& w, const RaderStage& s, const std::function<void()>& filter) {
  emit_batched_fft(w, "rsc", s.groups(), s.cyclic(), s.tpf);
  w.line("  // times the filter; conjugate, so that a forward transform leads back");
  filter();
  w.barrier();
  emit_batched_fft(w, "rsc", s.groups(), s.cyclic(), s.tpf);
}

// Name of the table that holds roots, filter and maps of the cyclic length; empty without one. A
// longer table may serve the roots as well, but nothing of the stage stands behind it.
std::string filter_table(const KernelWriter& w, const RaderStage& s) {
  if (w.table_stride(s.n) == 0) return "";
  for (const TwiddleTable& table : w.twiddle_tables) {
    if (table.size == s.cyclic()) return table.name;
  }
  return "";
}

void emit_by_table(KernelWriter& w, const RaderStage& s, const std::string& table) {
  const int groups = s.groups();
  const int q = s.cyclic();
  each_item(w, s, "t", groups, [&] { w.stmt("g0sh[t] = $[SHP(t)];", s.buffer); });
  each_item(w, s, "rx", groups * q, [&] {
    w.stmt("int rk = rx / $ + 1; int rt = rx % $;", groups, groups);
    const std::string root = w.twiddle("rt * rk", s.n, false, false);
    w.stmt("cplx gk = cmul($, $[SHP(rt + rk * $)]);", root, s.buffer, groups);
    w.stmt("int pi = (int)($[$ + rk - 1].x);", table, 2 * q);
    w.stmt("rsc[RSP(pi * $ + rt)] = gk;", groups);
  });
  w.barrier();
  w.line("  // output 0 is the plain sum");
  each_item(w, s, "t", groups, [&] {
    w.stmt("cplx dc = g0sh[t];");
    w.stmt("for (int i = 0; i < $; ++i) dc = cadd(dc, rsc[RSP(i * $ + t)]);", q, groups);
    w.stmt("dcsh[t] = dc;");
  });
  w.barrier();
  convolve(w, s, [&] {
    each_item(w, s, "rx", groups * q, [&] {
      w.stmt("cplx bh = $[$ + rx / $];", table, q, groups);
      w.stmt("cplx pr = cmul(rsc[RSP(rx)], bh);");
      w.stmt("rsc[RSP(rx)] = cmk(pr.x, -pr.y);");
    });
  });
  each_item(w, s, "t", groups, [&] { w.stmt("$[SHP(t)] = dcsh[t];", s.buffer); });
  each_item(w, s, "rx", groups * q, [&] {
    const std::string scale = "(" + w.backend.scalar_type(w.prec) + ")" + number_literal(1.0 / q);
    w.stmt("int rq = rx / $; int rt = rx % $;", groups, groups);
    w.stmt("cplx fq = rsc[RSP(rx)];");
    w.stmt("cplx cq = cmk(fq.x*($), -fq.y*($));", scale, scale);
    w.stmt("int po = (int)($[$ + rq].y);", table, 2 * q);
    w.stmt("$[SHP(po * $ + rt)] = cadd(g0sh[rt], cq);", s.buffer, groups);
  });
}

void emit_by_literals(KernelWriter& w, const RaderStage& s) {
  const int groups = s.groups();
  const int q = s.cyclic();
  const int g = primitive_root(s.prime);
  const RaderMaps maps = rader_maps(s.prime, g);
  std::vector<double> re;
  std::vector<double> im;
  rader_filter(s.prime, g, re, im);

  each_item(w, s, "t", groups, [&] {
    w.stmt("cplx g0 = $[SHP(t)];", s.buffer);
    std::string dc = "g0";
    TwiddlePowers powers(w, "t", s.n, false);
    for (int k = 1; k <= q; ++k) {
      std::string x = format("$[SHP(t + $)]", {s.buffer, std::to_string(k * groups)});
      if (groups > 1) x = w.cmul(powers.next(), x);
      dc = w.cadd(dc, x);
      w.stmt("rsc[RSP($ + t)] = $;", maps.log[k] * groups, x);
    }
    w.stmt("g0sh[t] = g0; dcsh[t] = $;", dc);
  });
  w.barrier();
  convolve(w, s, [&] {
    each_item(w, s, "t", groups, [&] {
      for (int i = 0; i < q; ++i) {
        const std::string a = format("rsc[RSP($ + t)]", {std::to_string(i * groups)});
        const std::string product = w.multiply_constant(a, re[i], im[i]);
        w.stmt("$ = cmk($.x, -$.y);", a, product, product);
      }
    });
  });
  each_item(w, s, "t", groups, [&] {
    const std::string scale = "(" + w.backend.scalar_type(w.prec) + ")" + number_literal(1.0 / q);
    w.stmt("$[SHP(t)] = dcsh[t];", s.buffer);
    for (int i = 0; i < q; ++i) {
      w.stmt("cplx f$ = rsc[RSP($ + t)];", i, i * groups);
      const std::string c = w.complex_value(format("f$.x*($)", {std::to_string(i), scale}),
                                            format("-f$.y*($)", {std::to_string(i), scale}));
      w.stmt("$[SHP($ + t)] = cadd(g0sh[t], $);", s.buffer, maps.out[i] * groups, c);
    }
  });
}

}  // namespace

void emit_rader_stage(KernelWriter& w, const RaderStage& stage) {
  const int groups = stage.groups();
  w.line(format(
      "  {  // prime radix $: $ groups, cyclic length $",
      {std::to_string(stage.prime), std::to_string(groups), std::to_string(stage.cyclic())}));
  w.raw(rsp_define(false));
  w.stmt("TG cplx* rsc = $ + $;", stage.buffer, stage.n);
  w.stmt("TG cplx* g0sh = rsc + $; TG cplx* dcsh = g0sh + $;", groups * stage.cyclic(), groups);
  if (const std::string table = filter_table(w, stage); !table.empty()) {
    emit_by_table(w, stage, table);
  } else {
    emit_by_literals(w, stage);
  }
  w.barrier();
  w.stmt("}");
}

}  // namespace kevra::codegen
