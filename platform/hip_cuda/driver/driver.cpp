#include "driver/driver.h"

#include <string>

using namespace kevra_platform;

namespace kevra_cuda {
namespace {

struct Start {
  Driver functions{};
  int code = no_device;
  std::string text;
};

Start start() {
  Start out;
  void* library = dlopen("libcuda.so.1", RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* why = dlerror();
    out.text = "no CUDA driver: " + std::string(why ? why : "libcuda.so.1 does not load");
    return out;
  }
  if (const char* missing = bind_all(library, out.functions)) {
    out.text = "the CUDA driver is too old: libcuda.so.1 lacks " + std::string(missing);
    return out;
  }
  out.code = out.functions.cuInit(0);
  if (out.code != success) {
    const char* words = nullptr;
    out.functions.cuGetErrorString(out.code, &words);
    out.text = "the CUDA driver does not start: " + std::string(words ? words : "unknown error");
  }
  return out;
}

// Never destroyed: calls may come in while the process ends.
const Start& started() {
  static const Start& value = *new Start(start());
  return value;
}

}  // namespace

const Driver* driver() {
  return started().code == success ? &started().functions : nullptr;
}
int start_failure() {
  return started().code;
}
const char* start_text() {
  return started().text.c_str();
}

}  // namespace kevra_cuda
