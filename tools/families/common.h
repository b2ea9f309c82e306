// What the kernel families share: the limits of the hardware, and parameters by one name.
#pragma once

#include <cstdint>

#include "codegen/backend.h"
#include "codegen/precision.h"
#include "kernel_families.h"

namespace kevra_tools {

inline constexpr int kLargestBlock = 1024;         // threads
inline constexpr int64_t kSharedLimit = 64 << 10;  // bytes a block may have on every AMD GPU so far

inline const kevra::codegen::HipBackend hip;

inline const Parameter precision{"prec", kevra::codegen::kFloat, kevra::codegen::kHalf,
                                 kevra::codegen::kDouble, "0 half storage, 1 float, 2 double"};

// Of kernels that half storage does not reach.
inline const Parameter float_or_double{"prec", kevra::codegen::kFloat, kevra::codegen::kFloat,
                                       kevra::codegen::kDouble, "1 float, 2 double"};

Family rms_family();
Family onset_family();
Family fft_family();
Family fft_register_family();
Family db_family();
Family db_inverse_family();
Family bluestein_family();
Family four_step_family();
Family rfft_family();
Family stft_family();
Family istft_family();
Family mel_family();
Family mel_bands_family();
Family cepstra_family();
Family cepstra_peak_family();
Family inverse_mel_family();
Family frame_spectral_family();
Family frame_contrast_family();
Family spectral_family();
Family contrast_family();
Family lfilter_family();
Family lfilter_pack_family();
Family lfilter_basis_family();
Family conv_pad_family();
Family conv_multiply_family();
Family conv_slice_family();
Family conv_direct_family();
Family conv_stage_family();
Family conv_row_sum_family();
Family gl_mul_family();
Family gl_step_family();
Family cqt_family();
Family cqt_half_band_family();
Family cqt_pad_family();
Family cqt_reduce_family();
Family cqt_bin_gradient_family();
Family cqt_spectrum_gradient_family();
Family cqt_half_band_adjoint_family();
Family cqt_add_level_family();
Family chroma_family();
Family chroma_adjoint_family();
Family tonnetz_family();
Family stft_adjoint_family();
Family istft_adjoint_family();
Family mel_adjoint_family();
Family mel_adjoint_sums_family();
Family mel_adjoint_pack_family();
Family cepstra_adjoint_family();
Family cepstra_first_peak_family();
Family cepstra_floor_sum_family();
Family spectral_adjoint_family();
Family contrast_adjoint_family();
Family db_adjoint_family();
Family rms_adjoint_family();
Family onset_adjoint_family();
Family tonnetz_adjoint_family();
Family icqt_dual_family();
Family icqt_overlap_family();
Family vector_dot_family();
Family vector_update_family();
Family cg_alpha_family();
Family cg_beta_family();

}  // namespace kevra_tools
