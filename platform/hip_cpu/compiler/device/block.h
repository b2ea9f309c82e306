// What a compiled kernel and the block runner share: the block that runs, the places where its
// threads wait, and the table of kernels that a code object offers. Included by the runner and
// part of the text in front of every kernel, so it includes nothing itself.
#pragma once

namespace kevra_cpu_device {

struct Index3 {
  unsigned x, y, z;
};

// A point of the kernel text where threads wait for each other: its kind, its line, and a
// number that tells two of one line apart. 0 stands for a thread that has ended.
using Place = unsigned long long;

enum class PlaceKind : unsigned { none = 0, barrier = 1, shuffle = 2 };

constexpr Place ended = 0;

constexpr Place make_place(PlaceKind kind, unsigned line, unsigned number) {
  return Place(kind) << 62 | Place(line & 0x3fffffff) << 32 | number;
}
constexpr PlaceKind place_kind(Place place) {
  return PlaceKind(place >> 62);
}
constexpr unsigned place_line(Place place) {
  return unsigned(place >> 32) & 0x3fffffff;
}

constexpr unsigned max_threads = 1024;  // of a block
constexpr unsigned group_threads = 32;  // that exchange values by shuffles
constexpr unsigned max_lanes = 16;
constexpr unsigned shuffle_bytes = 8;  // that a thread's shuffle moves at most
constexpr unsigned static_shared_bytes = 65536;

struct Block {
  Index3 index, size, grid;
  char* shared;  // the block's dynamic shared memory
  char* static_shared;
  char* cells;            // by thread number: values of lane code that wait at a barrier
  const char* arguments;  // packed as the kernel's entry says
  Place place;            // where the thread that ran last waits
  Place* places;          // by thread number
  void** frames;          // by thread number: coroutine frames
  char* frames_next;      // room for the frames still to come
  char* frames_end;
  char* (*more_frames)(Block* block, unsigned long bytes);  // called when that room is spent
  unsigned shuffle_round;  // one more at every exchange; values live for one round
  char* shuffled[2];       // by thread number, shuffle_bytes for each lane; odd and even rounds
};

struct Argument {
  unsigned offset, bytes;
};

struct KernelEntry {
  const char* name;
  unsigned launch_bound;  // threads of a block at most; 0: no bound given
  unsigned suspends;      // threads are coroutines: the kernel has barriers or shuffles
  unsigned argument_count;
  const Argument* arguments;
  // Runs `count` threads in x from `first` on, each until it ends or first waits.
  void (*start)(Block* block, Index3 first, unsigned count);
};

// Runs a group of neighbouring blocks together, one a lane: `block` is the first of them, and its
// shared memory holds that of all.
struct LaneEntry {
  const char* name;
  unsigned lanes;
  unsigned cell_bytes;  // of a thread
  // Per argument: 'v' a value, 'i' a pointer that is only read through, 'o' another pointer.
  const char* kinds;
  void (*start)(Block* block, Index3 first, unsigned count);
};

// What lane code asks of the runner, set when its code object is loaded.
struct LaneHooks {
  // Whether stores are noted before they happen, so that they can be undone: 1 from the first
  // launch on that may read what it has written.
  int log;
  // `lanes` pieces of `bytes`, `step` bytes apart, are about to be overwritten.
  void (*save)(void* first, long long step, unsigned bytes);
  // Notes `make` for the end of the group, with what it is to be called with.
  void (*add)(void (*make)(void* first, long long step, const void* values), void* first,
              long long step, const void* values, unsigned bytes);
  int adds;  // 1 once a group has noted additions
  // A condition differs among the lanes. Does not return.
  void (*diverge)();
  // The kernel reads what it may have written, and no log is kept. Does not return.
  void (*need_log)();
};

// Calls of check mode, set when a code object made for it is loaded.
struct CheckHooks {
  void (*load)(const void* address, unsigned bytes, const void* code);
  void (*store)(const void* address, unsigned bytes, const void* code);
  void (*atomic)(const void* address, unsigned bytes, const void* code);
};

struct KernelTable {
  const KernelEntry* begin;
  const KernelEntry* end;
  CheckHooks* hooks;  // null outside check mode
  const LaneEntry* lanes_begin;
  const LaneEntry* lanes_end;
  LaneHooks* lane_hooks;  // null where no kernel has a lane form
};

}  // namespace kevra_cpu_device
