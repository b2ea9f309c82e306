#include "host_fft/host_plan.h"

#include <cmath>

#include "codegen/sizes.h"
#include "host_fft/dispatch.h"
#include "host_fft/plan_cache.h"

namespace kevra::host_fft {
namespace {

constexpr double kTwoPi = 6.283185307179586;
constexpr double kPi = 3.141592653589793;

double sign_of(int direction) {
  return direction == 0 ? -1.0 : 1.0;
}

uint64_t plan_cache_key(int n, int direction) {
  return static_cast<uint64_t>(n) * 2 + direction;
}

// Divides `factor` out of `n` and tells how often it went.
int divide_out(int& n, int factor) {
  int count = 0;
  for (; n % factor == 0; n /= factor) ++count;
  return count;
}

int largest_prime(int n) {
  int largest = 1;
  if (n >= 4) {
    for (int d = 2; d <= n / d; ++d) {
      if (divide_out(n, d) > 0) largest = d;
    }
  }
  return n > 1 ? n : largest;
}

// How often each odd prime up to 13 divides a length.
class OddRadices {
 public:
  explicit OddRadices(int n) {
    for (int i = 0; i < kCount; ++i) left_[i] = divide_out(n, kPrimes[i]);
  }
  int left(int prime) const { return left_[index(prime)]; }
  void move(int prime, int count, std::vector<int>& to) {
    to.insert(to.end(), count, prime);
    left_[index(prime)] -= count;
  }
  void move_all(std::vector<int>& to) {
    for (int prime : kPrimes) move(prime, left(prime), to);
  }

 private:
  static constexpr int kCount = 5;
  static constexpr int kPrimes[kCount] = {3, 5, 7, 11, 13};
  static int index(int prime) {
    int i = 0;
    while (kPrimes[i] != prime) ++i;
    return i;
  }
  int left_[kCount];
};

// The first of `primes` that a length has at least `times`, else 0.
int first_with(const OddRadices& odd, std::initializer_list<int> primes, int times) {
  for (int prime : primes) {
    if (odd.left(prime) >= times) return prime;
  }
  return 0;
}

template <class T>
class PlanBuilder {
 public:
  PlanBuilder(int n, int direction) : turn_(sign_of(direction) * kTwoPi) {
    plan_.radices = host_radices(n);
    int64_t before = 1;
    for (int radix : plan_.radices) {
      plan_.twiddle_offsets.push_back(plan_.twiddles.size());
      plan_.packed_offsets.push_back(plan_.packed_twiddles.size());
      plan_.root_offsets.push_back(plan_.root_re.size());
      add_roots(radix);
      if (before > 1) add_twiddles(radix, before);
      before *= radix;
    }
    plan_.packed_twiddles.push_back(0);
  }
  HostFftPlan<T> take() { return std::move(plan_); }

 private:
  void add_roots(int radix) {
    for (int i = 0; i < radix; ++i) {
      const double angle = i * turn_ * (1.0 / radix);
      plan_.root_re.push_back(static_cast<T>(std::cos(angle)));
      plan_.root_im.push_back(static_cast<T>(std::sin(angle)));
    }
  }

  void add_twiddles(int radix, int64_t before) {
    const double step = 1.0 / static_cast<double>(radix * before);
    for (int j = 1; j < radix; ++j) {
      const size_t cosines = plan_.twiddles.size();
      const size_t sines = cosines + 2 * before;
      plan_.twiddles.resize(sines + 2 * before);
      for (int64_t i = 0; i < before; ++i) {
        const double angle = static_cast<double>(i) * (j * turn_) * step;
        const T cosine = static_cast<T>(std::cos(angle)), sine = static_cast<T>(std::sin(angle));
        plan_.twiddles[cosines + 2 * i] = plan_.twiddles[cosines + 2 * i + 1] = cosine;
        plan_.twiddles[sines + 2 * i] = plan_.twiddles[sines + 2 * i + 1] = sine;
        if (radix == 2 || radix == 4) {
          plan_.packed_twiddles.push_back(cosine);
          plan_.packed_twiddles.push_back(sine);
        }
      }
    }
  }

