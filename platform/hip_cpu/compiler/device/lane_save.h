// The call that notes what a store is about to overwrite. Next to none of the stores make it, yet
// as a call like any other it would cost all of them: no vector register outlives a call, so that a
// thread's values would go to the stack and back. This one keeps every register.
#pragma once

#include "compiler/device/lane_numbers.h"

#ifdef KEVRA_CPU_LANE_CODE

namespace kevra_cpu_device {

// Whether stores are to be noted before they happen.
static inline bool logging() {
  return __builtin_expect(__atomic_load_n(&kevra_lane_hooks.log, __ATOMIC_RELAXED), 0) != 0;
}

#ifdef __x86_64__

#if defined(__AVX512BW__)
#define KEVRA_LANE_VECTORS(of)                                                                     \
  ".irp i,0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23,24,25,26,27,28,29,30,31\n" \
  "vmovups " of(% zmm, 64) "\n.endr\n.irp i,0,1,2,3,4,5,6,7\nkmovq " of(% k, 2048 + 8) "\n.endr\n"
#elif defined(__AVX__)
#define KEVRA_LANE_VECTORS(of)                     \
  ".irp i,0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15\n" \
  "vmovups " of(% ymm, 32) "\n.endr\n"
#else
#define KEVRA_LANE_VECTORS(of)                     \
  ".irp i,0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15\n" \
  "movups " of(% xmm, 16) "\n.endr\n"
#endif
#define KEVRA_LANE_TO_STACK(name, size) #name "\\i, " #size "*\\i(%rsp)"
#define KEVRA_LANE_FROM_STACK(name, size) #size "*\\i(%rsp), " #name "\\i"

static_assert(__builtin_offsetof(LaneHooks, save) == 8, "as the text below has it");
asm(".text\n"
    "kevra_lane_save:\n"
    ".irp name,rax,rcx,rdx,rsi,rdi,r8,r9,r10,r11,rbp\npush %\\name\n.endr\n"
    "mov %rsp, %rbp\n"
    "sub $2176, %rsp\n"
    "and $-64, %rsp\n" KEVRA_LANE_VECTORS(KEVRA_LANE_TO_STACK)
    "call *kevra_lane_hooks+8(%rip)\n" KEVRA_LANE_VECTORS(KEVRA_LANE_FROM_STACK)
    "mov %rbp, %rsp\n"
    ".irp name,rbp,r11,r10,r9,r8,rdi,rsi,rdx,rcx,rax\npop %\\name\n.endr\n"
    "ret\n");

static inline void note_store(void* first, long long step, unsigned bytes) {
  // What lies below the stack pointer may be in use.
  if (logging())
    asm volatile("lea -128(%%rsp), %%rsp\ncall kevra_lane_save\nlea 128(%%rsp), %%rsp" ::"D"(first),
                 "S"(step), "d"(bytes)
                 : "cc", "memory");
}

#else

static inline void note_store(void* first, long long step, unsigned bytes) {
  if (logging()) kevra_lane_hooks.save(first, step, bytes);
}

#endif

}  // namespace kevra_cpu_device

#endif
