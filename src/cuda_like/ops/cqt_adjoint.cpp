#include "cuda_like/ops/cqt_adjoint.h"

#include <complex>
#include <utility>

#include "codegen/kernels/cqt.h"
#include "codegen/kernels/cqt_adjoint.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/precision.h"
#include "cuda_like/ops/cqt_levels.h"
#include "cuda_like/ops/frames.h"
#include "cuda_like/ops/gradients.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/ops/plan_map.h"
#include "cuda_like/ops/stft_adjoint.h"

namespace kevra::ops {
namespace {

using codegen::CqtAddLevelKernel;
using codegen::CqtBinGradientKernel;
using codegen::CqtSpectrumGradientKernel;
using codegen::HalfBandAdjointKernel;
using codegen::HalfBandKernel;

bool is_complex(const CqtCall& forward) {
  return forward.form == codegen::kComplexForm;
}

template <class T>
CqtAdjointPlan build(const CqtCall& forward) {
  constexpr int kPrec = codegen::kPrecisionOf<T>;
  const int device = forward.device;
  CqtAdjointPlan plan;
  plan.lengths = level_lengths(forward.length, forward.design.n_levels);
  plan.taps = taps_table<T>(forward.design);
  plan.steps = cqt_steps<T>(forward, plan.lengths);
  if (plan.lengths.size() > 1) {
    plan.half_band_adjoint = kernel_function(HalfBandAdjointKernel{kPrec}, device);
    // The transform is linear up to the bins: the complex form needs no signal.
    if (!is_complex(forward)) {
      plan.decimate = kernel_function(HalfBandKernel{kPrec, kPrec}, device);
    }
  }
  plan.bin_gradients =
      kernel_function(CqtBinGradientKernel{kPrec, forward.form, forward.eps}, device);
  plan.spectrum_gradients = kernel_function(CqtSpectrumGradientKernel{kPrec}, device);
  plan.add_level = kernel_function(CqtAddLevelKernel{kPrec}, device);
  return plan;
}

// The signals of the levels above 0, where the gradients of bins depend on them.
template <class T>
std::vector<DeviceBuffer> queue_levels(const CqtAdjointPlan& plan, const CqtCall& forward) {
  std::vector<DeviceBuffer> signals;
  if (is_complex(forward)) return signals;
  signals.reserve(plan.lengths.size());
  for (size_t level = 0; level + 1 < plan.lengths.size(); ++level) {
    signals.push_back(queue_decimation<T>(plan.decimate, plan.taps, plan.lengths[level],
                                          plan.lengths[level + 1], forward,
                                          level == 0 ? forward.x : signals.back().p));
  }
  return signals;
}

template <class T>
DeviceBuffer record_spectra(const CqtAdjointPlan& plan, const CqtStep& step, const CqtCall& forward,
                            devptr_t signal) {
  const DeviceBuffer padded = padded_zeros<T>(step, forward);
  place_signal<T>(step, plan.lengths[step.octave.level], forward, signal, padded.p);
  return queue_spectra<T>(step, forward, padded.p);
}

// dE/dC of the record's bins, (batch, rows, frames).
template <class T>
DeviceBuffer queue_bin_gradients(const CqtAdjointPlan& plan, const CqtStep& step,
                                 const CqtAdjointCall& call, devptr_t spectra) {
  const CqtCall& forward = call.forward;
  CqtOctave o = step.octave;
  int bins = o.bins();
  int n_bins = static_cast<int>(forward.design.n_bins);
  int64_t nfl = step.frames;
  int64_t nf = forward.design.frames;
  T eps = static_cast<T>(forward.eps);
  devptr_t g = call.g;
  DeviceBuffer gc(static_cast<size_t>(forward.batch * o.rows * nf) * sizeof(std::complex<T>),
                  forward.stream);
  void* args[] = {&spectra, &gc.p, &g,      &o.br,     &o.bi, &nfl,   &bins,
                  &o.rows,  &nf,   &n_bins, &o.row_lo, &eps,  &o.blo, &o.bhi};
  launch_rows(plan.bin_gradients, o.rows * nf, forward, args, CqtBinGradientKernel::kName);
  return gc;
}

template <class T>
DeviceBuffer bin_gradients(const CqtAdjointPlan& plan, const CqtStep& step,
                           const CqtAdjointCall& call, devptr_t signal) {
  if (is_complex(call.forward)) return queue_bin_gradients<T>(plan, step, call, nullptr);
  const DeviceBuffer spectra = record_spectra<T>(plan, step, call.forward, signal);
  return queue_bin_gradients<T>(plan, step, call, spectra.p);
}

// dE/dS of all the level's frames, (batch, frames, bins); 0 for those beyond the result's.
template <class T>
DeviceBuffer spectrum_gradients(const CqtAdjointPlan& plan, const CqtStep& step,
                                const CqtCall& forward, devptr_t gc) {
  const int64_t B = forward.batch;
  const stream_t stream = forward.stream;
  CqtOctave o = step.octave;
  int nb = o.bins();
  int64_t nfl = step.frames;
  int64_t nf = forward.design.frames;
  DeviceBuffer gS((size_t)B * nfl * nb * 2 * sizeof(T), stream);
  KEVRA_CHECK(memsetD8Async(gS.p, 0, (size_t)B * nfl * nb * 2 * sizeof(T), (stream_t)stream));
  void* args[] = {&gc, &gS.p, &o.br, &o.bi, &nfl, &nb, &o.rows, &nf, &o.klo, &o.khi};
  launch_rows(plan.spectrum_gradients, nf * nb, forward, args, CqtSpectrumGradientKernel::kName);
  return gS;
}

// Of the padded signal, (batch, padded).
template <class T>
DeviceBuffer padded_gradient(const CqtStep& step, const CqtCall& forward, devptr_t gS) {
  DeviceBuffer padded(static_cast<size_t>(forward.batch * step.padded) * sizeof(T), forward.stream);
  const int64_t bins = step.octave.bins();
  stft_adjoint_dispatch<T>({.g = gS,
                            .x = nullptr,
                            .gx = padded.p,
                            .batch = forward.batch,
                            .length = step.padded,
                            .frames = step.frames,
                            .stride_batch = step.frames * bins,
                            .stride_bin = 1,
                            .stride_frame = bins,
                            .n_fft = step.octave.n_fft,
                            .hop = step.octave.hop,
                            .center = false,
                            .form = codegen::kComplexForm,
                            .eps = 0,
                            .window = untapered(),
                            .device = forward.device,
                            .stream = forward.stream});
  return padded;
}

// Adds what the record's bins have to say to the gradient of its level.
template <class T>
void queue_record(const CqtAdjointPlan& plan, const CqtStep& step, const CqtAdjointCall& call,
                  devptr_t signal, devptr_t gradient) {
  // A buffer goes back as soon as the next one is made of it.
  const auto frames = [&] {
    const DeviceBuffer gc = bin_gradients<T>(plan, step, call, signal);
    return spectrum_gradients<T>(plan, step, call.forward, gc.p);
  };
  const auto padded = [&] {
    const DeviceBuffer gS = frames();
    return padded_gradient<T>(step, call.forward, gS.p);
  };
  const DeviceBuffer gpad = padded();
  devptr_t from = gpad.p;
  int64_t plen = step.padded;
  int64_t n = plan.lengths[step.octave.level];
  int pad = static_cast<int>(cqt_padding(step.octave.n_fft));
  void* args[] = {&from, &gradient, &plen, &pad, &n};
  launch_rows(plan.add_level, n, call.forward, args, CqtAddLevelKernel::kName);
}

// From the gradient of level + 1, `on` samples a row, to that of the level, n samples.
void launch_half_band_adjoint(const CqtAdjointPlan& plan, size_t level, const CqtCall& forward,
                              devptr_t from, devptr_t to) {
  devptr_t taps = plan.taps;
  int64_t n = plan.lengths[level];
  int64_t on = plan.lengths[level + 1];
  void* args[] = {&from, &to, &taps, &n, &on};
  launch_rows(plan.half_band_adjoint, n, forward, args, HalfBandAdjointKernel::kName);
}

void check_batch(const CqtCall& forward) {
  require_at_least(forward.op, "batch", forward.batch, 0);
  if (forward.batch == 0) return;
  const char* kernel = forward.design.n_levels == 1 ? CqtBinGradientKernel::kName
                       : is_complex(forward)        ? HalfBandAdjointKernel::kName
                                                    : HalfBandKernel::kName;
  check_frame_batch(forward.op, kernel, forward.batch);
}

template <class T>
void cqt_adjoint(const CqtAdjointCall& call) {
  const CqtCall& forward = call.forward;
  if (!forward.is_empty()) {
    return queue_cqt_adjoint<T>(*cqt_adjoint_plan<T>(forward), call);
  }
  check_cqt_adjoint(forward);
  queue_no_gradient<T>(call);
}

}  // namespace

void check_cqt_adjoint(const CqtCall& forward) {
  check_cqt_design(forward.op, forward.design, forward.length);
  check_eps(forward.op, forward.form, forward.eps);
  check_batch(forward);
}

template <class T>
std::shared_ptr<const CqtAdjointPlan> cqt_adjoint_plan(const CqtCall& forward) {
  static thread_local PlanMap<std::shared_ptr<const CqtAdjointPlan>> plans;
  const PlanKey key = cqt_plan_key(forward);
  auto found = plans.find(key);
  if (found != plans.end()) {
    check_batch(forward);
    select_device(forward.device);
  } else {
    check_cqt_adjoint(forward);
    select_device(forward.device);
    found = plans.emplace(key, std::make_shared<const CqtAdjointPlan>(build<T>(forward))).first;
  }
  check_spectra(forward, found->second->steps);
  return found->second;
}

template <class T>
void queue_cqt_adjoint(const CqtAdjointPlan& plan, const CqtAdjointCall& call) {
  const CqtCall& forward = call.forward;
  const std::vector<int64_t>& lens = plan.lengths;
  const int64_t B = forward.batch;
  const stream_t stream = forward.stream;
  std::vector<DeviceBuffer> signals = queue_levels<T>(plan, forward);
  std::vector<DeviceBuffer> gradients;  // of the levels above 0
  std::vector<devptr_t> glp{call.gx};
  gradients.reserve(lens.size());
  for (size_t l = 1; l < lens.size(); ++l) {
    gradients.emplace_back((size_t)B * lens[l] * sizeof(T), stream);
    glp.push_back(gradients.back().p);
  }

  auto step = plan.steps.rbegin();
  for (size_t l = lens.size(); l-- > 0;) {
    if (l + 1 == lens.size()) {
      KEVRA_CHECK(memsetD8Async(glp[l], 0, (size_t)B * lens[l] * sizeof(T), (stream_t)stream));
    } else {
      launch_half_band_adjoint(plan, l, forward, glp[l + 1], glp[l]);
      gradients.pop_back();
    }
    const devptr_t signal = l == 0 || is_complex(forward) ? forward.x : signals.back().p;
    for (; step != plan.steps.rend() && step->octave.level == static_cast<int>(l); ++step) {
      queue_record<T>(plan, *step, call, signal, glp[l]);
    }
    if (!signals.empty()) signals.pop_back();
  }
}

template <class T>
void queue_no_gradient(const CqtAdjointCall& call) {
  const CqtCall& forward = call.forward;
  select_device(forward.device);
  const size_t bytes = static_cast<size_t>(forward.batch * forward.length) * sizeof(T);
  if (bytes != 0) KEVRA_CHECK(memsetD8Async(call.gx, 0, bytes, forward.stream));
}

template std::shared_ptr<const CqtAdjointPlan> cqt_adjoint_plan<float>(const CqtCall&);
template std::shared_ptr<const CqtAdjointPlan> cqt_adjoint_plan<double>(const CqtCall&);
template void queue_cqt_adjoint<float>(const CqtAdjointPlan&, const CqtAdjointCall&);
template void queue_cqt_adjoint<double>(const CqtAdjointPlan&, const CqtAdjointCall&);
template void queue_no_gradient<float>(const CqtAdjointCall&);
template void queue_no_gradient<double>(const CqtAdjointCall&);

void cqt_adjoint_resident(const CqtAdjointCall& call, int prec) {
  require_full_precision(prec);
  prec == codegen::kDouble ? cqt_adjoint<double>(call) : cqt_adjoint<float>(call);
}

}  // namespace kevra::ops
