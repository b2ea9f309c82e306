// Order and asynchrony of streams, events and graphs.
#include <atomic>
#include <thread>

#include "runtime_api.h"

using namespace hip;

namespace {

TEST(RuntimeStreams, LaunchAndAsyncCopyReturnBeforeTheyAreDone) {
  Shared host;
  Gate gate;
  host.open(-1);
  void* stream = new_stream(non_blocking);
  void* device = nullptr;
  ASSERT_EQ(Malloc(&device, sizeof(int)), 0);
  ASSERT_EQ(MemsetD8(device, 0, sizeof(int)), 0);
  ASSERT_EQ(DeviceSynchronize(), 0);

  ASSERT_EQ(launch(load("hold"), gate.get(), 1, stream), 0);
  ASSERT_EQ(MemcpyDtoDAsync(host.get(), device, sizeof(int), stream), 0);
  // Without a wait the host sees what was there before.
  EXPECT_EQ(host.read(0), -1);
  gate.open();
  ASSERT_EQ(StreamSynchronize(stream), 0);
  EXPECT_EQ(host.read(0), 0);
  EXPECT_EQ(StreamDestroy(stream), 0);
  EXPECT_EQ(Free(device), 0);
}

TEST(RuntimeStreams, QueuedWorkRunsWithoutAnyoneWaiting) {
  Shared list;
  void* stream = new_stream(non_blocking);
  ASSERT_EQ(launch(load("append"), list.get(), 7, stream), 0);
  EXPECT_TRUE(within_seconds(10, [&] { return list.read(0) == 1; }));
  // A destroyed stream still does what was queued, and its handle is dead.
  ASSERT_EQ(launch(load("append"), list.get(), 8, stream), 0);
  ASSERT_EQ(StreamDestroy(stream), 0);
  EXPECT_TRUE(within_seconds(10, [&] { return list.read(0) == 2; }));
  EXPECT_EQ(StreamSynchronize(stream), 400);
}

TEST(RuntimeStreams, AsyncCopyReadsPageableMemoryAtItsTurn) {
  Gate gate;
  void* stream = new_stream(non_blocking);
  void* device = nullptr;
  ASSERT_EQ(Malloc(&device, sizeof(int)), 0);
  int host = 1;
  ASSERT_EQ(launch(load("hold"), gate.get(), 1, stream), 0);
  ASSERT_EQ(MemcpyHtoDAsync(device, &host, sizeof host, stream), 0);
  host = 2;  // too early: a caller's mistake that must show
  gate.open();
  ASSERT_EQ(StreamSynchronize(stream), 0);
  int seen = 0;
  ASSERT_EQ(MemcpyDtoH(&seen, device, sizeof seen), 0);
  EXPECT_EQ(seen, 2);
  EXPECT_EQ(StreamDestroy(stream), 0);
  EXPECT_EQ(Free(device), 0);
}

TEST(RuntimeStreams, NullStreamAndBlockingStreamsWaitForEachOther) {
  Shared list;
  Gate gate;
  void *first = new_stream(blocking), *second = new_stream(blocking);
  void* append = load("append");
  ASSERT_EQ(launch(load("hold"), gate.get(), 1, first), 0);
  ASSERT_EQ(launch(append, list.get(), 1, first), 0);
  ASSERT_EQ(launch(append, list.get(), 2, nullptr), 0);
  ASSERT_EQ(launch(append, list.get(), 3, second), 0);
  usleep(20000);
  EXPECT_EQ(list.read(0), 0);
  gate.open();
  ASSERT_EQ(StreamSynchronize(second), 0);
  EXPECT_EQ(list.list(), (std::vector<int>{1, 2, 3}));

  // A wait on the null stream is one on the blocking streams' work too.
  gate.open(0);
  ASSERT_EQ(launch(load("hold"), gate.get(), 1, first), 0);
  ASSERT_EQ(launch(append, list.get(), 4, first), 0);
  std::thread opener([&] {
    usleep(20000);
    gate.open();
  });
  EXPECT_EQ(StreamSynchronize(nullptr), 0);
  EXPECT_EQ(list.read(0), 4);
  opener.join();
  EXPECT_EQ(StreamDestroy(first), 0);
  EXPECT_EQ(StreamDestroy(second), 0);
}

TEST(RuntimeStreams, NonBlockingStreamStandsApartFromTheNullStream) {
  Shared list;
  Gate gate;
  void* apart = new_stream(non_blocking);
  ASSERT_EQ(launch(load("hold"), gate.get(), 1, apart), 0);
  ASSERT_EQ(MemsetD8(list.get(), 1, sizeof(int)), 0);
  ASSERT_EQ(StreamSynchronize(nullptr), 0);  // would hang if it waited for `apart`
  EXPECT_EQ(list.read(0), 0x01010101);
  gate.open();
  ASSERT_EQ(StreamSynchronize(apart), 0);

  // And the other way round.
  gate.open(0);
  ASSERT_EQ(launch(load("hold"), gate.get(), 1, nullptr), 0);
  ASSERT_EQ(MemsetD8Async(list.get(), 2, sizeof(int), apart), 0);
  ASSERT_EQ(StreamSynchronize(apart), 0);
  EXPECT_EQ(list.read(0), 0x02020202);
  gate.open();
  EXPECT_EQ(DeviceSynchronize(), 0);
  EXPECT_EQ(StreamDestroy(apart), 0);
}

TEST(RuntimeStreams, FreeWaitsForTheDevice) {
  Gate gate;
  void* stream = new_stream(non_blocking);
  void* device = nullptr;
  ASSERT_EQ(Malloc(&device, 4096), 0);
  ASSERT_EQ(launch(load("hold"), gate.get(), 1, stream), 0);
  ASSERT_EQ(MemsetD8Async(device, 1, 4096, stream), 0);
  std::atomic<bool> freed{false};
  std::thread freeing([&] {
    EXPECT_EQ(Free(device), 0);
    freed = true;
  });
  usleep(20000);
  EXPECT_FALSE(freed);
  gate.open();
  freeing.join();
  EXPECT_EQ(StreamDestroy(stream), 0);
}

TEST(RuntimeEvents, OrderWorkAcrossStreams) {
  Shared list;
  Gate gate;
  void *first = new_stream(non_blocking), *second = new_stream(non_blocking);
  void *event = new_event(), *append = load("append");
  ASSERT_EQ(StreamWaitEvent(second, event, 0), 0);  // never recorded: holds nothing up
  ASSERT_EQ(launch(load("hold"), gate.get(), 1, first), 0);
  ASSERT_EQ(launch(append, list.get(), 1, first), 0);
  ASSERT_EQ(EventRecord(event, first), 0);
  ASSERT_EQ(StreamWaitEvent(second, event, 0), 0);
  // The wait stands for the record as it was, not for a later one.
  ASSERT_EQ(EventRecord(event, nullptr), 0);
  ASSERT_EQ(EventDestroy(event), 0);
  ASSERT_EQ(launch(append, list.get(), 2, second), 0);
  usleep(20000);
  EXPECT_EQ(list.read(0), 0);
  gate.open();
  ASSERT_EQ(StreamSynchronize(second), 0);
  EXPECT_EQ(list.list(), (std::vector<int>{1, 2}));
  EXPECT_EQ(StreamDestroy(first), 0);
  EXPECT_EQ(StreamDestroy(second), 0);
}

TEST(RuntimeEvents, ElapsedTimeIsRealAndAskedTooEarlyIsAnError) {
  Gate gate;
  void *start = new_event(), *stop = new_event();
  float milliseconds = -1;
  EXPECT_EQ(EventElapsedTime(&milliseconds, start, stop), 1);
  ASSERT_EQ(EventRecord(start, nullptr), 0);
  ASSERT_EQ(launch(load("hold"), gate.get(), 1, nullptr), 0);
  ASSERT_EQ(EventRecord(stop, nullptr), 0);
  EXPECT_EQ(EventElapsedTime(&milliseconds, start, stop), 600);
  usleep(30000);
  gate.open();
  ASSERT_EQ(StreamSynchronize(nullptr), 0);
  ASSERT_EQ(EventElapsedTime(&milliseconds, start, stop), 0);
  EXPECT_GE(milliseconds, 25.0F);
  EXPECT_LT(milliseconds, 5000.0F);
  ASSERT_EQ(EventElapsedTime(&milliseconds, stop, start), 0);
  EXPECT_LE(milliseconds, -25.0F);
  EXPECT_EQ(EventDestroy(start), 0);
  EXPECT_EQ(EventDestroy(stop), 0);
  EXPECT_EQ(EventRecord(stop, nullptr), 400);
}

void* captured_graph(void* stream, int* list) {
  void *graph = nullptr, *executable = nullptr;
  EXPECT_EQ(StreamBeginCapture(stream, 2), 0);
  EXPECT_EQ(launch(load("append"), list, 1, stream), 0);
  // A second stream joins through an event, and its work belongs to the graph.
  void *side = new_stream(non_blocking), *event = new_event();
  EXPECT_EQ(EventRecord(event, stream), 0);
  EXPECT_EQ(StreamWaitEvent(side, event, 0), 0);
  EXPECT_EQ(launch(load("append"), list, 2, side), 0);
  EXPECT_EQ(EventRecord(event, side), 0);
  EXPECT_EQ(StreamWaitEvent(stream, event, 0), 0);
  EXPECT_EQ(MemsetD8Async(list + 10, 5, 4, stream), 0);
  EXPECT_EQ(StreamEndCapture(stream, &graph), 0);
  EXPECT_EQ(StreamDestroy(side), 0);
  EXPECT_EQ(EventDestroy(event), 0);
  EXPECT_EQ(GraphInstantiate(&executable, graph, nullptr, nullptr, 0), 0);
  EXPECT_EQ(GraphDestroy(graph), 0);
  return executable;
}

TEST(RuntimeGraphs, CaptureRunsNothingAndReplayRunsAll) {
  Shared list;
  void* stream = new_stream(non_blocking);
  void* executable = captured_graph(stream, list.get());
  EXPECT_EQ(DeviceSynchronize(), 0);
  EXPECT_EQ(list.read(0), 0);
  EXPECT_EQ(list.read(10), 0);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(GraphLaunch(executable, stream), 0);
  ASSERT_EQ(launch(load("append"), list.get(), 3, stream), 0);
  ASSERT_EQ(GraphExecDestroy(executable), 0);  // queued replays keep what they need
  ASSERT_EQ(StreamSynchronize(stream), 0);
  EXPECT_EQ(list.list(), (std::vector<int>{1, 2, 1, 2, 1, 2, 3}));
  EXPECT_EQ(list.read(10), 0x05050505);
  EXPECT_EQ(GraphLaunch(executable, stream), 1);
  EXPECT_EQ(StreamDestroy(stream), 0);
}

TEST(RuntimeGraphs, WaitingOnACapturingStreamSpoilsTheCapture) {
  Shared list;
  void *stream = new_stream(non_blocking), *outside = new_event(), *graph = nullptr;
  EXPECT_EQ(StreamEndCapture(stream, &graph), 401);
  EXPECT_EQ(StreamBeginCapture(nullptr, 2), 900);
  ASSERT_EQ(EventRecord(outside, nullptr), 0);
  ASSERT_EQ(StreamBeginCapture(stream, 2), 0);
  EXPECT_EQ(StreamBeginCapture(stream, 2), 401);
  EXPECT_EQ(StreamWaitEvent(stream, outside, 0), 905);
  EXPECT_EQ(launch(load("append"), list.get(), 1, stream), 0);
  EXPECT_EQ(StreamSynchronize(stream), 900);
  EXPECT_EQ(StreamEndCapture(stream, &graph), 901);
  EXPECT_EQ(graph, nullptr);
  // The stream works as before.
  ASSERT_EQ(launch(load("append"), list.get(), 2, stream), 0);
  ASSERT_EQ(StreamSynchronize(stream), 0);
  EXPECT_EQ(list.list(), (std::vector<int>{2}));
  EXPECT_EQ(EventDestroy(outside), 0);
  EXPECT_EQ(StreamDestroy(stream), 0);
}

TEST(RuntimeThreads, ManyThreadsShareStreamsEventsAndMemory) {
  constexpr int threads = 6, rounds = 200;
  void* append = load("append");
  void* shared[] = {nullptr, new_stream(blocking), new_stream(non_blocking)};
  std::vector<std::thread> workers;
  for (int id = 0; id < threads; ++id) {
    workers.emplace_back([&, id] {
      Shared list(rounds + 1);
      void* own = new_stream(id % 2 ? blocking : non_blocking);
      for (int i = 0; i < rounds; ++i) {
        void *event = new_event(), *block = nullptr, *stream = shared[(id + i) % 3];
        EXPECT_EQ(Malloc(&block, 512), 0);
        EXPECT_EQ(launch(append, list.get(), i, stream), 0);
        EXPECT_EQ(EventRecord(event, stream), 0);
        EXPECT_EQ(StreamWaitEvent(own, event, 0), 0);
        EXPECT_EQ(MemsetD8Async(block, 1, 512, own), 0);
        EXPECT_EQ(i % 3 ? StreamSynchronize(own) : DeviceSynchronize(), 0);
        EXPECT_EQ(list.read(0), i + 1);
        if (i % 8 == 0) {
          EXPECT_EQ(Free(block), 0);
        }
        EXPECT_EQ(EventDestroy(event), 0);
      }
      EXPECT_EQ(StreamDestroy(own), 0);
    });
  }
  for (auto& worker : workers) worker.join();
  EXPECT_EQ(StreamDestroy(shared[1]), 0);
  EXPECT_EQ(StreamDestroy(shared[2]), 0);
}

}  // namespace
