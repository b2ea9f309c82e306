// The design of a constant-Q transform as Python callers pass it.
#pragma once

#include <pybind11/numpy.h>

#include <cstdint>
#include <string>
#include <vector>

#include "cuda_like/ops/cqt_design.h"
#include "cuda_like/ops/cqt_tables.h"

namespace kevra::bindings {

// The arguments n_levels, octaves, taps, plan_key, n_bins and frames. No number of an array is read
// here: a call whose tables are in place costs no copy. ValueError, naming `op` and the record, for
// what is no record. Lives as long as the call that it is the argument of.
class DesignArgument {
 public:
  DesignArgument(const char* op, int64_t n_levels, const pybind11::list& octaves,
                 const pybind11::object& taps, const std::string& plan_key, int64_t n_bins,
                 int64_t frames);
  DesignArgument(const DesignArgument&) = delete;
  DesignArgument& operator=(const DesignArgument&) = delete;

  ops::CqtDesign design;

 private:
  std::vector<pybind11::array> arrays_;  // what the readers of the matrices refer to
  std::vector<ops::CqtRecord> records_;
};

// The octaves of the direct inverse: tuples (s, n_d, row_lo, rows, D).
class DualsArgument {
 public:
  DualsArgument(const char* op, const pybind11::list& octaves);
  DualsArgument(const DualsArgument&) = delete;
  DualsArgument& operator=(const DualsArgument&) = delete;

  std::vector<ops::DualRecord> records;

 private:
  std::vector<pybind11::array> arrays_;
};

// The argument classes: whole numbers, one a bin. ValueError, naming `op`, for other things.
class ClassesArgument {
 public:
  ClassesArgument(const char* op, const pybind11::object& object);
  ClassesArgument(const ClassesArgument&) = delete;
  ClassesArgument& operator=(const ClassesArgument&) = delete;

  ops::LazyClasses classes;

 private:
  pybind11::array array_;
};

}  // namespace kevra::bindings
