#include "codegen/backend.h"

#include "codegen/format.h"
#include "codegen/precision.h"

namespace kevra::codegen {
namespace {

string by_precision(int prec, const char* half, const char* single, const char* dbl) {
  return prec == kHalf ? half : prec == kDouble ? dbl : single;
}

}  // namespace

string CudaBackend::scalar_type(int prec) const {
  return by_precision(prec, "__half", "float", "double");
}
string CudaBackend::vector2_type(int prec) const {
  return by_precision(prec, "__half2", "float2", "double2");
}
string CudaBackend::kernel_qualifier() const {
  return "extern \"C\" __global__ void";
}
string CudaBackend::const_pointer_type(const string& type) const {
  return "const " + type + "* __restrict__";
}
string CudaBackend::pointer_type(const string& type) const {
  return type + "* __restrict__";
}
string CudaBackend::shared_array(const string& type, const string& name) const {
  return format("extern __shared__ $ $[];", {type, name});
}

string CudaBackend::thread_index() const {
  return "threadIdx.x";
}
string CudaBackend::block_index_x() const {
  return "blockIdx.x";
}
string CudaBackend::block_index_y() const {
  return "blockIdx.y";
}
string CudaBackend::block_size() const {
  return "blockDim.x";
}
string CudaBackend::barrier_call() const {
  return "__syncthreads();";
}

string CudaBackend::sincos_call(int prec, const string& angle, const string& cos_name,
                                const string& sin_name) const {
  return format(prec == kDouble ? "sincos($, &$, &$);" : "__sincosf($, &$, &$);",
                {angle, sin_name, cos_name});
}
string CudaBackend::log10_call(const string& x) const {
  return format("log10f($)", {x});
}
string CudaBackend::sqrt_call(const string& x) const {
  return format("sqrtf($)", {x});
}
string CudaBackend::log_call(const string& x) const {
  return format("logf($)", {x});
}
string CudaBackend::exp_call(const string& x) const {
  return format("expf($)", {x});
}
string CudaBackend::pow_call(const string& a, const string& b) const {
  return format("powf($, $)", {a, b});
}
string CudaBackend::cos_call(int prec, const string& x) const {
  return format(prec == kDouble ? "cos($)" : "__cosf($)", {x});
}
string CudaBackend::atomic_add(const string& target, const string& value) const {
  return format("atomicAdd(&($), $);", {target, value});
}
string CudaBackend::atomic_add_wide(const string& target, const string& value) const {
  return atomic_add(target, value);
}
int CudaBackend::shuffle_width() const {
  return 32;
}
string CudaBackend::make_vector2(int prec, const string& a, const string& b) const {
  return format(
      by_precision(prec, "__floats2half2_rn((float)($),(float)($))",
                   "make_float2((float)($),(float)($))", "make_double2((double)($),(double)($))")
          .c_str(),
      {a, b});
}
string CudaBackend::convert_scalar(int prec, const string& x) const {
  return format(
      by_precision(prec, "__float2half_rn((float)($))", "(float)($)", "(double)($)").c_str(), {x});
}

string CudaBackend::device_inline() const {
  return "__device__ __forceinline__ ";
}
string CudaBackend::uint_type() const {
  return "unsigned";
}
string CudaBackend::int64_type() const {
  return "long long";
}
string CudaBackend::bit_reverse(const string& x) const {
  return format("__brev($)", {x});
}
bool CudaBackend::has_vector_loads() const {
  return true;
}
string CudaBackend::shared_pointer_type(const string& type) const {
  return type + "*";
}
string CudaBackend::group_space() const {
  return "";
}
string CudaBackend::device_space() const {
  return "";
}

string CudaBackend::pointer_param(bool is_const, const string& type, const string& name,
                                  int /*index*/) const {
  return (is_const ? const_pointer_type(type) : pointer_type(type)) + " " + name;
}
string CudaBackend::scalar_param(const string& type, const string& name, int /*index*/) const {
  return type + " " + name;
}
string CudaBackend::extra_params() const {
  return "";
}
string CudaBackend::extra_params_shared(const string& /*type*/, const string& /*name*/) const {
  return "";
}
string CudaBackend::shared_declaration(const string& type, const string& name) const {
  return shared_array(type, name);
}

string HipBackend::source_preamble(int /*prec*/) const {
  return "";
}
string HipBackend::launch_bounds(int threads, int /*min_blocks*/) const {
  return format(" __launch_bounds__($)", {std::to_string(threads)});
}
string HipBackend::shuffle_xor(const string& value, const string& lane_mask) const {
  // The width stays 32 on 64-wide hardware too: the emitters count in groups of 32.
  return format("__shfl_xor($, $, 32)", {value, lane_mask});
}

}  // namespace kevra::codegen
