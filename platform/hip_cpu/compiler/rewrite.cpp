#include "compiler/rewrite.h"

#include "compiler/kernel_text.h"

namespace kevra_cpu {

namespace {

class Rewriter {
 public:
  explicit Rewriter(std::string_view text) : text_(text) {}

  std::string rewrite() {
    KernelPlace place;
    for (size_t i = 0; i < text_.size(); ++i) {
      if (!text_.is(i, "__global__") || text_.token(i).in_directive) continue;
      if (!text_.kernel_at(i, place)) break;
      kernel(place);
      i = place.end;
    }
    return text_.apply();
  }

 private:
  void kernel(const KernelPlace& place) {
    const std::string name(text_.token(place.name).text);
    std::string head = place.waits ? "KEVRA_CPU_KERNEL_FUNCTION ::kevra_cpu_device::Task "
                                   : "KEVRA_CPU_KERNEL_FUNCTION void ";
    head += name + "(::kevra_cpu_device::Thread kevra_thread";
    if (place.close != place.open + 1) head += ", ";
    text_.replace(place.first, place.open, std::move(head));
    if (!place.has_body()) return;
    body(place);
    text_.insert_behind(place.end, " KEVRA_CPU_KERNEL(" + name + ", (" + place.bound + "));");
  }

  void body(const KernelPlace& place) {
    std::string statics_end = "0";  // bytes of static shared memory that are taken
    for (size_t i = place.body; i < place.end; ++i) {
      if (text_.token(i).in_directive) continue;
      if (place.waits && text_.is(i, "return")) text_.replace(i, i, "co_return");
      if (text_.is(i, "extern") && text_.is(i + 1, "__shared__"))
        i = shared_declaration(i, i + 2, place.end, nullptr);
      else if (text_.is(i, "__shared__"))
        i = shared_declaration(i, i + 1, place.end, &statics_end);
    }
  }

  // <type> <name> <dimensions> ; from `type` on becomes a typedef for the array and a place in
  // shared memory: static arrays lie one behind the other, a dynamic one is all there is.
  size_t shared_declaration(size_t at, size_t type, size_t end, std::string* statics_end) {
    size_t last = type;
    while (last < end && !text_.is(last, ";")) ++last;
    size_t bracket = type;
    while (bracket < last && !text_.is(bracket, "[")) ++bracket;
    if (last == end || bracket < type + 2) return at;  // the compiler says what is wrong
    const std::string name(text_.token(bracket - 1).text);
    std::string text = "typedef " + text_.words(type, bracket - 1) + "kevra_type_" + name + " " +
                       text_.words(bracket, last) + "; ";
    if (statics_end == nullptr) {
      text += "KEVRA_CPU_DYNAMIC_SHARED(" + name + ")";
    } else {
      text += "KEVRA_CPU_STATIC_SHARED(" + name + ", " + *statics_end + ")";
      *statics_end = "kevra_end_" + name;
    }
    text_.replace(at, last - 1, std::move(text));
    return last;
  }

  KernelText text_;
};

}  // namespace

std::string rewrite_kernels(std::string_view text) {
  return Rewriter(text).rewrite();
}

}  // namespace kevra_cpu
