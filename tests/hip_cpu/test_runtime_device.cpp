// Devices, memory, copies, launches that are refused or fail, and the switches.
#include "runtime_api.h"

using namespace hip;

namespace {

int attribute(int which) {
  int value = -1;
  EXPECT_EQ(DeviceGetAttribute(&value, which, 0), 0);
  return value;
}

TEST(RuntimeDevice, TellsItsPropertiesAndLimits) {
  if (!in_child_with({{"KEVRA_CPU_THREADS", "3"}, {"KEVRA_CPU_MEMORY", "3M"}})) return;
  unsigned char record[1472];
  ASSERT_EQ(GetDevicePropertiesR0600(record, 0), 0);
  EXPECT_STREQ(reinterpret_cast<char*>(record), "kevra CPU device");
  EXPECT_STRNE(reinterpret_cast<char*>(record + 1160), "");
  uint64_t memory = 0;
  std::memcpy(&memory, record + 288, sizeof memory);
  EXPECT_EQ(memory, 3U << 20);
  EXPECT_EQ(attribute(63), 3);
  EXPECT_EQ(attribute(74), 65536);
  EXPECT_EQ(attribute(87), 32);
  EXPECT_GE(attribute(19), 0);
  int value = 0;
  EXPECT_EQ(DeviceGetAttribute(&value, 12345, 0), 1);
  EXPECT_EQ(GetDevicePropertiesR0600(record, 1), 101);
  EXPECT_EQ(SetDevice(-1), 101);
  EXPECT_EQ(Init(1), 1);
}

TEST(RuntimeDevice, SeveralDevicesHaveTheirOwnMemoryKernelsAndStreams) {
  if (!in_child_with({{"KEVRA_CPU_DEVICES", "2"}, {"KEVRA_CPU_MEMORY", "1M"}})) return;
  int count = 0, current = -1;
  ASSERT_EQ(GetDeviceCount(&count), 0);
  EXPECT_EQ(count, 2);
  void *first = nullptr, *second = nullptr, *over = nullptr;
  void* event = new_event();
  void* append = load("append");
  Shared list;
  Gate gate;
  ASSERT_EQ(Malloc(&first, 1 << 20), 0);
  ASSERT_EQ(launch(load("hold"), gate.get(), 1, nullptr), 0);
  ASSERT_EQ(launch(append, list.get(), 1, nullptr), 0);
  ASSERT_EQ(EventRecord(event, nullptr), 0);

  ASSERT_EQ(SetDevice(1), 0);
  ASSERT_EQ(GetDevice(&current), 0);
  EXPECT_EQ(current, 1);
  ASSERT_EQ(Malloc(&second, 1 << 20), 0);
  EXPECT_EQ(Malloc(&over, 1), 2);
  EXPECT_EQ(launch(append, list.get(), 2, nullptr), 101) << "a kernel of device 0";
  EXPECT_EQ(EventRecord(event, nullptr), 400) << "an event of device 0";
  EXPECT_EQ(StreamSynchronize(nullptr), 0) << "must not wait for device 0";
  ASSERT_EQ(StreamWaitEvent(nullptr, event, 0), 0);
  ASSERT_EQ(launch(load("append"), list.get(), 2, nullptr), 0);
  usleep(20000);
  EXPECT_EQ(list.read(0), 0);
  gate.open();
  ASSERT_EQ(DeviceSynchronize(), 0);
  EXPECT_EQ(list.list(), (std::vector<int>{1, 2}));
}

TEST(RuntimeDevice, NoDeviceAtAll) {
  if (!in_child_with({{"KEVRA_CPU_DEVICES", "0"}})) return;
  int count = -1;
  void* p = nullptr;
  EXPECT_EQ(GetDeviceCount(&count), 100);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(SetDevice(0), 100);
  EXPECT_EQ(Malloc(&p, 16), 100);
  EXPECT_EQ(StreamSynchronize(nullptr), 100);
}

TEST(RuntimeMemory, ReleasesGiveTheirShareBackAndUnknownPointersAreRefused) {
  if (!in_child_with({{"KEVRA_CPU_MEMORY", "64K"}})) return;
  void *large = nullptr, *small = nullptr, *pinned = nullptr;
  ASSERT_EQ(Malloc(&large, 60 << 10), 0);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(large) % 256, 0U);
  EXPECT_EQ(Malloc(&small, 5 << 10), 2);
  EXPECT_EQ(small, nullptr);
  EXPECT_EQ(Malloc(&small, SIZE_MAX), 2);
  ASSERT_EQ(HostMalloc(&pinned, 1 << 20, 0), 0);  // the limit is the device's
  EXPECT_EQ(Free(static_cast<char*>(large) + 8), 1);
  EXPECT_EQ(Free(pinned), 1);
  EXPECT_EQ(HostFree(large), 1);
  EXPECT_EQ(Free(large), 0);
  EXPECT_EQ(Free(large), 1);
  EXPECT_EQ(Malloc(&small, 64 << 10), 0);
  EXPECT_EQ(Free(nullptr), 0);
  EXPECT_EQ(HostFree(nullptr), 0);
  EXPECT_EQ(HostFree(pinned), 0);
}

