#include "codegen/kernels/fft_register.h"

#include "codegen/kernel_writer.h"
#include "codegen/kernels/fft_register_power.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"
#include "codegen/stages.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {
namespace {

std::string buffer_type(const RegisterFftKernel& k, const Backend& backend) {
  if (!k.windows) return "cplx";
  if (k.form == RegisterFftKernel::kPair) return backend.vector2_type(kHalf);
  return backend.scalar_type(k.half_exchange ? kHalf : k.data.compute);
}

void map_rows(KernelWriter& w, const RegisterFftKernel& k) {
  const bool pair = k.form == RegisterFftKernel::kPair;
  map_register_threads(w, k.layout(), pair ? 1 : k.rows);
  if (pair) {
    row_pair(w);
    w.stmt("const DEV iot* xa = x + r0c * $;", k.data.n);
    w.stmt("const DEV iot* xc = x + r1c * $;", k.data.n);
  } else {
    w.stmt("I64 brow = batch < nrows - 1 ? batch : nrows - 1;");
    w.stmt("const DEV iot* xb = x + brow * $;", k.data.n);
  }
  name_exchange_buffer(w, k.layout(), buffer_type(k, w.backend), k.layout().pitch());
}

RegisterItems load_items(KernelWriter& w, const RegisterFftKernel& k) {
  const RegisterItems items = name_first_items(w, k.layout());
  const std::string& j = items.j[0];
  for (int i = 0; i < k.ept(); ++i) {
    const std::string& u = items.values[0][i];
    const int at = i * k.threads();
    if (k.form == RegisterFftKernel::kPair) {
      w.stmt("iot ta$ = xa[$ + $]; iot tb$ = xc[$ + $];", i, j, at, i, j, at);
      w.stmt("cplx $ = cmk(__halves2half2(ta$.x, tb$.x), __halves2half2(ta$.y, tb$.y));", u, i, i,
             i, i);
    } else {
      const std::string t = "t" + std::to_string(i);
      w.stmt("iot $ = xb[$ + $]; cplx $ = $;", t, j, at, u, loaded_value(k.data, t, w.backend));
    }
  }
  return items;
}

void store_pair(KernelWriter& w, const RegisterFftKernel& k, const std::string& value, int at) {
  for (int row : {0, 1}) {
    const char* half = row == 0 ? "low" : "high";
    w.stmt(
        "if (row$ < nrows) out[row$ * $ + tid + $] = __halves2half2(__$2half($.x), __$2half($.y));",
        row, row, k.data.n, at, half, value, half, value);
  }
}

void store_windows(KernelWriter& w, const RegisterFftKernel& k, const RegisterItems& items) {
  const RegisterLayout row = k.layout();
  for (int g = 0; g < row.last_groups(); ++g) {
    for (int o = 0; o < row.last_radix(); ++o) {
      const int at = row.output_offset(g, o);
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
void store_in_order(KernelWriter& w, const RegisterFftKernel& k, const RegisterItems& items) {
  const RegisterLayout row = k.layout();
  for (int g = 0; g < row.last_groups(); ++g) {
    const std::string first = w.fresh("o");
    w.stmt("int $ = 0; { int rem = $;", first, items.b[g]);
    int weight = row.last_stride();
    int natural = 1;
    for (size_t i = 0; i + 1 < k.radices.size(); ++i) {
      weight /= k.radices[i];
      w.stmt("  { int d = rem / $; rem = rem % $; $ += d * $; }", weight, weight, first, natural);
      natural *= k.radices[i];
    }
    w.stmt("}");
    for (int o = 0; o < row.last_radix(); ++o) {
      w.stmt("v[SHP($ + $)] = $;", first, o * row.last_stride(), items.values[g][o]);
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
  const RegisterItems items = emit_register_stages(w, k.layout(), load_items(w, k));
  k.windows ? store_windows(w, k, items) : store_in_order(w, k, items);
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
