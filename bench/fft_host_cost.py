"""Host cost of a warm fft_resident on a launch that does nothing, on top of an empty binding call."""

import os
import sys

import harness

ROWS, N = 4, 1024


def main() -> int:
    os.environ["KEVRA_CPU_NULL"] = "1"
    chosen = harness.options(__doc__, rounds=500)
    harness.cpu_device_only(chosen, "Launches that do nothing are the CPU device's")
    hip = harness.Hip()
    arguments = (hip.malloc(8 * ROWS * N), hip.malloc(8 * ROWS * N), ROWS, N, False, 1, 0, 0)
    return harness.report_host_cost(chosen, "fft_resident", arguments, 0.6)


if __name__ == "__main__":
    sys.exit(main())
