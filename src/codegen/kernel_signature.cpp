#include "codegen/kernel_signature.h"

#include <utility>

namespace kevra::codegen {
namespace {

KernelSignature& append(KernelSignature& signature, KernelParameter::Kind kind, std::string type,
                        std::string name) {
  signature.params.push_back({kind, std::move(type), std::move(name)});
  return signature;
}

}  // namespace

KernelSignature::KernelSignature(std::string kernel_name, const Backend& dialect)
    : name(std::move(kernel_name)), backend(dialect) {}

KernelSignature& KernelSignature::add_const_pointer(std::string type, std::string param) {
  return append(*this, KernelParameter::kConstPointer, std::move(type), std::move(param));
}
KernelSignature& KernelSignature::add_pointer(std::string type, std::string param) {
  return append(*this, KernelParameter::kPointer, std::move(type), std::move(param));
}
KernelSignature& KernelSignature::add_scalar(std::string type, std::string param) {
  return append(*this, KernelParameter::kScalar, std::move(type), std::move(param));
}

KernelSignature& KernelSignature::set_shared(std::string type, std::string block) {
  shared_type = std::move(type);
  shared_name = std::move(block);
  return *this;
}

KernelSignature& KernelSignature::set_launch_bounds(int block_threads, int blocks) {
  threads = block_threads;
  min_blocks = blocks;
  return *this;
}

std::string KernelSignature::head() const {
  const bool has_shared = !shared_name.empty();
  std::string text = backend.kernel_qualifier();
  if (threads != 0) text += backend.launch_bounds(threads, min_blocks);
  text += " " + name + "(";
  for (int i = 0; i < static_cast<int>(params.size()); ++i) {
    const KernelParameter& p = params[i];
    if (i > 0) text += ", ";
    text +=
        p.kind == KernelParameter::kScalar
            ? backend.scalar_param(p.type, p.name, i)
            : backend.pointer_param(p.kind == KernelParameter::kConstPointer, p.type, p.name, i);
  }
  text +=
      has_shared ? backend.extra_params_shared(shared_type, shared_name) : backend.extra_params();
  text += ") {\n";
  if (has_shared) text += "  " + backend.shared_declaration(shared_type, shared_name) + "\n";
  return text;
}

}  // namespace kevra::codegen