  HostFftPlan<T> plan_;
  double turn_;
};

template <class T>
void split_doubled(const AlignedVector<T>& values, AlignedVector<T>& re, AlignedVector<T>& im) {
  re.resize(values.size());
  im.resize(values.size());
  for (size_t k = 0; k < values.size(); k += 2) {
    re[k] = re[k + 1] = values[k];
    im[k] = im[k + 1] = values[k + 1];
  }
}

template <class T>
BluesteinHostPlan<T> build_bluestein(int n, int direction) {
  BluesteinHostPlan<T> plan;
  plan.n = n;
  plan.m = codegen::bluestein_m(n);
  const int64_t m = plan.m;
  plan.chirp.resize(2 * static_cast<size_t>(n));
  AlignedVector<T> mirrored(2 * m), buffers(4 * m);
  const double step = sign_of(direction) * kPi / n;
  for (int64_t k = 0; k < n; ++k) {
    // Reduced before it meets the step, so that the angle stays below a turn and keeps its digits.
    const double angle = step * static_cast<double>(k * k % (2 * static_cast<int64_t>(n)));
    const T cosine = static_cast<T>(std::cos(angle)), sine = static_cast<T>(std::sin(angle));
    plan.chirp[2 * k] = cosine;
    plan.chirp[2 * k + 1] = sine;
    for (int64_t at : {k, (m - k) % m}) {
      mirrored[2 * at] = cosine;
      mirrored[2 * at + 1] = -sine;
    }
  }
  plan.filter.resize(2 * m);
  passes<T>().row_chain({.tables = host_plan<T>(plan.m, 0)->tables(),
                         .n = plan.m,
                         .inverse = false,
                         .scale = 1,
                         .in = mirrored.data(),
                         .out = plan.filter.data(),
                         .buffer0 = buffers.data(),
                         .buffer1 = buffers.data() + 2 * m});
  split_doubled(plan.chirp, plan.chirp_re, plan.chirp_im);
  split_doubled(plan.filter, plan.filter_re, plan.filter_im);
  return plan;
}

}  // namespace

template <class T>
PassTables<T> HostFftPlan<T>::tables() const {
  return {radices.data(),         static_cast<int>(radices.size()),
          twiddle_offsets.data(), twiddles.data(),
          packed_offsets.data(),  packed_twiddles.data(),
          root_offsets.data(),    root_re.data(),
          root_im.data()};
}

HostRoute host_route(int n) {
  const int prime = largest_prime(n);
  if (prime > 13 || prime > std::log2(2.0 * n) * 6.0) return HostRoute::kChirp;
  return n < 16 || (n < 512 && n % 2 != 0) ? HostRoute::kGroup : HostRoute::kPlanned;
}

std::vector<int> host_radices(int n) {
  std::vector<int> radices;
  const int twos = divide_out(n, 2);
  OddRadices odd(n);
  if (twos >= 2) {
    int left = twos;
    if (twos % 2 == 1 && twos >= 5) {
      radices.push_back(8);
      left -= 3;
    }
    radices.insert(radices.end(), left / 2, 4);
    if (left % 2 == 1) radices.push_back(2);
    odd.move_all(radices);
    return radices;
  }
  const int repeated = first_with(odd, {7, 5, 3}, 2);
  const int largest = first_with(odd, {13, 11, 7, 5}, 1);
  if (repeated != 0 && repeated * repeated >= largest) {
    odd.move(repeated, odd.left(repeated), radices);
  } else if (largest != 0) {
    odd.move(largest, 1, radices);
  } else if (twos == 1) {
    radices.push_back(2);
    odd.move_all(radices);
    return radices;
  }
  odd.move_all(radices);
  if (twos == 1) radices.push_back(2);
  return radices;
}

std::vector<int> host_group_factors(int n) {
  std::vector<int> factors;
  const auto take = [&](int factor) {
    factors.insert(factors.end(), divide_out(n, factor), factor);
  };
  take(16);
  take(4);
  take(2);
  take(9);
  take(25);
  if (n >= 9) {
    for (int p = 3; p <= n / p; p += 2) take(p);
  }
  if (n >= 2) factors.push_back(n);
  return factors;
}

const std::complex<double>* host_roots(int n) {
  using Roots = std::vector<std::complex<double>>;
  const auto* roots = cached<Roots>(n, [n] {
    Roots values(n);
    for (int k = 0; k < n; ++k) {
      const double angle = k * -kTwoPi / n;
      values[k] = {std::cos(angle), std::sin(angle)};
    }
    return values;
  });
  return roots->data();
}

template <class T>
const HostFftPlan<T>* host_plan(int n, int direction) {
  return cached<HostFftPlan<T>>(plan_cache_key(n, direction),
                                [&] { return PlanBuilder<T>(n, direction).take(); });
}

template <class T>
const BluesteinHostPlan<T>* bluestein_host_plan(int n, int direction) {
  return cached<BluesteinHostPlan<T>>(plan_cache_key(n, direction),
                                      [&] { return build_bluestein<T>(n, direction); });
}

template struct HostFftPlan<float>;
template struct HostFftPlan<double>;
template const HostFftPlan<float>* host_plan<float>(int, int);
template const HostFftPlan<double>* host_plan<double>(int, int);
template const BluesteinHostPlan<float>* bluestein_host_plan<float>(int, int);
template const BluesteinHostPlan<double>* bluestein_host_plan<double>(int, int);

}  // namespace kevra::host_fft
