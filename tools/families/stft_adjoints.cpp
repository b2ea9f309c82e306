#include <stdexcept>
#include <string>

#include "codegen/kernels/gradient_frames.h"
#include "codegen/kernels/istft_adjoint.h"
#include "codegen/kernels/stft_adjoint.h"
#include "codegen/sizes.h"
#include "families/common.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;

const Parameter length{"n", 1024, 2, 1 << 20, "n_fft"};
const Parameter hop{"hop", 256, 1, 1 << 20, "samples from frame to frame"};

bool is_fused(const Values& values) {
  const int n = values.at("n");
  return codegen::fits_shared(n, values.at("prec"), kSharedLimit) && !codegen::needs_bluestein(n);
}

codegen::AdjointFrame frame_of(const Values& values, bool center, bool slots) {
  const int n = values.at("n");
  return {.n_fft = n,
          .hop = values.at("hop"),
          .pad = center ? n / 2 : 0,
          .prec = values.at("prec"),
          .slots = slots};
}

// Of a record that is launched with kBlock threads and no shared memory.
template <class Record>
Kernel plain(const Record& record, bool default_route) {
  return {record.kName, record.key(), record.kBlock, 0, default_route, record.source(hip)};
}

template <class Record>
Kernel framed(const Record& record, const char* name, const Values& values) {
  if (!is_fused(values)) {
    throw std::invalid_argument("n = " + std::to_string(values.at("n")) +
                                " goes through device memory; name a staged step");
  }
  const size_t shared = record.shared_bytes();
  return {name,   record.key(),           record.frame.threads(),
          shared, shared <= kSharedLimit, record.source(hip)};
}

enum Step { kFrames = 0, kCrop = 1, kFront = 2, kWindow = 3 };

Kernel make_stft_adjoint(const Values& values) {
  const int n = values.at("n");
  const int prec = values.at("prec");
  const int form = values.at("form");
  const double eps = 1e-10;
  const bool fused = is_fused(values);
  const bool slots = values.at("deterministic") != 0;
  switch (values.at("step")) {
    case kCrop:
      return plain(codegen::GradientCrop{n, values.at("hop"), prec, slots}, fused || slots);
    case kFront:
      if (form == codegen::kComplexForm) return plain(codegen::GradientPack{n, prec}, !fused);
      return plain(codegen::GradientChain{n, prec, form, eps}, !fused);
    case kWindow:
      return plain(codegen::GradientWindow{n, prec}, !fused);
    default:
      break;
  }
  const codegen::StftAdjointKernel kernel{frame_of(values, values.at("center") != 0, slots), form,
                                          eps};
  return framed(kernel, kernel.name(), values);
}

std::vector<Values> stft_adjoint_samples() {
  std::vector<Values> samples;
  for (int prec : {codegen::kFloat, codegen::kDouble}) {
    for (int form = codegen::kComplexForm; form <= codegen::kDecibelForm; ++form) {
      for (int n : {400, 1024, 2048}) samples.push_back({{"n", n}, {"prec", prec}, {"form", form}});
      samples.push_back({{"prec", prec}, {"form", form}, {"deterministic", 1}});
      samples.push_back({{"step", kFront}, {"n", 20000}, {"prec", prec}, {"form", form}});
    }
    for (int n : {441, 272}) samples.push_back({{"n", n}, {"hop", 100}, {"prec", prec}});
    for (int slots : {0, 1}) {
      samples.push_back({{"step", kCrop}, {"prec", prec}, {"deterministic", slots}});
    }
    samples.push_back({{"step", kWindow}, {"n", 20000}, {"prec", prec}});
  }
  return samples;
}

enum InverseStep { kPre = 0, kTransform = 1, kGather = 2, kStore = 3 };

Kernel make_istft_adjoint(const Values& values) {
  const int n = values.at("n");
  const int prec = values.at("prec");
  const bool fused = is_fused(values);
  switch (values.at("step")) {
    case kPre:
      return plain(codegen::IstftGradientPre{n, values.at("hop"), prec}, true);
    case kGather:
      return plain(codegen::IstftGradientGather{n, prec}, !fused);
    case kStore:
      return plain(codegen::IstftGradientStore{n, prec}, !fused);
    default:
      break;
  }
  const codegen::IstftAdjointKernel kernel{frame_of(values, false, false)};
  return framed(kernel, kernel.kName, values);
}

std::vector<Values> istft_adjoint_samples() {
  std::vector<Values> samples;
  for (int prec : {codegen::kFloat, codegen::kDouble}) {
    samples.push_back({{"step", kPre}, {"prec", prec}});
    for (int n : {400, 441, 1024, 2048}) {
      samples.push_back({{"step", kTransform}, {"n", n}, {"prec", prec}});
    }
    samples.push_back({{"step", kGather}, {"n", 20000}, {"prec", prec}});
    for (int n : {20000, 20001}) {
      samples.push_back({{"step", kStore}, {"n", n}, {"prec", prec}});
    }
  }
  return samples;
}

}  // namespace

Family stft_adjoint_family() {
  return {"stft_adjoint",
          "gradient of a spectrogram's function with respect to the signal",
          {length,
           hop,
           {"center", 1, 0, 1, "1: the signal was reflected by half a frame at both ends"},
           float_or_double,
           {"form", 0, 0, 3, "0 complex, 1 magnitude, 2 power, 3 decibels"},
           {"deterministic", 0, 0, 1, "1 keeps every frame for itself, 0 adds by atomics"},
           {"step", kFrames, kFrames, kWindow,
            "0 frames, 1 the way from frames to samples; staged: 2 laying down of gradients, 3 "
            "windowing"}},
          make_stft_adjoint,
          stft_adjoint_samples()};
}

Family istft_adjoint_family() {
  return {"istft_adjoint",
          "gradient of a signal's function with respect to the spectrogram it was made from",
          {length,
           hop,
           float_or_double,
           {"step", kPre, kPre, kStore,
            "0 the division, 1 frames' transforms; staged: 2 gathering of frames, 3 storing of "
            "bins"}},
          make_istft_adjoint,
          istft_adjoint_samples()};
}

}  // namespace kevra_tools
