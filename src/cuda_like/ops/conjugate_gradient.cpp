#include "cuda_like/ops/conjugate_gradient.h"

#include <algorithm>
#include <complex>
#include <optional>
#include <vector>

#include "codegen/kernels/conjugate_gradient.h"
#include "codegen/precision.h"

namespace kevra::ops {
namespace {

using codegen::CgAlphaKernel;
using codegen::CgBetaKernel;
using codegen::VectorDotKernel;
using codegen::VectorUpdateKernel;

// The method's vectors, scalars and kernels. Blocks belong to the call's stream; a graph reads and
// writes them in place.
template <class T>
struct Solver {
  Solver(const LinearMap& a, const LeastSquaresCall& of)
      : map(a),
        call(of),
        vec(static_cast<size_t>(of.batch * of.length) * sizeof(T)),
        dot(kernel_function(VectorDotKernel{codegen::kPrecisionOf<T>}, of.device)),
        update(kernel_function(VectorUpdateKernel{codegen::kPrecisionOf<T>}, of.device)),
        alpha(kernel_function(CgAlphaKernel{codegen::kPrecisionOf<T>}, of.device)),
        beta(kernel_function(CgBetaKernel{codegen::kPrecisionOf<T>}, of.device)),
        dC(static_cast<size_t>(of.batch * of.coefficients) * sizeof(std::complex<T>), of.stream),
        dr(vec, of.stream),
        dp(vec, of.stream),
        dq(vec, of.stream),
        rs(scalars(1), of.stream),
        pap(scalars(1), of.stream),
        rs_new(scalars(1), of.stream),
        ab_y(scalars(2), of.stream),
        ab_r(scalars(2), of.stream),
        dab_p(scalars(2), of.stream) {}

  size_t scalars(int64_t each) const { return static_cast<size_t>(each * call.batch) * sizeof(T); }

