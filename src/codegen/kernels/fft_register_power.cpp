#include "codegen/kernels/fft_register_power.h"

#include <vector>

#include "codegen/butterfly.h"
#include "codegen/expression.h"
#include "codegen/kernel_writer.h"
#include "codegen/stages.h"

namespace kevra::codegen {
namespace {

using Names = std::vector<std::string>;

// batch, brow, sh and xb. Threads of surplus rows work on the last row and leave before the store.
void map_rows(KernelWriter& w, const RegisterFftKernel& k, const char* tid, int pitch) {
  const std::string thread = w.backend.thread_index();
  const int t = k.threads();
  w.stmt("int $ = $ % $;", tid, thread, t);
  w.stmt("I64 batch = (I64)$ * $ + $ / $;", w.backend.block_index_x(), k.rows, thread, t);
  w.stmt("I64 brow = batch < nrows - 1 ? batch : nrows - 1;");
  w.stmt("TG cplx* sh = shbuf + ($ / $) * $;", thread, t, pitch);
  w.stmt("const DEV iot* xb = x + brow * $;", k.data.n);
}

Names load_column(KernelWriter& w, const RegisterFftKernel& k, const char* tid) {
  Names u(k.ept());
  for (int i = 0; i < k.ept(); ++i) {
    u[i] = w.fresh("u");
    const std::string t = "t" + u[i];
    w.stmt("iot $ = xb[$ + $]; cplx $ = $;", t, tid, i * k.threads(), u[i],
           loaded_value(k.data, t, w.backend));
  }
  return u;
}

Names load_line(KernelWriter& w, const char* tid, int pitch, int p) {
  Names u(p);
  for (int i = 0; i < p; ++i) {
    u[i] = w.fresh("u");
    w.stmt("cplx $ = sh[$ * $ + $];", u[i], tid, pitch, i);
  }
  return u;
}

void store(KernelWriter& w, const RegisterFftKernel& k, const Names& y, const char* place) {
  w.line("  // behind the last barrier: surplus rows leave, the others are stored");
  w.stmt("if (batch >= nrows) return;");
  for (int i = 0; i < k.ept(); ++i) {
    w.stmt("out[batch * $ + $ + $] = $;", k.data.n, place, i * k.threads(),
           stored_value(k.data, y[i], w.backend));
  }
}

std::string finish(const KernelWriter& w, const RegisterFftKernel& k) {
  return fft_head(fft_prelude(k.data, w.backend), inverse_define(k.data, w.backend), k.block(),
                  "cplx", w.backend) +
         w.str() + "}\n";
}

}  // namespace

std::string two_pass_source(const RegisterFftKernel& k, const Backend& backend) {
  const int p = k.ept();
  KernelWriter w(k.data.compute, backend);
  register_twiddle_table(w, k.data.compute, k.data.n, "tw", k.radices);
  map_rows(w, k, "lane", (p + 1) * p);
  w.line("  // a column in each thread");
  Names y = butterfly(w, load_column(w, k, "lane"), p, false);
  stage_twiddles(w, y, "lane", k.data.n, p, false);
  // One free slot behind each line spreads the reads of a line over the banks.
  for (int q = 0; q < p; ++q) w.stmt("sh[$ + lane] = $;", q * (p + 1), y[q]);
  w.barrier();
  w.line("  // a row in each thread");
  store(w, k, butterfly(w, load_line(w, "lane", p + 1, p), p, false), "lane");
  return finish(w, k);
}

std::string three_pass_source(const RegisterFftKernel& k, const Backend& backend) {
  const int p = k.ept();
  KernelWriter w(k.data.compute, backend);
  register_twiddle_table(w, k.data.compute, k.data.n, "tw", k.radices);
  map_rows(w, k, "t", k.data.n);
  w.stmt("int t0 = t % $, t1 = t / $;", p, p);
  Names y = butterfly(w, load_column(w, k, "t"), p, false);
  stage_twiddles(w, y, "t", k.data.n, p, false);
  for (int q = 0; q < p; ++q) w.stmt("sh[(t0 * $ + $) * $ + t1] = $;", p, q, p, y[q]);
  w.barrier();

  y = butterfly(w, load_line(w, "t", p, p), p, false);
  w.stmt("int te2 = $ * t1;", p);
  stage_twiddles(w, y, "te2", k.data.n, p, false);
  w.barrier();
  for (int q = 0; q < p; ++q) {
    w.stmt("sh[$] = $;", ((Expr("t0") * p + q) * p + "t1").to_text(), y[q]);
  }
  w.barrier();

  y = butterfly(w, load_line(w, "t", p, p), p, false);
  store(w, k, y, format("t1 + $ * t0", {std::to_string(p)}).c_str());
  return finish(w, k);
}

}  // namespace kevra::codegen
