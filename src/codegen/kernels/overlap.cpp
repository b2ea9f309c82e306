#include "codegen/kernels/overlap.h"

namespace kevra::codegen {

void emit_covering_frames(KernelWriter& w, const std::string& place, int n_fft, int hop) {
  w.line("  // the first and the last frame that cover it");
  w.stmt("int t0 = (int)(($ - $ + $ - 1) / $); if (t0 < 0) t0 = 0;", place, n_fft - 1, hop, hop);
  w.stmt("int t1 = (int)($ / $); if (t1 > NF-1) t1 = NF-1;", place, hop);
}

}  // namespace kevra::codegen
