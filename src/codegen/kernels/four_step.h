// Transforms of rows too long for one block, by two passes through device memory. With n = n1 n2,
// inputs at j = ja n1 + jb and outputs at k = k1 n2 + k2: the first pass transforms the columns jb
// over ja and multiplies by exp(-2 pi i jb k2 / n), the second the columns k2 over jb. Block
// (x, y) of a pass works on adjacent columns of row y.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "codegen/backend.h"
#include "codegen/kernels/fft_parts.h"

namespace kevra::codegen {

// Bytes in shared memory of `count` complex values with a free slot behind every 16.
constexpr int64_t padded_bytes(int64_t count, int compute) {
  return (count + 1 + ((count - 1) >> 4)) * (compute == 2 ? 16 : 8);
}

// Takes (x, out, tw, nrows).
struct ColumnPass {
  static constexpr const char* kName = kFftKernelName;

  int n1, n2;
  bool first;
  int compute;
  int storage_in, storage_out;
  bool inverse;
  int tile;     // adjacent columns of a block
  int threads;  // of a block
  int roots;    // in the table of a double kernel: n, or 2 n for the second pass to be RealPass
  // Whether a column is a line of `x`, and of `out`. Where both are alike, `out` may be `x`.
  bool lines_in = false;
  bool lines_out = false;

  int n() const { return n1 * n2; }
  int length() const { return first ? n2 : n1; }   // of a column
  int columns() const { return first ? n1 : n2; }  // of a row
  int blocks() const { return columns() / tile; }  // to a row
  std::string key() const;
  size_t shared_bytes() const {
    return static_cast<size_t>(padded_bytes(int64_t{tile} * length(), compute));
  }
};
std::string column_pass_source(const ColumnPass& pass, const Backend& backend);

// The second pass on m = n1 n2 complex values that are pairs of 2 m reals, and their split into
// m + 1 bins: a block transforms `tile` columns beside their mirrors. n2 is even. Takes
// (x, out, tw, nrows).
struct RealPass {
  static constexpr const char* kName = "kevra_rfft2";

  int n1, n2;
  int compute;
  int storage;  // of the bins
  int tile;     // divides n2 / 2
  int threads;

  int m() const { return n1 * n2; }
  int blocks() const { return n2 / (2 * tile) + 1; }  // to a row; the last has the middle column
  std::string key() const;
  size_t shared_bytes() const {
    return static_cast<size_t>(padded_bytes(int64_t{2} * tile * n1, compute));
  }
};
std::string real_pass_source(const RealPass& pass, const Backend& backend);

// The step between n reals, n even, and the transform z of their pairs, n / 2 complex values a
// row: a thread a value, a block row a row.
struct RealStep {
  static constexpr const char* kSplit = "kevra_rsplit";
  static constexpr const char* kPack = "kevra_rpack";
  static constexpr int kBlock = 256;

  int n;
  int compute;
  int storage;     // of the bins
  int form = 0;    // of the bins that the split stores: spectrum_output.h
  double eps = 0;  // of the decibel form

  int m() const { return n / 2; }
  std::string split_key() const;
  std::string pack_key() const;
  int split_blocks() const { return m() / kBlock + 1; }  // m + 1 bins
  int pack_blocks() const { return (m() + kBlock - 1) / kBlock; }
};
// From z to the bins. Takes (z, out, tw, nrows).
std::string real_split_source(const RealStep& step, const Backend& backend);
// From the bins to z; the imaginary parts of the first and the last are ignored. Takes
// (x, z, tw, nrows).
std::string real_pack_source(const RealStep& step, const Backend& backend);

}  // namespace kevra::codegen
