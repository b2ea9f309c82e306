#include "codegen/kernels/bluestein.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/fft_parts.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"
#include "codegen/sizes.h"
#include "codegen/stages.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {
namespace {

int bins(int n) {
  return n / 2 + 1;
}

// The bins that are real in the spectrum of real data: what stands in their imaginary parts is
// none of the data's, and must not reach a result, nor the row that shares the transform.
std::string is_real_bin(const std::string& i, int n) {
  const std::string first = i + " == 0";
  return n % 2 != 0 ? first : first + " || " + i + " == " + std::to_string(n / 2);
}

void map_rows(KernelWriter& w, const BluesteinKernel& k) {
  if (k.mode == BluesteinMode::kComplex) {
    map_rows_in_block(w, 1, k.pitch());
    w.stmt("const DEV cplx* xb = x + brow * $;", k.n);
    return;
  }
  const bool forward = k.mode == BluesteinMode::kRealForward;
  const std::string type = forward ? w.backend.scalar_type(k.compute) : "cplx";
  const int row = forward ? k.n : bins(k.n);
  w.stmt("int tid = $;", w.backend.thread_index());
  w.stmt("I64 batch = $;", w.backend.block_index_x());
  row_pair(w);
  w.stmt("TG cplx* bufA = shbuf;");
  w.stmt("const DEV $* xa = x + r0c * $;", type, row);
  w.stmt("const DEV $* xc = x + r1c * $;", type, row);
}

// Two half spectra as that of one complex row: the mirrored conjugates fill the upper half.
void load_half_spectra(KernelWriter& w, const BluesteinKernel& k, const std::string& i) {
  const std::string scalar = w.backend.scalar_type(k.compute);
  w.stmt("cplx af, bf;");
  w.stmt("if ($ <= $) { af = xa[$]; bf = xc[$]; } else {", i, k.n / 2, i, i);
  w.stmt("  cplx ca = xa[$ - $]; cplx cb = xc[$ - $];", k.n, i, k.n, i);
  w.stmt("  af = cmk(ca.x, -ca.y); bf = cmk(cb.x, -cb.y);");
  w.stmt("}");
  w.stmt("if ($) { af.y = ($)0; bf.y = ($)0; }", is_real_bin(i, k.n), scalar, scalar);
  w.stmt("zz = cmul(cmk(af.x - bf.y, af.y + bf.x), bch[$]);", i);
}

void load_rows(KernelWriter& w, const BluesteinKernel& k) {
  const std::string scalar = w.backend.scalar_type(k.compute);
  w.line("  // the row times the chirp, and zeros behind it");
  w.for_loop("i", "tid", std::to_string(k.m), "TPF", [&](const std::string& i) {
    w.stmt("cplx zz = cmk(($)0, ($)0);", scalar, scalar);
    w.if_block(i + " < " + std::to_string(k.n), [&] {
      if (k.mode == BluesteinMode::kComplex) {
        w.stmt("zz = cmul(xb[$], bch[$]);", i, i);
      } else if (k.mode == BluesteinMode::kRealForward) {
        w.stmt("zz = cmul(cmk(xa[$], xc[$]), bch[$]);", i, i, i);
      } else {
        load_half_spectra(w, k, i);
      }
    });
    w.stmt("bufA[SHP($)] = zz;", i);
  });
  w.barrier();
}

void convolve(KernelWriter& w, const BluesteinKernel& k) {
  const std::vector<int> radices = k.radices();
  emit_fft_stages(w, "bufA", k.m, radices, k.tpf, false);
  w.for_loop("i", "tid", std::to_string(k.m), "TPF", [&](const std::string& i) {
    w.stmt("bufA[SHP($)] = cmul(bufA[SHP($)], filt[$]);", i, i, i);
  });
  w.barrier();
  emit_fft_stages(w, "bufA", k.m, radices, k.tpf, true);
}

// Z is the spectrum of row0 + i row1: the even part is that of row0, the odd part that of row1.
void store_half_spectra(KernelWriter& w, const BluesteinKernel& k) {
  const std::string scalar = w.backend.scalar_type(k.compute);
  const int count = bins(k.n);
  w.for_loop("k", "tid", std::to_string(count), "TPF", [&](const std::string& i) {
    w.stmt("cplx Zk = cmul(bufA[SHP($)], bch[$]);", i, i);
    w.stmt("int nk = ($ == 0) ? 0 : $ - $;", i, k.n, i);
    w.stmt("cplx Znk = cmul(bufA[SHP(nk)], bch[nk]);");
    const auto part = [&](const char* name, const char* factor, const char* sum) {
      w.stmt("$ $ = ($)$ * $ * scale;", scalar, name, scalar, factor, sum);
    };
    part("x0r", "0.5", "(Zk.x + Znk.x)");
    part("x0i", "0.5", "(Zk.y - Znk.y)");
    part("x1r", "0.5", "(Zk.y + Znk.y)");
    part("x1i", "(-0.5)", "(Zk.x - Znk.x)");
    w.stmt("out[row0 * $ + $] = $;", count, i, w.backend.make_vector2(k.compute, "x0r", "x0i"));
    w.stmt("if (row1 < nrows) out[row1 * $ + $] = $;", count, i,
           w.backend.make_vector2(k.compute, "x1r", "x1i"));
  });
}

void store_rows(KernelWriter& w, const BluesteinKernel& k) {
  const bool complex = k.mode == BluesteinMode::kComplex;
  w.line("  // behind the last barrier: surplus rows leave, the others are stored");
  w.stmt("if ($ >= nrows) return;", complex ? "batch" : "row0");
  if (k.mode == BluesteinMode::kRealForward) return store_half_spectra(w, k);
  w.for_loop("i", "tid", std::to_string(k.n), "TPF", [&](const std::string& i) {
    w.stmt("cplx r = cmul(bufA[SHP($)], bch[$]);", i, i);
    if (complex) {
      w.stmt("out[batch * $ + $] = $;", k.n, i,
             w.backend.make_vector2(k.compute, "r.x * scale", "r.y * scale"));
    } else {
      w.stmt("out[row0 * $ + $] = r.x * scale;", k.n, i);
      w.stmt("if (row1 < nrows) out[row1 * $ + $] = r.y * scale;", k.n, i);
    }
  });
}

std::string head(const BluesteinKernel& k, const Backend& backend) {
  const std::string scalar = backend.scalar_type(k.compute);
  return backend.source_preamble(k.compute) + complex_prelude(backend, k.compute) +
         format("#define TPF $\n", {std::to_string(k.tpf)}) + shp_define_shift(k.padding_shift()) +
         KernelSignature(k.name(), backend)
             .add_const_pointer(k.mode == BluesteinMode::kRealForward ? scalar : "cplx", "x")
             .add_pointer(k.mode == BluesteinMode::kRealInverse ? scalar : "cplx", "out")
             .add_const_pointer("cplx", "tw")
             .add_const_pointer("cplx", "bch")
             .add_const_pointer("cplx", "filt")
             .add_scalar(scalar, "scale")
             .add_scalar("int", "nrows")
             .set_launch_bounds(k.block(), 0)
             .set_shared("cplx", "shbuf")
             .head();
}

std::string step_prelude(const BluesteinSteps& s, const Backend& backend) {
  return fft_prelude({s.n, s.compute, s.storage, false}, backend);
}

std::string step_key(const char* kernel, const BluesteinSteps& s) {
  return format("$_$_$_$_$_$",
                {kernel, std::to_string(s.n), std::to_string(s.m), std::to_string(s.compute),
                 std::to_string(s.storage), std::to_string(static_cast<int>(s.mode))});
}

}  // namespace

