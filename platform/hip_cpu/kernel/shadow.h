// Who touched each byte last: the record from which check mode tells races.
//
// Actors are threads of a block (shared memory) or blocks of a grid (device memory). Every actor
// has a number, and numbers only grow: what lies below the current base happened before a barrier
// or in an earlier launch and counts no more, so nothing is ever cleared.
#pragma once

#include <cstdint>

namespace kevra_cpu {

enum class Access { read, write, atomic };

// One byte's history: what kind of access it has seen and by whom.
class ShadowByte {
 public:
  enum State : uint32_t {
    untouched,
    read_by_one,
    read_by_group,  // several threads that a shuffle can bring together
    read_by_many,
    written,
    atomic_by_one,
    atomic_by_group,
    atomic_by_many,
  };
  static constexpr int actor_bits = 29;
  static constexpr uint32_t actor_limit = 1u << actor_bits;

  State state() const { return State(word_ >> actor_bits); }
  uint32_t actor() const { return word_ & (actor_limit - 1); }
  void set(State state, uint32_t actor) { word_ = uint32_t(state) << actor_bits | actor; }

 private:
  uint32_t word_ = 0;
};

// Notes one access; false when it races with what the byte has seen. `before(actor)` says whether
// that actor's accesses are over for the present one, `together(actor)` whether a shuffle can
// bring the two together.
template <typename Before, typename Together>
bool note_access(ShadowByte& byte, uint32_t actor, Access access, Before before,
                 Together together) {
  using S = ShadowByte;
  const uint32_t other = byte.actor();
  S::State seen = byte.state();
  const bool many = seen == S::read_by_many || seen == S::atomic_by_many;
  if (seen != S::untouched && before(other, many)) seen = S::untouched;

  const bool by_me =
      other == actor && (seen == S::read_by_one || seen == S::written || seen == S::atomic_by_one);
  if (access == Access::write) {
    const bool fine = seen == S::untouched || by_me;
    byte.set(S::written, actor);
    return fine;
  }
  const bool reading = access == Access::read;
  const S::State one = reading ? S::read_by_one : S::atomic_by_one;
  const S::State group = reading ? S::read_by_group : S::atomic_by_group;
  const S::State all = reading ? S::read_by_many : S::atomic_by_many;
  if (seen == S::untouched) return byte.set(one, actor), true;
  if (by_me) {
    if (!reading) byte.set(one, actor);
    return true;  // a read takes nothing from the actor's own write
  }
  if (seen != one && seen != group && seen != all) return byte.set(one, actor), false;
  byte.set(seen != all && together(other) ? group : all, actor);
  return true;
}

}  // namespace kevra_cpu