struct Copy2D {
  struct Side {
    size_t x = 0, y = 0;
    uint32_t type = 0, padding = 0;
    void *host = nullptr, *device = nullptr, *array = nullptr;
    size_t pitch = 0;
  } source, destination;
  size_t width = 0, height = 0;
};

TEST(RuntimeMemory, CopyOfARegionMovesItsRowsAndNothingElse) {
  constexpr size_t rows = 5, columns = 7, target_columns = 9;
  std::vector<unsigned char> from(rows * columns), to(4 * target_columns, 0xEE);
  for (size_t i = 0; i < from.size(); ++i) from[i] = static_cast<unsigned char>(i);
  void* device = nullptr;
  ASSERT_EQ(Malloc(&device, from.size()), 0);
  ASSERT_EQ(MemcpyHtoD(device, from.data(), from.size()), 0);
  Copy2D copy;
  copy.source = {.x = 2, .y = 1, .type = 2, .device = device, .pitch = columns};
  copy.destination = {.x = 1, .y = 1, .type = 1, .host = to.data(), .pitch = target_columns};
  copy.width = 4;
  copy.height = 3;
  ASSERT_EQ(MemcpyParam2DAsync(&copy, nullptr), 0);
  ASSERT_EQ(StreamSynchronize(nullptr), 0);
  for (size_t r = 0; r < 4; ++r) {
    for (size_t c = 0; c < target_columns; ++c) {
      const bool inside = r >= 1 && r < 4 && c >= 1 && c < 5;
      const size_t expected = inside ? r * columns + (c - 1 + 2) : 0xEE;
      EXPECT_EQ(to[r * target_columns + c], expected) << "row " << r << ", column " << c;
    }
  }
  // Rows wider than the pitch, a range past the allocation, and an array.
  copy.width = 8;
  EXPECT_EQ(MemcpyParam2DAsync(&copy, nullptr), 1);
  copy.width = 4;
  copy.height = 5;
  EXPECT_EQ(MemcpyParam2DAsync(&copy, nullptr), 1);
  copy.height = 3;
  copy.source.array = device;
  EXPECT_EQ(MemcpyParam2DAsync(&copy, nullptr), 1);
  EXPECT_EQ(Free(device), 0);
}

TEST(RuntimeMemory, RangesPastAnAllocationAreRefused) {
  void *block = nullptr, *other = nullptr;
  ASSERT_EQ(Malloc(&block, 1000), 0);
  ASSERT_EQ(Malloc(&other, 2000), 0);
  std::vector<char> host(2000);
  char* end = static_cast<char*>(block) + 1000;
  EXPECT_EQ(MemcpyHtoD(block, host.data(), 1001), 1);
  EXPECT_EQ(MemcpyDtoH(host.data(), end - 4, 8), 1);
  EXPECT_EQ(MemcpyHtoDAsync(end - 1, host.data(), 2, nullptr), 1);
  EXPECT_EQ(MemcpyDtoDAsync(block, other, 2000, nullptr), 1);
  EXPECT_EQ(MemsetD8(end - 4, 0, 5), 1);
  EXPECT_EQ(MemsetD8Async(nullptr, 0, 5, nullptr), 1);
  EXPECT_EQ(MemcpyHtoD(end - 4, host.data(), 4), 0);
  EXPECT_EQ(MemcpyHtoD(nullptr, nullptr, 0), 0);
  EXPECT_EQ(Free(block), 0);
  EXPECT_EQ(Free(other), 0);
}

