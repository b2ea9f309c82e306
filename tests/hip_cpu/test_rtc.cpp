// The run-time compiler's interface, and what becomes of code objects on their way through caches.
#include <filesystem>

#include "kernel_api.h"

using namespace hip;

namespace {

template <typename... Types>
int rtc(const char* name, Types... arguments) {
  return bind<int(Types...)>(HIP_CPU_RTC_LIBRARY, name)(arguments...);
}

struct Outcome {
  int status = 0;
  std::string log, code;
};

Outcome compile_with(const char* text, std::vector<const char*> options = {}) {
  Outcome outcome;
  void* program = nullptr;
  const char** none = nullptr;
  EXPECT_EQ(rtc("hiprtcCreateProgram", &program, text, "rms.hip", 0, none, none), 0);
  outcome.status =
      rtc("hiprtcCompileProgram", program, static_cast<int>(options.size()), options.data());
  size_t bytes = 0;
  EXPECT_EQ(rtc("hiprtcGetProgramLogSize", program, &bytes), 0);
  outcome.log.resize(bytes);
  EXPECT_EQ(rtc("hiprtcGetProgramLog", program, outcome.log.data()), 0);
  const int sized = rtc("hiprtcGetCodeSize", program, &bytes);
  EXPECT_EQ(sized == 0, outcome.status == 0);
  if (sized == 0) {
    outcome.code.resize(bytes);
    EXPECT_EQ(rtc("hiprtcGetCode", program, outcome.code.data()), 0);
  }
  EXPECT_EQ(rtc("hiprtcDestroyProgram", &program), 0);
  EXPECT_EQ(program, nullptr);
  return outcome;
}

const char* const plain =
    R"(extern "C" __global__ void fill(float* out) { out[threadIdx.x] = 2; })";

int load_image(const std::string& image) {
  void* module = nullptr;
  return ModuleLoadData(&module, (image + std::string(4096, '\0')).data());
}

size_t compile_folders(const std::string& path) {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(path))
    count += contains(entry.path().filename(), "kevra-compile");
  return count;
}

TEST(Rtc, ErrorsComeBackAsTheCompilersOwnLogWithTheTextsLines) {
  const Outcome outcome = compile_with(R"(
extern "C" __global__ void wrong(float* out) {
  out[threadIdx.x] = undeclared;
  __syncthreads();
}
)");
  EXPECT_EQ(outcome.status, 6);
  EXPECT_TRUE(contains(outcome.log, "rms.hip:3:22: error: use of undeclared identifier"))
      << outcome.log;
  EXPECT_STREQ(bind<const char*(int)>(HIP_CPU_RTC_LIBRARY, "hiprtcGetErrorString")(6),
               "HIPRTC_ERROR_COMPILATION");
  EXPECT_EQ(compile_with("extern \"C\" __global__ void open(float* out) { if (out) {").status, 6);
  EXPECT_EQ(compile_with("__global__").status, 6);
  EXPECT_EQ(compile_with(plain).log.size(), 1u) << compile_with(plain).log;
}

TEST(Rtc, TakesIncludeFoldersAndNoOtherOption) {
  const std::string folder = testing::TempDir();
  const std::string file = folder + "/kevra_rtc_test.h", option = "-I" + folder;
  FILE* header = fopen(file.c_str(), "w");
  fputs("#define VALUE 7.0f\n", header);
  fclose(header);
  const char* text =
      "#include \"kevra_rtc_test.h\"\n"
      "extern \"C\" __global__ void fill(float* out) { out[0] = VALUE; }";
  EXPECT_EQ(compile_with(text, {option.c_str()}).status, 0);
  EXPECT_EQ(compile_with(text, {"-I", folder.c_str()}).status, 0);
  unlink(file.c_str());
  const Outcome refused = compile_with(plain, {"--gpu-architecture=gfx90a"});
  EXPECT_EQ(refused.status, 5);
  EXPECT_TRUE(contains(refused.log, "--gpu-architecture=gfx90a")) << refused.log;
}

TEST(Rtc, WithoutACompilerTheLogSaysHowToGetOne) {
  if (!in_child_with({{"KEVRA_CPU_CLANG", "/nonexistent/clang++"}})) return;
  const Outcome outcome = compile_with(plain);
  EXPECT_EQ(outcome.status, 6);
  EXPECT_TRUE(contains(outcome.log, "apt-get install clang")) << outcome.log;
}