  const LinearMap& map;
  const LeastSquaresCall& call;
  size_t vec;  // bytes of all rows' signals
  kernel_t dot, update, alpha, beta;
  DeviceBuffer dC;                 // A p
  DeviceBuffer dr, dp, dq;         // residual, direction, A^H A p
  DeviceBuffer rs, pap, rs_new;    // r r, p q, the next r r
  DeviceBuffer ab_y, ab_r, dab_p;  // factors of the three updates: of x by row, then of y
};

template <class T>
void queue_dot(const Solver<T>& s, devptr_t u, devptr_t v, devptr_t out, stream_t stream) {
  int64_t n = s.call.length;
  void* args[] = {&u, &v, &out, &n};
  launch_kernel(s.dot, static_cast<unsigned>(s.call.batch), 1, VectorDotKernel::kBlock,
                VectorDotKernel{codegen::kPrecisionOf<T>}.shared_bytes(), args,
                VectorDotKernel::kName, stream);
}

// y = a x + c y, a and c being the two halves of `factors`.
template <class T>
void queue_update(const Solver<T>& s, devptr_t x, devptr_t y, devptr_t factors, stream_t stream) {
  constexpr int64_t kBlock = VectorUpdateKernel::kBlock;
  int64_t n = s.call.length;
  devptr_t a = factors;
  devptr_t c = static_cast<T*>(factors) + s.call.batch;
  void* args[] = {&x, &y, &a, &c, &n};
  launch_kernel(s.update, static_cast<unsigned>((n + kBlock - 1) / kBlock),
                static_cast<unsigned>(s.call.batch), kBlock, 0, args, VectorUpdateKernel::kName,
                stream);
}

template <class T>
unsigned blocks_of_systems(const Solver<T>& s) {
  return static_cast<unsigned>((s.call.batch + CgAlphaKernel::kBlock - 1) / CgAlphaKernel::kBlock);
}

template <class T>
void queue_alpha(const Solver<T>& s, stream_t stream) {
  devptr_t rs = s.rs.p;
  devptr_t pap = s.pap.p;
  devptr_t ab_y = s.ab_y.p;
  devptr_t ab_r = s.ab_r.p;
  int nb = static_cast<int>(s.call.batch);
  void* args[] = {&rs, &pap, &ab_y, &ab_r, &nb};
  launch_kernel(s.alpha, blocks_of_systems(s), 1, CgAlphaKernel::kBlock, 0, args,
                CgAlphaKernel::kName, stream);
}

template <class T>
void queue_beta(const Solver<T>& s, stream_t stream) {
  devptr_t rs_new = s.rs_new.p;
  devptr_t rs = s.rs.p;
  devptr_t ab_p = s.dab_p.p;
  int nb = static_cast<int>(s.call.batch);
  void* args[] = {&rs_new, &rs, &ab_p, &nb};
  launch_kernel(s.beta, blocks_of_systems(s), 1, CgBetaKernel::kBlock, 0, args, CgBetaKernel::kName,
                stream);
}

// Residual and direction A^H (c - A y).
template <class T>
void queue_start(const Solver<T>& s) {
  const stream_t stream = s.call.stream;
  const auto B = static_cast<size_t>(s.call.batch);
  const DeviceBuffer &dab_p = s.dab_p, &dp = s.dp, &dr = s.dr;
  const size_t vec = s.vec;
  s.map.adjoint(s.call.c, dp.p, stream);
  s.map.forward(s.call.y, s.dC.p, stream);
  s.map.adjoint(s.dC.p, dr.p, stream);
  {
    std::vector<T> minus_ones_ones(2 * B, T(1));
    std::fill_n(minus_ones_ones.begin(), B, T(-1));
    KEVRA_CHECK(
        memcpyHtoDAsync(dab_p.p, minus_ones_ones.data(), 2 * B * sizeof(T), (stream_t)stream));
    KEVRA_CHECK(streamSynchronize((stream_t)stream));  // the vector goes
  }
  queue_update(s, dr.p, dp.p, dab_p.p, stream);
  KEVRA_CHECK(memcpyDtoDAsync(dr.p, dp.p, vec, (stream_t)stream));
  queue_dot(s, dr.p, dr.p, s.rs.p, stream);
}

// One step. The residual follows its recurrence and is never taken anew from y.
template <class T>
void queue_step(const Solver<T>& s, stream_t stream) {
  s.map.forward(s.dp.p, s.dC.p, stream);
  s.map.adjoint(s.dC.p, s.dq.p, stream);
  queue_dot(s, s.dp.p, s.dq.p, s.pap.p, stream);
  queue_alpha(s, stream);
  queue_update(s, s.dp.p, s.call.y, s.ab_y.p, stream);
  queue_update(s, s.dq.p, s.dr.p, s.ab_r.p, stream);
  queue_dot(s, s.dr.p, s.dr.p, s.rs_new.p, stream);
  queue_beta(s, stream);
  queue_update(s, s.dr.p, s.dp.p, s.dab_p.p, stream);
}

}  // namespace

template <class T>
void solve_least_squares(const LinearMap& map, const LeastSquaresCall& call) {
  const stream_t stream = call.stream;
  std::optional<Solver<T>> solver;  // its blocks outlive the wait
  if (call.n_iter >= 1) queue_start(solver.emplace(map, call));
  int64_t left = std::max<int64_t>(call.n_iter, 0);
  if (left >= 2) {  // one step is not worth a graph
    left -= replay_recorded([&](stream_t on) { queue_step(*solver, on); }, left, stream);
  }
  for (; left > 0; --left) queue_step(*solver, stream);
  KEVRA_CHECK(streamSynchronize((stream_t)stream));
}

template void solve_least_squares<float>(const LinearMap&, const LeastSquaresCall&);
template void solve_least_squares<double>(const LinearMap&, const LeastSquaresCall&);

}  // namespace kevra::ops
