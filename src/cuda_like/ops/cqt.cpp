#include "cuda_like/ops/cqt.h"

#include <optional>
#include <stdexcept>
#include <utility>

#include "codegen/kernels/cqt.h"
#include "codegen/kernels/cqt_fused.h"
#include "cuda_like/ops/cqt_levels.h"

namespace kevra::ops {
namespace {

using codegen::CqtFusedKernel;
using codegen::CqtPadKernel;
using codegen::CqtReduceKernel;

template <class T>
void queue_fused(const CqtStep& step, const CqtCall& call, devptr_t padded) {
  CqtOctave o = step.octave;
  devptr_t out = call.out;
  devptr_t twiddles = step.twiddles;
  int frames = static_cast<int>(call.design.frames);
  int length = static_cast<int>(step.padded);
  int n_bins = static_cast<int>(call.design.n_bins);
  int64_t nf = call.design.frames;
  T eps = static_cast<T>(call.eps);
  void* args[] = {&padded, &out,    &twiddles, &o.br,   &o.bi,     &o.blo, &o.bhi,
                  &frames, &length, &o.rows,   &n_bins, &o.row_lo, &nf,    &eps};
  launch_kernel(step.fused, step.blocks, static_cast<unsigned>(call.batch), step.block, step.shared,
                args, CqtFusedKernel::kName, call.stream);
}

template <class T>
void queue_two_stages(const CqtPlan& plan, const CqtStep& step, const CqtCall& call,
                      devptr_t padded) {
  CqtOctave o = step.octave;
  const DeviceBuffer spectra = queue_spectra<T>(step, call, padded);

  int bins = o.bins();
  devptr_t s = spectra.p;
  devptr_t out = call.out;
  int64_t nfl = step.frames;
  int64_t nf = call.design.frames;
  int n_bins = static_cast<int>(call.design.n_bins);
  T eps = static_cast<T>(call.eps);
  void* args[] = {&s,  &out,    &o.br,     &o.bi, &nfl,   &bins, &o.rows,
                  &nf, &n_bins, &o.row_lo, &eps,  &o.blo, &o.bhi};
  launch_rows(plan.reduce, o.rows * nf, call, args, CqtReduceKernel::kName);
}

// The samples of a half input between zeros.
void convert_signal(const CqtPlan& plan, const CqtStep& step, const CqtCall& call, devptr_t signal,
                    devptr_t padded) {
  int64_t n = plan.lengths[0];
  int64_t plen = step.padded;
  int pad = static_cast<int>(cqt_padding(step.octave.n_fft));
  void* args[] = {&signal, &padded, &n, &plen, &pad};
  launch_rows(plan.pad_input, n, call, args, CqtPadKernel::kName);
}

template <class T>
void queue_octave(const CqtPlan& plan, const CqtStep& step, const CqtCall& call, devptr_t signal) {
  const int level = step.octave.level;
  const DeviceBuffer padded = padded_zeros<T>(step, call);
  if (level == 0 && call.half_input) {
    convert_signal(plan, step, call, signal, padded.p);
  } else {
    place_signal<T>(step, plan.lengths[level], call, signal, padded.p);
  }
  if (step.fused != nullptr) {
    queue_fused<T>(step, call, padded.p);
  } else {
    queue_two_stages<T>(plan, step, call, padded.p);
  }
}

template <class T>
void cqt(const CqtCall& call) {
  if (call.is_empty()) return check_cqt(call);
  queue_cqt<T>(*cqt_plan<T>(call), call);
}

}  // namespace

template <class T>
void queue_cqt(const CqtPlan& plan, const CqtCall& call) {
  devptr_t signal = call.x;
  std::optional<DeviceBuffer> own;  // of the levels above 0
  auto step = plan.steps.begin();
  for (size_t level = 0;; ++level) {
    for (; step != plan.steps.end() && step->octave.level == static_cast<int>(level); ++step) {
      queue_octave<T>(plan, *step, call, signal);
    }
    if (level + 1 == plan.lengths.size()) return;
    DeviceBuffer next =
        queue_decimation<T>(level == 0 ? plan.decimate_input : plan.decimate, plan.taps,
                            plan.lengths[level], plan.lengths[level + 1], call, signal);
    signal = next.p;
    own.emplace(std::move(next));
  }
}

template void queue_cqt<float>(const CqtPlan&, const CqtCall&);
template void queue_cqt<double>(const CqtPlan&, const CqtCall&);

void cqt_resident(const CqtCall& call, int prec) {
  CqtCall twin = call;
  twin.half_input = twin.half_output = prec == 0;
  prec == 2 ? cqt<double>(twin) : cqt<float>(twin);
}

template <class T, class Element>
PinnedArray<Element> cqt_staged(const HostArray<T>& y, const CqtDesign& design, int form,
                                double eps) {
  if (y.dims() != 2) throw std::invalid_argument("expected a 2-D (batch, samples) array");
  CqtCall call{.x = nullptr,
               .out = nullptr,
               .batch = y.shape[0],
               .length = y.shape[1],
               .design = design,
               .form = form,
               .eps = eps};
  const std::vector<int64_t> shape{call.batch, design.n_bins, design.frames};
  if (call.is_empty()) {
    check_cqt(call);
    select_device(0);
    return PinnedArray<Element>(shape);
  }
  const std::shared_ptr<const CqtPlan> plan = cqt_plan<T>(call);
  DeviceBuffer dy = upload_staged(y.data, static_cast<size_t>(call.batch * call.length));
  const size_t bytes = PinnedArray<Element>::element_count(shape) * sizeof(Element);
  DeviceBuffer dout(bytes, nullptr);
  call.x = dy.p;
  call.out = dout.p;
  queue_cqt<T>(*plan, call);

  PinnedArray<Element> out(shape);
  KEVRA_CHECK(memcpyDtoH(out.mutable_data(), dout.p, bytes));
  return out;
}

template PinnedArray<float> cqt_staged(const HostArray<float>&, const CqtDesign&, int, double);
template PinnedArray<double> cqt_staged(const HostArray<double>&, const CqtDesign&, int, double);
template PinnedArray<std::complex<float>> cqt_staged(const HostArray<float>&, const CqtDesign&, int,
                                                     double);
template PinnedArray<std::complex<double>> cqt_staged(const HostArray<double>&, const CqtDesign&,
                                                      int, double);

}  // namespace kevra::ops
