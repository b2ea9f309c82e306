#include "codegen/format.h"

#include <cstdio>
#include <stdexcept>

namespace kevra::codegen {

std::string format(const char* fmt, const std::vector<std::string>& args) {
  std::string text;
  size_t next = 0;
  for (const char* c = fmt; *c != '\0'; ++c) {
    if (*c != '$') {
      text += *c;
    } else if (next < args.size()) {
      text += args[next++];
    } else {
      throw std::logic_error(std::string("codegen format: too few args: ") + fmt);
    }
  }
  if (next < args.size()) {
    throw std::logic_error(std::string("codegen format: too many args: ") + fmt);
  }
  return text;
}

std::string number_literal(double value) {
  char text[32];  // 17 digits, sign, point and a four-character exponent fit
  std::snprintf(text, sizeof text, "%.17g", value);
  return text;
}

}  // namespace kevra::codegen
