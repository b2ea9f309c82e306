#include "platform/common/compile.h"

#include <dlfcn.h>
#include <link.h>

#include <cstdio>
#include <stdexcept>
#include <thread>

#include "common/settings.h"
#include "compiler/rewrite.h"
#include "compiler/rewrite_lanes.h"
#include "compiler/temporary_folder.h"
#include "kernel/architecture.h"
#include "kernel/toolchain.h"
#include "platform/common/device_text.h"
#include "platform/common/image.h"

namespace kevra_cpu {

namespace {

using kevra_platform::with_device_text;
using Command = std::vector<std::string>;

// Math without errno is what kernels get on a GPU; all else is plain C++.
const Command compile_options = {
    "-x",
    "c++",
    "-std=c++20",
    "-march=native",
    "-fPIC",
    "-fvisibility=hidden",
    "-fno-rtti",
    "-fno-exceptions",
    "-nostdinc++",
    "-fno-math-errno",
    "-c",
    "-ffp-contract=on",  // the device header says where it goes further
    "-fno-plt",
    "-fno-asynchronous-unwind-tables",
    // What -march=native finds on a virtual machine need not fit together; that is no fault of
    // the kernel's.
    "-Wno-unknown-warning-option",
    "-Wno-invalid-feature-combination",
#ifdef __x86_64__
    // An int becomes a float in a register whose upper part stays, and a thread begins with what
    // the thread before it left there: without clearing it first, no two threads overlap in the
    // processor's pipeline. Transforms of 1024 points run 17% faster.
    "-mllvm",
    "-undef-reg-clearance=4194304",
#endif
};
const Command fast_options = {"-O3"};
const Command quick_options = {"-O1"};
// Vectors as long as the lanes are wide. The first error is enough: it says why the kernels run
// block by block. Cells of shared memory are looked at as elements of several types.
const Command lane_options = {"-w",
                              "-ferror-limit=1",
                              "-fno-caret-diagnostics",
                              "-fno-strict-aliasing",
#ifdef __x86_64__
                              "-mprefer-vector-width=512",
#endif
                              "-DKEVRA_CPU_LANE_CODE"};
// Where a thread does little and lanes are many, half of a compile goes into the lanes' own
// templates. This takes two thirds of the time of -O3 there, and the kernels are as fast; linear
// filters, which have fewer lanes, would lose a sixth.
const Command many_lanes_options = {"-O1", "-funroll-loops", "-DKEVRA_CPU_MANY_LANES"};
// Without `func` the compiler emits no callbacks at loads and stores. Vector code would merge
// the accesses of several threads and elements into one, and loops that copy or fill would become
// calls of the C library, which nothing looks at.
const Command check_options = {"-O1",
                               "-gline-tables-only",
                               "-fno-vectorize",
                               "-fno-slp-vectorize",
                               "-fno-builtin-memcpy",
                               "-fno-builtin-memmove",
                               "-fno-builtin-memset",
                               "-DKEVRA_CPU_CHECK",
                               "-fsanitize-coverage=func,trace-loads,trace-stores"};

void append(Command& command, const Command& more) {
  command.insert(command.end(), more.begin(), more.end());
}

// The math library that this process runs with: its path needs no development files.
std::string math_library() {
  void* handle = dlopen("libm.so.6", RTLD_LAZY);
  link_map* map = nullptr;
  if (handle == nullptr || dlinfo(handle, RTLD_DI_LINKMAP, &map) != 0) return "-lm";
  return map->l_name;
}

// Calling the linker itself saves the compiler driver's start, a third of a small compile. GNU
// ld takes 3 ms for a kernel, lld 15 ms; the driver finds one where neither is in the path.
Command link_command(const Command& objects, const std::string& library) {
  static const std::string math = math_library();
  static const std::string linker = [] {
    for (const char* name : {"ld", "ld.lld", "ld.lld-19", "ld.lld-18", "ld.lld-17", "ld.lld-16"})
      if (std::string path = find_program(name); !path.empty()) return path;
    return std::string();
  }();
  Command command = {linker, "-shared", "--build-id=none", "-z", "now", "-o", library};
  if (linker.empty()) command = {clang_path(), "-shared", "-nostdlib", "-o", library};
  append(command, objects);
  append(command, {math});
  return command;
}

// The lane form of a text, compiled beside its plain form: the second compiler costs a core that
// is mostly idle, and no time where there is one.
class LaneCompile {
 public:
  LaneCompile(const kevra_platform::KernelSource& source, const TemporaryFolder& folder,
              const Command& includes)
      : object_(folder.file("lanes.o")) {
    if (!settings().lanes) return;
    LaneText lanes = rewrite_lanes(source.text);
    refusal_ = std::move(lanes.refusal);
    if (lanes.text.empty()) return;
    const std::string text = folder.file("lanes.cpp");
    write_file(text, with_device_text(source.name, lanes.text));
    Command command = {clang_path()};
    append(command, compile_options);
    append(command, lane_options);
    append(command, lanes.many ? many_lanes_options : fast_options);
    append(command, includes);
    append(command, {"-o", object_, text});
    thread_ = std::thread([this, command] { result_ = run_program(command); });
  }
  ~LaneCompile() {
    if (thread_.joinable()) thread_.join();
  }
  LaneCompile(const LaneCompile&) = delete;
  LaneCompile& operator=(const LaneCompile&) = delete;

  // The object, once it is there; none where the kernels have no lane form.
  Command object() {
    if (!thread_.joinable()) return {};
    thread_.join();
    if (result_.status == 0) return {object_};
    refusal_ = result_.output.substr(0, result_.output.find('\n'));
    return {};
  }
  const std::string& refusal() const { return refusal_; }

 private:
  std::string object_, refusal_;
  ProgramResult result_;
  std::thread thread_;
};

}  // namespace
}  // namespace kevra_cpu

kevra_platform::Compiled kevra_platform::compile_kernels(const KernelSource& source,
                                                         const std::vector<std::string>& includes) {
  using namespace kevra_cpu;
  if (clang_path().empty())
    return {{},
            "The CPU device compiles kernels with clang++ 16 or newer, and none was found: "
            "install one (apt-get install clang-19) or name one in KEVRA_CPU_CLANG.\n"};
  const TemporaryFolder folder;
  const std::string text = folder.file("kernel.cpp"), object = folder.file("kernel.o"),
                    library = folder.file("kernel.so");
  LaneCompile lanes(source, folder, includes);  // first: it mostly takes longer
  write_file(text, with_device_text(source.name, rewrite_kernels(source.text)));

  Command compile = {clang_path()};
  append(compile, compile_options);
  append(compile, settings().check   ? check_options
                  : settings().quick ? quick_options
                                     : fast_options);
  append(compile, includes);
  append(compile, {"-o", object, text});
  const ProgramResult compiled = run_program(compile);
  if (compiled.status != 0) return {{}, compiled.output};

  Command objects = lanes.object();
  objects.insert(objects.begin(), object);
  if (settings().debug && !lanes.refusal().empty())
    std::fprintf(stderr, "kevra CPU device: %s runs block by block, not in lanes: %s\n",
                 source.name.c_str(), lanes.refusal().c_str());
  ProgramResult linked = run_program(link_command(objects, library));
  if (linked.status != 0 && objects.size() > 1)
    linked = run_program(link_command({object}, library));
  std::vector<std::byte> image = make_image(read_file(library), code_object_tag());
  if (linked.status != 0 || image.empty())
    return {{}, compiled.output + "The kernel compiled but could not be linked:\n" + linked.output};
  return {std::move(image), compiled.output};
}
