"""Gradients: dot products of linear operations, central differences of the others, repeats, silence and memory.

Linear operations on random settings in both precisions; all else on small shapes in double. The repeats run in another
order of blocks and threads each, in a process of their own.
"""

import math
import multiprocessing
import os
import sys
from concurrent.futures import ProcessPoolExecutor
from dataclasses import dataclass, field

import harness
from accuracy.transforms import start_process
from adjoints import linear, memory, nonlinear, repeats, silence

DOT_BARS = {"float": 1e-6, "double": 1e-13}
DIFFERENCE_BAR = 1e-6
GROWTH_BAR = 1.05  # of what is held when the hop is halved and spectra double


@dataclass
class Error:
    setting: str
    errors: dict[str, float] = field(default_factory=dict)


def main() -> int:
    more = {"orders": {"type": harness.positive, "default": 20, "metavar": "N", "help": "of blocks; default: 20"}}
    chosen = harness.options(__doc__, more, settings=100, points=10, seed=1, processes=os.cpu_count())
    notes: dict[str, str] = {}
    with harness.cache_folder():
        figures = dot_products(chosen, notes) + central_differences(chosen, notes)
        if not chosen.gpu:  # which knows no order of blocks
            figures += repetitions(chosen, notes)
        figures += at_nothing(notes) + held_memory(notes)
    told = (f"{chosen.settings} settings of each linear operation, {chosen.points} points of each other one "
            f"(seed {chosen.seed})")
    return harness.report(chosen, told, figures, notes)


def workers(chosen):
    """Nearly all of the time goes into compiling kernels, so processes share them and a cache."""
    os.environ.setdefault("KEVRA_CPU_THREADS", "1")
    spawn = multiprocessing.get_context("spawn")
    return ProcessPoolExecutor(chosen.processes, mp_context=spawn, initializer=start_process, initargs=(chosen.gpu,))


def dot_products(chosen, notes) -> list[harness.Figure]:
    names = list(linear.OPERATIONS)
    errors = {(name, precision): [] for name in names for precision in DOT_BARS}
    with workers(chosen) as pool:
        waiting = [(name, pool.submit(linear.measure, name, number, chosen.seed))
                   for number in range(chosen.settings) for name in names]
        for name, answer in harness.progress(waiting, "dot products"):
            for precision, (error, setting) in answer.result().items():
                errors[name, precision].append(Error(setting, {"error": error}))
    figures = []
    for (name, precision), measured in errors.items():
        figures += harness.worst(f"<Ax, y>, {name}, {precision}", measured, "error", "", DOT_BARS[precision], notes)
    return figures


def central_differences(chosen, notes) -> list[harness.Figure]:
    figures = []
    with workers(chosen) as pool:
        waiting = {name: [pool.submit(nonlinear.error, name, number, chosen.seed) for number in range(chosen.points)]
                   for name in nonlinear.OPERATIONS}
        for name, answers in harness.progress(waiting.items(), "differences"):
            errors = []
            for answer in answers:
                failure = answer.exception()
                if failure:  # the others go on, and the figure is missed
                    notes[f"failed, {name}"] = f"{type(failure).__name__}: {failure}"
                errors.append(math.nan if failure else answer.result())
            worst = max(errors, key=lambda error: (math.isnan(error), error))
            figures.append(harness.Figure(f"differences, {name}", worst, "", DIFFERENCE_BAR))
    return figures


def repetitions(chosen, notes) -> list[harness.Figure]:
    differing, unordered = repeats.differing(chosen.orders, chosen.processes)
    for name in differing:
        notes[f"differs between runs, {name}"] = "in deterministic mode"
    notes["differ without that mode"] = f"{len(unordered)}: {'; '.join(unordered) or 'none'}"
    return [harness.Figure(f"gradients that differ in {chosen.orders} orders", len(differing), "", 0)]


def at_nothing(notes) -> list[harness.Figure]:
    infinite, not_zero = silence.measure()
    for what, names in ("not finite", infinite), ("not 0", not_zero):
        for name in names:
            notes[f"{what}, {name}"] = "at fault"
    return [harness.Figure("gradients of silence and zero bins not finite", len(infinite), "", 0),
            harness.Figure("gradients of silence not 0", len(not_zero), "", 0)]


def held_memory(notes) -> list[harness.Figure]:
    table = memory.table()
    notes["held, of what a forward pass would store"] = (
        f"at a hop of a quarter, then an eighth; {memory.BATCH} x {memory.RATE} floats, frames of {memory.N_FFT} where "
        "nothing else is said")
    for row in table:
        notes[f"held, {row.name}"] = row.told
    return [harness.Figure(f"growth with the overlap, {row.name}", row.growth, "", GROWTH_BAR)
            for row in table if row.name in memory.FUSED]


if __name__ == "__main__":
    sys.exit(main())
