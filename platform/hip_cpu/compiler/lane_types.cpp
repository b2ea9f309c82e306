#include "compiler/lane_types.h"

namespace kevra_cpu {

LaneTypes::LaneTypes(const KernelText& text) : text_(text) {
  types_ = {"float", "double", "half", "__half", "half2", "__half2"};
  whole_ = {"int", "unsigned", "signed", "long", "short", "char", "bool"};
  types_.insert(whole_.begin(), whole_.end());
  for (const char* name : {"float2", "float3", "float4", "double2", "double3", "double4", "int2",
                           "int3", "int4", "uint2", "uint3", "uint4", "longlong2", "ulonglong2"})
    types_.insert(name);
  qualifiers_ = {"const", "__restrict__", "__restrict"};
  for (size_t i = 0; i < text.size(); ++i) {
    if (text.token(i).in_directive) {
      if (text.is(i, "#") && text.is(i + 1, "define")) define(i);
    } else if (text.is(i, "typedef")) {
      const size_t type = i + 1;
      while (i + 1 < text.size() && !text.is(i + 1, ";")) ++i;
      if (!text.is_word(i)) continue;
      types_.insert(text.token(i).text);
      if (is_whole(type, i)) whole_.insert(text.token(i).text);
    }
  }
}

// A macro without a body is a qualifier, one that stands for a type is a type.
void LaneTypes::define(size_t hash) {
  const size_t name = hash + 2;
  const auto in_line = [&](size_t i) {
    return i < text_.size() && text_.token(i).in_directive && !text_.is(i, "#");
  };
  if (!in_line(name)) return;
  if (!in_line(name + 1)) {
    qualifiers_.insert(text_.token(name).text);
  } else if (is_type(name + 1) && !in_line(name + 2)) {
    types_.insert(text_.token(name).text);
  }
}

bool LaneTypes::is_type(size_t i) const {
  return text_.is_word(i) && types_.count(text_.token(i).text) != 0;
}

bool LaneTypes::is_whole(size_t begin, size_t end) const {
  for (size_t i = begin; i < end; ++i)
    if (!is_qualifier(i) && whole_.count(text_.token(i).text) == 0) return false;
  return true;
}

bool LaneTypes::is_qualifier(size_t i) const {
  return text_.is_word(i) && qualifiers_.count(text_.token(i).text) != 0;
}

size_t LaneTypes::type_end(size_t begin) const {
  bool found = false;
  size_t i = begin;
  for (; is_type(i) || is_qualifier(i); ++i) found |= is_type(i);
  return found ? i : begin;
}

size_t LaneTypes::stars_end(size_t begin) const {
  size_t i = begin;
  while (text_.is(i, "*") || is_qualifier(i)) ++i;
  return i;
}

size_t LaneTypes::cast_close(size_t open, bool inner) const {
  if (!text_.is(open, "(")) return open;
  if (open > 0 && !inner) {
    const bool call = text_.is_word(open - 1) && !text_.is(open - 1, "return");
    if (call || text_.is(open - 1, ")") || text_.is(open - 1, "]")) return open;
  }
  const size_t type = type_end(open + 1);
  if (type == open + 1) return open;
  const size_t close = stars_end(type);
  return text_.is(close, ")") ? close : open;
}

size_t LaneTypes::prefixes_end(size_t i) const {
  bool inner = true;
  for (;;) {
    if (text_.is(i, "+") || text_.is(i, "-") || text_.is(i, "!") || text_.is(i, "~") ||
        text_.is(i, "*") || text_.is(i, "&")) {
      ++i;
    } else if (const size_t close = cast_close(i, inner); close != i) {
      i = close + 1;
    } else {
      return i;
    }
  }
}

size_t LaneTypes::operand_end(size_t begin) const {
  size_t i = prefixes_end(begin);
  if (text_.is(i, "(")) {
    i = text_.closing(i);
  } else if (i < text_.size() && text_.token(i).kind == TokenKind::number) {
    // 1e-5 is three tokens.
    const std::string_view digits = text_.token(i).text;
    const bool hex = digits.size() > 1 && (digits[1] == 'x' || digits[1] == 'X');
    const char last = digits.back();
    const bool exponent = hex ? last == 'p' || last == 'P' : last == 'e' || last == 'E';
    if (exponent && text_.adjoins(i + 1)) i += 2;
  }
  for (;;) {
    if (text_.is(i + 1, ".")) {
      i += 2;
    } else if (text_.is(i + 1, "-") && text_.is(i + 2, ">") && text_.adjoins(i + 2)) {
      i += 3;
    } else if (text_.is(i + 1, "[") || text_.is(i + 1, "(")) {
      i = text_.closing(i + 1);
    } else {
      return i < text_.size() ? i : text_.size() - 1;
    }
  }
}

}  // namespace kevra_cpu
