#include "kernel_families.h"

#include "families/common.h"

namespace kevra_tools {

const std::vector<Family>& families() {
  static const std::vector<Family> all{rms_family(),
                                       fft_family(),
                                       fft_register_family(),
                                       bluestein_family(),
                                       four_step_family(),
                                       rfft_family(),
                                       stft_family(),
                                       istft_family(),
                                       mel_family(),
                                       mel_bands_family(),
                                       cepstra_family(),
                                       cepstra_peak_family(),
                                       inverse_mel_family(),
                                       frame_spectral_family(),
                                       spectral_family(),
                                       frame_contrast_family(),
                                       contrast_family(),
                                       db_family(),
                                       db_inverse_family(),
                                       onset_family(),
                                       lfilter_family(),
                                       lfilter_pack_family(),
                                       lfilter_basis_family(),
                                       conv_pad_family(),
                                       conv_multiply_family(),
                                       conv_slice_family(),
                                       conv_direct_family(),
                                       conv_stage_family(),
                                       conv_row_sum_family(),
                                       gl_step_family(),
                                       gl_mul_family(),
                                       cqt_family(),
                                       cqt_half_band_family(),
                                       cqt_pad_family(),
                                       cqt_reduce_family(),
                                       chroma_family(),
                                       tonnetz_family(),
                                       icqt_dual_family(),
                                       icqt_overlap_family(),
                                       stft_adjoint_family(),
                                       istft_adjoint_family(),
                                       mel_adjoint_family(),
                                       mel_adjoint_sums_family(),
                                       mel_adjoint_pack_family(),
                                       cepstra_adjoint_family(),
                                       cepstra_first_peak_family(),
                                       cepstra_floor_sum_family(),
                                       spectral_adjoint_family(),
                                       contrast_adjoint_family(),
                                       db_adjoint_family(),
                                       rms_adjoint_family(),
                                       onset_adjoint_family(),
                                       tonnetz_adjoint_family()};
  return all;
}

}  // namespace kevra_tools