TEST(RuntimeLaunch, ImpossibleShapesAreRefused) {
  if (!in_child_with({{"KEVRA_CPU_SHARED_LIMIT", "1000"}, {"KEVRA_CPU_CACHE", "64K"}})) return;
  Shared list;
  void* append = load("append");
  int* target = list.get();
  long long value = 1;
  void* arguments[] = {&target, &value};
  const auto attempt = [&](unsigned gx, unsigned gy, unsigned bx, unsigned by, unsigned shared) {
    return ModuleLaunchKernel(append, gx, gy, 1, bx, by, 1, shared, nullptr, arguments, nullptr);
  };
  EXPECT_EQ(attribute(74), 1000);
  EXPECT_EQ(attribute(19), 65536);
  EXPECT_EQ(attempt(0, 1, 1, 1, 0), 1);
  EXPECT_EQ(attempt(1, 1, 1, 0, 0), 1);
  EXPECT_EQ(attempt(1, 1, 1025, 1, 0), 1);
  EXPECT_EQ(attempt(1, 1, 64, 17, 0), 1);
  EXPECT_EQ(attempt(1, 1, 65536, 65536, 0), 1);
  EXPECT_EQ(attempt(1, 1, 1, 1, 1001), 1);
  EXPECT_EQ(attempt(1, 1, 1, 1, 1000), 0);
  ASSERT_EQ(DeviceSynchronize(), 0);
  EXPECT_EQ(list.list(), (std::vector<int>{1}));
}

TEST(RuntimeLaunch, CodeThatIsNoneAndNamesThatAreNot) {
  void *module = nullptr, *function = nullptr;
  const std::vector<char> noise(4096, 'x');
  EXPECT_EQ(ModuleLoadData(&module, noise.data()), 200);
  ASSERT_EQ(ModuleLoadData(&module, code_object().data()), 0);
  EXPECT_EQ(ModuleGetFunction(&function, module, "missing"), 500);
  EXPECT_EQ(ModuleGetFunction(&function, module, "append"), 0);
}

TEST(RuntimeLaunch, FailureIsToldOnceByTheNextWaitOnItsStream) {
  Shared list;
  void *failing = new_stream(non_blocking), *other = new_stream(non_blocking);
  void* event = new_event();
  ASSERT_EQ(launch(load("broken"), list.get(), 0, failing, 2), 0);
  ASSERT_EQ(launch(load("append"), list.get(), 5, failing), 0);
  EXPECT_EQ(StreamSynchronize(other), 0);
  EXPECT_EQ(StreamSynchronize(failing), 719);
  const std::string text = GetErrorString(719);
  EXPECT_EQ(text.rfind("unspecified launch failure: ", 0), 0U) << text;
  EXPECT_NE(text.find("broken"), std::string::npos) << text;
  EXPECT_GE(list.read(0), 1) << "what is queued behind a failed launch still runs";
  EXPECT_EQ(StreamSynchronize(failing), 0);
  EXPECT_EQ(DeviceSynchronize(), 0);

  // A stream that has waited for the failed work tells it, the failing one gone or not.
  ASSERT_EQ(launch(load("broken"), list.get(), 0, failing, 2), 0);
  ASSERT_EQ(EventRecord(event, failing), 0);
  ASSERT_EQ(StreamWaitEvent(other, event, 0), 0);
  ASSERT_EQ(StreamDestroy(failing), 0);
  EXPECT_EQ(StreamSynchronize(other), 719);
  EXPECT_EQ(DeviceSynchronize(), 0);
  EXPECT_STREQ(GetErrorString(0), "no error");
  EXPECT_STREQ(GetErrorString(54321), "unknown error");
  EXPECT_EQ(EventDestroy(event), 0);
  EXPECT_EQ(StreamDestroy(other), 0);
}

