// Where a kernel's values are while its threads wait at a barrier in lane code. A coroutine's frame
// has a place of its own for every value that ever lives across a barrier; those of one stage of a
// transform are vectors by the dozen, and the frames of a block outgrow the nearest caches. Here
// they move into cells beside the frame, which the values of later barriers use again.
#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "compiler/kernel_text.h"

namespace kevra_cpu {

class LaneCells {
 public:
  // The kernel's body, from behind its opening brace up to its closing one.
  LaneCells(const KernelText& text, size_t begin, size_t end);

  // The variable of that name token may hold lanes; `set`: its declaration gives it a value.
  void declared(size_t name, bool set) { declared_.emplace(name, set); }

  // Writes into `text` what is kept before each barrier and brought back behind it; gives the cells
  // that a thread needs, of a float for each lane. `wide`: values may be doubles.
  unsigned place(KernelText& text, bool wide) const;

 private:
  // A variable or a member of one, by the tokens that name it.
  struct Value {
    std::string name;
    std::vector<size_t> uses;
    unsigned cells;
    size_t first, last;  // barriers that it lives across
  };

  // Tokens behind which a value is brought back, and before which it is kept.
  struct Stretch {
    size_t begin, end;
    bool any;  // whether it is used there
  };

  void find_barriers();
  bool under_if(size_t brace) const;
  bool runs_through(size_t brace) const;
  std::vector<Value> values(bool wide) const;
  std::vector<size_t> uses_of(size_t name) const;
  bool crosses(Value& value) const;
  Stretch stretch(const Value& value, size_t stage) const;

  const KernelText& text_;
  size_t begin_, end_;
  std::map<size_t, bool> declared_;
  std::map<std::string_view, std::vector<size_t>> words_;
  std::vector<size_t> barriers_;                        // that every thread meets once
  std::vector<std::pair<size_t, size_t>> conditional_;  // braces of what stands under an if
};

}  // namespace kevra_cpu
