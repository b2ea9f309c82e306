// Vector types. Their alignment is that of one element: a GPU reads a float4 at any multiple
// of 4 bytes, and so must this.
#pragma once

#define KEVRA_CPU_VECTORS(Element, Name)                                             \
  struct Name##2 {                                                                   \
    Element x, y;                                                                    \
  };                                                                                 \
  struct Name##3 {                                                                   \
    Element x, y, z;                                                                 \
  };                                                                                 \
  struct Name##4 {                                                                   \
    Element x, y, z, w;                                                              \
  };                                                                                 \
  static inline Name##2 make_##Name##2(Element x, Element y) {                       \
    return {x, y};                                                                   \
  }                                                                                  \
  static inline Name##3 make_##Name##3(Element x, Element y, Element z) {            \
    return {x, y, z};                                                                \
  }                                                                                  \
  static inline Name##4 make_##Name##4(Element x, Element y, Element z, Element w) { \
    return {x, y, z, w};                                                             \
  }

KEVRA_CPU_VECTORS(float, float)
KEVRA_CPU_VECTORS(double, double)
KEVRA_CPU_VECTORS(int, int)
KEVRA_CPU_VECTORS(unsigned, uint)
KEVRA_CPU_VECTORS(long long, longlong)
KEVRA_CPU_VECTORS(unsigned long long, ulonglong)
