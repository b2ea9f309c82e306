#include "cuda_like/ops/cepstra.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <optional>
#include <stdexcept>

#include "codegen/kernels/cepstra.h"
#include "codegen/kernels/mel.h"
#include "codegen/precision.h"
#include "codegen/sizes.h"
#include "cuda_like/ops/frames.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/ops/mel_plan.h"
#include "cuda_like/ops/plan_map.h"

namespace kevra::ops {
namespace {

using codegen::CepstraKernel;
using codegen::CepstraPeakKernel;

// Frames a multiprocessor up to which one kernel, a block to a group of frames, is preferred to two
// or three with a thread to a value. A design figure: no GPU has timed the two beside each other.
constexpr int64_t kFusedFrames = 24;

struct FusedPlan {
  MelPlan bands;  // staged: the fused kernel fits no block
  devptr_t cosines = nullptr;
};

struct GeneralPlan {
  devptr_t cosines;
  kernel_t cepstra;
  kernel_t peaks;  // with a floor alone
};

CosineMatrix cosines_of(const CepstraCall& call) {
  return cepstra_cosines(call.options, call.bands.options.bank);
}

template <class T>
FusedPlan build_fused(const CepstraCall& call, int64_t frames) {
  const MelCall& bands = call.bands;
  const codegen::StftConfig config =
      mel_config(bands, {codegen::kPrecisionOf<T>, codegen::kPrecisionOf<T>}, frames, ShapeHint{},
                 static_cast<int>(call.options.n_out));
  FusedPlan plan{.bands = build_mel_plan(bands, config)};
  if (!plan.bands.staged()) {
    plan.cosines = cosine_table(cosines_of(call), codegen::kPrecisionOf<T> == codegen::kDouble);
  }
  return plan;
}

// Whether one kernel did it all. False leaves nothing queued.
template <class T>
bool cepstra_fused(const CepstraCall& call, int64_t frames) {
  const MelCall& bands = call.bands;
  if (!codegen::is_power_of_two(static_cast<int>(bands.options.n_fft))) return false;
  const int64_t multiprocessors = device_multiprocessors(bands.device);
  if (multiprocessors > 0 && bands.batch * frames > kFusedFrames * multiprocessors) return false;

  static thread_local PlanMap<FusedPlan> plans;
  const CosineMatrix cosines = cosines_of(call);
  // No hint steers the route: the plans are of every epoch.
  const PlanKey key{
      key_of({mel_plan_shape(bands, {codegen::kPrecisionOf<T>, codegen::kPrecisionOf<T>}),
              uint64_t(cosines.n_out), std::bit_cast<uint64_t>(cosines.lifter)}),
      0};
  auto it = plans.find(key);
  if (it == plans.end()) it = plans.emplace(key, build_fused<T>(call, frames)).first;
  const FusedPlan& plan = it->second;
  if (plan.bands.staged()) return false;
  launch_mel(plan.bands, bands, plan.cosines);
  return true;
}

template <class T>
CepstraKernel cepstra_kernel(const CepstraCall& call) {
  return {.prec = codegen::kPrecisionOf<T>,
          .n_mels = static_cast<int>(call.bands.options.bank.n_mels),
          .n_out = static_cast<int>(call.options.n_out),
          .floored = call.options.top_db >= 0};
}

template <class T>
GeneralPlan build_general(const CepstraCall& call) {
  const int device = call.bands.device;
  const CepstraKernel kernel = cepstra_kernel<T>(call);
  const CepstraPeakKernel peaks{codegen::kPrecisionOf<T>};
  return {.cosines = cosine_table(cosines_of(call), codegen::kPrecisionOf<T> == codegen::kDouble),
          .cepstra = kernel_function(kernel, device),
          .peaks = kernel.floored ? kernel_function(peaks, device) : nullptr};
}

template <class T>
const GeneralPlan& general_plan(const CepstraCall& call) {
  static thread_local PlanMap<GeneralPlan> plans;
  const CosineMatrix cosines = cosines_of(call);
  const PlanKey key{key_of({uint64_t(cosines.n_out), uint64_t(cosines.n_mels),
                            std::bit_cast<uint64_t>(cosines.lifter),
                            uint64_t(call.options.top_db >= 0), uint64_t(call.bands.device)}),
                    0};
  const auto it = plans.find(key);
  return it != plans.end() ? it->second : plans.emplace(key, build_general<T>(call)).first->second;
}

// The decibels `m` of all frames to their cepstra.
template <class T>
void cepstra_from_db(devptr_t m, const CepstraCall& call, int64_t frames) {
  const GeneralPlan& plan = general_plan<T>(call);
  const MelCall& bands = call.bands;
  const bool floored = call.options.top_db >= 0;
  int64_t n = frames * bands.options.bank.n_mels;
  std::optional<DeviceBuffer> peaks;
  devptr_t peak = m;  // not read without a floor
  if (floored) {
    const CepstraPeakKernel kernel{codegen::kPrecisionOf<T>};
    peak = peaks.emplace(static_cast<size_t>(bands.batch) * sizeof(T), bands.stream).p;
    void* args[] = {&m, &peak, &n};
    launch_kernel(plan.peaks, static_cast<unsigned>(bands.batch), 1, kernel.kBlock,
                  kernel.shared_bytes(), args, kernel.kName, bands.stream);
  }
  devptr_t cosines = plan.cosines;
  devptr_t out = bands.mel;
  int64_t rows = bands.batch * frames;
  T top = floored ? static_cast<T>(call.options.top_db) : T{0};
  void* args[] = {&m, &cosines, &out, &peak, &rows, &frames, &top};
  launch_kernel(plan.cepstra, codegen::product_blocks(rows, call.options.n_out), 1,
                CepstraKernel::kBlock, 0, args, CepstraKernel::kName, bands.stream);
}

}  // namespace

CosineMatrix cepstra_cosines(const CepstraOptions& options, const FilterBank& bank) {
  return {options.n_out, bank.n_mels, std::max(options.lifter, 0.0)};
}

int64_t check_cepstra(const CepstraCall& call) {
  constexpr const char* kOp = "cepstra";
  const MelCall& bands = call.bands;
  const CepstraOptions& o = call.options;
  require_at_least(kOp, "n_out", o.n_out, 1);
  if (!std::isfinite(o.lifter)) {
    throw std::invalid_argument("cepstra: lifter is " + shown(o.lifter) +
                                ", must be finite; 0 weighs nothing");
  }
  if (std::isnan(o.top_db)) {
    throw std::invalid_argument("cepstra: top_db is " + shown(o.top_db) +
                                ", must be a number; below 0 there is no floor");
  }
  const int64_t frames = check_mel(bands.options, bands.length);
  require_at_most(kOp, "n_out", o.n_out,
                  std::numeric_limits<int>::max() / bands.options.bank.n_mels);
  require_at_least(kOp, "batch", bands.batch, 0);
  if (bands.batch > 0) check_frame_batch(kOp, codegen::MelKernel::kName, bands.batch);
  require_at_most(kOp, "batch x frames", bands.batch * frames, codegen::kProductLimit / o.n_out);
  return frames;
}

template <class T>
void cepstra_dispatch(const CepstraCall& call) {
  const MelCall& bands = call.bands;
  const int64_t frames = check_cepstra(call);
  select_device(bands.device);
  if (bands.batch == 0) return;
  if (call.options.top_db < 0 && cepstra_fused<T>(call, frames)) return;

  const size_t values = static_cast<size_t>(bands.batch) * frames * bands.options.bank.n_mels;
  DeviceBuffer decibels(values * sizeof(T), bands.stream);
  MelCall mel = bands;
  mel.mel = decibels.p;
  mel_dispatch<T>(mel);
  cepstra_from_db<T>(decibels.p, call, frames);
}

template void cepstra_dispatch<float>(const CepstraCall&);
template void cepstra_dispatch<double>(const CepstraCall&);

void cepstra_resident(const CepstraCall& call, int prec) {
  prec == 2 ? cepstra_dispatch<double>(call) : cepstra_dispatch<float>(call);
}

PinnedArray<double> cepstra_staged(const HostArray<double>& y, const MelOptions& bands,
                                   const CepstraOptions& options) {
  if (y.dims() != 2) throw std::invalid_argument("expected a 2-D (batch, samples) array");
  const int64_t batch = y.shape[0];
  const int64_t length = y.shape[1];
  CepstraCall call{
      {.y = nullptr, .mel = nullptr, .batch = batch, .length = length, .options = bands}, options};
  const int64_t frames = check_cepstra(call);

  select_device(0);
  const size_t bytes = static_cast<size_t>(batch) * frames * options.n_out * sizeof(double);
  DeviceBuffer dy = upload_staged(y.data, static_cast<size_t>(batch) * length);
  DeviceBuffer dout(bytes, nullptr);
  call.bands.y = dy.p;
  call.bands.mel = dout.p;
  cepstra_dispatch<double>(call);

  PinnedArray<double> out({batch, frames, options.n_out});
  KEVRA_CHECK(memcpyDtoH(out.mutable_data(), dout.p, bytes));
  return out;
}

}  // namespace kevra::ops