const char* BluesteinKernel::name() const {
  switch (mode) {
    case BluesteinMode::kRealForward:
      return "kevra_rfft";
    case BluesteinMode::kRealInverse:
      return "kevra_irfft";
    default:
      return kFftKernelName;
  }
}

std::string BluesteinKernel::key() const {
  return format("$_$_$_$_$_$x1", {mode == BluesteinMode::kComplex ? "cblue" : "crblue",
                                  std::to_string(n), std::to_string(m), std::to_string(compute),
                                  inverse ? "i" : "f", std::to_string(tpf)});
}

std::vector<int> BluesteinKernel::radices() const {
  return factorize(m);
}

double BluesteinKernel::scale() const {
  double gain = 1;
  for (int r : radices()) {
    if (is_prime(r)) gain *= r;
  }
  return (inverse ? 1.0 / n : 1.0) / gain;
}

int BluesteinKernel::padding_shift() const {
  return compute == kDouble ? 3 : 4;
}

size_t BluesteinKernel::shared_bytes() const {
  return pitch() * complex_bytes(compute);
}

std::string bluestein_source(const BluesteinKernel& kernel, const Backend& backend) {
  KernelWriter w(kernel.compute, backend);
  register_twiddle_table(w, kernel.compute, kernel.m, "tw", kernel.radices());
  map_rows(w, kernel);
  load_rows(w, kernel);
  convolve(w, kernel);
  store_rows(w, kernel);
  return head(kernel, backend) + w.str() + "}\n";
}

