#include "codegen/kernels/rfft.h"

#include <cmath>
#include <functional>
#include <numbers>

#include "codegen/format.h"
#include "codegen/kernels/fft_parts.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"
#include "codegen/sizes.h"
#include "codegen/stages.h"

namespace kevra::codegen {
namespace {

// A loop of the row's threads over `count` values of `var`, which hands `body` the root
// exp(-+2 pi i var / n). A float kernel turns it on by a constant from trip to trip; each turn adds
// its rounding, so loops of many trips compute every root.
void each_with_root(KernelWriter& w, const RealFftKernel& k, const char* var, int count,
                    const std::function<void(const std::string& root)>& body) {
  constexpr int kMostTurns = 32;
  const bool conjugate = k.data.inverse;
  const bool turns = k.data.compute == kFloat && count <= kMostTurns * k.tpf;
  if (turns) w.stmt("cplx wc = $;", w.twiddle("tid", k.data.n, false, conjugate));
  w.for_loop(var, "tid", std::to_string(count), "TPF", [&](const std::string& i) {
    body(turns ? "wc" : w.twiddle(i, k.data.n, false, conjugate));
    if (turns) w.stmt("wc = $;", w.cmul("wc", w.root_constant(k.tpf, k.data.n, conjugate)));
  });
}

void load_reals(KernelWriter& w, const RealFftKernel& k) {
  const auto plain = [&] {
    each_access(w, k.data.length(), [&](const std::string& i) {
      w.stmt("bufA[SHP($)] = $;", i, loaded_samples(k.data, i, w.backend));
    });
  };
  // Four samples an access: rows of such a length begin at multiples of 16 bytes.
  if (k.data.storage == kFloat && k.data.n % 4 == 0 && !k.padded) {
    load_async(w, k.data.length() / 2, "2 * $", "((const float4*)xb) + $", plain);
  } else {
    plain();
  }
}

void load_spectra(KernelWriter& w, const RealFftKernel& k) {
  const auto body = [&](const std::string& root) {
    load_bins(w, k.data, "i", root, "bufA[SHP(i)]");
  };
  if (k.data.paired()) {
    each_access(w, k.data.n, [&](const std::string&) { body(""); });
  } else {
    each_with_root(w, k, "i", k.data.length(), body);
  }
}

void store_spectra(KernelWriter& w, const RealFftKernel& k) {
  if (k.data.paired()) {
    each_access(w, k.data.bins(), [&](const std::string& i) {
      split_pair(w, k.data, "bufA", i);
      store_pair_bins(w, k.data, i);
    });
    return;
  }
  const int h = k.data.length();
  const std::string zero = "(" + w.backend.scalar_type(k.data.compute) + ")0";
  each_with_root(w, k, "k", h + 1, [&](const std::string& root) {
    w.stmt("cplx r;");
    w.stmt("if (k == $) r = cmk(bufA[0].x - bufA[0].y, $);", h, zero);
    w.stmt("else {");
    split_half(w, k.data, "bufA", "k",
               format("(k == 0) ? bufA[0] : bufA[SHP($ - k)]", {std::to_string(h)}), root);
    w.stmt("r = cmk(xer + tr, xei + ti);");
    w.stmt("}");
    store_bin(w, k.data, "batch", "k", "r.x", "r.y");
  });
}

void store_reals(KernelWriter& w, const RealFftKernel& k) {
  each_access(w, k.data.length(), [&](const std::string& i) {
    w.stmt("cplx r = bufA[SHP($)];", i);
    store_samples(w, k.data, i, "r");
  });
}

}  // namespace

std::string RealFftKernel::key() const {
  return format(
      "$_$_$_$_$x$$$$",
      {data.inverse ? "cirfft" : "crfft", std::to_string(data.n), std::to_string(data.compute),
       std::to_string(data.storage), std::to_string(tpf), std::to_string(rows_per_block()),
       data.paired() ? "o" : "", padded ? "_p" : "", radix25 ? "r" : ""});
}

std::vector<int> RealFftKernel::radices() const {
  return factorize(data.length(), nullptr, radix25);
}

int RealFftKernel::pitch() const {
  const int n = data.length();
  return n + (padded ? n / 16 + 1 : 0) + rader_extra(n);
}

size_t RealFftKernel::shared_bytes() const {
  return static_cast<size_t>(transforms_per_block) * pitch() * complex_bytes(data.compute);
}

std::string real_fft_source(const RealFftKernel& k, const Backend& backend) {
  const std::vector<int> radices = k.radices();
  const std::string thread = backend.thread_index();
  KernelWriter w(k.data.compute, backend);
  register_twiddle_table(w, k.data.compute, k.data.n, "tw", radices);

  w.stmt("int tid = $ % TPF;", thread);
  w.stmt("I64 batch = (I64)$ * $ + $ / TPF;", backend.block_index_x(), k.transforms_per_block,
         thread);
  name_real_rows(w, k.data);
  w.stmt("TG cplx* bufA = shbuf + ($ / TPF) * $;", thread, k.pitch());
  k.data.inverse ? load_spectra(w, k) : load_reals(w, k);
  w.barrier();
  emit_fft_stages(w, "bufA", k.data.length(), radices, k.tpf, false);
  w.line("  // behind the last barrier: surplus rows leave, the others are stored");
  w.stmt("if (!($)) return;", has_rows(k.data));
  k.data.inverse ? store_reals(w, k) : store_spectra(w, k);

  const std::string defines =
      format("#define TPF $\n", {std::to_string(k.tpf)}) + shp_define(k.padded);
  return real_head(k.data, defines, k.block(), "cplx", backend) + w.str() + "}\n";
}

}  // namespace kevra::codegen
