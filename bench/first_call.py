"""The first rms_staged of a process: with the kernel in the disk cache, and with an empty cache."""

import statistics
import sys

import harness


def main() -> int:
    chosen = harness.options(__doc__, warm=20, cold=5)
    warm, cold, start = [], [], []
    for _ in harness.progress(range(chosen.cold), "empty cache"):
        with harness.cache_folder():
            cold.append(first_call()["call"])
    with harness.cache_folder():
        first_call()
        for _ in harness.progress(range(chosen.warm), "warm cache"):
            answer = first_call()
            warm.append(answer["call"])
            start.append(answer["start"])
    notes = {
        "device start": f"{statistics.median(start) * 1e3:.2f} ms median, available() in the same processes",
        "warm, least": f"{min(warm) * 1e3:.2f} ms",
        "cold, least": f"{min(cold):.3f} s",
    }
    measured = f"first call after available(), {chosen.warm} processes on a warm cache, {chosen.cold} on an empty one"
    figures = [
        harness.Figure("warm cache", statistics.median(warm) * 1e3, "ms", 15.0),
        harness.Figure("empty cache", statistics.median(cold), "s", 0.35),
    ]
    return harness.report(chosen, measured, figures, notes)


def first_call() -> dict:
    [answer] = harness.run_children("child_first_call.py", 1)
    if "error" in answer:
        raise SystemExit(f"The process whose first call was to be timed failed: {answer['error']}")
    return answer


if __name__ == "__main__":
    sys.exit(main())
