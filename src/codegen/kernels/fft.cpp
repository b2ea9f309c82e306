#include "codegen/kernels/fft.h"

#include "codegen/format.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/fft_parts.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"
#include "codegen/sizes.h"
#include "codegen/stages.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {
namespace {

FftRows rows_of(const ComplexFftKernel& k) {
  return {k.n, k.compute, k.storage, k.inverse};
}

// Two neighbouring floats-complex as one 16-byte access. A padded row can part neighbours.
bool moves_pairs(const ComplexFftKernel& k) {
  return k.compute == kFloat && k.storage == kFloat && k.n % 2 == 0 && !k.padded;
}
// Four neighbouring halves-complex as one 16-byte access.
bool moves_quads(const ComplexFftKernel& k) {
  return k.storage == kHalf && k.n % 4 == 0;
}

void load_pairs(KernelWriter& w, const ComplexFftKernel& k) {
  const char* sign = k.inverse ? "-" : "";
  const auto plain = [&] {
    each_access(w, k.n / 2, [&](const std::string& i) {
      w.stmt("float4 t = ((const float4*)xb)[$];", i);
      w.stmt("bufA[SHP(2 * $)] = cmk(t.x, $t.y);", i, sign);
      w.stmt("bufA[SHP(2 * $ + 1)] = cmk(t.z, $t.w);", i, sign);
    });
  };
  if (k.inverse) {
    plain();
  } else {
    load_async(w, k.n / 2, "2 * $", "((const float4*)xb) + $", plain);
  }
}

void load_quads(KernelWriter& w, const ComplexFftKernel& k) {
  const std::string cast = "(" + w.backend.scalar_type(k.compute) + ")";
  each_access(w, k.n / 4, [&](const std::string& i) {
    w.stmt("float4 t = ((const float4*)xb)[$];", i);
    w.stmt("const iot* hp = (const iot*)&t;");
    for (int e = 0; e < 4; ++e) {
      w.stmt("bufA[SHP(4 * $ + $)] = cmk($hp[$].x, $$hp[$].y);", i, e, cast, e,
             k.inverse ? "-" : "", cast, e);
    }
  });
}

void load_singles(KernelWriter& w, const ComplexFftKernel& k) {
  each_access(w, k.n, [&](const std::string& i) {
    w.stmt("iot v = xb[$]; bufA[SHP($)] = $;", i, i, loaded_value(rows_of(k), "v", w.backend));
  });
}

// The inverse conjugates here and at the store, so that one set of stages serves both directions.
void load_row(KernelWriter& w, const ComplexFftKernel& k) {
  if (moves_pairs(k)) {
    load_pairs(w, k);
  } else if (moves_quads(k)) {
    load_quads(w, k);
  } else if (k.storage == kDouble && !k.inverse) {
    load_async(w, k.n, "$", "xb + $", [&] {
      each_access(w, k.n, [&](const std::string& i) { w.stmt("bufA[SHP($)] = xb[$];", i, i); });
    });
  } else {
    load_singles(w, k);
  }
  w.barrier();
}

void store_pairs(KernelWriter& w, const ComplexFftKernel& k) {
  const char* scale = k.inverse ? " * INVSC" : "";
  const char* sign = k.inverse ? "-" : "";
  each_access(w, k.n / 2, [&](const std::string& i) {
    w.stmt("cplx a = bufA[SHP(2 * $)]; cplx c = bufA[SHP(2 * $ + 1)];", i, i);
    w.stmt("((float4*)(out + batch * $))[$] = make_float4(a.x$, $(a.y$), c.x$, $(c.y$));", k.n, i,
           scale, sign, scale, scale, sign, scale);
  });
}

void store_quads(KernelWriter& w, const ComplexFftKernel& k) {
  each_access(w, k.n / 4, [&](const std::string& i) {
    w.stmt("float4 t; iot* hp = (iot*)&t;");
    for (int e = 0; e < 4; ++e) {
      const std::string r = "r" + std::to_string(e);
      w.stmt("cplx $ = bufA[SHP(4 * $ + $)];", r, i, e);
      w.stmt("hp[$] = $;", e, stored_value(rows_of(k), r, w.backend));
    }
    w.stmt("((float4*)(out + batch * $))[$] = t;", k.n, i);
  });
}

void store_row(KernelWriter& w, const ComplexFftKernel& k) {
  if (moves_pairs(k)) {
    store_pairs(w, k);
  } else if (moves_quads(k)) {
    store_quads(w, k);
  } else {
    each_access(w, k.n, [&](const std::string& i) {
      w.stmt("cplx r = bufA[SHP($)]; out[batch * $ + $] = $;", i, k.n, i,
             stored_value(rows_of(k), "r", w.backend));
    });
  }
}

std::string head(const ComplexFftKernel& k, const Backend& backend) {
  const std::string defines = format("#define TPF $\n", {std::to_string(k.tpf)}) +
                              inverse_define(rows_of(k), backend) + shp_define(k.padded);
  return fft_head(fft_prelude(rows_of(k), backend), defines, k.block(), "cplx", backend);
}

}  // namespace

std::string ComplexFftKernel::key() const {
  return format("cfft_$_$_$_$_$x$_$$",
                {std::to_string(n), std::to_string(compute), std::to_string(storage),
                 inverse ? "i" : "f", std::to_string(tpf), std::to_string(rows_per_block),
                 padded ? "p" : "n", radix25 ? "r" : ""});
}

std::vector<int> ComplexFftKernel::radices() const {
  return factorize(n, nullptr, radix25);
}

int ComplexFftKernel::pitch() const {
  return rader_extra(n) + (padded ? n + n / 16 + 1 : n);
}

size_t ComplexFftKernel::shared_bytes() const {
  return static_cast<size_t>(rows_per_block) * pitch() * complex_bytes(compute);
}

std::string complex_fft_source(const ComplexFftKernel& kernel, const Backend& backend) {
  const std::vector<int> radices = kernel.radices();
  KernelWriter w(kernel.compute, backend);
  register_twiddle_table(w, kernel.compute, kernel.n, "tw", radices);

  map_rows_in_block(w, kernel.rows_per_block, kernel.pitch());
  w.stmt("const iot* xb = x + brow * $;", kernel.n);
  w.line(kernel.inverse ? "  // load the row's conjugate" : "  // load the row");
  load_row(w, kernel);
  emit_fft_stages(w, "bufA", kernel.n, radices, kernel.tpf, false);
  w.line("  // behind the last barrier: surplus rows leave, the others are stored");
  w.stmt("if (batch >= nrows) return;");
  store_row(w, kernel);
  return head(kernel, backend) + w.str() + "}\n";
}

}  // namespace kevra::codegen
