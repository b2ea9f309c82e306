"""Error of STFT, mel and ISTFT over random settings of every core, form, window and precision.

Float and half are held against numpy's transforms in double, double against those in extended precision; decibels in
half against those in float. Which core ran is read from the debug output. Decibels count above -80 dB, where a bin of
power 1 has 0 dB.
"""

import multiprocessing
import os
import sys
from concurrent.futures import ProcessPoolExecutor

import harness
from accuracy import settings, spectra
from accuracy.transforms import start_process

L2_BARS = {"float": 4e-7, "double": 1e-14}
DECIBEL_BARS = {"float": 1e-4, "double": 1e-9}
INTERIOR_BARS = {"float": 2e-6, "double": 1e-13}  # relative to the peak
HALF_BAR = 1.5e-3  # of a row's maximum
ORDERS = 20
FAILURES_SHOWN = 10


def main() -> int:
    chosen = harness.options(__doc__, settings=300, seed=1, processes=os.cpu_count())
    drawn = settings.draw(chosen.seed, chosen.settings)
    spawn = multiprocessing.get_context("spawn")
    with harness.cache_folder():
        measured = measure_all(chosen, drawn, spawn)
        digests = set() if chosen.gpu else deterministic_digests(chosen, spawn)
    notes: dict[str, str] = {}
    figures = [
        figure
        for operation in ("stft", "mel")
        for precision in L2_BARS
        for figure in spectrum_figures(operation, precision, measured, notes)
    ]
    figures += half_figures(measured, notes) + interior_figures(measured, notes)
    if not chosen.gpu:
        figures.append(harness.Figure(f"deterministic istft, results of {ORDERS} thread orders", len(digests), "", 1))
    failed = [m for m in measured if m.failure]
    for m in failed[:FAILURES_SHOWN]:
        notes[f"failed, {m}"] = m.failure
    figures.append(harness.Figure("calls that failed", len(failed), "", 0))
    told = f"{len(drawn)} settings (seed {chosen.seed}), {len(measured)} calls, normal noise"
    return harness.report(chosen, told, figures, notes)


def measure_all(chosen, drawn: list[settings.Setting], spawn) -> list[spectra.Spectrum]:
    """Nearly all of the time goes into compiling some kernels a setting, so processes share them and a cache."""
    os.environ.setdefault("KEVRA_CPU_THREADS", "1")
    with ProcessPoolExecutor(
        chosen.processes, mp_context=spawn, initializer=start_process, initargs=(chosen.gpu,)
    ) as pool:
        waiting = [pool.submit(spectra.measure, setting, chosen.seed) for setting in drawn]
        return [m for answer in harness.progress(waiting, "settings") for m in answer.result()]


def deterministic_digests(chosen, spawn) -> set[str]:
    """A process an order; on all threads, so that blocks are taken at once too."""
    os.environ.pop("KEVRA_CPU_THREADS", None)
    with ProcessPoolExecutor(chosen.processes, mp_context=spawn, max_tasks_per_child=1) as pool:
        waiting = [pool.submit(spectra.deterministic_digest, f"shuffle:{seed}") for seed in range(ORDERS)]
        return {answer.result() for answer in harness.progress(waiting, "thread orders")}


def spectrum_figures(operation: str, precision: str, measured: list, notes: dict) -> list[harness.Figure]:
    own = [m for m in measured if (m.operation, m.precision) == (operation, precision) and not m.failure]
    name = f"{operation} {precision}"
    figures = []
    for core in [*spectra.CORES.values(), spectra.STAGED]:
        alike = [m for m in own if m.core == core]
        notes[f"{name}, {core}: settings"] = str(len(alike))
        figures += harness.worst(f"{name}, {core}, relative L2", alike, "l2", "", L2_BARS[precision], notes)
    bar = DECIBEL_BARS[precision]
    figures += harness.worst(f"{name}, decibels, by a bin's share of its frame", own, "db weighted", "dB", bar, notes)
    plain = harness.worst(f"{name}, decibels, any bin", own, "db", "dB", bar, notes)
    if precision == "double":
        return figures + plain
    # No float transform holds a bin far under its frame to that bar, so that numpy's stands beside it.
    numpys = harness.worst("", own, "db numpy", "dB", bar, {})
    for own_figure, numpys_figure in zip(plain, numpys):
        notes[own_figure.name] = f"{own_figure.value:.3g} dB, numpy's float transform {numpys_figure.value:.3g} dB"
    return figures


def half_figures(measured: list, notes: dict) -> list[harness.Figure]:
    figures = []
    for operation in ("stft", "mel"):
        own = [m for m in measured if (m.operation, m.precision) == (operation, "half") and not m.failure]
        overflows = sum(m.errors["overflows"] for m in own)
        figures.append(harness.Figure(f"{operation} half, overflows where float fits", overflows, "", 0))
        figures += harness.worst(f"{operation} half, over a row's maximum", own, "row", "", HALF_BAR, notes)
    return figures


def interior_figures(measured: list, notes: dict) -> list[harness.Figure]:
    figures = []
    for precision, bar in INTERIOR_BARS.items():
        own = [m for m in measured if (m.operation, m.precision) == ("istft", precision) and not m.failure]
        figures += harness.worst(f"istft of stft {precision}, over the peak", own, "interior", "", bar, notes)
    return figures


if __name__ == "__main__":
    sys.exit(main())
