// The kernel language's qualifiers, which say nothing here.
#pragma once

#define __device__
#define __host__
#define __constant__ static
#define __forceinline__ inline __attribute__((always_inline))
#define __launch_bounds__(...)
#define __align__(bytes) __attribute__((aligned(bytes)))
