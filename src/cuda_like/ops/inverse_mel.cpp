#include "cuda_like/ops/inverse_mel.h"

#include <stdexcept>
#include <string>
#include <vector>

#include "codegen/kernels/row_product.h"
#include "codegen/precision.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/ops/plan_map.h"
#include "cuda_like/tables.h"

namespace kevra::ops {
namespace {

using codegen::RowProductKernel;

struct ProductPlan {
  kernel_t fn;
  devptr_t table;
};

void check_inverse_mel(const InverseMelMatrix& matrix, int64_t rows) {
  constexpr const char* kOp = "inverse_mel_scale";
  require_int32(kOp, "n_in", matrix.n_in, 1);
  require_int32(kOp, "n_out", matrix.n_out, 1);
  require_at_least(kOp, "frames", rows, 0);
  require_at_most(kOp, "frames", rows, codegen::kProductLimit / matrix.n_out);
}

// Matrices of one key and of different shapes have tables apart: no kernel reads past one.
template <class T>
devptr_t product_table(const InverseMelMatrix& matrix) {
  const std::string name = "pmatmul_" + std::to_string(matrix.n_out) + "_" +
                           std::to_string(matrix.n_in) + "_" + std::string(matrix.key);
  return device_vector_table<T>(name, [&matrix] {
    return std::vector<T>(matrix.values, matrix.values + matrix.n_out * matrix.n_in);
  });
}

template <class T>
const ProductPlan& product_plan(const InverseMelCall& call) {
  static thread_local PlanMap<ProductPlan> plans;
  const InverseMelMatrix& matrix = call.matrix;
  const PlanKey key{key_of({content_hash(matrix.key), uint64_t(matrix.n_in), uint64_t(matrix.n_out),
                            uint64_t(call.clamp), uint64_t(call.device)}),
                    0};
  if (const auto it = plans.find(key); it != plans.end()) return it->second;
  const RowProductKernel kernel{
      .prec = codegen::kPrecisionOf<T>,
      .n_in = static_cast<int>(matrix.n_in),
      .n_out = static_cast<int>(matrix.n_out),
      .mode = call.clamp ? codegen::ProductStore::kClamp : codegen::ProductStore::kPlain};
  const ProductPlan plan{.fn = kernel_function(kernel, call.device),
                         .table = product_table<T>(matrix)};
  return plans.emplace(key, plan).first->second;
}

template <class T>
void inverse_mel_scale(const InverseMelCall& call) {
  check_inverse_mel(call.matrix, call.rows);
  select_device(call.device);
  if (call.rows == 0) return;
  const ProductPlan& plan = product_plan<T>(call);
  devptr_t m = call.m;
  devptr_t out = call.out;
  devptr_t table = plan.table;
  devptr_t aux = m;  // these stores do not read it
  int64_t rows = call.rows;
  void* args[] = {&m, &out, &table, &aux, &rows};
  launch_kernel(plan.fn, codegen::product_blocks(rows, call.matrix.n_out), 1,
                RowProductKernel::kBlock, 0, args, RowProductKernel::kName, call.stream);
}

}  // namespace

void inverse_mel_scale_resident(const InverseMelCall& call, int prec) {
  prec == 2 ? inverse_mel_scale<double>(call) : inverse_mel_scale<float>(call);
}

template <class T>
PinnedArray<T> inverse_mel_scale_staged(const HostArray<T>& m, const InverseMelMatrix& matrix,
                                        bool clamp) {
  if (m.dims() != 2) throw std::invalid_argument("expected a 2-D (rows, n_in) array");
  const int64_t rows = m.shape[0];
  if (m.shape[1] != matrix.n_in) {
    throw std::invalid_argument("inverse_mel_scale: P columns must match M's n_in");
  }
  check_inverse_mel(matrix, rows);

  select_device(0);
  const size_t bytes = static_cast<size_t>(rows) * matrix.n_out * sizeof(T);
  DeviceBuffer dm = upload_staged(m.data, static_cast<size_t>(rows) * matrix.n_in);
  DeviceBuffer dout(bytes, nullptr);
  inverse_mel_scale<T>({.m = dm.p, .out = dout.p, .rows = rows, .matrix = matrix, .clamp = clamp});

  PinnedArray<T> out({rows, matrix.n_out});
  KEVRA_CHECK(memcpyDtoH(out.mutable_data(), dout.p, bytes));
  return out;
}

template PinnedArray<float> inverse_mel_scale_staged(const HostArray<float>&,
                                                     const InverseMelMatrix&, bool);
template PinnedArray<double> inverse_mel_scale_staged(const HostArray<double>&,
                                                      const InverseMelMatrix&, bool);

}  // namespace kevra::ops
