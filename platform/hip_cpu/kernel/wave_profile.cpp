#include "kernel/wave_profile.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>

#include "common/settings.h"
#include "kernel/code_object.h"

namespace kevra_cpu {

namespace {

constexpr uintptr_t segment_bytes = 64, word_bytes = 4, banks = 32;
constexpr uintptr_t page_segments = 65536;
// Accesses kept of one phase of a block. What lies beyond is taken to be like them.
constexpr uint64_t event_limit = uint64_t(4) << 20;

// The distinct units of `size` bytes that some accesses touch.
template <typename Events>
void collect_units(const Events& events, bool shared, uintptr_t size,
                   std::vector<uintptr_t>& units) {
  units.clear();
  for (const auto* event : events)
    if (event->shared == shared)
      for (uintptr_t unit = event->address / size;
           unit <= (event->address + event->bytes - 1) / size; ++unit)
        units.push_back(unit);
  std::sort(units.begin(), units.end());
  units.erase(std::unique(units.begin(), units.end()), units.end());
}

// Every bank gives one word a cycle, and every word goes to all threads that ask for it.
uint64_t conflict_cycles(const std::vector<uintptr_t>& words) {
  uint64_t in_bank[banks] = {}, most = 0;
  for (const uintptr_t word : words) most = std::max(most, ++in_bank[word % banks]);
  return most - (words.size() + banks - 1) / banks;
}

}  // namespace

void WaveProfile::begin_block(unsigned threads) {
  threads_ = threads;
  if (wanted_ && events_.size() < threads) events_.resize(threads);
}

void WaveProfile::note_shared(unsigned thread, const void* code, size_t offset, unsigned bytes) {
  if (wanted_) log(thread, {code, offset, bytes, true});
}

void WaveProfile::note_device(unsigned thread, const void* code, uintptr_t address, unsigned bytes,
                              Access access) {
  if (!wanted_) return;
  (access == Access::read    ? totals_.bytes_read
   : access == Access::write ? totals_.bytes_written
                             : totals_.bytes_atomic) += bytes;
  for (uintptr_t s = address / segment_bytes; s <= (address + bytes - 1) / segment_bytes; ++s)
    touch(s);
  log(thread, {code, address, bytes, false});
}

void WaveProfile::touch(uintptr_t segment) {
  std::vector<bool>& page = touched_[segment / page_segments];
  if (page.empty()) page.resize(page_segments);
  if (!page[segment % page_segments]) totals_.touched_bytes += segment_bytes;
  page[segment % page_segments] = true;
}

void WaveProfile::log(unsigned thread, const Event& event) {
  if (events_[thread].size() < event_limit / threads_) {
    events_[thread].push_back(event);
    ++logged_;
  } else {
    ++dropped_;
  }
}

void WaveProfile::pass_barrier() {
  ++totals_.barriers;
  close_phase();
}

void WaveProfile::pass_shuffle() {
  ++totals_.shuffles;
}

// Calls `use` with the accesses that a wave of that size does at once, one set after the other.
template <typename Use>
void WaveProfile::replay(unsigned wave, Use use) {
  std::vector<const Event*> together;
  std::vector<size_t> next(wave);
  for (unsigned first = 0; first < threads_; first += wave) {
    const unsigned lanes = std::min(wave, threads_ - first);
    std::fill(next.begin(), next.end(), 0);
    for (;;) {
      const void* code = nullptr;
      for (unsigned i = 0; i < lanes; ++i) {
        const auto& events = events_[first + i];
        if (next[i] < events.size() && (code == nullptr || events[next[i]].code < code))
          code = events[next[i]].code;
      }
      if (code == nullptr) break;
      together.clear();
      for (unsigned i = 0; i < lanes; ++i) {
        const auto& events = events_[first + i];
        if (next[i] < events.size() && events[next[i]].code == code)
          together.push_back(&events[next[i]++]);
      }
      use(together);
    }
  }
}

void WaveProfile::close_phase() {
  if (logged_ == 0) return;
  LaunchProfile phase;
  replay(32, [&](const std::vector<const Event*>& events) {
    collect_units(events, false, segment_bytes, units_);
    phase.segment_bytes += units_.size() * segment_bytes;
    collect_units(events, true, word_bytes, units_);
    if (units_.empty()) return;
    ++phase.shared_accesses;
    phase.bank_conflicts_32 += conflict_cycles(units_);
  });
  replay(64, [&](const std::vector<const Event*>& events) {
    collect_units(events, true, word_bytes, units_);
    if (!units_.empty()) phase.bank_conflicts_64 += conflict_cycles(units_);
  });
  const double scale = double(logged_ + dropped_) / double(logged_);
  const auto scaled = [&](uint64_t count) { return uint64_t(double(count) * scale + 0.5); };
  totals_.segment_bytes += scaled(phase.segment_bytes);
  totals_.shared_accesses += scaled(phase.shared_accesses);
  totals_.bank_conflicts_32 += scaled(phase.bank_conflicts_32);
  totals_.bank_conflicts_64 += scaled(phase.bank_conflicts_64);
  for (unsigned i = 0; i < threads_; ++i) events_[i].clear();
  logged_ = dropped_ = 0;
}

void write_profile(const Launch& launch, const LaunchProfile& profile) {
  const auto triple = [](const Dim3& d) {
    return "[" + std::to_string(d.x) + ", " + std::to_string(d.y) + ", " + std::to_string(d.z) +
           "]";
  };
  std::string line = "{\"kernel\": \"";
  line.append(launch.kernel->entry().name).append("\", \"grid\": ").append(triple(launch.grid));
  line.append(", \"block\": ").append(triple(launch.block));
  const auto field = [&](const char* name, uint64_t value) {
    line.append(", \"").append(name).append("\": ").append(std::to_string(value));
  };
  field("shared_bytes", launch.shared_bytes);
  field("bytes_read", profile.bytes_read);
  field("bytes_written", profile.bytes_written);
  field("bytes_atomic", profile.bytes_atomic);
  field("segment_bytes", profile.segment_bytes);
  field("touched_bytes", profile.touched_bytes);
  field("shared_accesses", profile.shared_accesses);
  field("bank_conflicts_32", profile.bank_conflicts_32);
  field("bank_conflicts_64", profile.bank_conflicts_64);
  field("barriers", profile.barriers);
  field("shuffles", profile.shuffles);
  line += "}\n";
  std::ofstream file(settings().profile, std::ios::app);
  if (!(file << line).flush())
    std::fprintf(stderr,
                 "KEVRA_CPU_PROFILE: cannot append to %s; name a file in a folder that "
                 "can be written\n",
                 settings().profile.c_str());
}

}  // namespace kevra_cpu
