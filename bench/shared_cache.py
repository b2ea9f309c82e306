"""Processes that start together on one empty cache folder: none fails, and one code object a kernel remains."""

import statistics
import sys

import harness


def main() -> int:
    chosen = harness.options(__doc__, processes=8, rounds=20)
    failures, surplus, left_over, calls = [], 0, 0, []
    for _ in harness.progress(range(chosen.rounds), "rounds"):
        with harness.cache_folder() as folder:
            answers = harness.run_children("child_first_call.py", chosen.processes)
            calls += [answer["call"] for answer in answers if "call" in answer]
            failures += [answer["error"] for answer in answers if "error" in answer]
            files = [file.name for file in folder.iterdir()]
            objects = [name for name in files if name.endswith(".hsaco")]
            left_over += len(files) - len(objects)
            surplus += abs(len(objects) - 1)
    for failure in failures[:3]:
        print(failure, file=sys.stderr)
    notes = {"first calls": f"{statistics.median(calls):.2f} s median"} if calls else {}
    measured = f"{chosen.rounds} rounds of {chosen.processes} processes, each round on an empty folder, one kernel"
    figures = [
        harness.Figure("failed processes", len(failures), "", 0),
        harness.Figure("files left over", left_over, "", 0),
        harness.Figure("objects missing or surplus", surplus, "", 0),
    ]
    return harness.report(chosen, measured, figures, notes)


if __name__ == "__main__":
    sys.exit(main())
