"""Reads the figures of one kernel out of the compiler's assembly text."""

import re
from dataclasses import dataclass


@dataclass(frozen=True)
class Figures:
    """Static figures: a loop's body counts once, however often it runs."""

    vgprs: int  # vector registers of a lane, matrix registers included
    agprs: int
    sgprs: int
    vgpr_spills: int
    sgpr_spills: int
    scratch_bytes: int  # of a lane, in device memory
    static_shared_bytes: int
    largest_block: int  # threads, by the launch bound
    global_loads: int
    global_stores: int
    global_atomics: int
    shared_accesses: int
    vector_arithmetic: int
    barriers: int
    code_bytes: int
    compiler_waves: int  # a SIMD has by the compiler's own count, which knows neither block nor dynamic shared memory


_INSTRUCTION = re.compile(r"^\t([a-z]\w*)(.*)", re.MULTILINE)
# flat_ is an access whose memory the compiler could not tell: it counts as the slower of the two.
_MEMORY = {
    "global_loads": re.compile(r"(global|flat|buffer)_load"),
    "global_stores": re.compile(r"(global|flat|buffer)_store"),
    "global_atomics": re.compile(r"(global|flat|buffer)_atomic"),
    "shared_accesses": re.compile(r"ds_(?!bpermute|permute|swizzle|nop)"),
    # gfx12 parts arriving from waiting; the wait is the barrier.
    "barriers": re.compile(r"s_barrier$|s_barrier_wait$"),
}
# Copies between registers: they move data and compute nothing.
_MOVE = re.compile(r"v_(dual_)?(mov|pk_mov|accvgpr|swap|readlane|readfirstlane|writelane|nop)")
_DUAL_HALF = re.compile(r"::\s*(v_\w+)")


def parse(text: str, kernel: str) -> Figures:
    """`text` is one device's assembly. Raises ValueError when it lacks the kernel or a figure."""
    label = re.escape(kernel)
    body = re.search(rf"^{label}:(.*?)^\.Lfunc_end\d+:(.*?)(?=^\t\.text|\Z)", text, re.MULTILINE | re.DOTALL)
    entries = re.split(r"^  - ", text.partition("amdhsa.kernels:\n")[2], flags=re.MULTILINE)
    about = next((e for e in entries if re.search(rf"^ +\.name: +{label}$", e, re.MULTILINE)), None)
    if body is None or about is None:
        raise ValueError(f"the assembly has no kernel {kernel}")

    def described(name: str) -> int:
        return _number(rf"^ *\.{name}: +(\d+)$", about, name)

    def noted(name: str) -> int:
        return _number(rf"^; {name} ?[=:] (\d+)", body[2], name)

    return Figures(
        vgprs=described("vgpr_count"),
        agprs=described("agpr_count") if ".agpr_count" in about else 0,
        sgprs=described("sgpr_count"),
        vgpr_spills=described("vgpr_spill_count"),
        sgpr_spills=described("sgpr_spill_count"),
        scratch_bytes=described("private_segment_fixed_size"),
        static_shared_bytes=described("group_segment_fixed_size"),
        largest_block=described("max_flat_workgroup_size"),
        code_bytes=noted("codeLenInByte"),
        compiler_waves=noted("Occupancy"),
        **_count(body[1]),
    )


def _number(pattern: str, text: str, name: str) -> int:
    found = re.search(pattern, text, re.MULTILINE)
    if found is None:
        raise ValueError(f"the assembly tells no {name}")
    return int(found[1])


def _count(body: str) -> dict[str, int]:
    counts = dict.fromkeys([*_MEMORY, "vector_arithmetic"], 0)
    for name, operands in _INSTRUCTION.findall(body):
        # From gfx11 on one line may hold two vector operations.
        for vector in (name, *_DUAL_HALF.findall(operands)):
            counts["vector_arithmetic"] += vector.startswith("v_") and not _MOVE.match(vector)
        for kind, pattern in _MEMORY.items():
            counts[kind] += pattern.match(name) is not None
    return counts
