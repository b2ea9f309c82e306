// One C function beside the Python surface: the state of the runtime as a JSON text, for
// `python -m kevra` and for tests. It binds, probes and allocates nothing.
#include <sstream>
#include <string>

#include "rocm/code_cache.h"
#include "rocm/context.h"
#include "rocm/device_pool.h"
#include "rocm/hip_dl.h"
#include "rocm/pinned_pool.h"

namespace kevra {
namespace {

std::string quoted(const std::string& text) {
  std::string json = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') json += '\\';
    json += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
  }
  return json + "\"";
}

std::string quoted_or_null(const std::string& text) {
  return text.empty() ? "null" : quoted(text);
}

std::string pool_json(const PoolFigures& pool) {
  std::ostringstream json;
  json << R"({"in_use_blocks": )" << pool.in_use_blocks << R"(, "in_use_bytes": )"
       << pool.in_use_bytes << R"(, "cached_blocks": )" << pool.cached_blocks
       << R"(, "cached_bytes": )" << pool.cached_bytes << "}";
  return json.str();
}

std::string diagnostics_json() {
  const hip_dl::SearchReport search = hip_dl::search_report();
  std::ostringstream json;
  json << R"({"library": )" << quoted_or_null(search.library) << R"(, "search": [)";
  const char* separator = "";
  for (const hip_dl::SearchStep& step : search.steps) {
    json << separator << R"({"candidate": )" << quoted(step.candidate) << R"(, "outcome": )"
         << quoted(step.outcome) << "}";
    separator = ", ";
  }
  json << R"(], "hiprtc": )" << quoted_or_null(search.hiprtc) << R"(, "cache": )"
       << quoted(kernel_cache_folder()) << R"(, "available": )" << availability()
       << R"(, "pools": {"device": )" << pool_json(device_pool_figures()) << R"(, "pinned": )"
       << pool_json(pinned_pool_figures()) << "}}";
  return json.str();
}

}  // namespace
}  // namespace kevra

extern "C" __attribute__((visibility("default"))) const char* kevra_diagnostics() {
  static thread_local std::string text;
  try {
    text = kevra::diagnostics_json();
    return text.c_str();
  } catch (const std::exception&) {
    return "{}";
  }
}
