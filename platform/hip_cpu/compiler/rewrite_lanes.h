// Kernel text made into the form in which neighbouring blocks run together, one a lane of vectors.
// C++'s types decide what is the same in all lanes: a declaration with an initialiser becomes
// `auto`, a cast becomes a conversion that keeps lanes, device functions become templates, and
// kernel parameters are wrapped. All else is the header's business. Line numbers stay.
#pragma once

#include <string>
#include <string_view>

namespace kevra_cpu {

struct LaneText {
  std::string text;     // empty when the kernels have no lane form
  std::string refusal;  // why, or empty where there is nothing to gain from one
  bool many =
      false;  // blocks may run sixteen at a time: threads hold few values, none of them wide
};

LaneText rewrite_lanes(std::string_view text);

}  // namespace kevra_cpu
