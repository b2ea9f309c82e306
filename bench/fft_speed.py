"""Speed of the complex FFT on the CPU device against scipy.fft.fft, one thread each, float, 4096 rows of 1024.

Both are timed by the processor time of their process, the least of all rounds: load on the machine then counts
little. The device's rows lie in device memory; scipy allocates its result as every caller of it does.
"""

import math
import os
import sys
import time

import harness
import kevra
import numpy as np
import scipy.fft

N, ROWS = 1024, 4096
OPERATIONS = 5 * N * math.log2(N) * ROWS  # the customary count of a complex FFT


def main() -> int:
    os.environ["KEVRA_CPU_THREADS"] = "1"
    chosen = harness.options(__doc__, rounds=25)
    harness.cpu_device_only(chosen, "One thread of a processor is no measure for a GPU")
    random = np.random.default_rng(1)
    x = (random.standard_normal((ROWS, N)) + 1j * random.standard_normal((ROWS, N))).astype(np.complex64)
    hip = harness.Hip()
    dx, out = hip.upload(x), hip.malloc(x.nbytes)

    def resident():
        kevra.fft_resident(dx, out, ROWS, N, False, 1, 0, 0)
        hip.synchronize()

    kernel, scipy_fft = [], []
    with harness.cache_folder():
        _, hinted = harness.on_a_built_route(N, False, 32, resident)
        resident()
        for _ in harness.progress(range(chosen.rounds), "rounds"):
            kernel.append(seconds(resident))
            scipy_fft.append(seconds(lambda: scipy.fft.fft(x, workers=1)))
    notes = {
        "fft_resident": f"{rate(min(kernel)):.2f} GFLOP/s, {min(kernel) / ROWS * 1e6:.1f} us a row",
        "scipy": f"{rate(min(scipy_fft)):.2f} GFLOP/s, {min(scipy_fft) / ROWS * 1e6:.1f} us a row",
        "kernel": "shared-memory, by hint: the size's own kernel is not built yet" if hinted else "the size's own",
    }
    measured = f"{chosen.rounds} rounds, alternating, least processor time of each"
    figure = harness.Figure("of scipy's speed", min(scipy_fft) / min(kernel), "", 0.20, at_least=True)
    return harness.report(chosen, measured, [figure], notes)


def seconds(function) -> float:
    started = time.process_time()
    function()
    return time.process_time() - started


def rate(least: float) -> float:
    return OPERATIONS / least * 1e-9


if __name__ == "__main__":
    sys.exit(main())
