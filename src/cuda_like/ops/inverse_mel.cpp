#include "cuda_like/ops/inverse_mel.h"

#include <stdexcept>
#include <string>
#include <vector>

#include "codegen/kernels/row_product.h"
#include "codegen/precision.h"
#include "cuda_like/ops/gradients.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/ops/plan_map.h"
#include "cuda_like/tables.h"

namespace kevra::ops {
namespace {

using codegen::ProductStore;
using codegen::RowProductKernel;

// Rows of n_in values to rows of n_out.
struct ProductPlan {
  kernel_t fn;
  devptr_t table;
  int64_t n_out;
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
devptr_t product_table(const InverseMelMatrix& matrix, bool transposed) {
  const std::string name = (transposed ? "pmatmul_t_" : "pmatmul_") + std::to_string(matrix.n_out) +
                           "_" + std::to_string(matrix.n_in) + "_" + std::string(matrix.key);
  return device_vector_table<T>(name, [&matrix, transposed] {
    std::vector<T> table(matrix.values, matrix.values + matrix.n_out * matrix.n_in);
    if (!transposed) return table;
    for (int64_t i = 0; i < matrix.n_out * matrix.n_in; ++i) {
      table[i % matrix.n_in * matrix.n_out + i / matrix.n_in] = static_cast<T>(matrix.values[i]);
    }
    return table;
  });
}

template <class T>
const ProductPlan& product_plan(const InverseMelMatrix& matrix, ProductStore store, bool transposed,
                                int device) {
  static thread_local PlanMap<ProductPlan> plans;
  const PlanKey key{key_of({content_hash(matrix.key), uint64_t(matrix.n_in), uint64_t(matrix.n_out),
                            uint64_t(store), uint64_t(transposed), uint64_t(device)}),
                    0};
  if (const auto it = plans.find(key); it != plans.end()) return it->second;
  const int64_t n_out = transposed ? matrix.n_in : matrix.n_out;
  const RowProductKernel kernel{.prec = codegen::kPrecisionOf<T>,
                                .n_in = static_cast<int>(transposed ? matrix.n_out : matrix.n_in),
                                .n_out = static_cast<int>(n_out),
                                .mode = store};
  const ProductPlan plan{.fn = kernel_function(kernel, device),
                         .table = product_table<T>(matrix, transposed),
                         .n_out = n_out};
  return plans.emplace(key, plan).first->second;
}

// `aux` is read by the gate alone.
void launch_product(const ProductPlan& plan, devptr_t m, devptr_t out, devptr_t aux, int64_t rows,
                    stream_t stream) {
  devptr_t table = plan.table;
  void* args[] = {&m, &out, &table, &aux, &rows};
  launch_kernel(plan.fn, codegen::product_blocks(rows, plan.n_out), 1, RowProductKernel::kBlock, 0,
                args, RowProductKernel::kName, stream);
}

template <class T>
void inverse_mel_scale(const InverseMelCall& call) {
  check_inverse_mel(call.matrix, call.rows);
  select_device(call.device);
  if (call.rows == 0) return;
  const ProductStore store = call.clamp ? ProductStore::kClamp : ProductStore::kPlain;
  const ProductPlan& plan = product_plan<T>(call.matrix, store, false, call.device);
  launch_product(plan, call.m, call.out, call.m, call.rows, call.stream);
}

template <class T>
void inverse_mel_scale_adjoint(const InverseMelAdjointCall& call) {
  const InverseMelMatrix& matrix = call.matrix;
  check_inverse_mel(matrix, call.rows);
  require_at_most("inverse_mel_scale", "frames", call.rows, codegen::kProductLimit / matrix.n_in);
  select_device(call.device);
  if (call.rows == 0) return;
  const ProductPlan& back = product_plan<T>(matrix, ProductStore::kPlain, true, call.device);
  if (!call.clamp) return launch_product(back, call.g, call.gm, call.g, call.rows, call.stream);

  const ProductPlan& gate = product_plan<T>(matrix, ProductStore::kGate, false, call.device);
  const DeviceBuffer gated(static_cast<size_t>(call.rows) * matrix.n_out * sizeof(T), call.stream);
  launch_product(gate, call.m, gated.p, call.g, call.rows, call.stream);
  launch_product(back, gated.p, call.gm, gated.p, call.rows, call.stream);
}

}  // namespace

void inverse_mel_scale_resident(const InverseMelCall& call, int prec) {
  prec == 2 ? inverse_mel_scale<double>(call) : inverse_mel_scale<float>(call);
}

void inverse_mel_scale_adjoint_resident(const InverseMelAdjointCall& call, int prec) {
  require_full_precision(prec, "inverse_mel_scale: half gradients compute in f32 - upcast");
  prec == codegen::kDouble ? inverse_mel_scale_adjoint<double>(call)
                           : inverse_mel_scale_adjoint<float>(call);
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