std::string BluesteinSteps::pre_key() const {
  return step_key("cgbpre", *this);
}
std::string BluesteinSteps::multiply_key() const {
  return format("cgbmul_$_$", {std::to_string(m), std::to_string(compute)});
}
std::string BluesteinSteps::post_key() const {
  return step_key("cgbpost", *this);
}

std::string bluestein_pre_source(const BluesteinSteps& s, const Backend& backend) {
  const std::string scalar = backend.scalar_type(s.compute);
  const std::string cast = "(" + scalar + ")";
  const bool real = s.mode == BluesteinMode::kRealForward;
  const std::string type = real ? backend.scalar_type(s.storage) : "iot";
  KernelWriter w(s.compute, backend);
  flat_row_index(w, "i", std::to_string(s.m));
  w.stmt("const DEV $* xb = x + row * $;", type,
         s.mode == BluesteinMode::kRealInverse ? bins(s.n) : s.n);
  w.stmt("cplx zz = cmk(($)0, ($)0);", scalar, scalar);
  w.if_block("i < " + std::to_string(s.n), [&] {
    if (real) {
      w.stmt("zz = cmul(cmk($xb[i], $0), bch[i]);", cast, cast);
    } else if (s.mode == BluesteinMode::kComplex) {
      w.stmt("iot v = xb[i];");
      w.stmt("zz = cmul(cmk($v.x, $v.y), bch[i]);", cast, cast);
    } else {
      w.stmt("iot v = i <= $ ? xb[i] : xb[$ - i];", s.n / 2, s.n);
      w.stmt("cplx xi = cmk($v.x, i <= $ ? $v.y : -$v.y);", cast, s.n / 2, cast, cast);
      w.stmt("if ($) xi.y = $0;", is_real_bin("i", s.n), cast);
      w.stmt("zz = cmul(xi, bch[i]);");
    }
  });
  w.stmt("out[row * $ + i] = zz;", s.m);
  return step_prelude(s, backend) +
         KernelSignature(BluesteinSteps::kPreName, backend)
             .add_const_pointer(type, "x")
             .add_pointer("cplx", "out")
             .add_const_pointer("cplx", "bch")
             .set_launch_bounds(BluesteinSteps::kBlock, 0)
             .head() +
         w.str() + "}\n";
}

std::string bluestein_multiply_source(const BluesteinSteps& s, const Backend& backend) {
  KernelWriter w(s.compute, backend);
  flat_row_index(w, "i", std::to_string(s.m));
  w.stmt("z[row * $ + i] = cmul(z[row * $ + i], filt[i]);", s.m, s.m);
  return backend.source_preamble(s.compute) + complex_prelude(backend, s.compute) +
         KernelSignature(BluesteinSteps::kMultiplyName, backend)
             .add_pointer("cplx", "z")
             .add_const_pointer("cplx", "filt")
             .set_launch_bounds(BluesteinSteps::kBlock, 0)
             .head() +
         w.str() + "}\n";
}

std::string bluestein_post_source(const BluesteinSteps& s, const Backend& backend) {
  const bool real = s.mode == BluesteinMode::kRealInverse;
  KernelWriter w(s.compute, backend);
  flat_row_index(w, "i", std::to_string(s.output_count()));
  w.stmt("cplx r = cmul(z[row * $ + i], bch[i]);", s.m);
  w.stmt("out[row * $ + i] = $;", s.output_count(),
         real ? backend.convert_scalar(s.storage, "r.x * scale")
              : backend.make_vector2(s.storage, "r.x * scale", "r.y * scale"));
  return step_prelude(s, backend) +
         KernelSignature(BluesteinSteps::kPostName, backend)
             .add_const_pointer("cplx", "z")
             .add_pointer(real ? backend.scalar_type(s.storage) : "iot", "out")
             .add_const_pointer("cplx", "bch")
             .add_scalar(backend.scalar_type(s.compute), "scale")
             .set_launch_bounds(BluesteinSteps::kBlock, 0)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
