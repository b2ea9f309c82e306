#include "rocm/compile.h"

#include <mutex>
#include <optional>
#include <stdexcept>
#include <unordered_map>
#include <vector>

#include "cuda_like/hash.h"
#include "environment.h"
#include "rocm/code_cache.h"
#include "rocm/context.h"
#include "rocm/debug.h"
#include "rocm/hip_dl.h"

namespace kevra {
namespace {

using Memo = std::unordered_map<std::string, kernel_t>;

// Both under runtime_mutex. They only grow, and outlive every caller.
// By the operation's short key; spares the generator on every call but the first.
Memo& kernel_memo() {
  static auto* memo = new Memo;
  return *memo;
}
// By the whole text; several keys may come to the same kernel.
Memo& module_memo() {
  static auto* memo = new Memo;
  return *memo;
}

// A macro, because the failure text holds the call's source text and line.
#define KEVRA_RTC(call) check_rtc((call), __LINE__, #call)

class Program {
 public:
  Program(const hip_dl::RtcTable& rtc, const std::string& source, const std::string& kernel_name)
      : rtc_(rtc) {
    KEVRA_RTC(rtc.CreateProgram(&prog_, source.c_str(), (kernel_name + ".hip").c_str(), 0, nullptr,
                                nullptr));
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program() { rtc_.DestroyProgram(&prog_); }

  // Throws with the compiler's log, and behind it what a reader of the log needs.
  void compile(const std::string& source, const std::string& kernel_name) {
    // No option names the target: hipRTC builds for the current device.
    std::string include;
    std::vector<const char*> options;
    if (auto folder = environment::hip_include()) {
      include = "-I" + *folder;
      options.push_back(include.c_str());
    }
    if (rtc_.CompileProgram(prog_, static_cast<int>(options.size()), options.data()) != 0) {
      throw std::runtime_error("kevra kernel compile failed:\n" + log() + "\nkernel " +
                               kernel_name + ", options: " + (include.empty() ? "none" : include) +
                               "\n" + debug::numbered(source));
    }
  }

  std::vector<char> code() {
    size_t codeSize = 0;
    KEVRA_RTC(rtc_.GetCodeSize(prog_, &codeSize));
    std::vector<char> code(codeSize);
    KEVRA_RTC(rtc_.GetCode(prog_, code.data()));
    return code;
  }

 private:
  std::string log() {
    size_t size = 0;
    if (rtc_.GetProgramLogSize(prog_, &size) != 0) return "";
    std::string text(size, '\0');
    if (rtc_.GetProgramLog(prog_, text.data()) != 0) return "";
    return text.substr(0, text.find('\0'));
  }

  const hip_dl::RtcTable& rtc_;
  hip_dl::program_t prog_ = nullptr;
};

std::vector<char> compile_source(const std::string& source, const std::string& kernel_name) {
  const hip_dl::RtcTable* rtc = hip_dl::rtc_api();
  if (rtc == nullptr) {
    throw std::runtime_error(
        "kevra: kernel " + kernel_name +
        " is not in the code-object cache, and hipRTC (libhiprtc), which would compile it, was not "
        "found. Put libhiprtc beside the HIP runtime library, or set KEVRA_HIPRTC_PATH to it.");
  }
  Program program(*rtc, source, kernel_name);
  program.compile(source, kernel_name);
  return program.code();
}

// The kernel out of a cached object; none when the driver refuses the object or it lacks the
// name, which costs a compile and replaces the file.
std::optional<kernel_t> load_cached(const std::string& path, const std::string& kernel_name) {
  const std::optional<CodeObject> code = read_code_object(path);
  if (!code) return std::nullopt;
  const hip_dl::Table& hip = hip_dl::api();
  hip_dl::module_t mod = nullptr;
  hip_dl::function_t fn = nullptr;
  if (hip.ModuleLoadData(&mod, code->padded.data()) != 0) return std::nullopt;
  if (hip.ModuleGetFunction(&fn, mod, kernel_name.c_str()) != 0) return std::nullopt;
  return fn;
}

kernel_t load_fresh(const std::vector<char>& code, const std::string& name,
                    const std::string& arch) {
  hip_dl::module_t mod = nullptr;
  if (const int err = hip_dl::api().ModuleLoadData(&mod, code.data()); err != 0) {
    const char* words = hip_dl::api().GetErrorString(err);
    throw std::runtime_error("hipModuleLoadData failed for " + name + " (" +
                             std::to_string(code.size()) + "-byte code object compiled for " +
                             arch + "): " + (words != nullptr ? words : "unknown HIP error"));
  }
  hip_dl::function_t fn = nullptr;
  KEVRA_CHECK(::kevra::hip_dl::api().ModuleGetFunction(&fn, mod, name.c_str()));
  return fn;
}

}  // namespace

void check_rtc(int err, int line, const char* expr) {
  if (err == 0) return;
  const hip_dl::RtcTable* rtc = hip_dl::rtc_api();
  const char* words = rtc != nullptr ? rtc->GetErrorString(err) : nullptr;
  throw std::runtime_error("src/rocm/compile:" + std::to_string(line) + ": " + expr +
                           " failed: " + (words != nullptr ? words : "unknown hipRTC error"));
}

std::string arch_name(int dev) {
  const std::string arch = device_arch(dev);
  return arch.empty() ? "gfxunknown" : arch;
}

kernel_t compile_function(int dev, const std::string& source, const std::string& kernel_name) {
  std::lock_guard lock(runtime_mutex);
  const std::string memo_key = std::to_string(dev) + '\x01' + kernel_name + '\x01' + source;
  if (const auto it = module_memo().find(memo_key); it != module_memo().end()) return it->second;

  const std::string arch = arch_name(dev);
  const std::string path = kernel_cache_path(content_hash(source + "\n" + kernel_name), arch);
  const auto start = debug::Clock::now();
  std::optional<kernel_t> fn = load_cached(path, kernel_name);
  const char* how = "loaded from disk";
  if (!fn) {
    const std::vector<char> code = compile_source(source, kernel_name);
    write_code_object(path, code);
    fn = load_fresh(code, kernel_name, arch);
    how = "compiled";
  }
  debug::made(kernel_name, how, start, source);
  module_memo().emplace(memo_key, *fn);
  return *fn;
}

kernel_t kernel_function(const std::string& key, int dev,
                         const std::function<std::string()>& source, const char* kernel_name) {
  std::string memo_key;
  memo_key.reserve(key.size() + 64);
  memo_key.append(key).append("#").append(kernel_name).append("#d").append(std::to_string(dev));

  std::lock_guard lock(runtime_mutex);
  if (const auto it = kernel_memo().find(memo_key); it != kernel_memo().end()) return it->second;
  kernel_t fn = compile_function(dev, source(), kernel_name);
  debug::keyed(fn, key);
  kernel_memo().emplace(std::move(memo_key), fn);
  return fn;
}

}  // namespace kevra
