#include "cuda_like/ops/db_adjoint.h"

#include "codegen/kernels/db_adjoint.h"
#include "codegen/precision.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/gradients.h"
#include "cuda_like/ops/guards.h"

namespace kevra::ops {
namespace {

template <class T>
void adjoint(devptr_t s, devptr_t g, devptr_t gs, const Decibels& db, int device, stream_t stream) {
  const codegen::DbAdjointKernel kernel{codegen::kPrecisionOf<T>};
  const kernel_t fn = kernel_function(kernel, device);
  int64_t n = db.n;
  T mul = static_cast<T>(db.mul);
  T amin = static_cast<T>(db.amin);
  T top = static_cast<T>(db.top);
  int has_top = db.has_top ? 1 : 0;
  in_chunks(db.items, [&](int64_t first, int64_t count) {
    char* values = at(s, first * n, sizeof(T));
    char* incoming = at(g, first * n, sizeof(T));
    char* to = at(gs, first * n, sizeof(T));
    void* args[] = {&values, &incoming, &to, &n, &mul, &amin, &top, &has_top};
    launch_kernel(fn, static_cast<unsigned>(count), 1, kernel.kBlock, kernel.shared_bytes(), args,
                  kernel.kName, stream);
  });
}

}  // namespace

void db_adjoint_resident(devptr_t s, devptr_t g, devptr_t gs, const Decibels& db, int prec,
                         int device, stream_t stream) {
  require_full_precision(prec, "db: half gradients compute in f32 - upcast the tensors");
  require_at_least("db", "n", db.n, 0);
  require_rows("db", "items", db.items, db.n);
  select_device(device);
  if (db.items < 1 || db.n == 0) return;
  prec == codegen::kDouble ? adjoint<double>(s, g, gs, db, device, stream)
                           : adjoint<float>(s, g, gs, db, device, stream);
}

}  // namespace kevra::ops
