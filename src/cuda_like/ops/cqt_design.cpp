#include "cuda_like/ops/cqt_design.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "codegen/kernels/cqt.h"
#include "cuda_like/ops/guards.h"

namespace kevra::ops {
namespace {

// After as many halvings one sample is left of every signal that the kernels index.
constexpr int64_t kMostLevels = 32;

std::string shape_text(const LazyMatrix& matrix) {
  return "(" + std::to_string(matrix.rows) + ", " + std::to_string(matrix.cols) + ")";
}

void check_basis(const std::string& name, const CqtRecord& r, int64_t n_bins) {
  if (r.br.cols != r.n_fft / 2 + 1) {
    throw std::invalid_argument(
        name + ": br has " + std::to_string(r.br.cols) +
        " columns, must have n_fft // 2 + 1 = " + std::to_string(r.n_fft / 2 + 1));
  }
  if (r.bi.rows != r.br.rows || r.bi.cols != r.br.cols) {
    throw std::invalid_argument(name + ": bi has shape " + shape_text(r.bi) +
                                ", must have that of br, " + shape_text(r.br));
  }
  require_at_least(name.c_str(), "rows of br", r.br.rows, 1);
  require_at_least(name.c_str(), "row_lo", r.row_lo, 0);
  if (r.row_lo > n_bins || r.br.rows > n_bins - r.row_lo) {
    throw std::invalid_argument(name + ": row_lo " + std::to_string(r.row_lo) + " and " +
                                std::to_string(r.br.rows) +
                                " rows of br reach past n_bins = " + std::to_string(n_bins));
  }
}

void check_frames(const std::string& name, const CqtRecord& r, int64_t frames, int64_t length) {
  // The frame kernels form positions in 32 bits, mirrored ones of up to twice the length among
  // them.
  require_at_most(name.c_str(), "length of the padded signal", length + 2 * cqt_padding(r.n_fft),
                  std::numeric_limits<int>::max() / 2);
  const int64_t most = cqt_frames(length, r.n_fft, r.hop);
  if (frames > most) {
    throw std::invalid_argument(name + ": frames is " + std::to_string(frames) +
                                ", must be at most " + std::to_string(most) + ": its level has " +
                                std::to_string(length) + " samples, its hop is " +
                                std::to_string(r.hop));
  }
  // A thread has a value; grid x counts blocks of 256 of them in 31 bits.
  constexpr int64_t kGridLimit = (int64_t{1} << 31) * 256 - 256;
  require_at_most(name.c_str(), "rows x frames", r.br.rows * frames, kGridLimit);
}

void check_octave(const char* op, const CqtDesign& design, size_t index,
                  const std::vector<int64_t>& lengths) {
  const CqtRecord& r = design.octaves[index];
  const std::string name = octave_name(op, index);
  require_at_least(name.c_str(), "level", r.level, 0);
  if (r.level >= design.n_levels) {
    throw std::invalid_argument(name + ": level is " + std::to_string(r.level) +
                                ", must be below n_levels = " + std::to_string(design.n_levels));
  }
  require_int32(name.c_str(), "hop", r.hop, 1);
  require_int32(name.c_str(), "n_fft", r.n_fft, 2);
  check_basis(name, r, design.n_bins);
  check_frames(name, r, design.frames, lengths[r.level]);
}

// Every bin belongs to one record.
void check_rows(const char* op, const CqtDesign& design) {
  std::vector<size_t> order(design.octaves.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    return design.octaves[a].row_lo < design.octaves[b].row_lo;
  });
  int64_t next = 0;
  size_t before = 0;
  for (size_t index : order) {
    const CqtRecord& r = design.octaves[index];
    if (r.row_lo < next) {
      throw std::invalid_argument(octave_name(op, index) + ": bin " + std::to_string(r.row_lo) +
                                  " is one of octaves[" + std::to_string(before) +
                                  "] too; records share no rows");
    }
    if (r.row_lo > next) break;
    next = r.row_lo + r.br.rows;
    before = index;
  }
  if (next < design.n_bins) {
    throw std::invalid_argument(std::string(op) + ": bin " + std::to_string(next) +
                                " belongs to no record of octaves; they have to fill n_bins = " +
                                std::to_string(design.n_bins) + " rows");
  }
}

}  // namespace

std::vector<int64_t> level_lengths(int64_t length, int64_t n_levels) {
  std::vector<int64_t> lengths{length};
  while (static_cast<int64_t>(lengths.size()) < n_levels) {
    lengths.push_back((lengths.back() + 1) / 2);
  }
  return lengths;
}

std::string octave_name(const char* op, size_t index) {
  return std::string(op) + ": octaves[" + std::to_string(index) + "]";
}

void check_cqt_design(const char* op, const CqtDesign& design, int64_t length) {
  require_at_least(op, "length", length, 1);
  require_at_least(op, "n_levels", design.n_levels, 1);
  require_at_most(op, "n_levels", design.n_levels, kMostLevels);
  require_int32(op, "n_bins", design.n_bins, 1);
  require_int32(op, "frames", design.frames, 0);
  constexpr int64_t kTaps = codegen::HalfBandKernel::kTaps;
  if (design.taps.rows != 1 || design.taps.cols != kTaps) {
    throw std::invalid_argument(std::string(op) + ": taps has shape " + shape_text(design.taps) +
                                ", must be one row of " + std::to_string(kTaps));
  }
  const std::vector<int64_t> lengths = level_lengths(length, design.n_levels);
  for (size_t i = 0; i < design.octaves.size(); ++i) check_octave(op, design, i, lengths);
  check_rows(op, design);
}

}  // namespace kevra::ops
