#include "codegen/kernels/fft_parts.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"

namespace kevra::codegen {

std::string inverse_define(const FftRows& rows, const Backend& backend) {
  if (!rows.inverse) return "";
  return format("#define INVSC (($)(1.0 / $))\n",
                {backend.scalar_type(rows.compute), std::to_string(rows.n)});
}

std::string fft_prelude(const FftRows& rows, const Backend& backend) {
  return backend.source_preamble(rows.storage == kHalf ? kHalf : rows.compute) +
         complex_prelude(backend, rows.compute) +
         storage_typedef(backend, rows.compute, rows.storage);
}

std::string fft_head(const std::string& prelude, const std::string& defines, int block,
                     const std::string& shared_type, const Backend& backend) {
  return prelude + defines +
         KernelSignature(kFftKernelName, backend)
             .add_const_pointer("iot", "x")
             .add_pointer("iot", "out")
             .add_const_pointer("cplx", "tw")
             .add_scalar("int", "nrows")
             .set_launch_bounds(block, 0)
             .set_shared(shared_type, "shbuf")
             .head();
}

std::string loaded_value(const FftRows& rows, const std::string& value, const Backend& backend) {
  const std::string cast = "(" + backend.scalar_type(rows.compute) + ")";
  return format("cmk($$.x, $$$.y)", {cast, value, rows.inverse ? "-" : "", cast, value});
}

std::string stored_real(const FftRows& rows, const std::string& value) {
  return rows.inverse ? value + ".x * INVSC" : value + ".x";
}
std::string stored_imaginary(const FftRows& rows, const std::string& value) {
  return rows.inverse ? "-(" + value + ".y * INVSC)" : value + ".y";
}
std::string stored_value(const FftRows& rows, const std::string& value, const Backend& backend) {
  return backend.make_vector2(rows.storage, stored_real(rows, value),
                              stored_imaginary(rows, value));
}

void each_access(KernelWriter& w, int count, const AccessBody& body) {
  w.for_loop("i", "tid", std::to_string(count), "TPF", body);
}

void load_async(KernelWriter& w, int count, const char* destination, const char* source,
                const std::function<void()>& plain) {
  w.line("#if __CUDA_ARCH__ >= 800");
  each_access(w, count, [&](const std::string& i) {
    w.stmt("{ unsigned sa = (unsigned)__cvta_generic_to_shared(&bufA[SHP($)]);",
           format(destination, {i}));
    w.stmt(
        "  asm volatile(\"cp.async.cg.shared.global [%0], [%1], 16;\" :: \"r\"(sa), \"l\"($)); }",
        format(source, {i}));
  });
  w.stmt("asm volatile(\"cp.async.commit_group;\");");
  w.stmt("asm volatile(\"cp.async.wait_group 0;\");");
  w.line("#else");
  plain();
  w.line("#endif");
}

}  // namespace kevra::codegen
