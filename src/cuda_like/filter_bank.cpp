#include "cuda_like/filter_bank.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <limits>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

#include "cuda_like/hash.h"
#include "cuda_like/tables.h"

namespace kevra {
namespace {

bool is_weight(double v) {
  return v > 0 || v < 0;
}

// The rows of each bin, from the first row on.
void pack_bins(const FilterBank& bank, PackedFilterBank& packed) {
  packed.b0.assign(bank.bins, -1);
  packed.b1.assign(bank.bins, -1);
  packed.w0.assign(bank.bins, 0);
  packed.w1.assign(bank.bins, 0);
  for (int64_t m = 0; m < bank.n_mels; ++m) {
    const double* row = bank.weights + m * bank.bins;
    for (int64_t k = 0; k < bank.bins; ++k) {
      if (!is_weight(row[k])) continue;
      const bool first = packed.b0[k] < 0;
      packed.crowded = packed.crowded || packed.b1[k] >= 0;
      (first ? packed.b0 : packed.b1)[k] = static_cast<int32_t>(m);
      (first ? packed.w0 : packed.w1)[k] = row[k];
    }
  }
}

template <class T>
devptr_t upload(const std::string& name, std::vector<T> values) {
  // A bank without a weight still hands out an address.
  if (values.empty()) values.resize(1);
  return device_table(name, values.data(), values.size() * sizeof(T));
}

template <class T>
FilterBankTable upload_bank(const std::string& name, const PackedFilterBank& packed) {
  const auto weights = [](const std::vector<double>& v) {
    return std::vector<T>(v.begin(), v.end());
  };
  return {.lo = upload(name + "_lo", packed.lo),
          .off = upload(name + "_off", packed.off),
          .b0 = upload(name + "_b0", packed.b0),
          .b1 = upload(name + "_b1", packed.b1),
          .w = upload(name + "_w", weights(packed.w)),
          .w0 = upload(name + "_w0", weights(packed.w0)),
          .w1 = upload(name + "_w1", weights(packed.w1)),
          .crowded = packed.crowded};
}

FilterBankTable build_table(const FilterBank& bank, uint64_t key, bool wide) {
  char name[80];
  std::snprintf(name, sizeof name, "fbt_%016llx_%lld_%lld_%zu",
                static_cast<unsigned long long>(key), static_cast<long long>(bank.n_mels),
                static_cast<long long>(bank.bins), wide ? sizeof(double) : sizeof(float));
  const PackedFilterBank packed = pack_filter_bank(bank);
  return wide ? upload_bank<double>(name, packed) : upload_bank<float>(name, packed);
}

}  // namespace

FilterBank filter_bank(const double* weights, int64_t n_mels, int64_t bins) {
  // Several, so that a caller with a handful of banks finds each again: by its address, since the
  // answer holds for any.
  static thread_local std::array<MatrixHashMemo, 8> memos;
  MatrixHashMemo& memo = memos[(reinterpret_cast<uintptr_t>(weights) * kHashMix) >> 61];
  return {weights, n_mels, bins, memo.hash(weights, n_mels, bins)};
}

void check_filter_bank(const char* op, const FilterBank& bank, int64_t n_fft) {
  const std::string name = op;
  if (bank.bins != n_fft / 2 + 1) {
    throw std::invalid_argument(name + ": filterbank bins != n_fft/2+1 (" +
                                std::to_string(bank.bins) + " columns for n_fft " +
                                std::to_string(n_fft) + ")");
  }
  // Offsets into the packed weights are 32-bit.
  const int64_t most = std::numeric_limits<int32_t>::max() / bank.bins;
  if (bank.n_mels < 1 || bank.n_mels > most) {
    throw std::invalid_argument(name + ": filterbank has " + std::to_string(bank.n_mels) +
                                " rows, must have from 1 to " + std::to_string(most));
  }
}

PackedFilterBank pack_filter_bank(const FilterBank& bank) {
  PackedFilterBank packed;
  for (int64_t m = 0; m < bank.n_mels; ++m) {
    const double* row = bank.weights + m * bank.bins;
    const double* end = row + bank.bins;
    const double* first = std::find_if(row, end, is_weight);
    while (end > first && !is_weight(end[-1])) --end;
    packed.lo.push_back(first == end ? 0 : static_cast<int32_t>(first - row));
    packed.off.push_back(static_cast<int32_t>(packed.w.size()));
    packed.w.insert(packed.w.end(), first, end);
  }
  packed.off.push_back(static_cast<int32_t>(packed.w.size()));
  pack_bins(bank, packed);
  return packed;
}

FilterBankTable filter_bank_table(const FilterBank& bank, bool wide) {
  static std::mutex mutex;
  static auto* tables = new std::map<std::pair<int, uint64_t>, FilterBankTable>;
  constexpr uint64_t kSeed = 136;
  const uint64_t key =
      key_of({kSeed, bank.hash, uint64_t(bank.n_mels), uint64_t(bank.bins), uint64_t(wide)});
  std::lock_guard lock(mutex);
  const std::pair slot{current_device(), key};
  if (const auto it = tables->find(slot); it != tables->end()) return it->second;
  const FilterBankTable table = build_table(bank, key, wide);
  tables->emplace(slot, table);
  return table;
}

}  // namespace kevra
