"""Host cost of a warm istft_resident on launches that do nothing, on top of an empty binding call."""

import os
import sys

import harness
import kevra

FRAMES, N_FFT, HOP = 8, 512, 128
BINS = N_FFT // 2 + 1


def main() -> int:
    os.environ["KEVRA_CPU_NULL"] = "1"
    chosen = harness.options(__doc__, {"deterministic": {"action": "store_true", "help": "frames in their order"}},
                             rounds=500)
    harness.cpu_device_only(chosen, "Launches that do nothing are the CPU device's")
    kevra.set_deterministic(chosen.deterministic)
    hip = harness.Hip()
    arguments = (hip.malloc(8 * FRAMES * BINS), hip.malloc(4 * FRAMES * N_FFT), 1, BINS, FRAMES, FRAMES * BINS, 1, BINS,
                 N_FFT, HOP, True, -1, "hann", 1, 0, 0)
    # Two launches, a fill unless deterministic, and a block of scratch memory.
    return harness.report_host_cost(chosen, "istft_resident", arguments, 1.0)


if __name__ == "__main__":
    sys.exit(main())