TEST(Rtc, RefusesWhatIsNoProgram) {
  size_t bytes = 0;
  void* none = nullptr;
  EXPECT_NE(rtc("hiprtcCompileProgram", none, 0, static_cast<const char**>(nullptr)), 0);
  EXPECT_NE(rtc("hiprtcGetProgramLogSize", none, &bytes), 0);
  EXPECT_NE(rtc("hiprtcGetCodeSize", none, &bytes), 0);
  EXPECT_NE(rtc("hiprtcDestroyProgram", &none), 0);
  int major = 0, minor = -1;
  EXPECT_EQ(rtc("hiprtcVersion", &major, &minor), 0);
  EXPECT_GT(major, 0);
}

TEST(Rtc, FailsOnDemandAndLeavesNoFilesBehind) {
  const std::string folder = testing::TempDir() + "kevra_rtc_tmp";
  if (std::getenv("KEVRA_TEST_CHILD")) {
    EXPECT_EQ(compile_with(plain).status, 6);
    EXPECT_EQ(compile_with(plain).status, 0);
    EXPECT_EQ(compile_with("not a kernel").status, 6);
    return;
  }
  std::filesystem::create_directory(folder);
  in_child_with({{"KEVRA_CPU_FAIL", "hiprtcCompileProgram:1:6"}, {"TMPDIR", folder.c_str()}});
  EXPECT_EQ(compile_folders(folder), 0u);
  std::filesystem::remove_all(folder);
}

TEST(CodeObject, IsAnElfFileThatLoadsAndKeepsItsKernels) {
  const std::string image = compile_with(plain).code;
  EXPECT_EQ(image.substr(0, 4),
            "\x7f"
            "ELF");
  EXPECT_EQ(load_image(image), 0);
  // Two objects of one process stay apart, also where they hold kernels of one name.
  const Kernels two("extern \"C\" __global__ void fill(float* out) { out[threadIdx.x] = 2; }");
  const Kernels three("extern \"C\" __global__ void fill(float* out) { out[threadIdx.x] = 3; }");
  Buffer<float> out(4);
  EXPECT_EQ(three.run("fill", {}, {4}, 0, out.device), "");
  EXPECT_EQ(out.download()[3], 3.0f);
  EXPECT_EQ(two.run("fill", {}, {4}, 0, out.device), "");
  EXPECT_EQ(out.download()[3], 2.0f);
  EXPECT_EQ(two.function("fill"), two.function("fill"));
}

TEST(CodeObject, DamageIsRefusedWhereverItIs) {
  const std::string image = compile_with(plain).code;
  for (size_t keep = 0; keep < image.size(); keep += 1 + image.size() / 300) {
    const int code = load_image(image.substr(0, keep));
    ASSERT_TRUE(code == 200 || code == 209) << "cut to " << keep << " bytes: " << code;
  }
  const auto flipped = [&](size_t byte, int bit) {
    std::string damaged = image;
    damaged[byte] = static_cast<char>(damaged[byte] ^ 1 << bit);
    const int code = load_image(damaged);
    ASSERT_TRUE(code == 200 || code == 209) << "byte " << byte << ", bit " << bit << ": " << code;
  };
  const size_t step = 1 + image.size() / 2000;
  for (size_t byte = 0; byte < image.size(); byte += byte < 64 ? 1 : step)
    for (int bit = 0; bit < 8; bit += byte < 64 ? 1 : 3) flipped(byte, bit);
  for (size_t byte = image.size() - 128; byte < image.size(); ++byte) flipped(byte, 2);
  EXPECT_EQ(load_image(std::string(10000, 'x')), 200);
  void* module = nullptr;
  EXPECT_NE(ModuleLoadData(&module, nullptr), 0);
}

TEST(CodeObject, OfAnotherModeIsRefused) {
  const std::string file = testing::TempDir() + "kevra_object";
  if (std::getenv("KEVRA_TEST_CHILD")) {
    FILE* out = fopen(file.c_str(), "wb");
    const std::string image = compile_with(plain).code;
    fwrite(image.data(), 1, image.size(), out);
    fclose(out);
    return;
  }
  const bool checked = std::getenv("KEVRA_CPU_CHECK") != nullptr;
  in_child_with(checked ? Environment{} : Environment{{"KEVRA_CPU_CHECK", "1"}});
  std::string image(1 << 20, '\0');
  FILE* in = fopen(file.c_str(), "rb");
  ASSERT_NE(in, nullptr);
  image.resize(fread(image.data(), 1, image.size(), in));
  fclose(in);
  unlink(file.c_str());
  EXPECT_EQ(load_image(image), 209);
}

}  // namespace
