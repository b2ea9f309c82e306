// A GPU thread as a coroutine. The part of <coroutine> that the compiler asks for is written
// out here: the standard header costs several times the compile time of all this text.
#pragma once

#include "compiler/device/block.h"

// Neighbouring blocks that run together.
#ifndef KEVRA_CPU_LANE_CODE
#define KEVRA_CPU_LANES 1
#elif defined(KEVRA_CPU_MANY_LANES) && defined(__AVX512F__)
#define KEVRA_CPU_LANES 16
#else
#define KEVRA_CPU_LANES 8
#endif

namespace std {

template <typename Result, typename...>
struct coroutine_traits {
  using promise_type = typename Result::promise_type;
};

template <typename Promise = void>
struct coroutine_handle;

template <>
struct coroutine_handle<void> {
  static coroutine_handle from_address(void* frame) { return {frame}; }
  void* frame;
};

template <typename Promise>
struct coroutine_handle {
  static coroutine_handle from_address(void* frame) { return {frame}; }
  operator coroutine_handle<>() const { return {frame}; }
  Promise& promise() const {
    return *static_cast<Promise*>(__builtin_coro_promise(frame, alignof(Promise), false));
  }
  void* frame;
};

}  // namespace std

namespace kevra_cpu_device {

// What a kernel knows of the thread that runs it. By value, so that only the members that a
// kernel uses behind a barrier stay in its frame.
struct Thread {
  Thread(Block* block, unsigned number, const Index3& index)
      : block(block),
        number(number),
        thread_index(index),
        block_index(block->index),
        block_size(block->size),
        grid_size(block->grid) {}
  // Number by number: a copy in one register would wait for those that were written just before to
  // reach the cache, a tenth of the time of short transforms.
  Thread(const Thread& other)
      : block(other.block),
        number(other.number),
        thread_index{other.thread_index.x, other.thread_index.y, other.thread_index.z},
        block_index{other.block_index.x, other.block_index.y, other.block_index.z},
        block_size{other.block_size.x, other.block_size.y, other.block_size.z},
        grid_size{other.grid_size.x, other.grid_size.y, other.grid_size.z} {}

  Block* block;
  unsigned number;
  Index3 thread_index, block_index, block_size, grid_size;
};

struct Task {
  struct promise_type;
  using Handle = std::coroutine_handle<promise_type>;
  void* frame;
};

struct Task::promise_type {
  template <typename... Arguments>
  promise_type(const Thread& thread, const Arguments&...) : block(thread.block) {}

  template <typename... Arguments>
  static void* operator new(unsigned long bytes, const Thread& thread, const Arguments&...) {
    Block* block = thread.block;
    const unsigned long room = (bytes + 63) & ~63ul;  // whole cache lines
    char* frame = block->frames_next;
    if (static_cast<unsigned long>(block->frames_end - frame) < room)
      frame = block->more_frames(block, room);
    block->frames_next = frame + room;
    return frame;
  }
  static void operator delete(void*, unsigned long) {}  // the block drops all its frames at once

  struct Start {
    bool await_ready() const noexcept { return true; }
    void await_suspend(Handle) const noexcept {}
    void await_resume() const noexcept {}
  };
  struct End {
    bool await_ready() const noexcept { return false; }
    void await_suspend(Handle thread) const noexcept { thread.promise().block->place = ended; }
    void await_resume() const noexcept {}
  };
  Task get_return_object() { return {Handle::from_address(frame_address()).frame}; }
  Start initial_suspend() noexcept { return {}; }
  End final_suspend() noexcept { return {}; }
  void return_void() {}
  void unhandled_exception() {}  // there are none; the compiler asks for it all the same

  void* frame_address() { return __builtin_coro_promise(this, alignof(promise_type), true); }

  Block* block;
};

// The place is part of the type, so that no frame holds it.
template <Place place>
struct Barrier {
  bool await_ready() const noexcept { return false; }
  void await_suspend(Task::Handle thread) const noexcept { thread.promise().block->place = place; }
  void await_resume() const noexcept {}
};

// Leaves the thread's value with the block and takes the partner's when the group goes on. A
// partner outside the segment of `width` threads, or outside the block, is the thread itself.
template <typename Value>
struct ShuffleXor {
  static constexpr unsigned room = KEVRA_CPU_LANES * shuffle_bytes;
  static_assert(sizeof(Value) <= room, "a shuffle moves at most 8 bytes");
  Block* block;
  Place place;
  Value value;
  unsigned number, partner;

  bool await_ready() const noexcept { return false; }
  void await_suspend(Task::Handle) const noexcept {
    __builtin_memcpy(block->shuffled[block->shuffle_round & 1] + number * room, &value,
                     sizeof value);
    block->place = place;
  }
  Value await_resume() const noexcept {
    Value other;
    __builtin_memcpy(&other, block->shuffled[(block->shuffle_round - 1) & 1] + partner * room,
                     sizeof other);
    return other;
  }
};

template <typename Value>
inline ShuffleXor<Value> shuffle_xor(const Thread& thread, Place place, Value value, int lane_mask,
                                     int width = group_threads) {
  const unsigned number = thread.number, segment_last = number | unsigned(width - 1);
  const unsigned threads = thread.block_size.x * thread.block_size.y * thread.block_size.z;
  const unsigned partner = number ^ unsigned(lane_mask);
  const bool reachable = partner <= segment_last && partner < threads &&
                         partner / group_threads == number / group_threads;
  return {thread.block, place, value, number, reachable ? partner : number};
}

}  // namespace kevra_cpu_device

#define KEVRA_CPU_PLACE(kind) \
  ::kevra_cpu_device::make_place(::kevra_cpu_device::PlaceKind::kind, __LINE__, __COUNTER__)
#define __syncthreads() (co_await ::kevra_cpu_device::Barrier<KEVRA_CPU_PLACE(barrier)>{})
#define __shfl_xor(value, ...)                                                             \
  (co_await ::kevra_cpu_device::shuffle_xor(kevra_thread, KEVRA_CPU_PLACE(shuffle), value, \
                                            __VA_ARGS__))
