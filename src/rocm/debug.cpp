#include "rocm/debug.h"

#include <cstdio>
#include <mutex>
#include <sstream>
#include <unordered_map>

#include "environment.h"

namespace kevra::debug {
namespace {

double microseconds_since(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

std::mutex key_mutex;
std::unordered_map<kernel_t, std::string>& keys() {  // under key_mutex; filled in debug mode alone
  static auto* map = new std::unordered_map<kernel_t, std::string>;
  return *map;
}

}  // namespace

int level() {
  static const int value = environment::debug_level();
  return value;
}

void made(const std::string& kernel_name, const char* how, Clock::time_point since,
          const std::string& source) {
  if (level() < 1) return;
  std::fprintf(stderr, "kevra: kernel %s %s in %.1f ms\n", kernel_name.c_str(), how,
               microseconds_since(since) / 1000);
  if (level() >= 2) std::fputs(numbered(source).c_str(), stderr);
}

void keyed(kernel_t fn, const std::string& key) {
  if (level() < 1) return;
  std::lock_guard lock(key_mutex);
  keys()[fn] = key;
}

void launched(kernel_t fn, const char* name, unsigned gx, unsigned gy, unsigned block,
              size_t shared, stream_t stream, Clock::time_point since) {
  if (level() < 1) return;
  std::lock_guard lock(key_mutex);
  const auto it = keys().find(fn);
  std::fprintf(stderr,
               "kevra: launch %s (%s) grid %ux%u block %u shared %zu stream %p in %.1f us\n", name,
               it == keys().end() ? "no key" : it->second.c_str(), gx, gy, block, shared, stream,
               microseconds_since(since));
}

std::string numbered(const std::string& source) {
  std::istringstream lines(source);
  std::string text;
  std::string line;
  char number[16];
  for (int i = 1; std::getline(lines, line); ++i) {
    std::snprintf(number, sizeof number, "%5d  ", i);
    text += number + line + "\n";
  }
  return text;
}

}  // namespace kevra::debug
