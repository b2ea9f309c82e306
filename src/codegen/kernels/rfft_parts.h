// What the kernels of the real transform have in common: heads, rows in device memory, and the step
// between a row of reals and the complex transform that carries it. An even length packs two
// neighbouring samples into a complex value and transforms half the length; an odd length sends two
// rows through one transform as its real and imaginary parts.
#pragma once

#include <string>

#include "codegen/backend.h"
#include "codegen/kernel_writer.h"

namespace kevra::codegen {

struct RealRows {
  int n;
  int compute;  // precision of the arithmetic: half storage computes in float
  int storage;
  bool inverse;

  bool paired() const { return n % 2 != 0; }           // two rows in a transform
  int length() const { return paired() ? n : n / 2; }  // of the complex transform
  int bins() const { return n / 2 + 1; }
  const char* kernel_name() const { return inverse ? "kevra_irfft" : "kevra_rfft"; }
};

// Everything up to the first statement of a kernel that takes (x, out, tw, nrows), or (X, out, tw,
// nrows) for the inverse, and has `shared_type` elements in `shbuf`. Defines INVSC, the scale of
// the inverse: over the length of its complex transform, since the split halves the bins already.
std::string real_head(const RealRows& rows, const std::string& defines, int block,
                      const std::string& shared_type, const Backend& backend);
// The part of it that knows the types alone.
std::string real_prelude(const RealRows& rows, const Backend& backend);

// From `batch` to the rows and where they stand. Surplus rows repeat the last one.
void name_real_rows(KernelWriter& w, const RealRows& rows);
// The condition under which `batch` has something to store.
const char* has_rows(const RealRows& rows);

// Element j of the complex transform's input, forward: two samples as one value.
std::string loaded_samples(const RealRows& rows, const std::string& j, const Backend& backend);
// The same of the inverse, conjugated, so that a forward transform follows: assigns it to `target`.
// `root` is exp(+2 pi i j / n), read for an even n alone.
void load_bins(KernelWriter& w, const RealRows& rows, const std::string& j, const std::string& root,
               const std::string& target);

// From element k of the complex transform, in `buffer` under SHP, and its mirror image: the value
// pairs (ar, ai), (br, bi) of the two rows of an odd n; for an even n (xer, xei) and (tr, ti), bin
// k being their sum. `mirror` is the mirror image's place, `root` exp(-2 pi i k / n).
void split_pair(KernelWriter& w, const RealRows& rows, const std::string& buffer,
                const std::string& k);
void split_half(KernelWriter& w, const RealRows& rows, const std::string& buffer,
                const std::string& k, const std::string& mirror, const std::string& root);

// out[row * bins + k] = re + i im.
void store_bin(KernelWriter& w, const RealRows& rows, const char* row, const std::string& k,
               const std::string& re, const std::string& im);
// The two bins k of a pair of rows; the second row may not exist.
void store_pair_bins(KernelWriter& w, const RealRows& rows, const std::string& k);
// The samples that element j of the inverse's transform holds, scaled. `value` is a name.
void store_samples(KernelWriter& w, const RealRows& rows, const std::string& j,
                   const std::string& value);

}  // namespace kevra::codegen
