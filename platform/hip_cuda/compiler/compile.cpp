#include "platform/common/compile.h"

#include "compiler/nvrtc.h"
#include "driver/device.h"
#include "platform/common/device_text.h"
#include "platform/common/image.h"

using namespace kevra_platform;

namespace {

using kevra_cuda::Nvrtc;

class Program {
 public:
  Program(const Nvrtc& nvrtc, const std::string& text, const std::string& name) : nvrtc_(nvrtc) {
    nvrtc_.nvrtcCreateProgram(&program_, text.c_str(), name.c_str(), 0, nullptr, nullptr);
  }
  ~Program() {
    if (program_) nvrtc_.nvrtcDestroyProgram(&program_);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  bool compile(const std::vector<std::string>& options) {
    std::vector<const char*> texts;
    for (const std::string& option : options) texts.push_back(option.c_str());
    return program_ &&
           nvrtc_.nvrtcCompileProgram(program_, static_cast<int>(texts.size()), texts.data()) == 0;
  }

  std::string log() {
    size_t bytes = 0;
    if (!program_ || nvrtc_.nvrtcGetProgramLogSize(program_, &bytes) != 0) return "";
    std::string text(bytes, '\0');
    if (nvrtc_.nvrtcGetProgramLog(program_, text.data()) != 0) return "";
    return text.substr(0, text.find('\0'));
  }

  // Empty when there is none.
  std::vector<std::byte> cubin() {
    size_t bytes = 0;
    if (nvrtc_.nvrtcGetCUBINSize(program_, &bytes) != 0) return {};
    std::vector<std::byte> cubin(bytes);
    if (nvrtc_.nvrtcGetCUBIN(program_, reinterpret_cast<char*>(cubin.data())) != 0) return {};
    return cubin;
  }

 private:
  const Nvrtc& nvrtc_;
  void* program_ = nullptr;
};

// The architecture that code is made for: that of the calling thread's device, unless the
// environment names one.
std::string target() {
  int device = 0;
  kevra_cuda::current_device(&device);
  return kevra_cuda::architecture_name(device);
}

}  // namespace

Compiled kevra_platform::compile_kernels(const KernelSource& source,
                                         const std::vector<std::string>& includes) {
  std::string why;
  const Nvrtc* nvrtc = kevra_cuda::nvrtc(why);
  if (!nvrtc)
    return {
        {},
        "The CUDA device compiles kernels with NVRTC (libnvrtc), and none was found: install it "
        "(pip install nvidia-cuda-nvrtc) or name the library in KEVRA_CUDA_NVRTC. Tried:\n" +
            why};
  const std::string architecture = target();
  if (architecture.empty())
    return {{},
            "There is no CUDA device to compile for (" + std::string(kevra_cuda::start_text()) +
                "): set KEVRA_CUDA_ARCH to an architecture such as sm_90.\n"};

  std::vector<std::string> options = {"--gpu-architecture=" + architecture, "--std=c++17"};
  options.insert(options.end(), includes.begin(), includes.end());
  Program program(*nvrtc, with_device_text(source.name, source.text), source.name);
  if (!program.compile(options)) return {{}, program.log()};
  std::vector<std::byte> image =
      make_image(program.cubin(), kevra_cuda::code_object_tag(architecture));
  if (image.empty()) return {{}, program.log() + "NVRTC gave no code for " + architecture + ".\n"};
  return {std::move(image), program.log()};
}
