// The largest and the smallest elements of a band of a row of magnitudes: what spectral contrast
// and its gradient have in common. The kernels have `tid`, the band's number `band` and the tables
// `bt` and `bq`.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "codegen/kernel_writer.h"

namespace kevra::codegen {

// lo, nin and q: the band's first bin, its bins, and how many of them count at either end.
void emit_band(KernelWriter& w);

// --- By sorting ---

// A bitonic network over `pad` elements, pad a power of two: `pair` compares the
// elements i and ix and swaps them; (i & kk) != 0 asks for the larger in front.
void emit_bitonic(KernelWriter& w, const std::string& threads, const std::function<void()>& pair);

// vv and pv: the means of the q smallest and the q largest of the sorted band `vals`.
void emit_sorted_means(KernelWriter& w);

// --- By histograms, in blocks of 256 threads and in float ---
// The kernel has `red`, a shared array of 256 floats, and what else emit_histogram_memory lays out;
// the row's first element is M[base].

inline constexpr int kHistogramBlock = 256;
// 256 floats, 256 counts, and eight of both that the block shares.
inline constexpr size_t kHistogramBytes = (256 + 256 + 8 + 8) * 4;

// A device function level(u, range): u in 65536 steps of the range.
std::string level_function(const Backend& backend);

void emit_histogram_memory(KernelWriter& w);

// v: every element of the band once, by all threads of the block.
void each_of_band(KernelWriter& w, const std::function<void()>& body);

// mn, mx and rng: the band's least and largest element, and their distance. A band of one value has
// no levels: the kernel leaves it to itself before it asks for thresholds.
void emit_range(KernelWriter& w);

// thr0, cnt0 and, counted from the top, thr1 and cnt1: the level of the q-th element from that end
// of the range, and how many stand at lower levels. With `ties`, tie0 and tie1: how many stand at
// it.
void emit_thresholds(KernelWriter& w, bool ties);

// Sums of what stands below the thresholds: shf[3] from the bottom, red[0] from the top.
void emit_sums_below(KernelWriter& w);

// vv and pv of `type`: the means of the q smallest and the q largest. What stands below a threshold
// counts as it is, its ties as the middle of their level.
void emit_histogram_means(KernelWriter& w, const std::string& type);

}  // namespace kevra::codegen
