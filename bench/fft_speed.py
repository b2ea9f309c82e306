"""Speed of the FFT on the CPU device against scipy.fft, one thread each, float: complex and real rows.

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

FLOAT = 1
CASES = {"complex": (4096, 1024), "real": (2048, 2048)}  # rows, length


def main() -> int:
    os.environ["KEVRA_CPU_THREADS"] = "1"
    chosen = harness.options(__doc__.splitlines()[0], rounds=25)
    harness.cpu_device_only(chosen, "One thread of a processor is no measure for a GPU")
    figures, notes = [], {}
    with harness.cache_folder():
        for name, (rows, n) in CASES.items():
            kernel, peer = measure(name == "real", rows, n, chosen.rounds)
            what = f"{name}, {rows} rows of {n}"
            operations = rows * n * math.log2(n) * (2.5 if name == "real" else 5)  # the customary count
            for who, seconds in ("kevra", kernel), ("scipy", peer):
                rate = operations / seconds * 1e-9
                notes[f"{what}, {who}"] = f"{rate:.2f} GFLOP/s, {seconds / rows * 1e6:.1f} us a row"
            figures.append(harness.Figure(f"{what}, of scipy's speed", peer / kernel, "", 0.20, at_least=True))
    measured = f"{chosen.rounds} rounds, alternating, least processor time of each"
    return harness.report(chosen, measured, figures, notes)


def measure(real: bool, rows: int, n: int, rounds: int) -> tuple[float, float]:
    """Least processor time of a call, kevra's and scipy's."""
    x = np.random.default_rng(1).standard_normal((rows, n if real else 2 * n), np.float32)
    if not real:
        x = x.view(np.complex64)
    hip = harness.Hip()
    dx, out = hip.upload(x), hip.malloc(8 * rows * n)

    def resident():
        if real:
            kevra.rfft_resident(dx, out, rows, n, FLOAT, 0, 0)
        else:
            kevra.fft_resident(dx, out, rows, n, False, FLOAT, 0, 0)
        hip.synchronize()

    peer = scipy.fft.rfft if real else scipy.fft.fft
    kernel_seconds, peer_seconds = [], []
    resident()
    for _ in harness.progress(range(rounds), "rounds"):
        kernel_seconds.append(seconds_of(resident))
        peer_seconds.append(seconds_of(lambda: peer(x, workers=1)))
    hip.free(dx, out)
    return min(kernel_seconds), min(peer_seconds)


def seconds_of(function) -> float:
    started = time.process_time()
    function()
    return time.process_time() - started


if __name__ == "__main__":
    sys.exit(main())
