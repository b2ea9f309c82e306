// The stages of a transform whose row lives in registers: what the complex and the real register
// kernels share between their loads and their stores.
#pragma once

#include <string>
#include <vector>

#include "codegen/kernel_writer.h"

namespace kevra::codegen {

// How a row of n complex values stands in the registers of its threads and in the exchange buffer.
struct RegisterLayout {
  int n;
  std::vector<int> radices;  // the first is the number of elements that a thread holds
  // Each thread writes its values to a window of its own, one component at a time; else the whole
  // row stands in the buffer in its order.
  bool windows = false;
  bool half_exchange = false;  // windows of halves under float arithmetic

  int ept() const { return radices.front(); }
  bool exchanges() const { return radices.size() > 1; }
  int threads() const { return n / ept(); }
  // Elements of the buffer: components under windows, else complex values.
  int pitch() const { return windows ? threads() * (ept() + 1) + 32 : n + n / 16 + 1; }
  int last_radix() const { return radices.back(); }
  // Items of a thread in the last stage, and how far apart an item's outputs stand in the row.
  int last_groups() const { return ept() / last_radix(); }
  int last_stride() const { return n / last_radix(); }
  // Under windows output `o` of item `g` of the last stage is this far behind element tid.
  int output_offset(int g, int o) const { return g * threads() + o * last_stride(); }
};

// The items of a thread in one stage. Item number t splits into b = t / m and j = t % m where the
// row stands in its order, so that neighbouring threads walk along a block; under windows into
// b = t % blocks and j = t / blocks, so that they work on neighbouring blocks.
struct RegisterItems {
  std::vector<std::string> b;
  std::vector<std::string> j;
  std::vector<std::vector<std::string>> values;
};

// tid and batch, `rows` rows to a block; every thread stays, those of surplus rows too.
void map_register_threads(KernelWriter& w, const RegisterLayout& layout, int rows);
// v, the row's part of `shbuf`, `pitch` elements of `type` apart, and under windows wb, where the
// thread's own window begins.
void name_exchange_buffer(KernelWriter& w, const RegisterLayout& layout, const std::string& type,
                          int pitch);

// The names of the values that a thread loads: value i is element tid + i * threads of the row.
// Declares the item's number; the caller declares the values.
RegisterItems name_first_items(KernelWriter& w, const RegisterLayout& layout);

// All stages, with the exchanges between them. Hands back the items of the last one; under windows
// other threads may then still be reading `v`.
RegisterItems emit_register_stages(KernelWriter& w, const RegisterLayout& layout,
                                   RegisterItems first);

}  // namespace kevra::codegen
