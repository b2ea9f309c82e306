// The design of a constant-Q transform, as callers make it: which octaves run on which level of a
// ladder of signals, each half as long as the one before, and the basis of each.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kevra::ops {

// A real matrix of the caller's, read when the tables made of it are not there yet. Row-major.
struct LazyMatrix {
  int64_t rows;
  int64_t cols;
  std::function<std::vector<double>()> read;
};

// Bins row_lo and up of the result: frames of n_fft samples, every `hop` samples of the level's
// signal, times the basis br + i bi of n_fft / 2 + 1 columns.
struct CqtRecord {
  int64_t level;
  int64_t hop;
  int64_t n_fft;
  int64_t row_lo;
  LazyMatrix br;
  LazyMatrix bi;
};

struct CqtDesign {
  int64_t n_levels;
  std::span<const CqtRecord> octaves;
  LazyMatrix taps;            // one row, the half-band filter between two levels
  std::string_view plan_key;  // stands for all of the above; its tables are made once
  int64_t n_bins;
  int64_t frames;
};

// Samples of each level.
std::vector<int64_t> level_lengths(int64_t length, int64_t n_levels);

// Zeros at either end of a level's signal.
constexpr int64_t cqt_padding(int64_t n_fft) {
  return n_fft / 2;
}
// Frames that a level's signal of `length` samples has.
constexpr int64_t cqt_frames(int64_t length, int64_t n_fft, int64_t hop) {
  return (length + 2 * cqt_padding(n_fft) - n_fft) / hop + 1;
}

// How messages name a record.
std::string octave_name(const char* op, size_t index);

// Throws std::invalid_argument, naming `op` and the record at fault, unless every record has a
// level, a basis that fits its n_fft and frames enough in signals of `length` samples, and the
// records fill n_bins rows, each once.
void check_cqt_design(const char* op, const CqtDesign& design, int64_t length);

}  // namespace kevra::ops
