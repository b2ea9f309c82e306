// From kernel text to a launch: memo, disk cache, limits, failure texts, the neutral calls.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "codegen/backend.h"
#include "cuda_like/device.h"
#include "cuda_like/staged.h"
#include "rocm/code_cache.h"
#include "rocm/compile.h"
#include "rocm/hip_dl.h"
#include "two_devices.h"

namespace kevra {
namespace {

namespace fs = std::filesystem;

// out[y] = value for every block (0, y) with y below n.
std::string fill_text(const std::string& name, const std::string& value) {
  return backend().kernel_qualifier() + " " + name +
         "(int* __restrict__ out, int n) {\n"
         "  if (threadIdx.x == 0 && blockIdx.y < n) out[blockIdx.y] = " +
         value + ";\n}\n";
}

std::vector<int> read_back(const DeviceBuffer& buffer, size_t count) {
  std::vector<int> host(count);
  KEVRA_CHECK(memcpyDtoH(host.data(), buffer.p, count * sizeof(int)));
  return host;
}

void launch_fill(kernel_t fn, const DeviceBuffer& out, unsigned grid_y) {
  devptr_t p = out.p;
  int n = static_cast<int>(grid_y);
  void* args[] = {&p, &n};
  launch_kernel(fn, 1, grid_y, 32, 0, args, "fill", nullptr);
}

int run_fill(kernel_t fn) {
  DeviceBuffer out(sizeof(int), nullptr);
  launch_fill(fn, out, 1);
  return read_back(out, 1)[0];
}

template <class Error, class Body>
std::string message_of(Body body) {
  try {
    body();
  } catch (const Error& error) {
    return error.what();
  }
  ADD_FAILURE() << "nothing was thrown";
  return "";
}

// A cold cache folder of the test's own.
class Runtime : public testing::Test {
 protected:
  void SetUp() override {
    folder_ = fs::temp_directory_path() / ("kevra_test_runtime_" + std::to_string(getpid()));
    fs::remove_all(folder_);
    setenv("KEVRA_CACHE_DIR", folder_.c_str(), 1);
    select_device(0);
  }
  void TearDown() override { fs::remove_all(folder_); }

  std::vector<fs::path> cached_objects() const {
    if (!fs::exists(folder_ / "kernels")) return {};
    return {fs::directory_iterator(folder_ / "kernels"), {}};
  }

