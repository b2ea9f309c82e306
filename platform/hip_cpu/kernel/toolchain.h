// The compiler and linker that kernels are made with: where they are, and running them.
#pragma once

#include <string>
#include <vector>

namespace kevra_cpu {

// Path of the compiler: KEVRA_CPU_CLANG, else the newest clang++ from 16 on that the search path
// holds, else its plain clang++. Empty when there is none. Looked up once.
const std::string& clang_path();

// Path of a program in the search path; a name with a slash stands for itself. Empty when there
// is no such program.
std::string find_program(const std::string& name);

struct ProgramResult {
  int status = -1;     // exit status; -1 when it could not be started or was killed
  std::string output;  // standard output and error together
};

// Runs a program without a shell and waits for it. arguments[0] is its path.
ProgramResult run_program(const std::vector<std::string>& arguments);

}  // namespace kevra_cpu
