#include "codegen/thread_map.h"

namespace kevra::codegen {

void map_frame_per_block(KernelWriter& w) {
  w.stmt("int tid = $;", w.backend.thread_index());
  w.stmt("int frame = $;", w.backend.block_index_x());
  w.stmt("int batch = $;", w.backend.block_index_y());
  w.stmt("if (frame >= NF) return;");
}

void map_frames_per_block(KernelWriter& w) {
  w.stmt("int f_local = $ / TPF;", w.backend.thread_index());
  w.stmt("int tid = $ % TPF;", w.backend.thread_index());
  w.stmt("int frame = $ * F + f_local;", w.backend.block_index_x());
  w.stmt("int batch = $;", w.backend.block_index_y());
}

void map_rows_in_block(KernelWriter& w, int rows, int pitch) {
  const std::string thread = w.backend.thread_index();
  w.stmt("int tid = $ % TPF;", thread);
  w.stmt("long long batch = (long long)$ * $ + $ / TPF;", w.backend.block_index_x(), rows, thread);
  w.stmt("long long brow = batch < nrows - 1 ? batch : nrows - 1;");
  w.stmt("cplx* bufA = shbuf + ($ / TPF) * $;", thread, pitch);
}

void flat_row_index(KernelWriter& w, const std::string& var, const std::string& total,
                    const std::string& row) {
  w.stmt("I64 $ = (I64)$ * 256 + $;", var, w.backend.block_index_x(), w.backend.thread_index());
  w.stmt("if ($ >= $) return;", var, total);
  w.stmt("I64 $ = $;", row, w.backend.block_index_y());
}

void split_row(KernelWriter& w, const std::string& a, const std::string& b) {
  w.stmt("I64 $ = row / NF, $ = row % NF;", a, b);
}

void row_pair(KernelWriter& w) {
  w.stmt("I64 row0 = 2 * batch; I64 row1 = row0 + 1;");
  w.stmt("I64 r0c = row0 < nrows - 1 ? row0 : nrows - 1;");
  w.stmt("I64 r1c = row1 < nrows - 1 ? row1 : nrows - 1;");
}

void load_twiddles(KernelWriter& w, const StftConfig& config) {
  if (!config.wide) return;
  if (config.tw_global) {
    w.stmt("const cplx* twsh = tw;");
    return;
  }
  w.stmt("cplx* twsh = sh_all;");
  w.for_loop("i", w.backend.thread_index(), "TWN", w.backend.block_size(),
             [&](const std::string& i) { w.stmt("twsh[$] = tw[$];", i, i); });
  w.barrier();
}

}  // namespace kevra::codegen
