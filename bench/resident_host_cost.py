"""Host cost of a warm rms_resident on a launch that does nothing, on top of an empty binding call."""

import os
import sys

import harness


def main() -> int:
    os.environ["KEVRA_CPU_NULL"] = "1"
    chosen = harness.options(__doc__, rounds=500)
    harness.cpu_device_only(chosen, "Launches that do nothing are the CPU device's")
    hip = harness.Hip()
    arguments = (hip.malloc(4 * 16384), hip.malloc(4 * 33), 1, 16384, 33, 2048, 512, True, 1, 0, 0)
    return harness.report_host_cost(chosen, "rms_resident", arguments, 1.0)


if __name__ == "__main__":
    sys.exit(main())