  fs::path folder_;
};

TEST_F(Runtime, AKeyRunsItsGeneratorOncePerDevice) {
  int generated = 0;
  const auto lookup = [&](int device, const char* key) {
    return kernel_function(
        key, device,
        [&] {
          ++generated;
          return fill_text("memo", "11");
        },
        "memo");
  };
  const kernel_t first = lookup(0, "memo_a");
  EXPECT_EQ(lookup(0, "memo_a"), first);
  EXPECT_EQ(generated, 1);
  EXPECT_EQ(lookup(0, "memo_b"), first) << "equal texts share one module";
  EXPECT_EQ(generated, 2);

  select_device(1);
  const kernel_t other = lookup(1, "memo_a");
  EXPECT_NE(other, first) << "a kernel belongs to the device it was loaded for";
  EXPECT_EQ(generated, 3);
  EXPECT_EQ(run_fill(other), 11);
  EXPECT_EQ(cached_objects().size(), 1u) << "devices of one architecture share the file";
  select_device(0);
  EXPECT_EQ(run_fill(first), 11);
}

TEST_F(Runtime, AFailedKernelLeavesNothingBehind) {
  std::string body = "no_such_name";
  int generated = 0;
  const auto lookup = [&] {
    return kernel_function(
        "broken", 0,
        [&] {
          ++generated;
          if (body.empty()) throw std::logic_error("generator's own words");
          return fill_text("broken", body);
        },
        "broken");
  };
  const std::string text = message_of<std::runtime_error>(lookup);
  EXPECT_TRUE(text.starts_with("kevra kernel compile failed:\n")) << text;
  EXPECT_NE(text.find("no_such_name"), text.npos) << "the compiler's log is missing:\n" << text;
  EXPECT_TRUE(cached_objects().empty());
  body.clear();
  EXPECT_EQ(message_of<std::logic_error>(lookup), "generator's own words");
  body = "22";
  EXPECT_EQ(run_fill(lookup()), 22);
  EXPECT_EQ(generated, 3);
}

TEST_F(Runtime, AnObjectWithoutTheKernelIsReplaced) {
  compile_function(0, fill_text("alpha", "33"), "alpha");
  ASSERT_EQ(cached_objects().size(), 1u);
  const fs::path alpha = cached_objects()[0];

  const std::string source = fill_text("beta", "44");
  uint64_t hash = 0x14650fb0739d0383;
  for (unsigned char c : source + "\nbeta") hash = (hash ^ c) * 0x100000001b3;
  const fs::path beta = kernel_cache_path(hash, arch_name(0));
  fs::copy_file(alpha, beta);
  EXPECT_EQ(run_fill(compile_function(0, source, "beta")), 44);
  EXPECT_EQ(cached_objects().size(), 2u);
  EXPECT_NE(read_code_object(beta)->padded, read_code_object(alpha)->padded) << "not replaced";
}

TEST_F(Runtime, AnObjectCutShortNeverReachesTheDriver) {
  compile_function(0, fill_text("whole", "55"), "whole");
  const std::string path = cached_objects().at(0).string();
  const std::optional<CodeObject> whole = read_code_object(path);
  ASSERT_TRUE(whole && whole->padded.size() > whole->bytes);
  for (size_t bytes : {whole->bytes - 200, whole->bytes / 2, size_t{64}, size_t{0}}) {
    fs::resize_file(path, bytes);
    EXPECT_FALSE(read_code_object(path)) << bytes << " of " << whole->bytes << " bytes";
  }
}

TEST_F(Runtime, GridYEndsBelow65536) {
  const kernel_t fn = compile_function(0, fill_text("fill", "(int)blockIdx.y"), "fill");
  const unsigned most = 65535;
  DeviceBuffer out((most + 1) * sizeof(int), nullptr);
  KEVRA_CHECK(memsetD8Async(out.p, 0xff, (most + 1) * sizeof(int), nullptr));
  EXPECT_EQ(message_of<std::runtime_error>([&] { launch_fill(fn, out, most + 1); }),
            "fill: batch exceeds grid.y limit");
  EXPECT_EQ(read_back(out, 1)[0], -1) << "the refused launch ran";
  launch_fill(fn, out, most);
  std::vector<int> want(most + 1);
  std::iota(want.begin(), want.end(), 0);
  want[most] = -1;
  EXPECT_EQ(read_back(out, most + 1), want);
}

TEST_F(Runtime, SharedMemoryIsCheckedAgainstTheDevice) {
  EXPECT_EQ(device_shared_limit(1), 65536);
  EXPECT_NO_THROW(check_shared(65536, 0, "fft: n"));
  EXPECT_EQ(message_of<std::invalid_argument>([] { check_shared(65537, 0, "fft: n"); }),
            "fft: n exceeds the device shared-memory limit");
  EXPECT_EQ(device_shared_limit(99), 49152) << "the limit when the device does not tell";
}

TEST_F(Runtime, CountsMultiprocessorsWhereTheDeviceTells) {
  EXPECT_GE(device_multiprocessors(1), 1);
  EXPECT_EQ(device_multiprocessors(99), 0);
}

TEST_F(Runtime, ARefusedDeviceDoesNotBecomeCurrent) {
  select_device(1);
  for (int device : {-1, 2, 1000}) EXPECT_THROW(select_device(device), std::runtime_error);
  int current = -1;
  hip_dl::api().GetDevice(&current);
  EXPECT_EQ(current, 1);
}

TEST_F(Runtime, FailuresTellPlaceCallAndReason) {
  const std::string words = hip_dl::api().GetErrorString(1);
  EXPECT_EQ(message_of<std::runtime_error>([] { KEVRA_CHECK(eventElapsedTime(nullptr, 0, 0)); }),
            "tests/cpp/test_runtime.cpp:" + std::to_string(__LINE__ - 1) +
                ": eventElapsedTime(nullptr, 0, 0) failed: " + words);
}

TEST_F(Runtime, CopiesFillsEventsAndSubMatrices) {
  std::vector<int> host(12);  // 3 rows of 4
  std::iota(host.begin(), host.end(), 0);
  DeviceBuffer matrix = upload_staged(host.data(), host.size());
  DeviceBuffer copy(48, nullptr);
  event_t start = nullptr, stop = nullptr;
  KEVRA_CHECK(eventCreate(&start));
  KEVRA_CHECK(eventCreate(&stop));
  KEVRA_CHECK(eventRecord(start, nullptr));
  KEVRA_CHECK(memcpyDtoDAsync(copy.p, matrix.p, 48, nullptr));
  KEVRA_CHECK(memcpyHtoDAsync(copy.p, &host[7], 4, nullptr));
  KEVRA_CHECK(memsetD8Async(static_cast<char*>(copy.p) + 4, 0xff, 4, nullptr));
  KEVRA_CHECK(eventRecord(stop, nullptr));
  KEVRA_CHECK(streamWaitEvent(nullptr, stop));
  KEVRA_CHECK(streamSynchronize(nullptr));
  EXPECT_EQ(read_back(copy, 12), (std::vector<int>{7, -1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
  float milliseconds = -1;
  KEVRA_CHECK(eventElapsedTime(&milliseconds, start, stop));
  EXPECT_GE(milliseconds, 0.0f);

  // Rows 1 and 2, columns 1 and 2 of the matrix: to column 2 of the copy, and to the host.
  Copy2D part{.src = {.x_bytes = 4, .y = 1, .address = matrix.p, .pitch = 16},
              .dst = {.x_bytes = 8, .y = 0, .address = copy.p, .pitch = 16},
              .width_bytes = 8,
              .height = 2};
  KEVRA_CHECK(memcpy2DAsync(&part, nullptr));
  EXPECT_EQ(read_back(copy, 12), (std::vector<int>{7, -1, 5, 6, 4, 5, 9, 10, 8, 9, 10, 11}));
  std::vector<int> tile(4);
  part.dst = {.memory = 1, .address = tile.data(), .pitch = 8};
  KEVRA_CHECK(memcpy2DAsync(&part, nullptr));
  KEVRA_CHECK(deviceSynchronize());
  EXPECT_EQ(tile, (std::vector<int>{5, 6, 9, 10}));
}

}  // namespace
}  // namespace kevra
