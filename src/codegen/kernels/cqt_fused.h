// Constant-Q bins of a padded signal in one kernel: the frames' spectra stay in shared memory,
// where the rows of the basis read them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "codegen/backend.h"
#include "codegen/kernels/frame_transform.h"
#include "codegen/stft_config.h"

namespace kevra::codegen {

// The kernel takes (y, out, tw, br, bi, blo, bhi, NFRAMES, SIG_LEN, rows, n_bins, row_lo, nf, eps).
struct CqtFusedKernel {
  static constexpr const char* kName = "kevra_cqtf";

  StftConfig config;
  int device;  // its shared memory decides where a double kernel keeps its roots

  std::string key() const;
  int block() const { return frame_block(config); }
  unsigned blocks(int frames) const { return frame_blocks(config, frames); }
  size_t shared_bytes() const;
  std::string source(const Backend& backend) const;
};

// The kernel of a request without padding for `cap` bytes of shared memory; none where n_fft is no
// power of two, or where a frame and its spectrum do not fit together.
std::optional<CqtFusedKernel> route_cqt(const StftRequest& request, int storage, int device,
                                        int64_t cap);

}  // namespace kevra::codegen
