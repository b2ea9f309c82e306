// The kernel families that the viewer knows. A family lives in families/ and has one entry in families().
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace kevra_tools {

// What a family asks of whoever wants a text.
struct Parameter {
  std::string name;
  int fallback;
  int least;
  int most;
  std::string meaning;
};
using Values = std::map<std::string, int>;

struct Kernel {
  std::string name;
  std::string key;
  int block;
  size_t shared_bytes;
  bool default_route;  // what its operation takes when no hint asks for something else
  std::string source;
};

struct Family {
  std::string name;
  std::string summary;
  std::vector<Parameter> parameters;
  // `values` holds every parameter, within its bounds.
  Kernel (*make)(const Values& values);
  // The kernels of a manifest; what a sample leaves out takes its fallback.
  std::vector<Values> samples;
};

const std::vector<Family>& families();

}  // namespace kevra_tools
