// kevra_kernels: prints kernel texts, one by its parameters or a whole folder of them.
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "kernel_families.h"

namespace kevra_tools {
namespace {

constexpr const char* kUsage =
    "usage: kevra_kernels list\n"
    "       kevra_kernels show FAMILY [NAME=VALUE ...]     e.g. show fft n=1024 prec=1 inverse=0\n"
    "       kevra_kernels manifest FOLDER                  samples of all families, "
    "manifest.json\n";

const Family& find_family(const std::string& name) {
  std::string known;
  for (const Family& family : families()) {
    if (family.name == name) return family;
    known += (known.empty() ? "" : ", ") + family.name;
  }
  throw std::invalid_argument("no kernel family '" + name + "'; there are " + known);
}

void set_value(const Family& family, const std::string& name, int value, Values& values) {
  const auto parameter = std::find_if(family.parameters.begin(), family.parameters.end(),
                                      [&](const Parameter& p) { return p.name == name; });
  if (parameter == family.parameters.end()) {
    throw std::invalid_argument(family.name + " has no parameter '" + name +
                                "'; kevra_kernels list shows them");
  }
  if (value < parameter->least || value > parameter->most) {
    throw std::invalid_argument(family.name + ": " + name + " is " + std::to_string(value) +
                                ", must be from " + std::to_string(parameter->least) + " to " +
                                std::to_string(parameter->most));
  }
  values[name] = value;
}

Values with_fallbacks(const Family& family, const Values& wanted) {
  Values values;
  for (const Parameter& p : family.parameters) values[p.name] = p.fallback;
  for (const auto& [name, value] : wanted) set_value(family, name, value, values);
  return values;
}

// "n=1024" into `wanted`.
void read_assignment(const std::string& text, Values& wanted) {
  const size_t equals = text.find('=');
  const char* end = text.data() + text.size();
  int value = 0;
  if (equals != std::string::npos) {
    const auto [stop, error] = std::from_chars(text.data() + equals + 1, end, value);
    if (error == std::errc() && stop == end) {
      wanted[text.substr(0, equals)] = value;
      return;
    }
  }
  throw std::invalid_argument("'" + text + "' is not of the form name=number, such as n=1024");
}

void list() {
  for (const Family& family : families()) {
    std::printf("%s: %s\n", family.name.c_str(), family.summary.c_str());
    for (const Parameter& p : family.parameters) {
      std::printf("  %-8s %-6d %s\n", p.name.c_str(), p.fallback, p.meaning.c_str());
    }
  }
}

void show(const Family& family, const std::vector<std::string>& assignments) {
  Values wanted;
  for (const std::string& text : assignments) read_assignment(text, wanted);
  const std::string source = family.make(with_fallbacks(family, wanted)).source;
  std::fwrite(source.data(), 1, source.size(), stdout);
}

std::ofstream open_file(const std::filesystem::path& path) {
  std::ofstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot write " + path.string());
  return file;
}

// One object of the manifest. Names and keys are plain words: nothing needs escaping.
std::string manifest_entry(const Family& family, const Values& values, const Kernel& kernel) {
  std::string parameters;
  for (const Parameter& p : family.parameters) {
    parameters +=
        (parameters.empty() ? "\"" : ", \"") + p.name + "\": " + std::to_string(values.at(p.name));
  }
  return "  {\"name\": \"" + kernel.name + "\", \"family\": \"" + family.name + "\", \"key\": \"" +
         kernel.key + "\", \"file\": \"" + kernel.key + ".hip\", \"parameters\": {" + parameters +
         "}, \"block\": " + std::to_string(kernel.block) +
         ", \"shared_bytes\": " + std::to_string(kernel.shared_bytes) +
         ", \"default_route\": " + (kernel.default_route ? "true" : "false") + "}";
}

void manifest(const std::filesystem::path& folder) {
  std::filesystem::create_directories(folder);
  std::string entries;
  for (const Family& family : families()) {
    for (const Values& sample : family.samples) {
      const Values values = with_fallbacks(family, sample);
      const Kernel kernel = family.make(values);
      open_file(folder / (kernel.key + ".hip")) << kernel.source;
      entries += (entries.empty() ? "" : ",\n") + manifest_entry(family, values, kernel);
    }
  }
  open_file(folder / "manifest.json") << "[\n" << entries << "\n]\n";
}

int run(const std::vector<std::string>& words) {
  const std::string command = words.empty() ? "" : words[0];
  if (command == "list" && words.size() == 1) {
    list();
  } else if (command == "show" && words.size() >= 2) {
    show(find_family(words[1]), {words.begin() + 2, words.end()});
  } else if (command == "manifest" && words.size() == 2) {
    manifest(words[1]);
  } else {
    std::fputs(kUsage, stderr);
    return 2;
  }
  return 0;
}

}  // namespace
}  // namespace kevra_tools

int main(int argc, char** argv) {
  try {
    return kevra_tools::run({argv + 1, argv + argc});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kevra_kernels: %s\n", error.what());
    return 1;
  }
}
