#include "cuda_like/ops/icqt_solver.h"

#include <memory>
#include <stdexcept>

#include "codegen/kernels/spectrum_output.h"
#include "cuda_like/ops/conjugate_gradient.h"
#include "cuda_like/ops/cqt.h"
#include "cuda_like/ops/cqt_adjoint.h"
#include "cuda_like/ops/icqt.h"

namespace kevra::ops {
namespace {

constexpr const char* kOp = "icqt";

CqtCall forward_of(const IcqtSolveCall& call) {
  return {.op = kOp,
          .x = nullptr,
          .out = nullptr,
          .batch = call.batch,
          .length = call.length,
          .design = call.design,
          .form = codegen::kComplexForm,
          .device = call.device,
          .stream = call.stream};
}

// The transform of `call` and its adjoint, their plans found or made: what they queue needs no
// table and no kernel any more.
template <class T>
LinearMap transform_of(const CqtCall& call) {
  const std::shared_ptr<const CqtPlan> forward = cqt_plan<T>(call);
  const std::shared_ptr<const CqtAdjointPlan> adjoint = cqt_adjoint_plan<T>(call);
  return {.forward =
              [forward, call](devptr_t x, devptr_t c, stream_t stream) {
                CqtCall own = call;
                own.x = x;
                own.out = c;
                own.stream = stream;
                queue_cqt<T>(*forward, own);
              },
          .adjoint =
              [adjoint, call](devptr_t c, devptr_t x, stream_t stream) {
                CqtAdjointCall own{.forward = call, .g = c, .gx = x};
                own.forward.stream = stream;
                queue_cqt_adjoint<T>(*adjoint, own);
              }};
}

template <class T>
void icqt_cg(const IcqtSolveCall& call) {
  const CqtCall forward = forward_of(call);
  if (forward.is_empty()) {  // no bins to come near to: every signal is as good
    check_cqt_adjoint(forward);
    select_device(call.device);
    KEVRA_CHECK(streamSynchronize(call.stream));
    return;
  }
  solve_least_squares<T>(transform_of<T>(forward),
                         {.c = call.c,
                          .y = call.y,
                          .batch = call.batch,
                          .length = call.length,
                          .coefficients = call.design.n_bins * call.design.frames,
                          .n_iter = call.n_iter,
                          .device = call.device,
                          .stream = call.stream});
}

}  // namespace

void icqt_cg_resident(const IcqtSolveCall& call, int prec) {
  if (prec == 0) {
    throw std::invalid_argument("icqt: half solves compute in f32 - upcast the tensors");
  }
  prec == 2 ? icqt_cg<double>(call) : icqt_cg<float>(call);
}

template <class T>
PinnedArray<T> icqt_cg_staged(const HostArray<std::complex<T>>& c, const HostArray<T>& y0,
                              const CqtDesign& design, int64_t n_iter) {
  if (c.dims() != 3 || y0.dims() != 2 || c.shape[0] != y0.shape[0]) {
    throw std::invalid_argument("icqt: expected C (batch, n_bins, frames) and y0 (batch, samples)");
  }
  check_bins(c.shape, design.n_bins, design.frames);
  IcqtSolveCall call{.c = nullptr,
                     .y = nullptr,
                     .batch = y0.shape[0],
                     .length = y0.shape[1],
                     .design = design,
                     .n_iter = n_iter};
  check_cqt_adjoint(forward_of(call));
  select_device(0);
  PinnedArray<T> y(y0.shape);
  const size_t samples = PinnedArray<T>::element_count(y0.shape);
  if (samples == 0) return y;
  DeviceBuffer dc = upload_staged(c.data, PinnedArray<T>::element_count(c.shape));
  DeviceBuffer dy = upload_staged(y0.data, samples);
  call.c = dc.p;
  call.y = dy.p;
  icqt_cg<T>(call);
  KEVRA_CHECK(memcpyDtoH(y.mutable_data(), dy.p, samples * sizeof(T)));
  return y;
}

template PinnedArray<float> icqt_cg_staged(const HostArray<std::complex<float>>&,
                                           const HostArray<float>&, const CqtDesign&, int64_t);
template PinnedArray<double> icqt_cg_staged(const HostArray<std::complex<double>>&,
                                            const HostArray<double>&, const CqtDesign&, int64_t);

}  // namespace kevra::ops
