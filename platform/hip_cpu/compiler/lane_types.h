// Which words of a kernel text name types: the language's own, the device's vectors, and what the
// text itself defines.
#pragma once

#include <set>
#include <string_view>

#include "compiler/kernel_text.h"

namespace kevra_cpu {

class LaneTypes {
 public:
  explicit LaneTypes(const KernelText& text);

  bool is_type(size_t i) const;
  // Whether the type from `begin` up to `end` is one of whole numbers.
  bool is_whole(size_t begin, size_t end) const;
  // A word that may stand before or behind a type and changes nothing here.
  bool is_qualifier(size_t i) const;

  // Behind the type at `begin` with its qualifiers, stars aside; `begin` when there is none.
  size_t type_end(size_t begin) const;
  // Behind the stars at `begin`, with the qualifiers among them.
  size_t stars_end(size_t begin) const;

  // The closing parenthesis of the cast that opens at `open`; `open` when it is none.
  // `inner`: the token before it closes another cast.
  size_t cast_close(size_t open, bool inner) const;

  // The last token of the operand of a cast, which begins at `begin`.
  size_t operand_end(size_t begin) const;

 private:
  void define(size_t hash);
  size_t prefixes_end(size_t i) const;

  const KernelText& text_;
  std::set<std::string_view> types_, whole_, qualifiers_;
};

}  // namespace kevra_cpu
