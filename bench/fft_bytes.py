"""Device bytes that the complex FFT moves a row: the row once in and once out, and in double the twiddle table.

Check mode counts every access of the kernel. A double kernel reads one root of the table for every twiddled value;
over the launch it must not touch more than the table holds. How many values are twiddled follows from the radices,
which only the shared-memory kernel has from the size alone: double is measured on that one.
"""

import json
import os
import sys
import tempfile
from pathlib import Path

import harness
import kevra
import numpy as np

SIZES = [4, 45, 64, 100, 720, 1000, 1024, 2310, 4096]
TYPES = {"half": (0, 16, np.float16), "float": (1, 32, np.float32), "double": (2, 64, np.float64)}
SEGMENT = 64  # bytes, the unit in which touched memory is counted


def main() -> int:
    os.environ["KEVRA_CPU_CHECK"] = "1"
    with tempfile.TemporaryDirectory(prefix="kevra-bench-") as folder:
        profile = Path(folder) / "profile"
        os.environ["KEVRA_CPU_PROFILE"] = str(profile)
        chosen = harness.options(__doc__)
        harness.cpu_device_only(chosen, "Only the CPU device counts bytes")
        hip = harness.Hip()
        surplus = {f"{name} {what}": 0 for name in TYPES for what in ("read", "written")}
        beyond = 0
        cases = [(name, n, inverse) for name in TYPES for n in SIZES for inverse in (False, True)]
        with harness.cache_folder():
            for name, n, inverse in harness.progress(cases, "transforms"):
                rows = 840 if n < 768 else 8  # a multiple of every block's rows: none is worked on twice
                moved = measure(hip, profile, name, n, inverse, rows)
                row = 2 * n * np.dtype(TYPES[name][2]).itemsize
                roots = twiddled_values(n) * 16 if name == "double" else 0
                surplus[f"{name} read"] += abs(moved["bytes_read"] - rows * (row + roots))
                surplus[f"{name} written"] += abs(moved["bytes_written"] - rows * row)
                most = 2 * in_segments(rows * row) + (in_segments(16 * n) if name == "double" else 0)
                beyond += max(0, moved["touched_bytes"] - most)
    figures = [harness.Figure(f"{name}, off the row", value, "bytes", 0) for name, value in surplus.items()]
    figures.append(harness.Figure("touched beyond rows and table", beyond, "bytes", 0))
    notes = {"kernels": "half and float each size's own, double the shared-memory kernel by hint"}
    measured = f"n = {', '.join(map(str, SIZES))}, forward and inverse, in check mode"
    return harness.report(chosen, measured, figures, notes)


def measure(hip: harness.Hip, profile: Path, name: str, n: int, inverse: bool, rows: int) -> dict:
    precision, bits, dtype = TYPES[name]
    x = np.random.default_rng(1).standard_normal((rows, 2 * n)).astype(dtype)
    dx, out = hip.upload(x), hip.malloc(x.nbytes)
    arguments = (dx, out, rows, n, inverse, precision, 0, 0)
    if name == "double":
        kevra.set_shape_hint("fft", n, 0, inverse, bits, "complex", 0, 0, 0, 0, 0, 1)
    kevra.fft_resident(*arguments)
    hip.synchronize()
    hip.free(dx, out)
    return json.loads(profile.read_text().splitlines()[-1])


def in_segments(size: int) -> int:
    return -(-size // SEGMENT) * SEGMENT


def twiddled_values(n: int) -> int:
    """Values of a row that meet a root of the table: all but a butterfly's first, in every stage but the first."""
    return sum(n - n // radix for radix in kevra.route_explain("fft", n, 2)["schedule"][1:])


if __name__ == "__main__":
    sys.exit(main())