TEST(RuntimeSwitches, FailuresOnDemandLeaveNothingBehind) {
  if (!in_child_with({{"KEVRA_CPU_FAIL",
                       "hipMalloc:2:2,hipModuleLaunchKernel:1:719,hipGetErrorString:1,"
                       "hipStreamCreateWithFlags:1"},
                      {"KEVRA_CPU_MEMORY", "1K"}}))
    return;
  Shared list;
  void *first = nullptr, *second = nullptr, *stream = nullptr;
  EXPECT_EQ(GetErrorString(2), nullptr);
  EXPECT_STREQ(GetErrorString(2), "out of memory");
  EXPECT_EQ(Malloc(&first, 512), 0);
  EXPECT_EQ(Malloc(&second, 512), 2);
  EXPECT_EQ(Malloc(&second, 512), 0);
  EXPECT_EQ(StreamCreateWithFlags(&stream, 0), 1);
  EXPECT_EQ(launch(load("append"), list.get(), 1, nullptr), 719);
  EXPECT_EQ(DeviceSynchronize(), 0);
  EXPECT_EQ(list.read(0), 0);
  EXPECT_EQ(launch(load("append"), list.get(), 1, nullptr), 0);
  EXPECT_EQ(DeviceSynchronize(), 0);
  EXPECT_EQ(list.read(0), 1);
}

TEST(RuntimeSwitches, NullLaunchesAreAcceptedAndDoNothing) {
  if (!in_child_with({{"KEVRA_CPU_NULL", "1"}})) return;
  Shared list;
  EXPECT_EQ(launch(load("append"), list.get(), 1, nullptr), 0);
  EXPECT_EQ(launch(load("append"), list.get(), 1, nullptr, 2000), 1);
  EXPECT_EQ(DeviceSynchronize(), 0);
  EXPECT_EQ(list.read(0), 0);
}

TEST(RuntimeSwitches, FreshMemoryIsNotANumberInCheckMode) {
  if (!in_child_with({{"KEVRA_CPU_CHECK", "1"}})) return;
  void* block = nullptr;
  std::vector<double> doubles(33);
  ASSERT_EQ(Malloc(&block, doubles.size() * sizeof(double)), 0);
  ASSERT_EQ(MemcpyDtoH(doubles.data(), block, doubles.size() * sizeof(double)), 0);
  std::vector<float> floats(doubles.size() * 2);
  std::memcpy(floats.data(), doubles.data(), doubles.size() * sizeof(double));
  for (const double value : doubles) EXPECT_NE(value, value);
  for (const float value : floats) EXPECT_NE(value, value);
  ASSERT_EQ(Free(block), 0);
  EXPECT_EQ(MemcpyDtoH(doubles.data(), block, 8), 1) << "a freed block";
}

TEST(RuntimeSwitches, SenselessValuesAreReportedAndTheDefaultStands) {
  std::string output;
  if (!in_child_with({{"KEVRA_CPU_DEVICES", "two"},
                      {"KEVRA_CPU_SHARED_LIMIT", "99999999999999999999"},
                      {"KEVRA_CPU_ORDER", "shuffle"},
                      {"KEVRA_CPU_FAIL", "hipMalloc:0,hipFree:1:5"},
                      {"KEVRA_CPU_NULL", "yes"}},
                     &output)) {
    for (const char* line :
         {"KEVRA_CPU_DEVICES=two is not accepted: give a whole number from 0 to 64; using 1\n",
          "KEVRA_CPU_SHARED_LIMIT=99999999999999999999 is not accepted",
          "KEVRA_CPU_ORDER=shuffle is not accepted", "KEVRA_CPU_FAIL=hipMalloc:0 is not accepted",
          "KEVRA_CPU_NULL=yes is not accepted"}) {
      EXPECT_NE(output.find(line), std::string::npos) << line << "\n" << output;
    }
    return;
  }
  int count = 0;
  EXPECT_EQ(GetDeviceCount(&count), 0);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(attribute(74), 65536);
  EXPECT_EQ(Free(nullptr), 5) << "the entry beside the wrong one counts";
}

TEST(RuntimeExit, ProcessMayEndWithWorkInFlight) {
  if (!in_child_with({})) return;
  Gate gate;
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(launch(load("hold"), gate.get(), 1, new_stream(non_blocking)), 0);
  }
  std::exit(0);
}

}  // namespace
