#include "codegen/stages.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>

#include "codegen/butterfly.h"
#include "codegen/precision.h"
#include "codegen/rader_stage.h"
#include "codegen/sizes.h"

namespace kevra::codegen {
namespace {

using Names = std::vector<std::string>;

constexpr int kLargestDirectPrime = 13;

bool is_prime_stage(int r) {
  return r > kLargestDirectPrime && is_prime(r);
}

// The primes of a radix that is a product of primes above 13, else the radix alone. As one
// butterfly such a product puts hundreds of values into a thread, and a compiler spends minutes on
// it: 220 s for the 1147 points of 31 37, a second for its two passes.
std::vector<int> passes_of(int r) {
  const std::vector<int> primes = prime_factors(r);
  return primes.front() > kLargestDirectPrime ? primes : std::vector<int>{r};
}

Names fresh_names(KernelWriter& w, const char* prefix, int count) {
  Names names(count);
  for (std::string& name : names) name = w.fresh(prefix);
  return names;
}

// One butterfly of a thread: its number, its place within and its block of the transforms that
// exist already, its values. The names live across the barrier.
struct Butterfly {
  std::string t, ii, jj;
  Names g;
};

Butterfly emit_gather(KernelWriter& w, const Stage& s, int first_butterfly) {
  const int m = s.n / s.r;
  Butterfly b{w.fresh("t"), w.fresh("ii"), w.fresh("jj"), fresh_names(w, "g", s.r)};
  w.stmt("int $ = tid + $;", b.t, first_butterfly);
  w.stmt("int $ = 0, $ = 0;", b.ii, b.jj);
  for (const std::string& g : b.g) w.stmt("cplx $;", g);
  w.stmt("if ($ < $) {", b.t, m);
  w.stmt("$ = $ % $; $ = $ / $;", b.ii, b.t, s.done, b.jj, b.t, s.done);
  for (int q = 0; q < s.r; ++q) w.stmt("$ = $[SHP($ + $)];", b.g[q], s.buffer, b.t, q * m);
  w.stmt("}");
  return b;
}

void emit_scatter(KernelWriter& w, const Stage& s, Butterfly& b) {
  const int length = s.r * s.done;
  w.stmt("if ($ < $) {", b.t, s.n / s.r);
  if (s.done > 1) stage_twiddles(w, b.g, b.ii, length, s.r, s.conjugate);
  const Names y = butterfly(w, b.g, s.r, s.conjugate);
  for (int q = 0; q < s.r; ++q) {
    w.stmt("$[SHP($*$ + $ + $)] = $;", s.buffer, b.jj, length, q * s.done, b.ii, y[q]);
  }
  w.stmt("}");
}

// One pass of emit_batched_fft.
struct BatchedStage {
  std::string buffer;
  int count;
  int length;
  int r;
  int done;
  int total() const { return count * (length / r); }  // butterflies
};

// A butterfly of a batch: its number and its results, which live across the barrier.
struct BatchedButterfly {
  std::string bi;
  Names ro;
};

BatchedButterfly emit_batched_gather(KernelWriter& w, const BatchedStage& s, int first_butterfly) {
  const int m = s.length / s.r;
  BatchedButterfly out{w.fresh("bi"), fresh_names(w, "ro", s.r)};
  w.stmt("int $ = tid + $;", out.bi, first_butterfly);
  for (const std::string& ro : out.ro) w.stmt("cplx $;", ro);
  w.stmt("if ($ < $) {", out.bi, s.total());
  const std::string b = w.fresh("b");
  const std::string t = w.fresh("t");
  w.stmt("int $ = $ / $;", b, out.bi, m);
  w.stmt("int $ = $ % $;", t, out.bi, m);
  Names rg = fresh_names(w, "rg", s.r);
  for (int q = 0; q < s.r; ++q) {
    w.stmt("cplx $ = $[RSP(($ + $)*$ + $)];", rg[q], s.buffer, t, q * m, s.count, b);
  }
  if (s.done > 1) {
    const std::string ii = w.fresh("ii");
    w.stmt("int $ = $ % $;", ii, t, s.done);
    stage_twiddles(w, rg, ii, s.r * s.done, s.r, false);
  }
  const Names y = butterfly(w, rg, s.r, false);
  for (int q = 0; q < s.r; ++q) w.stmt("$ = $;", out.ro[q], y[q]);
  w.stmt("}");
  return out;
}

void emit_batched_scatter(KernelWriter& w, const BatchedStage& s, const BatchedButterfly& from) {
  const int m = s.length / s.r;
  w.stmt("if ($ < $) {", from.bi, s.total());
  const std::string b = w.fresh("b");
  const std::string t = w.fresh("t");
  const std::string ii = w.fresh("ii");
  const std::string jj = w.fresh("jj");
  w.stmt("int $ = $ / $;", b, from.bi, m);
  w.stmt("int $ = $ % $;", t, from.bi, m);
  w.stmt("int $ = $ % $;", ii, t, s.done);
  w.stmt("int $ = $ / $;", jj, t, s.done);
  for (int q = 0; q < s.r; ++q) {
    w.stmt("$[RSP(($*$ + $ + $)*$ + $)] = $;", s.buffer, jj, s.r * s.done, q * s.done, ii, s.count,
           b, from.ro[q]);
  }
  w.stmt("}");
}

// b times the root of half at (pos + offset) << shift.
std::string ct_twiddled(KernelWriter& w, const StftConfig& config, const std::string& b,
                        int first_stage, int offset, int shift) {
  const int half = config.n_fft / 2;
  // In the first pass pos is 0 and every root is a number. Float kernels compute theirs there too.
  if (first_stage == 0 && config.prec == kDouble) {
    const int k = offset << shift;
    if (k == 0) return b;
    if (4 * k == half) return w.complex_value(b + ".y", "-" + b + ".x");
    const double angle = k * (-2 * std::numbers::pi) / half;
    return w.cmul(b, w.complex_constant(std::cos(angle), std::sin(angle)));
  }
  std::string index = offset == 0 ? "pos" : "(pos + " + std::to_string(offset) + ")";
  if (shift != 0) index = "(" + index + " << " + std::to_string(shift) + ")";
  return w.cmul(b, w.twiddle(index, half, config.wide, false));
}

}  // namespace

void emit_stage(KernelWriter& w, const Stage& stage, const std::string& comment) {
  const int m = stage.n / stage.r;
  w.line("  {  // " + comment);
  std::vector<Butterfly> butterflies;
  for (int first = 0; first < m; first += stage.tpf) {
    butterflies.push_back(emit_gather(w, stage, first));
  }
  w.barrier();  // all reads stand in registers: the pass may write in place
  for (Butterfly& b : butterflies) emit_scatter(w, stage, b);
  w.barrier();
  w.stmt("}");
}

void emit_fft_stages(KernelWriter& w, const std::string& buffer, int n,
                     const std::vector<int>& radices, int tpf, bool conjugate) {
  int done = 1;
  for (int r : radices) {
    if (!is_prime_stage(r)) {
      int within = done;
      for (int p : conjugate ? std::vector<int>{r} : passes_of(r)) {
        emit_stage(w, {buffer, n, p, within, tpf, conjugate},
                   format("in-place radix-$ (Ls=$)", {std::to_string(p), std::to_string(within)}));
        within *= p;
      }
    } else if (!conjugate && done * r == n) {
      emit_rader_stage(w, {buffer, n, r, tpf});
    } else {
      throw std::logic_error("fft stages: radix " + std::to_string(r) +
                             " of n = " + std::to_string(n) + " is a prime above " +
                             std::to_string(kLargestDirectPrime) +
                             ", which has a stage forward and as the last radix only");
    }
    done *= r;
  }
}

std::vector<int> ct_pass_groups(const StftConfig& config) {
  const int per_pass = std::max(1, ceil_log2(config.ept));
  std::vector<int> groups;
  for (int left = ceil_log2(config.n_fft / 2); left > 0; left -= groups.back()) {
    groups.push_back(std::min(left, per_pass));
  }
  return groups;
}

void emit_ct_pass(KernelWriter& w, const StftConfig& config, int first_stage, int stage_count) {
  const int half = config.n_fft / 2;
  const int radix = 1 << stage_count;
  const int stride = 1 << first_stage;
  w.line(format("  {  // CT pass: stages $..$ (radix-$)",
                {std::to_string(first_stage), std::to_string(first_stage + stage_count - 1),
                 std::to_string(radix)}));
  w.stmt("for (int j = tid; j < $/$; j += TPF) {", half, radix);
  w.stmt("int grp = j / $, pos = j % $;", stride, stride);
  w.stmt("int base_i = grp*$ + pos;", stride * radix);
  Names r = fresh_names(w, "r", radix);
  for (int j = 0; j < radix; ++j) w.stmt("cplx $ = sh[SHP(base_i + $)];", r[j], j * stride);
  for (int sub = 0; sub < stage_count; ++sub) {
    const int step = 1 << sub;
    const int shift = ceil_log2(half) - first_stage - sub - 1;
    for (int j = 0; j < radix; ++j) {
      if ((j & step) != 0) continue;
      const int offset = (j & (step - 1)) * stride;
      const std::string a = r[j];
      const std::string c = ct_twiddled(w, config, r[j + step], first_stage, offset, shift);
      r[j + step] = w.csub(a, c);
      r[j] = w.cadd(a, c);
    }
  }
  for (int j = 0; j < radix; ++j) w.stmt("sh[SHP(base_i + $)] = $;", j * stride, r[j]);
  w.stmt("}");
  w.stmt("}");
  w.barrier();
}

void emit_ct_passes(KernelWriter& w, const StftConfig& config) {
  int first = 0;
  for (int stages : ct_pass_groups(config)) {
    emit_ct_pass(w, config, first, stages);
    first += stages;
  }
}

void emit_batched_fft(KernelWriter& w, const std::string& buffer, int count, int length,
                      int threads) {
  std::vector<int> passes;
  for (int r : factorize(length)) {
    for (int p : passes_of(r)) passes.push_back(p);
  }
  int done = 1;
  for (int r : passes) {
    const BatchedStage stage{buffer, count, length, r, done};
    w.line(format("  {  // batched radix-$ (L=$, Ls=$)",
                  {std::to_string(r), std::to_string(length), std::to_string(done)}));
    std::vector<BatchedButterfly> butterflies;
    for (int first = 0; first < stage.total(); first += threads) {
      butterflies.push_back(emit_batched_gather(w, stage, first));
    }
    w.barrier();
    for (const BatchedButterfly& b : butterflies) emit_batched_scatter(w, stage, b);
    w.barrier();
    w.stmt("}");
    done *= r;
  }
}

void register_twiddle_table(KernelWriter& w, int prec, int n, const std::string& name,
                            const std::vector<int>& radices) {
  if (prec != kDouble) return;
  w.twiddle_tables.push_back({n, name});
  const auto prime = std::find_if(radices.begin(), radices.end(), is_prime_stage);
  if (prime != radices.end()) {
    w.twiddle_tables.push_back({*prime - 1, format("($ + $)", {name, std::to_string(n)})});
  }
}

}  // namespace kevra::codegen
