"""Error of the constant-Q transform over random designs of 1 to 8 levels, on both routes and in every precision.

Held against numpy in double. The fused route takes frames of a power of two that fit a block; a hint sends all through
device memory.
"""

import multiprocessing
import os
import sys
from concurrent.futures import ProcessPoolExecutor

import harness
from accuracy import constant_q
from accuracy.transforms import start_process

L2_BARS = {"float": 1e-6, "double": 1e-13}
BETWEEN_BARS = {"float": 5e-7, "double": 1e-13}
DECIBEL_BARS = {"float": 1e-4, "double": 1e-9}  # weighted by a bin's share of the loudest
HALF_BAR = 1e-3  # of a result's maximum
FAILURES_SHOWN = 10


def main() -> int:
    chosen = harness.options(__doc__, designs=60, seed=1, processes=os.cpu_count())
    drawn = [constant_q.setting(chosen.seed, number) for number in range(chosen.designs)]
    with harness.cache_folder():
        measured = measure_all(chosen, drawn)
    notes: dict[str, str] = {}
    figures = [figure for precision in L2_BARS for figure in figures_of(precision, measured, notes)]
    figures += harness.worst("half storage, over the maximum", measured, "half", "", HALF_BAR, notes)
    failed = [m for m in measured if m.failure]
    for m in failed[:FAILURES_SHOWN]:
        notes[f"failed, {m}"] = m.failure
    figures.append(harness.Figure("calls that failed", len(failed), "", 0))
    told = f"{len(drawn)} designs (seed {chosen.seed}), normal noise"
    return harness.report(chosen, told, figures, notes)


def measure_all(chosen, drawn: list[constant_q.Setting]) -> list[constant_q.Measured]:
    """Nearly all of the time goes into compiling a kernel an octave, so processes share them and a cache."""
    os.environ.setdefault("KEVRA_CPU_THREADS", "1")
    spawn = multiprocessing.get_context("spawn")
    with ProcessPoolExecutor(
        chosen.processes, mp_context=spawn, initializer=start_process, initargs=(chosen.gpu,)
    ) as pool:
        waiting = [pool.submit(constant_q.measure, setting, chosen.seed) for setting in drawn]
        return [m for answer in harness.progress(waiting, "designs") for m in answer.result()]


def figures_of(precision: str, measured: list, notes: dict) -> list[harness.Figure]:
    own = [m for m in measured if m.precision == precision and not m.failure]
    notes[f"{precision}: designs with fused octaves"] = f"{sum(m.fused for m in own)} of {len(own)}"
    bar = L2_BARS[precision]
    figures = harness.worst(f"{precision}, fused where it can be, relative L2", own, constant_q.FUSED, "", bar, notes)
    figures += harness.worst(f"{precision}, two stages, relative L2", own, constant_q.TWO_STAGES, "", bar, notes)
    between = BETWEEN_BARS[precision]
    figures += harness.worst(f"{precision}, one route against the other", own, constant_q.BOTH, "", between, notes)
    for output in "magnitude", "power":
        figures += harness.worst(f"{precision}, {output}, relative L2", own, output, "", bar, notes)
    return figures + harness.worst(
        f"{precision}, decibels, by a bin's share", own, "db", "dB", DECIBEL_BARS[precision], notes)


if __name__ == "__main__":
    sys.exit(main())
