#include "platform/common/device_text.h"

namespace kevra_platform {
namespace {

// The name in a form that a #line can hold.
std::string quoted(const std::string& name) {
  std::string text;
  for (const char c : name)
    if (c != '\n') (c == '"' || c == '\\' ? text += '\\' : text) += c;
  return text;
}

}  // namespace

std::string with_device_text(const std::string& name, std::string_view kernels) {
  std::string text = "#line 1 \"kevra device\"\n" + std::string(device_text);
  text += "#line 1 \"" + quoted(name) + "\"\n";
  return text += kernels;
}

}  // namespace kevra_platform
