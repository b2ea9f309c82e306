// Vector types. Their alignment is that of one element: a GPU reads a float4 at any multiple
// of 4 bytes, and so must this.
#pragma once

#include "compiler/device/check.h"

// Check mode sees single loads and stores but not the copy of a whole record, so there the copy
// goes member by member.
#ifdef KEVRA_CPU_CHECK
#define KEVRA_CPU_COPY(Name, copy)     \
  Name(const Name& other) {            \
    copy;                              \
  }                                    \
  Name& operator=(const Name& other) { \
    copy;                              \
    return *this;                      \
  }
#else
#define KEVRA_CPU_COPY(Name, copy)
#endif

#define KEVRA_CPU_VECTORS(Element, Name)                                             \
  struct Name##2 {                                                                   \
    Name##2() = default;                                                             \
    Name##2(Element x, Element y) : x(x), y(y) {}                                    \
    KEVRA_CPU_COPY(Name##2, (x = other.x, y = other.y))                              \
    Element x, y;                                                                    \
  };                                                                                 \
  struct Name##3 {                                                                   \
    Name##3() = default;                                                             \
    Name##3(Element x, Element y, Element z) : x(x), y(y), z(z) {}                   \
    KEVRA_CPU_COPY(Name##3, (x = other.x, y = other.y, z = other.z))                 \
    Element x, y, z;                                                                 \
  };                                                                                 \
  struct Name##4 {                                                                   \
    Name##4() = default;                                                             \
    Name##4(Element x, Element y, Element z, Element w) : x(x), y(y), z(z), w(w) {}  \
    KEVRA_CPU_COPY(Name##4, (x = other.x, y = other.y, z = other.z, w = other.w))    \
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
