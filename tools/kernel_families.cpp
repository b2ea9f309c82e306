#include "kernel_families.h"

#include "families/common.h"

namespace kevra_tools {

const std::vector<Family>& families() {
  static const std::vector<Family> all{
      rms_family(),          onset_family(),     fft_family(),
      fft_register_family(), db_family(),        db_inverse_family(),
      bluestein_family(),    four_step_family(), rfft_family()};
  return all;
}

}  // namespace kevra_tools
