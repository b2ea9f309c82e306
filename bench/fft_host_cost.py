"""Host cost of a warm transform on launches that do nothing, on top of an empty binding call: a length of every route.

Lengths by convolution with a chirp stand in bluestein_repeat.
"""

import os
import sys

import harness

HALF, FLOAT, DOUBLE, PACKED = range(4)
ROWS = 4
BAR = 0.8  # microseconds
# Route, length and precision; the inverse where it has a kernel of another kind.
COMPLEX = [
    ("shared memory", 1024, FLOAT),
    ("two passes", 64, FLOAT),
    ("three passes", 343, DOUBLE),
    ("registers", 512, FLOAT),
    ("packed pairs", 1024, PACKED),
    ("a prime stage", 34, DOUBLE),
    ("four-step", 32768, FLOAT),
]
REAL = [
    ("tiny", "rfft", 3, FLOAT),
    ("registers", "rfft", 1024, FLOAT),
    ("shared memory", "irfft", 1024, FLOAT),
    ("odd, registers", "rfft", 45, DOUBLE),
    ("a prime stage", "irfft", 51, FLOAT),
    ("four-step", "rfft", 65536, FLOAT),
    ("four-step", "irfft", 65536, FLOAT),
]


def main() -> int:
    os.environ["KEVRA_CPU_NULL"] = "1"
    chosen = harness.options(__doc__.splitlines()[0], rounds=200)
    harness.cpu_device_only(chosen, "Launches that do nothing are the CPU device's")
    hip = harness.Hip()
    x, out = hip.malloc(16 * ROWS * 65536), hip.malloc(16 * ROWS * 65536)
    calls = [(f"fft, {route}, n = {n}", "fft", n, (False, prec, 0, 0)) for route, n, prec in COMPLEX]
    calls += [(f"{name}, {route}, n = {n}", name, n, (prec, 0, 0)) for route, name, n, prec in REAL]
    figures, notes = [], {}
    with harness.cache_folder():
        for name, function, n, others in calls:
            cost, told = harness.host_cost(chosen.rounds, f"{function}_resident", (x, out, ROWS, n, *others))
            notes[f"{name}: empty call"] = told["empty call"]
            figures.append(harness.Figure(name, cost, "us", BAR))
    measured = f"{chosen.rounds} rounds of {harness.CALLS} calls each, alternating, same arguments"
    return harness.report(chosen, measured, figures, notes)


if __name__ == "__main__":
    sys.exit(main())
