"""Host cost of a warm rms_resident on a launch that does nothing, on top of an empty binding call."""

import os
import statistics
import sys
import time
from itertools import repeat
from pathlib import Path

import harness
import kevra

CALLS = 200  # per timing, so that reading the clock does not count


def main() -> int:
    os.environ["KEVRA_CPU_NULL"] = "1"
    chosen = harness.options(__doc__, rounds=500)
    if chosen.gpu:
        raise SystemExit("Launches that do nothing are the CPU device's; leave out --gpu.")
    sys.path.insert(0, str(Path(kevra._rocm.__file__).parents[2] / "bench"))
    import _empty_binding

    hip = harness.Hip()
    with harness.cache_folder():
        arguments = (hip.malloc(4 * 16384), hip.malloc(4 * 33), 1, 16384, 33, 2048, 512, True, 1, 0, 0)
        resident, empty = [], []
        seconds(kevra.rms_resident, arguments)  # compiles, fills the memos
        for _ in harness.progress(range(chosen.rounds), "rounds"):
            empty.append(seconds(_empty_binding.rms_resident, arguments))
            resident.append(seconds(kevra.rms_resident, arguments))
            hip.synchronize()
    differences = [(r - e) / CALLS * 1e6 for r, e in zip(resident, empty)]
    notes = {
        "empty call": f"{statistics.median(empty) / CALLS * 1e6:.3f} us median",
        "rms_resident": f"{statistics.median(resident) / CALLS * 1e6:.3f} us median",
        "least": f"{min(differences):.3f} us on top",
    }
    measured = f"{chosen.rounds} rounds of {CALLS} calls each, alternating, same arguments"
    figure = harness.Figure("host cost", statistics.median(differences), "us", 1.0)
    return harness.report(chosen, measured, [figure], notes)


def seconds(function, arguments) -> float:
    started = time.perf_counter()
    for _ in repeat(None, CALLS):
        function(*arguments)
    return time.perf_counter() - started


if __name__ == "__main__":
    sys.exit(main())
