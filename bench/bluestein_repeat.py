"""Host cost of a warm transform by convolution with a chirp, launches doing nothing, and of building its tables once.

A length with a large prime factor. In shared memory such a call is one launch; through device memory it is an
intermediate from the pool and five launches or more. The figures have no bars.
"""

import os
import sys
import time

import harness
import kevra

HALF, FLOAT, DOUBLE = 0, 1, 2
ROWS = 4
CALLS = {"in shared memory, n = 1009": (1009, FLOAT), "through device memory, n = 1009": (1009, HALF)}
BUILDS = (2039, 10007, 100003, 1000003)


def main() -> int:
    os.environ["KEVRA_CPU_NULL"] = "1"
    chosen = harness.options(__doc__.splitlines()[0], rounds=200)
    harness.cpu_device_only(chosen, "Launches that do nothing are the CPU device's")
    hip = harness.Hip()
    block = hip.malloc(16 * ROWS * max(BUILDS))
    notes = {}
    with harness.cache_folder():
        for name, (n, prec) in CALLS.items():
            cost, _ = harness.host_cost(chosen.rounds, "fft_resident", (block, block, ROWS, n, False, prec, 0, 0))
            notes[f"repeat {name}"] = f"{cost:.3f} us median on top of an empty call"
        for n in harness.progress(BUILDS, "tables"):
            for prec, name in (HALF, "float"), (DOUBLE, "double"):
                notes[f"tables of n = {n}, {name}"] = f"{milliseconds_of_tables(block, n, prec):.3f} ms, once"
    measured = f"{chosen.rounds} rounds of {harness.CALLS} calls each; tables: an inverse right after a forward transform"
    return harness.report(chosen, measured, [], notes)


def milliseconds_of_tables(block: int, n: int, prec: int) -> float:
    """What the first inverse call takes on top of the second, after a forward one has compiled the kernels: through
    device memory both directions run the same."""
    arguments = (block, block, 1, n)

    def seconds(inverse: bool) -> float:
        started = time.perf_counter()
        kevra.fft_resident(*arguments, inverse, prec, 0, 0)
        return time.perf_counter() - started

    seconds(False)
    return (seconds(True) - seconds(True)) * 1e3


if __name__ == "__main__":
    sys.exit(main())
