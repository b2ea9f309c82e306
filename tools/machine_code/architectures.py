"""How many waves of a kernel a GPU keeps at once, from the limits of its architecture.

Sources: the vendor's instruction-set guides and the compiler's AMDGPU target description (register files, granules,
waves). gfx9 counts a compute unit; from gfx10 on, the compiler's default lets a block use both compute units of a
work-group processor, so that is the unit. The number of barriers of a unit never binds before its waves do.
"""

from dataclasses import dataclass

BLOCK_SHARED_BYTES = 64 << 10  # the most that one block may have, on all of these
SHARED_GRANULE = 512  # bytes; shared memory is handed out in 128 words
SIMDS = 4  # of a compute unit with 64-wide waves, of a work-group processor with 32-wide ones


@dataclass(frozen=True)
class Architecture:
    name: str
    wave: int  # threads
    waves: int  # a SIMD keeps at most
    vgprs: int  # of a SIMD, counted per lane
    vgpr_granule: int
    sgprs: int  # of a SIMD; 0 where every wave has the full set to itself
    shared_bytes: int  # of a unit


ARCHITECTURES = {
    a.name: a
    for a in (
        # Vector and matrix registers share one file of 512.
        Architecture("gfx90a", 64, 8, 512, 8, 800, 64 << 10),
        Architecture("gfx942", 64, 8, 512, 8, 800, 64 << 10),
        # 1024 registers at 32 lanes; the granule doubled with gfx10.3.
        Architecture("gfx1030", 32, 16, 1024, 16, 0, 128 << 10),
        # Half as many registers again on the large chips of gfx11 and on gfx12.
        Architecture("gfx1100", 32, 16, 1536, 24, 0, 128 << 10),
        Architecture("gfx1201", 32, 16, 1536, 24, 0, 128 << 10),
    )
}
SGPR_GRANULE = 16


@dataclass(frozen=True)
class Occupancy:
    waves: float  # a SIMD has, of `most`
    most: int
    bound: str  # what runs out first


def _rounded(value: int, granule: int) -> int:
    return -(-max(value, 1) // granule) * granule


def waves_by_registers(arch: Architecture, vgprs: int, sgprs: int) -> int:
    """Waves that a SIMD's registers are enough for."""
    waves = min(arch.waves, arch.vgprs // _rounded(vgprs, arch.vgpr_granule))
    return min(waves, arch.sgprs // _rounded(sgprs, SGPR_GRANULE)) if arch.sgprs else waves


def occupancy(arch: Architecture, vgprs: int, sgprs: int, shared_bytes: int, block: int) -> Occupancy:
    """Whole blocks fill a unit until waves, registers or shared memory run out. 0 waves: not even one fits."""
    block_waves = -(-block // arch.wave)
    blocks = {
        "waves": arch.waves * SIMDS // block_waves,
        "registers": waves_by_registers(arch, vgprs, sgprs) * SIMDS // block_waves,
    }
    if shared_bytes > 0:
        fits = shared_bytes <= BLOCK_SHARED_BYTES
        blocks["shared"] = arch.shared_bytes // _rounded(shared_bytes, SHARED_GRANULE) if fits else 0
    bound = min(blocks, key=blocks.get)  # of equals the first: full is full
    return Occupancy(blocks[bound] * block_waves / SIMDS, arch.waves, bound)
