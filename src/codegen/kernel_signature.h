// The head of a generated kernel.
#pragma once

#include <string>
#include <vector>

#include "codegen/backend.h"

namespace kevra::codegen {

struct KernelParameter {
  enum Kind { kConstPointer = 0, kPointer = 1, kScalar = 2 };
  Kind kind;
  std::string type;
  std::string name;
};

struct KernelSignature {
  KernelSignature(std::string name, const Backend& backend);

  // Each appends one parameter and returns the signature, so that calls chain.
  KernelSignature& add_const_pointer(std::string type, std::string name);
  KernelSignature& add_pointer(std::string type, std::string name);
  KernelSignature& add_scalar(std::string type, std::string name);
  // Names the dynamic shared block; a second call replaces the first.
  KernelSignature& set_shared(std::string type, std::string name);
  KernelSignature& set_launch_bounds(int threads, int min_blocks);

  // The text up to and including the opening brace and the shared block's declaration.
  std::string head() const;

  std::string name;
  const Backend& backend;
  int threads = 0;  // 0: no launch bound
  int min_blocks = -1;
  std::vector<KernelParameter> params;
  std::string shared_type;
  std::string shared_name;
};

}  // namespace kevra::codegen
