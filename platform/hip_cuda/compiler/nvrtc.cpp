#include "compiler/nvrtc.h"

#include <dlfcn.h>
#include <glob.h>

#include <filesystem>
#include <mutex>
#include <vector>

#include "driver/settings.h"

namespace fs = std::filesystem;

namespace kevra_cuda {
namespace {

// One a major version, the newest first.
constexpr const char* library_names[] = {"libnvrtc.so.13", "libnvrtc.so.12", "libnvrtc.so.11.2"};

// The packages' folder, two above this library's own.
std::string packages_folder() {
  Dl_info here{};
  if (dladdr(reinterpret_cast<void*>(&packages_folder), &here) == 0) return "";
  return fs::path(here.dli_fname).parent_path().parent_path().parent_path();
}

std::vector<std::string> library_folders() {
  const std::string packages = packages_folder();
  std::vector<std::string> folders = {packages + "/nvidia/cu13/lib",
                                      packages + "/nvidia/cuda_nvrtc/lib"};
  glob_t found{};
  if (glob("/usr/local/cuda*/lib64", 0, nullptr, &found) == 0)
    folders.insert(folders.end(), found.gl_pathv, found.gl_pathv + found.gl_pathc);
  globfree(&found);
  return folders;
}

std::vector<std::string> candidates() {
  if (!settings().nvrtc.empty()) return {settings().nvrtc};
  std::vector<std::string> paths(std::begin(library_names), std::end(library_names));
  for (const std::string& folder : library_folders()) {
    for (const char* name : library_names) {
      std::string path = folder + "/" + name;
      std::error_code failed;
      if (fs::exists(path, failed)) paths.push_back(std::move(path));
    }
  }
  return paths;
}

bool load(const std::string& path, Nvrtc& functions, std::string& why) {
  void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  const char* missing = library ? bind_all(library, functions) : nullptr;
  if (library && !missing) return true;
  why += "  " + (missing ? path + " lacks " + missing : std::string(dlerror())) + "\n";
  return false;
}

}  // namespace

const Nvrtc* nvrtc(std::string& why) {
  static std::mutex& mutex = *new std::mutex;
  static Nvrtc functions{};
  static bool found = false;
  const std::lock_guard lock(mutex);
  if (found) return &functions;
  for (const std::string& path : candidates()) {
    Nvrtc scratch{};
    if (!load(path, scratch, why)) continue;
    functions = scratch;
    found = true;
    return &functions;
  }
  return nullptr;
}

}  // namespace kevra_cuda
