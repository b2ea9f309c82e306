// Math functions of the device language. Where the compiler's back end itself lowers a function
// (square root, float exponential, logarithm, sine), the elementwise builtins hand it over, so the
// instructions are the ones a GPU runs. The others are polynomials of usual degree.
#pragma once

#define KEVRA_SAME_BOTH(name)               \
  KEVRA_DEVICE float name(float x) {        \
    return __builtin_elementwise_##name(x); \
  }                                         \
  KEVRA_DEVICE double name(double x) {      \
    return __builtin_elementwise_##name(x); \
  }                                         \
  KEVRA_DEVICE float name##f(float x) {     \
    return __builtin_elementwise_##name(x); \
  }
KEVRA_SAME_BOTH(sqrt)
KEVRA_SAME_BOTH(floor)
KEVRA_SAME_BOTH(ceil)
KEVRA_SAME_BOTH(rint)
KEVRA_DEVICE float fabsf(float x) {
  return __builtin_fabsf(x);
}
KEVRA_DEVICE double fabs(double x) {
  return __builtin_fabs(x);
}
KEVRA_DEVICE float fminf(float a, float b) {
  return __builtin_fminf(a, b);
}
KEVRA_DEVICE float fmaxf(float a, float b) {
  return __builtin_fmaxf(a, b);
}
KEVRA_DEVICE double fmin(double a, double b) {
  return __builtin_fmin(a, b);
}
KEVRA_DEVICE double fmax(double a, double b) {
  return __builtin_fmax(a, b);
}
template <class T>
KEVRA_DEVICE T min(T a, T b) {
  return b < a ? b : a;
}
template <class T>
KEVRA_DEVICE T max(T a, T b) {
  return a < b ? b : a;
}

KEVRA_DEVICE float __sinf(float x) {
  return __builtin_elementwise_sin(x);
}
KEVRA_DEVICE float __cosf(float x) {
  return __builtin_elementwise_cos(x);
}
KEVRA_DEVICE void __sincosf(float x, float* sine, float* cosine) {
  *sine = __sinf(x);
  *cosine = __cosf(x);
}
KEVRA_DEVICE float expf(float x) {
  return __builtin_elementwise_exp(x);
}
KEVRA_DEVICE float logf(float x) {
  return __builtin_elementwise_log(x);
}
KEVRA_DEVICE float log10f(float x) {
  return __builtin_elementwise_log10(x);
}

KEVRA_DEVICE float fmaf(float x, float y, float z) {
  return __builtin_fmaf(x, y, z);
}
KEVRA_DEVICE float kevra_fma(float x, float y, float z) {
  return __builtin_fmaf(x, y, z);
}
KEVRA_DEVICE double kevra_fma(double x, double y, double z) {
  return __builtin_fma(x, y, z);
}
KEVRA_DEVICE double fma(double x, double y, double z) {
  return __builtin_fma(x, y, z);
}
// c[0] + c[1] x + ...
template <class T, int count>
KEVRA_DEVICE T kevra_polynomial(T x, const T (&c)[count]) {
  T sum = c[count - 1];
#pragma unroll
  for (int i = count - 2; i >= 0; --i) sum = kevra_fma(sum, x, c[i]);
  return sum;
}

KEVRA_DEVICE float exp(float x) {
  return expf(x);
}
KEVRA_DEVICE double exp(double x) {
  const double k = rint(x * 0x1.71547652b82fep+0);
  const double r = kevra_fma(-k, 0x1.abc9e3b39803fp-56, kevra_fma(-k, 0x1.62e42fefa39efp-1, x));
  const double p =
      kevra_polynomial(r, {1.0, 1.0, 1. / 2, 1. / 6, 1. / 24, 1. / 120, 1. / 720, 1. / 5040,
                           1. / 40320, 1. / 362880, 1. / 3628800, 1. / 39916800});
  const double y = __builtin_amdgcn_ldexp(p, (int)k);
  return x > 1024 ? __builtin_inf() : x < -1075 ? 0.0 : y;
}

KEVRA_DEVICE float kevra_mantissa(float x) {
  return __builtin_amdgcn_frexp_mantf(x);
}
KEVRA_DEVICE double kevra_mantissa(double x) {
  return __builtin_amdgcn_frexp_mant(x);
}
KEVRA_DEVICE int kevra_exponent(float x) {
  return __builtin_amdgcn_frexp_expf(x);
}
KEVRA_DEVICE int kevra_exponent(double x) {
  return __builtin_amdgcn_frexp_exp(x);
}
KEVRA_DEVICE float kevra_log_series(float s2) {
  return kevra_polynomial(s2, {2.f / 3, 2.f / 5, 2.f / 7, 2.f / 9});
}
KEVRA_DEVICE double kevra_log_series(double s2) {
  return kevra_polynomial(s2, {2. / 3, 2. / 5, 2. / 7, 2. / 9, 2. / 11, 2. / 13, 2. / 15, 2. / 17});
}

