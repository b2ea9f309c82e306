// What a stream's queue holds.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <variant>
#include <vector>

#include "kernel/launch.h"

namespace kevra_cpu {

class Stream;
struct CommandList;

// A place in a stream's order: reached when the command of that number is done.
struct Point {
  std::shared_ptr<Stream> stream;
  uint64_t number = 0;
};

// Rows of bytes; a plain copy is one row.
struct Copy {
  std::byte* destination = nullptr;
  const std::byte* source = nullptr;
  size_t destination_pitch = 0, source_pitch = 0;
  size_t width = 0, height = 1;
};

struct Fill {
  void* destination = nullptr;
  unsigned char value = 0;
  size_t bytes = 0;
};

// The instant at which the stream got to an event; 0 until then.
struct EventTime {
  std::atomic<int64_t> nanoseconds{0};
};

using Work = std::variant<std::monostate, Copy, Fill, Launch, std::shared_ptr<EventTime>,
                          std::shared_ptr<const CommandList>>;

struct Command {
  std::vector<Point> after;  // points of other streams to wait for first
  Work work;
};

// A graph's commands in the order of their capture, which respects every dependency.
struct CommandList {
  std::vector<Work> steps;
};

// Waits for the command's points, then does its work on the calling thread. Failed launches
// go to the stream's list.
void perform(Stream& stream, const Command& command) noexcept;

}  // namespace kevra_cpu
