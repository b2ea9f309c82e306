#include <utility>

#include "rocm/bindings/bindings.h"
#include "rocm/context.h"
#include "rocm/device_pool.h"
#include "rocm/hip_dl.h"
#include "rocm/pinned_pool.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

constexpr int kAbiVersion = 3;

std::pair<int, int> hiprtc_version() {
  int major = 0;
  int minor = 0;
  const hip_dl::RtcTable* rtc = hip_dl::rtc_api();
  if (rtc == nullptr || rtc->Version(&major, &minor) != 0) return {0, 0};
  return {major, minor};
}

}  // namespace

void bind_queries(py::module_& m) {
  m.def("abi_version", [] { return kAbiVersion; }, "Version of this module's interface.");
  m.def("available", &available,
        "Whether a HIP runtime loads, starts and reports a device. Answered once a process; never "
        "raises.");
  m.def(
      "hiprtc_available", [] { return hip_dl::rtc_api() != nullptr; },
      "Whether hipRTC can be loaded. A failed attempt is made again at the next call.");
  m.def("hiprtc_version", &hiprtc_version, "(major, minor) of hipRTC; (0, 0) where there is none.");
  m.def("device_arch", &device_arch, py::arg("dev") = 0,
        "Architecture of a device, without feature suffixes; empty when the runtime does not "
        "tell.");
  m.def("device_count", &device_count, "Number of devices; 0 when the runtime does not tell.");
  m.def("device_name", &device_name, py::arg("dev") = 0,
        "Name of a device; empty when the runtime does not tell.");
  m.def(
      "set_deterministic", [](long long on) { set_deterministic(on != 0); }, py::arg("on"),
      "on != 0: overlap-add and the adjoints of stft and mel gather in fixed order instead of "
      "adding atomically, so that results repeat to the bit. Initially off.");
  m.def(
      "drain_pool",
      [] {
        if (forked()) return;
        device_drain();
        pinned_drain();
      },
      "Gives the cached device blocks, then the cached pinned blocks, back to HIP.");
  m.def("clear_tables", [] {}, "Does nothing: device tables stay for the life of the process.");
}

}  // namespace kevra::bindings