// The logarithm as the sum of two numbers; the quotient's own error is in the second.
template <class T>
KEVRA_DEVICE T kevra_log(T x, T* low) {
  const T ln2 = (T)0.69314718055994531, ln2_rest = (T)(0.69314718055994531 - (double)ln2);
  T m = kevra_mantissa(x);
  T e = kevra_exponent(x);
  const bool small = m < (T)0.70710678118654752;
  m = small ? 2 * m : m;
  e = small ? e - 1 : e;
  const T s = (m - 1) / (m + 1);
  const T error = kevra_fma(-s, m + 1, m - 1) / (m + 1);
  const T high = kevra_fma(e, ln2, 2 * s);
  *low = kevra_fma(s * s * s, kevra_log_series(s * s), kevra_fma(e, ln2_rest, 2 * error));
  return x == 0 ? (T)-__builtin_inf() : x < 0 ? (T)__builtin_nan("") : high;
}
KEVRA_DEVICE double log(double x) {
  double low;
  const double high = kevra_log(x, &low);
  return high + low;
}
KEVRA_DEVICE double log10(double x) {
  return log(x) * 0x1.bcb7b1526e50ep-2;
}

template <class T>
KEVRA_DEVICE T kevra_power(T x, T y) {
  T low;
  const T high = kevra_log(x < 0 ? -x : x, &low);
  const T product = y * high;
  const T rest = kevra_fma(y, low, kevra_fma(y, high, -product));
  const T size = exp(product) * (1 + rest);
  const bool whole = rint(y) == y;
  const bool odd = whole && rint(y / 2) != y / 2;
  if (y == 0 || x == 1) return 1;
  if (x == 0) return y < 0 ? (T)__builtin_inf() : (T)0;
  return x > 0 ? size : whole ? (odd ? -size : size) : (T)__builtin_nan("");
}
KEVRA_DEVICE double pow(double x, double y) {
  return kevra_power(x, y);
}
KEVRA_DEVICE float powf(float x, float y) {
  return kevra_power(x, y);
}

// The part of x within an eighth of a turn, as two doubles, and the number of quarter turns.
KEVRA_DEVICE double kevra_reduce(double x, double* low, int* quadrant) {
  if (fabs(x) < 0x1p25) {
    const double k = rint(x * 0x1.45f306dc9c883p-1);
    const double a = kevra_fma(-k, 0x1.921fb54442d18p+0, x);
    const double b = kevra_fma(-k, 0x1.1a62633145c07p-54, a);
    *low = kevra_fma(-k, 0x1.1a62633145c07p-54, a - b) - k * -0x1.f1976b7ed8fbcp-110;
    *quadrant = (int)k;
    return b;
  }
  // Digits of 2 / pi as far as x reaches, by the instruction that looks them up.
  const double scaled = x * 0x1p-128;
  const double d0 = __builtin_amdgcn_trig_preop(x, 0);
  const double d1 = __builtin_amdgcn_trig_preop(x, 1);
  const double d2 = __builtin_amdgcn_trig_preop(x, 2);
  const double h0 = d0 * scaled, l0 = kevra_fma(d0, scaled, -h0);
  const double h1 = d1 * scaled, l1 = kevra_fma(d1, scaled, -h1);
  const double sum = h1 + l0 + d2 * scaled;
  const double turns = h0 - 4 * floor(h0 * 0.25);
  const double k = rint(turns);
  const double fraction = (turns - k) + sum;
  *low = kevra_fma(fraction, 0x1.1a62633145c07p-54, l1 * 0x1.921fb54442d18p+0);
  *quadrant = (int)k;
  return fraction * 0x1.921fb54442d18p+0;
}

KEVRA_DEVICE void sincos(double x, double* sine, double* cosine) {
  double low;
  int quadrant;
  const double r = kevra_reduce(x, &low, &quadrant);
  const double r2 = r * r;
  const double s = kevra_fma(r * r2,
                             kevra_polynomial(r2, {-1. / 6, 1. / 120, -1. / 5040, 1. / 362880,
                                                   -1. / 39916800, 1. / 6227020800}),
                             r + low);
  const double c =
      kevra_fma(r2,
                kevra_polynomial(r2, {-1. / 2, 1. / 24, -1. / 720, 1. / 40320, -1. / 3628800,
                                      1. / 479001600, -1. / 87178291200}),
                1 - r * low);
  const double first = quadrant & 1 ? c : s, second = quadrant & 1 ? s : c;
  *sine = quadrant & 2 ? -first : first;
  *cosine = (quadrant + 1) & 2 ? -second : second;
}
KEVRA_DEVICE double cos(double x) {
  double sine, cosine;
  sincos(x, &sine, &cosine);
  return cosine;
}
KEVRA_DEVICE double sin(double x) {
  double sine, cosine;
  sincos(x, &sine, &cosine);
  return sine;
}
