"""Temporary device memory of the transforms that take an intermediate, in units of that intermediate."""

import multiprocessing
import os
import sys

import harness
import kevra
from kevra import _diagnostics

HALF, FLOAT, DOUBLE = 0, 1, 2
ROWS = 8
COMPLEX_BYTES = {HALF: 8, FLOAT: 8, DOUBLE: 16}  # of the arithmetic: half rows are computed in float
PRECISIONS = {HALF: "half", FLOAT: "float", DOUBLE: "double"}
CASES = {
    "four-step": [
        ("fft", 16384, DOUBLE),
        ("fft", 65536, FLOAT),
        ("fft", 65536, HALF),
        ("rfft", 65536, FLOAT),
        ("rfft", 65536, DOUBLE),
        ("irfft", 65536, FLOAT),
        ("irfft", 65536, DOUBLE),
    ],
    "chirp": [
        ("fft", 2039, DOUBLE),
        ("fft", 4093, FLOAT),
        ("fft", 2039, HALF),
        ("rfft", 4093, FLOAT),
        ("rfft", 2039, DOUBLE),
        ("irfft", 4093, FLOAT),
        ("irfft", 2039, DOUBLE),
    ],
    # A padded row too long for a block is transformed in four steps, both in place.
    "chirp in four steps": [("fft", 32749, FLOAT), ("rfft", 32749, DOUBLE)],
}


def main() -> int:
    os.environ["KEVRA_CPU_NULL"] = "1"
    chosen = harness.options(__doc__)
    harness.cpu_device_only(chosen, "Launches that do nothing are the CPU device's")
    figures = []
    spawn = multiprocessing.get_context("spawn")
    with harness.cache_folder(), spawn.Pool(1, maxtasksperchild=1) as pool:
        cases = [(route, *case) for route, group in CASES.items() for case in group]
        for route, function, n, prec in harness.progress(cases, "cases"):
            taken = pool.apply(temporary_bytes, (function, n, prec)) / (COMPLEX_BYTES[prec] * intermediate(function, n))
            name = f"{route}, {function} of {n} {PRECISIONS[prec]}"
            figures.append(harness.Figure(name, taken, "intermediates", 1))
    measured = f"{ROWS} rows, what the device pool holds after a call over what it held before, tables left out"
    return harness.report(chosen, measured, figures)


def intermediate(function: str, n: int) -> int:
    """Complex values: padded rows of a chirp's convolution, else the rows, real ones packed into half as many."""
    route = kevra.route_explain(function.removeprefix("i"), n, FLOAT)
    return ROWS * (route["bluestein_m"] or route["frame_len"])


def temporary_bytes(function: str, n: int, prec: int) -> int:
    """In a process of its own: a call takes tables, which stay in use, and temporaries, which the pool keeps."""
    kevra.use_cpu_device()
    hip = harness.Hip()
    size = 2 * ROWS * n * COMPLEX_BYTES[prec]
    x, out = hip.malloc(size), hip.malloc(size)
    before = pool_bytes()
    direction = (False,) if function == "fft" else ()
    getattr(kevra, f"{function}_resident")(x, out, ROWS, n, *direction, prec, 0, 0)
    hip.synchronize()
    return pool_bytes() - before


def pool_bytes() -> int:
    return _diagnostics.read()["pools"]["device"]["cached_bytes"]


if __name__ == "__main__":
    sys.exit(main())
