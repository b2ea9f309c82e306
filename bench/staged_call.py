"""A warm rms_staged of 1 x 16384 samples, beyond what its kernel takes on the device.

The kernel is timed on input that was copied up just before, as in the staged call: on a processor the same kernel is
10 us faster on input that its caches already hold. With KEVRA_CPU_NULL=1 the figure is what the host does alone.
"""

import ctypes
import statistics
import sys
import time

import harness
import kevra
import numpy as np

SAMPLES, FRAME, HOP = 16384, 2048, 512
FRAMES = SAMPLES // HOP + 1


def main() -> int:
    chosen = harness.options(__doc__, calls=2000)
    hip = harness.Hip()
    y = np.random.default_rng(1).standard_normal((1, SAMPLES)).astype(np.float32)
    x, out = hip.malloc(y.nbytes), hip.malloc(4 * FRAMES)
    upload = (ctypes.c_void_p(x), ctypes.c_void_p(y.ctypes.data), ctypes.c_size_t(y.nbytes))
    start, stop = hip.event(), hip.event()
    staged, kernel = [], []
    with harness.cache_folder():
        for _ in harness.progress(range(chosen.calls + 100), "calls"):
            started = time.perf_counter()
            kevra.rms_staged(y, FRAME, HOP, True)
            staged.append((time.perf_counter() - started) * 1e6)

            hip.call("hipMemcpyHtoD", *upload)
            hip.record(start)
            kevra.rms_resident(x, out, 1, SAMPLES, FRAMES, FRAME, HOP, True, 1, 0, 0)
            hip.record(stop)
            hip.synchronize()
            kernel.append(hip.microseconds(start, stop))
    del staged[:100], kernel[:100]  # first calls compile, allocate and wake threads
    notes = {
        "staged call": f"{statistics.median(staged):.1f} us median, {min(staged):.1f} us least",
        "kernel": f"{statistics.median(kernel):.1f} us median, {min(kernel):.1f} us least",
    }
    measured = f"{chosen.calls} staged calls, each followed by an upload and the same kernel between two events"
    beyond = statistics.median(staged) - statistics.median(kernel)
    return harness.report(chosen, measured, [harness.Figure("beyond the kernel", beyond, "us", 25.0)], notes)


if __name__ == "__main__":
    sys.exit(main())
