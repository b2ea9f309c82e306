#include "runtime/command.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "common/settings.h"
#include "runtime/stream.h"

namespace kevra_cpu {
namespace {

struct Performer {
  Stream& stream;

  void operator()(std::monostate) const {}

  void operator()(const Copy& copy) const {
    const bool dense = copy.destination_pitch == copy.width && copy.source_pitch == copy.width;
    const size_t rows = dense ? 1 : copy.height;
    const size_t bytes = dense ? copy.width * copy.height : copy.width;
    for (size_t row = 0; row < rows; ++row) {
      std::memmove(copy.destination + row * copy.destination_pitch,
                   copy.source + row * copy.source_pitch, bytes);
    }
  }

  void operator()(const Fill& fill) const { std::memset(fill.destination, fill.value, fill.bytes); }

  void operator()(const Launch& launch) const {
    std::string report;
    if (run_launch(launch, report) == 0) return;
    if (settings().check) std::fprintf(stderr, "kevra CPU device: %s\n", report.c_str());
    stream.failures.add(std::move(report));
  }

  void operator()(const std::shared_ptr<EventTime>& time) const {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    time->nanoseconds.store(std::chrono::nanoseconds(now).count(), std::memory_order_release);
  }

  void operator()(const std::shared_ptr<const CommandList>& list) const {
    for (const Work& step : list->steps) std::visit(*this, step);
  }
};

}  // namespace

void perform(Stream& stream, const Command& command) noexcept {
  try {
    for (const Point& point : command.after) {
      point.stream->wait(point.number);
      stream.failures.adopt(point.stream->failures);
    }
    std::visit(Performer{stream}, command.work);
  } catch (const std::exception& error) {
    stream.failures.add(std::string("a queued command ran out of host resources: ") + error.what());
  }
}

}  // namespace kevra_cpu
