// The C interface of the run-time compiler.
#include <cstddef>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "platform/common/compile.h"
#include "platform/common/faults.h"
#include "platform/common/variables.h"

using kevra_platform::injected_failure;

namespace {

enum Result : int {
  success = 0,
  out_of_memory = 1,
  program_creation_failure = 2,
  invalid_input = 3,
  invalid_program = 4,
  invalid_option = 5,
  compilation = 6,
  builtin_operation_failure = 7,
  no_name_expressions_after_compilation = 8,
  no_lowered_names_before_compilation = 9,
  name_expression_not_valid = 10,
  internal_error = 11,
};

const char* result_name(int result) {
  switch (result) {
    case success:
      return "HIPRTC_SUCCESS";
    case out_of_memory:
      return "HIPRTC_ERROR_OUT_OF_MEMORY";
    case program_creation_failure:
      return "HIPRTC_ERROR_PROGRAM_CREATION_FAILURE";
    case invalid_input:
      return "HIPRTC_ERROR_INVALID_INPUT";
    case invalid_program:
      return "HIPRTC_ERROR_INVALID_PROGRAM";
    case invalid_option:
      return "HIPRTC_ERROR_INVALID_OPTION";
    case compilation:
      return "HIPRTC_ERROR_COMPILATION";
    case builtin_operation_failure:
      return "HIPRTC_ERROR_BUILTIN_OPERATION_FAILURE";
    case no_name_expressions_after_compilation:
      return "HIPRTC_ERROR_NO_NAME_EXPRESSIONS_AFTER_COMPILATION";
    case no_lowered_names_before_compilation:
      return "HIPRTC_ERROR_NO_LOWERED_NAMES_BEFORE_COMPILATION";
    case name_expression_not_valid:
      return "HIPRTC_ERROR_NAME_EXPRESSION_NOT_VALID";
    case internal_error:
      return "HIPRTC_ERROR_INTERNAL_ERROR";
    default:
      return "HIPRTC_ERROR_UNKNOWN";
  }
}

struct Program {
  kevra_platform::KernelSource source;
  kevra_platform::Compiled compiled;
};

// "-I<folder>" and "-I", "<folder>" are all that a caller may ask for. False, with the log
// saying why, at anything else.
bool read_options(int count, const char* const* options, std::vector<std::string>& includes,
                  std::string& log) {
  for (int i = 0; i < count; ++i) {
    std::string option = options[i] != nullptr ? options[i] : "";
    if (option == "-I" && i + 1 < count && options[i + 1] != nullptr) option += options[++i];
    if (option.rfind("-I", 0) != 0 || option.size() == 2) {
      log = "unknown option '" + option + "': the " + kevra_platform::device_label +
            " takes -I<folder> and no other\n";
      return false;
    }
    includes.push_back(option);
  }
  return true;
}

int compile(Program& program, int count, const char* const* options) {
  std::vector<std::string> includes;
  program.compiled = {};
  if (!read_options(count, options, includes, program.compiled.log)) return invalid_option;
  try {
    program.compiled = kevra_platform::compile_kernels(program.source, includes);
  } catch (const std::exception& failure) {
    program.compiled = {{}, std::string(failure.what()) + "\n"};
  }
  return program.compiled.image.empty() ? compilation : success;
}

}  // namespace

#define KEVRA_RTC_EXPORT extern "C" __attribute__((visibility("default")))

KEVRA_RTC_EXPORT int hiprtcVersion(int* major, int* minor) {
  if (const int code = injected_failure("hiprtcVersion")) return code;
  if (major == nullptr || minor == nullptr) return invalid_input;
  *major = 7;
  *minor = 0;
  return success;
}

KEVRA_RTC_EXPORT const char* hiprtcGetErrorString(int result) {
  return injected_failure("hiprtcGetErrorString") ? nullptr : result_name(result);
}

KEVRA_RTC_EXPORT int hiprtcCreateProgram(void** program, const char* text, const char* name,
                                         int header_count, const char* const*, const char* const*) {
  if (const int code = injected_failure("hiprtcCreateProgram")) return code;
  if (program == nullptr || text == nullptr) return invalid_input;
  if (header_count != 0) return program_creation_failure;  // headers in memory are not offered
  *program = new Program{{text, name != nullptr ? name : "kernel"}, {}};
  return success;
}

KEVRA_RTC_EXPORT int hiprtcDestroyProgram(void** program) {
  if (const int code = injected_failure("hiprtcDestroyProgram")) return code;
  if (program == nullptr || *program == nullptr) return invalid_program;
  delete static_cast<Program*>(*program);
  *program = nullptr;
  return success;
}

KEVRA_RTC_EXPORT int hiprtcCompileProgram(void* program, int count, const char* const* options) {
  if (const int code = injected_failure("hiprtcCompileProgram")) return code;
  if (program == nullptr) return invalid_program;
  if (count < 0 || (count > 0 && options == nullptr)) return invalid_input;
  return compile(*static_cast<Program*>(program), count, options);
}

KEVRA_RTC_EXPORT int hiprtcGetProgramLogSize(void* program, size_t* bytes) {
  if (const int code = injected_failure("hiprtcGetProgramLogSize")) return code;
  if (program == nullptr) return invalid_program;
  if (bytes == nullptr) return invalid_input;
  *bytes = static_cast<Program*>(program)->compiled.log.size() + 1;
  return success;
}

KEVRA_RTC_EXPORT int hiprtcGetProgramLog(void* program, char* log) {
  if (const int code = injected_failure("hiprtcGetProgramLog")) return code;
  if (program == nullptr) return invalid_program;
  if (log == nullptr) return invalid_input;
  const std::string& text = static_cast<Program*>(program)->compiled.log;
  std::memcpy(log, text.c_str(), text.size() + 1);
  return success;
}

KEVRA_RTC_EXPORT int hiprtcGetCodeSize(void* program, size_t* bytes) {
  if (const int code = injected_failure("hiprtcGetCodeSize")) return code;
  if (program == nullptr || static_cast<Program*>(program)->compiled.image.empty())
    return invalid_program;
  if (bytes == nullptr) return invalid_input;
  *bytes = static_cast<Program*>(program)->compiled.image.size();
  return success;
}

KEVRA_RTC_EXPORT int hiprtcGetCode(void* program, char* code) {
  if (const int failure = injected_failure("hiprtcGetCode")) return failure;
  if (program == nullptr || static_cast<Program*>(program)->compiled.image.empty())
    return invalid_program;
  if (code == nullptr) return invalid_input;
  const auto& image = static_cast<Program*>(program)->compiled.image;
  std::memcpy(code, image.data(), image.size());
  return success;
}
