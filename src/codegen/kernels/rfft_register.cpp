#include "codegen/kernels/rfft_register.h"

#include <algorithm>
#include <optional>

#include "codegen/format.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"
#include "codegen/sizes.h"
#include "codegen/stages.h"

namespace kevra::codegen {
namespace {

// The roots exp(-+2 pi i (tid + offset) / n) of an even n: each read from the table, or one
// computed and turned by constants.
class ThreadRoots {
 public:
  ThreadRoots(KernelWriter& w, const RealRows& rows)
      : w_(w), n_(rows.n), conjugate_(rows.inverse), table_(rows.compute == kDouble) {
    if (!table_) first_ = w.twiddle("tid", n_, false, conjugate_);
  }
  // `place` is the name of tid + offset.
  std::string at(const std::string& place, int offset) {
    if (table_) return w_.twiddle(place, n_, false, conjugate_);
    return offset == 0 ? first_ : w_.cmul(first_, w_.root_constant(offset, n_, conjugate_));
  }

 private:
  KernelWriter& w_;
  int n_;
  bool conjugate_;
  bool table_;
  std::string first_;
};

std::string name_place(KernelWriter& w, int offset) {
  const std::string place = w.fresh("c");
  w.stmt("int $ = tid + $;", place, offset);
  return place;
}

void load_reals(KernelWriter& w, const RegisterRealFftKernel& k, const RegisterItems& items) {
  for (int i = 0; i < k.layout().ept(); ++i) {
    const std::string c = name_place(w, i * k.layout().threads());
    w.stmt("cplx $ = $;", items.values[0][i], loaded_samples(k.data, c, w.backend));
  }
}

void load_spectra(KernelWriter& w, const RegisterRealFftKernel& k, const RegisterItems& items) {
  std::optional<ThreadRoots> roots;
  if (!k.data.paired()) roots.emplace(w, k.data);
  for (int i = 0; i < k.layout().ept(); ++i) {
    const int offset = i * k.layout().threads();
    const std::string c = name_place(w, offset);
    w.stmt("cplx $;", items.values[0][i]);
    const std::string root = roots ? roots->at(c, offset) : "";
    w.stmt("{");
    load_bins(w, k.data, c, root, items.values[0][i]);
    w.stmt("}");
  }
}

// What a thread does with the bins c = tid + offset, as many as the split visits.
template <class Body>
void each_bin(KernelWriter& w, const RegisterRealFftKernel& k, int last, Body body) {
  const int threads = k.layout().threads();
  for (int offset = 0; offset <= last; offset += threads) {
    const std::string c = name_place(w, offset);
    const bool all = offset + threads - 1 <= last;
    all ? w.stmt("{") : w.stmt("if ($ <= $) {", c, last);
    body(c, offset);
    w.stmt("}");
  }
}

void split_and_store(KernelWriter& w, const RegisterRealFftKernel& k) {
  if (k.data.paired()) {
    return each_bin(w, k, k.data.n / 2, [&](const std::string& c, int) {
      split_pair(w, k.data, "Z", c);
      store_pair_bins(w, k.data, c);
    });
  }
  // Elements c and h - c are split once for both bins; at 0 and h / 2 the formulas hold as well.
  const int h = k.data.length();
  ThreadRoots roots(w, k.data);
  each_bin(w, k, h / 2, [&](const std::string& c, int offset) {
    const std::string mirror =
        is_power_of_two(h) ? format("Z[($ - $) & $]", {std::to_string(h), c, std::to_string(h - 1)})
                           : format("Z[$ == 0 ? 0 : $ - $]", {c, std::to_string(h), c});
    split_half(w, k.data, "Z", c, mirror, roots.at(c, offset));
    store_bin(w, k.data, "batch", c, "xer + tr", "xei + ti");
    store_bin(w, k.data, "batch", format("$ - $", {std::to_string(h), c}), "xer - tr",
              "-(xei - ti)");
  });
}

void store_spectra(KernelWriter& w, const RegisterRealFftKernel& k, const RegisterItems& items) {
  const RegisterLayout row = k.layout();
  w.line("  // the spectrum in its order, over the exchange's remains, then the split");
  w.stmt("TG cplx* Z = (TG cplx*)v;");
  w.barrier();
  for (int g = 0; g < row.last_groups(); ++g) {
    for (int o = 0; o < row.last_radix(); ++o) {
      w.stmt("Z[tid + $] = $;", row.output_offset(g, o), items.values[g][o]);
    }
  }
  w.barrier();
  w.if_block(has_rows(k.data), [&] { split_and_store(w, k); });
}

void store_reals(KernelWriter& w, const RegisterRealFftKernel& k, const RegisterItems& items) {
  const RegisterLayout row = k.layout();
  w.if_block(has_rows(k.data), [&] {
    for (int g = 0; g < row.last_groups(); ++g) {
      for (int o = 0; o < row.last_radix(); ++o) {
        store_samples(w, k.data, name_place(w, row.output_offset(g, o)), items.values[g][o]);
      }
    }
  });
}

}  // namespace

int RegisterRealFftKernel::pitch() const {
  const int exchange = layout().pitch();
  const int scalars = data.inverse ? exchange : std::max(exchange, 2 * data.length());
  return scalars + scalars % 2;  // complex values stand in it too
}

size_t RegisterRealFftKernel::shared_bytes() const {
  return static_cast<size_t>(transforms_per_block) * pitch() * (complex_bytes(data.compute) / 2);
}

std::string RegisterRealFftKernel::key() const {
  return format("$_$_$e$r$$", {data.inverse ? "cirfftregs" : "crfftregs", std::to_string(data.n),
                               std::to_string(data.storage), std::to_string(radices.front()),
                               std::to_string(rows_per_block()), data.paired() ? "o" : ""});
}

std::string register_rfft_source(const RegisterRealFftKernel& k, const Backend& backend) {
  const RegisterLayout row = k.layout();
  const std::string scalar = backend.scalar_type(k.data.compute);
  KernelWriter w(k.data.compute, backend);
  register_twiddle_table(w, k.data.compute, k.data.n, "tw", k.radices);
  map_register_threads(w, row, k.transforms_per_block);
  name_real_rows(w, k.data);
  // The spectra of two rows are parted through the buffer, their values never.
  if (!k.data.inverse || row.exchanges()) name_exchange_buffer(w, row, scalar, k.pitch());

  RegisterItems items = name_first_items(w, row);
  k.data.inverse ? load_spectra(w, k, items) : load_reals(w, k, items);
  items = emit_register_stages(w, row, items);
  k.data.inverse ? store_reals(w, k, items) : store_spectra(w, k, items);
  return real_head(k.data, shp_define(false), k.block(), scalar, backend) + w.str() + "}\n";
}

}  // namespace kevra::codegen
