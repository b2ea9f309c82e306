"""Error of features and of operations on samples over random settings, and what repeated calls take from HIP.

Float is held against float64, double against extended precision. Every call is made twice, on pools that are empty
before: the second one has to find all its memory in them.
"""

import math
import multiprocessing
import os
import sys
from concurrent.futures import ProcessPoolExecutor

import harness
from accuracy import features, time_domain, transforms, trials

OPERATIONS = {
    "cepstra": features.cepstra,
    "inverse_mel": features.inverse_mel,
    "spectral": features.statistics,
    "contrast": features.contrast,
    "wide_contrast": features.wide_contrast,
    "griffinlim": features.griffin_lim,
    "onset": time_domain.onset,
    "convolution": time_domain.convolution,
    "lfilter": time_domain.linear_filter,
}
L2_BARS = {"float": 1e-5, "double": 1e-12}
BARS = {
    # Of the peak: what a recursion rounds grows with the filter's gain.
    "linear filter": {"float": 1e-5, "double": 1e-11},
    # The phases of faint bins have few right digits, and the magnitudes given for them may be large.
    "Griffin-Lim": {"float": 1e-4, "double": 1e-12},
    "histogram contrast": {"float": 1, "double": 1},
}
FAILURES_SHOWN = 10


def main() -> int:
    chosen = harness.options(
        __doc__, {"operations": {"choices": OPERATIONS, "nargs": "+", "default": [*OPERATIONS]}},
        settings=100, seed=1, processes=os.cpu_count(),
    )  # fmt: skip
    with harness.cache_folder():
        found = measure_all(chosen)
    notes: dict[str, str] = {}
    figures = []
    for figure in dict.fromkeys(o.figure for o in found):
        for precision in L2_BARS:
            figures += worst(figure, precision, found, notes)
    failed = [o for o in found if o.failure]
    for o in failed[:FAILURES_SHOWN]:
        notes[f"failed, {o}"] = o.failure
    missed = [o for o in found if o.misses]
    for o in missed[:FAILURES_SHOWN]:
        notes[f"missed the pool, {o}"] = f"{o.misses} blocks"
    figures.append(harness.Figure("pool misses of second calls", sum(o.misses for o in missed), "", 0))
    figures.append(harness.Figure("calls that failed", len(failed), "", 0))
    told = f"{chosen.settings} settings of each operation (seed {chosen.seed}), {len(found)} calls"
    return harness.report(chosen, told, figures, notes)


def measure_all(chosen) -> list[trials.Outcome]:
    """Processes share the kernels: a setting compiles some of its own."""
    os.environ.setdefault("KEVRA_CPU_THREADS", "1")
    spawn = multiprocessing.get_context("spawn")
    with ProcessPoolExecutor(
        chosen.processes, mp_context=spawn, initializer=transforms.start_process, initargs=(chosen.gpu,)
    ) as pool:
        waiting = [
            pool.submit(trials.outcomes, OPERATIONS[name], number, chosen.seed)
            for name in chosen.operations
            for number in range(chosen.settings)
        ]
        return [o for answer in harness.progress(waiting, "settings") for o in answer.result()]


def worst(figure: str, precision: str, found: list[trials.Outcome], notes: dict) -> list[harness.Figure]:
    """The largest error of a figure over all its routes and where it is; nothing where no call has one."""
    own = [o for o in found if (o.figure, o.precision) == (figure, precision) and not o.failure]
    if not own:
        return []
    most = max(own, key=lambda o: (math.isnan(o.error), o.error))
    name = f"{figure}, {precision}"
    routes = {route: sum(o.route == route for o in own) for route in dict.fromkeys(o.route for o in own)}
    counts = ", ".join(f"{count} {route}" for route, count in routes.items())
    notes[f"{name}: calls, worst at"] = f"{counts}; {most.route}, {most.setting}"
    bars = next((bars for start, bars in BARS.items() if figure.startswith(start)), L2_BARS)
    return [harness.Figure(name, most.error, "", bars[precision])]


if __name__ == "__main__":
    sys.exit(main())
