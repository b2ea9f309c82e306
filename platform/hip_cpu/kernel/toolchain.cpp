#include "kernel/toolchain.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/settings.h"
#include "kernel/memory_file.h"

extern char** environ;

namespace kevra_cpu {

namespace {

constexpr int oldest_clang = 16, newest_clang = 40;

std::string find_clang() {
  if (!settings().clang.empty()) return find_program(settings().clang);
  for (int version = newest_clang; version >= oldest_clang; --version)
    if (std::string path = find_program("clang++-" + std::to_string(version)); !path.empty())
      return path;
  return find_program("clang++");
}

bool is_program(const std::string& path) {
  return access(path.c_str(), X_OK) == 0;
}

// The exit status, or -1. A host that ignores its children's ends gets no status at all; then
// what the program left behind must speak for it.
int wait_for(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0)
    if (errno != EINTR) return errno == ECHILD ? 0 : -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

const std::string& clang_path() {
  static const std::string path = find_clang();
  return path;
}

std::string find_program(const std::string& name) {
  if (name.find('/') != std::string::npos) return is_program(name) ? name : std::string();
  const char* variable = std::getenv("PATH");
  const std::string paths = variable != nullptr ? variable : "/usr/local/bin:/usr/bin:/bin";
  for (size_t begin = 0; begin <= paths.size();) {
    const size_t end = std::min(paths.find(':', begin), paths.size());
    if (end > begin) {
      std::string path = paths.substr(begin, end - begin) + "/" + name;
      if (is_program(path)) return path;
    }
    begin = end + 1;
  }
  return {};
}

ProgramResult run_program(const std::vector<std::string>& arguments) {
  std::vector<char*> pointers;
  for (const std::string& argument : arguments)
    pointers.push_back(const_cast<char*>(argument.c_str()));
  pointers.push_back(nullptr);

  const MemoryFile output("kevra-output");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", 0, 0);
  posix_spawn_file_actions_adddup2(&actions, output.descriptor(), 1);
  posix_spawn_file_actions_adddup2(&actions, output.descriptor(), 2);
  pid_t child = 0;
  const int failed = posix_spawn(&child, pointers[0], &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failed != 0) return {-1, arguments[0] + ": " + std::strerror(failed) + "\n"};
  const int status = wait_for(child);
  return {status, output.text()};
}

}  // namespace kevra_cpu
