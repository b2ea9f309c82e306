// The record of one frame transform: everything that shapes the text of an STFT-like kernel.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kevra::codegen {

// The cores of the frame kernels, and the words that route reports print for them.
enum class StftCore { kCooleyTukey = 0, kWarp = 1, kMixed = 2, kEpt16 = 3, kFourStep = 4 };
const char* core_name(StftCore core);

// What a hint table can wish for; zero or below is no wish, each on its own. The meaning of
// `var`'s bits belongs to the kernel that reads them.
struct ShapeHint {
  int ept = 0;
  int fpb = 0;
  int tpf = 0;
  int core = 0;
  int var = 0;
};

// What a kernel makes of each frame's magnitudes in place of storing the spectrum; the codes of
// callers.
inline constexpr int kNoStatistic = -1;
inline constexpr int kCentroid = 0;
inline constexpr int kBandwidth = 1;
inline constexpr int kFlatness = 2;
inline constexpr int kRolloff = 3;
inline constexpr int kContrast = 4;

// Bands, and the values that a band is sorted among, are the contrast's alone.
struct FrameStatistic {
  int stat = kNoStatistic;
  int n_bands = 0;
  int band_pad = 0;
};

// `win_kind` of frames that are taken as they are: the kernel has no window parameter.
inline constexpr int kNoWindow = 4;

struct StftConfig {
  int prec = 1;    // compute precision
  int n_fft = 0;   // frame length in real samples
  int hop = 0;     // frame step in samples
  int pad = 0;     // left padding: n_fft / 2 when centred
  int length = 0;  // signal length, SIG_LEN in kernel text
  int frames = 0;  // frames per batch row, NFRAMES in kernel text
  int ept = 8;     // elements per thread
  int tpf = 1;     // threads per frame
  int fpb = 1;     // frames per block
  int n_mels = 0;  // bands, cepstral count and spectrum power; 0 for a plain spectrum
  int ncep = 0;
  int power = 0;
  int stat = kNoStatistic;
  int win_kind = 2;  // where the window comes from
  int n_bands = 0;   // as in FrameStatistic
  int band_pad = 0;
  int form = 0;  // form of output
  double eps = 1e-10;
  bool wide = false;       // twiddles come from a table: double on a power of two
  bool tw_global = false;  // the table stays in global memory
  StftCore core = StftCore::kCooleyTukey;
  int n1 = 0;  // the four-step split; 0 when there is none
  int n2 = 0;
  int in_prec = 1;  // storage precisions
  int out_prec = 1;
  bool pair = false;    // odd n_fft: two real frames in one complex transform of size n_fft
  int shp_shift = 4;    // one pad slot every 2^shift elements; 0: no padding
  bool padded = false;  // padding is on in a mixed schedule
};

// What a frame kernel is asked to do, before any choice of how.
struct StftRequest {
  int prec;
  int n_fft;
  int hop;
  int pad;
  int length;
  int frames;
  int form;
  double eps;
  FrameStatistic statistic = {};
};

// The schedules of power-of-two and of other frame lengths for `cap` bytes of shared memory. Those
// with a statistic have a power of two threads to a frame.
StftConfig build_pow2_schedule(const StftRequest& request, const ShapeHint& hint, int64_t cap);
StftConfig build_mixed_schedule(const StftRequest& request, const ShapeHint& hint, int64_t cap);
// The schedule that a request gets; one of the two above, and what the hint's variant bits ask.
StftConfig route_stft(const StftRequest& request, const ShapeHint& hint, int64_t cap);

// Bins of a spectrum row in padded shared memory.
size_t padded_bins(const StftConfig& s);
// Shared memory of a frame kernel: what its transforms take, and that with the work area of its
// statistic, statistic_row scalars a frame.
size_t frame_shared_bytes(const StftConfig& s);
int statistic_row(const StftConfig& s);
size_t total_shared_bytes(const StftConfig& s);

}  // namespace kevra::codegen
