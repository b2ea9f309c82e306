"""Error of the complex and the real FFT, forward and inverse, over lengths of every route.

Each length is transformed in double, float and half storage. Double is held against a transform in extended
precision, the others against one in double. What ran is read from the debug output, and each route has its bar.
"""

import math
import multiprocessing
import os
import sys
from concurrent.futures import ProcessPoolExecutor

import harness
from accuracy import plot, sizes
from accuracy.transforms import CHIRP, FOUR_STEP, PRIME, ROUTES, ROWS, SMOOTH, STORAGE, Error, measure, start_process

EPS = {"double": 2.0**-52, "float": 2.0**-23, "half": 2.0**-23}  # of the arithmetic
# Times eps sqrt(log2 n). A prime is a convolution, which rounds more often; a chirp is a longer one.
DOUBLE_BARS = {SMOOTH: 1.0, PRIME: 1.5, CHIRP: 2.0, FOUR_STEP: 2.0}
FLOAT_BARS = {SMOOTH: 2.5, PRIME: 3.0, CHIRP: 4.0, FOUR_STEP: 4.0}
L2_BARS = {"double": DOUBLE_BARS, "float": FLOAT_BARS, "half": FLOAT_BARS}
ELEMENT_BARS = {SMOOTH: 4.0, PRIME: 4.0, CHIRP: 6.0, FOUR_STEP: 4.0}  # times eps ln n, of the result's rms
FAILURES_SHOWN = 10


def main() -> int:
    more = {
        "sizes": {"default": "sweep", "help": "sweep (the default), thin (some of it), smooth (primes to 13, to 4096), or 127,1000"},
        "kinds": {"choices": ["complex", "real"], "nargs": "+", "default": ["complex", "real"]},
        "plot": {"metavar": "FILE", "help": "draw n against the error, .svg or .png"},
    }
    chosen = harness.options(__doc__, more, randoms=300, seed=1, processes=os.cpu_count())
    lengths = lengths_of(chosen)
    errors = measure_all(chosen, lengths)
    if chosen.plot:
        plot.draw(chosen.plot, errors, l2_bar)
    figures, notes = [], {}
    for precision in STORAGE:
        for kind in chosen.kinds:
            own = [e for e in errors if e.transform.precision == precision and e.transform.real == (kind == "real")]
            figures += figures_of(f"{precision} {kind}", own, notes)
    failed = [e for e in errors if e.failure]
    for e in failed[:FAILURES_SHOWN]:
        notes[f"n = {e.n} failed, {e.transform}"] = e.failure
    figures.append(harness.Figure("transforms that failed", len(failed), "", 0))
    measured = f"{len(lengths)} lengths from {lengths[0]} to {lengths[-1]} ({chosen.sizes}, seed {chosen.seed}), "
    measured += f"{len(errors)} transforms of {ROWS} rows of normal noise"
    return harness.report(chosen, measured, figures, notes)


def lengths_of(chosen) -> list[int]:
    if chosen.sizes == "sweep":
        return sizes.sweep(chosen.seed, chosen.randoms)
    if chosen.sizes == "smooth":
        return sizes.smooth(4096)
    if chosen.sizes == "thin":
        return sizes.THIN
    return sorted({harness.positive(part) for part in chosen.sizes.split(",")})


def measure_all(chosen, lengths: list[int]) -> list[Error]:
    """Nearly all of the time goes into compiling a dozen kernels a length, so processes share lengths and a cache."""
    os.environ.setdefault("KEVRA_CPU_THREADS", "1")
    spawn = multiprocessing.get_context("spawn")
    with harness.cache_folder(), ProcessPoolExecutor(
        chosen.processes, mp_context=spawn, initializer=start_process, initargs=(chosen.gpu,)
    ) as pool:
        waiting = [pool.submit(measure, n, chosen.kinds, chosen.seed) for n in reversed(lengths)]
        return [e for answer in harness.progress(waiting, "lengths") for e in answer.result()]


def figures_of(name: str, errors: list[Error], notes: dict) -> list[harness.Figure]:
    figures = []
    for route in ROUTES:
        own = [e for e in errors if e.route == route]
        if own:
            bar = L2_BARS[own[0].transform.precision][route]
            notes[f"{name}, {route}: lengths"] = str(len({e.n for e in own}))
            figures.append(worst_figure(f"{name}, {route}", own, l2_in_bars, bar, "eps sqrt(log2 n)", notes))
            element = (element_in_bars, ELEMENT_BARS[route], "eps ln n rms")
            figures.append(worst_figure(f"{name}, {route}, one element", own, *element, notes))
    return figures


def worst_figure(name: str, errors: list[Error], size, bar: float, unit: str, notes: dict) -> harness.Figure:
    worst = max(errors, key=lambda e: (math.isnan(size(e)), size(e)))
    notes[f"{name}: worst at"] = f"n = {worst.n} {'inverse' if worst.transform.inverse else 'forward'}"
    return harness.Figure(name, size(worst), unit, bar)


def l2_in_bars(e: Error) -> float:
    return e.l2 / (EPS[e.transform.precision] * math.sqrt(math.log2(max(e.n, 2))))


def element_in_bars(e: Error) -> float:
    return e.element / (EPS[e.transform.precision] * math.log(max(e.n, 2)))


def l2_bar(precision: str, route: str, n: float) -> float:
    return L2_BARS[precision][route] * EPS[precision] * math.sqrt(math.log2(n))


if __name__ == "__main__":
    sys.exit(main())
