// Transforms of any length n as a convolution with a chirp: since j k = (j^2 + k^2 - (k - j)^2) /
// 2, X[k] = b[k] * sum over j of (x[j] b[j]) conj(b[k - j]) with b[k] = exp(-+ i pi k^2 / n). The
// convolution runs at a padded length m of at least 2n - 1 whose primes are 2, 3, 5 and 7.
// (Bluestein 1970; Rabiner, Schafer and Rader 1969.)
//
// The direction stands in the tables alone: `bch` holds the chirp b, n values, and `filt` the
// transform of conj(b), mirrored and padded to m.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "codegen/backend.h"

namespace kevra::codegen {

// What a row is on the way in and on the way out.
enum class BluesteinMode {
  kComplex = 0,      // n complex, n complex
  kRealForward = 1,  // n real, n / 2 + 1 complex
  kRealInverse = 2,  // n / 2 + 1 complex, the half spectrum of n real
};

// The kernel that holds the padded row in shared memory, which takes (x, out, tw, bch, filt, scale,
// nrows), storage being that of the arithmetic. A block takes one complex row (`out` may be `x`),
// or two real ones as the parts of a complex one.
struct BluesteinKernel {
  BluesteinMode mode;
  int n;
  int m;
  int compute;
  bool inverse;
  int tpf;  // threads to a row

  const char* name() const;
  std::string key() const;
  std::vector<int> radices() const;
  // What `scale` has to be: 1 / n of the inverse, over the gain of the second, conjugate transform.
  double scale() const;
  int rows_per_block() const { return mode == BluesteinMode::kComplex ? 1 : 2; }
  int block() const { return tpf; }
  int pitch() const { return m + (m >> padding_shift()) + 1; }  // elements of shared memory
  int padding_shift() const;
  size_t shared_bytes() const;
};

std::string bluestein_source(const BluesteinKernel& kernel, const Backend& backend);

// The same through device memory, around two transforms of z, rows of m complex values:
// kevra_bgpre(x, z, bch) fills z, kevra_bgmul(z, filt) multiplies it in place and
// kevra_bgpost(z, out, bch, scale) takes the results out of it. One thread an element, one row of
// the grid a row of data.
struct BluesteinSteps {
  static constexpr const char* kPreName = "kevra_bgpre";
  static constexpr const char* kMultiplyName = "kevra_bgmul";
  static constexpr const char* kPostName = "kevra_bgpost";
  static constexpr int kBlock = 256;

  BluesteinMode mode;
  int n;
  int m;
  int compute;
  int storage;  // of x and out; z has the precision of the arithmetic

  std::string pre_key() const;
  std::string multiply_key() const;
  std::string post_key() const;
  int output_count() const { return mode == BluesteinMode::kRealForward ? n / 2 + 1 : n; }
};

std::string bluestein_pre_source(const BluesteinSteps& steps, const Backend& backend);
std::string bluestein_multiply_source(const BluesteinSteps& steps, const Backend& backend);
std::string bluestein_post_source(const BluesteinSteps& steps, const Backend& backend);

}  // namespace kevra::codegen
