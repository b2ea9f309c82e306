#include "cuda_like/ops/db.h"

#include <algorithm>

#include "codegen/kernels/db.h"
#include "codegen/precision.h"
#include "cuda_like/ops/guards.h"

namespace kevra::ops {
namespace {

using codegen::DbInverseKernel;
using codegen::DbKernel;

constexpr int64_t kItemsOfALaunch = 65535;

template <class T>
void db(devptr_t s, devptr_t out, const Decibels& db, int device, stream_t stream) {
  const DbKernel kernel{codegen::kPrecisionOf<T>};
  const kernel_t fn = kernel_function(kernel, device);
  T* from = static_cast<T*>(s);
  T* to = static_cast<T*>(out);
  int64_t n = db.n;
  T mul = static_cast<T>(db.mul);
  T amin = static_cast<T>(db.amin);
  T cref = static_cast<T>(db.cref);
  T top = static_cast<T>(db.top);
  int has_top = db.has_top ? 1 : 0;
  for (int64_t done = 0; done < db.items; done += kItemsOfALaunch) {
    const int64_t items = std::min(db.items - done, kItemsOfALaunch);
    void* args[] = {&from, &to, &n, &mul, &amin, &cref, &top, &has_top};
    launch_kernel(fn, static_cast<unsigned>(items), 1, kernel.kBlock, kernel.shared_bytes(), args,
                  kernel.kName, stream);
    from += items * n;
    to += items * n;
  }
}

template <class T>
void db_inv(devptr_t d, devptr_t out, int64_t total, double mul, double ref, int device,
            stream_t stream) {
  const DbInverseKernel kernel{codegen::kPrecisionOf<T>};
  const kernel_t fn = kernel_function(kernel, device);
  T mul_value = static_cast<T>(mul);
  T ref_value = static_cast<T>(ref);
  void* args[] = {&d, &out, &total, &mul_value, &ref_value};
  launch_kernel(fn, static_cast<unsigned>((total + kernel.kBlock - 1) / kernel.kBlock), 1,
                kernel.kBlock, 0, args, kernel.kName, stream);
}

}  // namespace

void db_resident(devptr_t s, devptr_t out, const Decibels& shape, int prec, int device,
                 stream_t stream) {
  require_at_least("db", "n", shape.n, 0);
  require_rows("db", "items", shape.items, shape.n);
  select_device(device);
  if (shape.items < 1 || shape.n == 0) return;
  prec == 2 ? db<double>(s, out, shape, device, stream) : db<float>(s, out, shape, device, stream);
}

void db_inv_resident(devptr_t d, devptr_t out, int64_t total, double mul, double ref, int prec,
                     int device, stream_t stream) {
  require_at_least("db_inv", "total", total, 0);
  // Grid x is a 31-bit quantity.
  require_at_most("db_inv", "total", total,
                  (int64_t{1} << 31) * DbInverseKernel::kBlock - DbInverseKernel::kBlock);
  select_device(device);
  if (total == 0) return;
  prec == 2 ? db_inv<double>(d, out, total, mul, ref, device, stream)
            : db_inv<float>(d, out, total, mul, ref, device, stream);
}

}  // namespace kevra::ops
