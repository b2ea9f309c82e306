"""Error of fft_staged, forward and inverse, at all sizes with prime factors up to 13.

Double is held against a transform in extended precision, float against one in double. With --half, half storage (by
fft_resident) is measured too: how far a result is from what float stores for the same input.
"""

import math
import multiprocessing
import os
import sys
from concurrent.futures import ProcessPoolExecutor
from dataclasses import dataclass

import harness
import kevra
import numpy as np
import scipy.fft

ROWS = 3
EPS = {"double": 2.0**-52, "float": 2.0**-23}
L2_BAR = {"double": 1.0, "float": 2.5}  # times eps sqrt(log2 n)
ELEMENT_BAR = 4.0  # times eps ln(n), of the root mean square of the result
BITS = {"double": 64, "float": 32, "half": 16}
HALF_ULP = 2.0**-10  # of a half, at most, over its value
PANELS = [
    ("half", "half storage, float arithmetic", "#b5651d"),
    ("float", "float", "#1f6f8b"),
    ("double", "double", "#5b3a8c"),
]


@dataclass
class Error:
    """What one precision, size and direction came to. Of half storage `worst` is the distance from float in units
    of the last place of a half; else the largest error of an element over the root mean square."""

    precision: str
    n: int
    inverse: bool
    hinted: bool
    l2: float
    worst: float

    def __str__(self):
        return f"n = {self.n} {'inverse' if self.inverse else 'forward'}"


def main() -> int:
    more = {
        "half": {"action": "store_true", "help": "half storage too"},
        "plot": {"metavar": "FILE", "help": "draw n against the error, .svg or .png"},
    }
    chosen = harness.options(__doc__, more, largest=4096, seed=1, processes=os.cpu_count())
    sizes = [n for n in range(2, chosen.largest + 1) if has_small_factors(n)]
    errors = measure_all(chosen, sizes)
    if chosen.plot:
        draw(chosen.plot, errors)
    figures, notes = [], {}
    for precision in EPS:
        own = [e for e in errors if e.precision == precision]
        figures.append(worst_figure(f"{precision}, relative L2", own, l2_in_bars, L2_BAR[precision], notes))
        figures[-1].unit = "eps sqrt(log2 n)"
        figures.append(worst_figure(f"{precision}, one element", own, element_in_bars, ELEMENT_BAR, notes))
        figures[-1].unit = "eps ln n rms"
    if chosen.half:
        own = [e for e in errors if e.precision == "half"]
        figures.append(worst_figure("half storage beyond float", own, lambda e: e.worst, 1.0, notes))
        figures[-1].unit = "ulp of half"
    hinted = {e.n for e in errors if e.hinted}
    notes["shared-memory kernel by hint"] = f"{len(hinted)} of {len(sizes)} sizes, whose own kernel is not built yet"
    measured = f"{len(sizes)} sizes from {sizes[0]} to {sizes[-1]}, both directions, {ROWS} rows of normal noise"
    return harness.report(chosen, measured, figures, notes)


def has_small_factors(n: int) -> bool:
    for prime in (2, 3, 5, 7, 11, 13):
        while n % prime == 0:
            n //= prime
    return n == 1


def l2_in_bars(e: Error) -> float:
    return e.l2 / (EPS[e.precision] * math.sqrt(math.log2(e.n)))


def element_in_bars(e: Error) -> float:
    return e.worst / (EPS[e.precision] * math.log(e.n))


def worst_figure(name: str, errors: list[Error], measure, bar: float, notes: dict) -> harness.Figure:
    worst = max(errors, key=lambda e: (math.isnan(measure(e)), measure(e)))
    notes[f"{name}, worst at"] = str(worst)
    return harness.Figure(name, measure(worst), "", bar)


def measure_all(chosen, sizes: list[int]) -> list[Error]:
    """Nearly all of the time goes into compiling some six kernels a size, so processes share the sizes and a cache."""
    os.environ.setdefault("KEVRA_CPU_THREADS", "1")
    spawn = multiprocessing.get_context("spawn")
    with harness.cache_folder(), ProcessPoolExecutor(
        chosen.processes, mp_context=spawn, initializer=start_process, initargs=(chosen.gpu,)
    ) as pool:
        waiting = [pool.submit(measure, n, chosen.half, chosen.seed) for n in reversed(sizes)]
        return [e for answer in harness.progress(waiting, "sizes") for e in answer.result()]


def start_process(gpu: bool) -> None:
    if not gpu:
        kevra.use_cpu_device()


def measure(n: int, half: bool, seed: int) -> list[Error]:
    random = np.random.default_rng([seed, n])
    x = random.standard_normal((ROWS, n)) + 1j * random.standard_normal((ROWS, n))
    errors = []
    for inverse in (False, True):
        errors.append(measure_staged("double", x, np.clongdouble, inverse))
        errors.append(measure_staged("float", x.astype(np.complex64), np.complex128, inverse))
        if half:
            errors.append(measure_half(x, inverse))
    return errors


def reference(x: np.ndarray, dtype, inverse: bool) -> np.ndarray:
    return (scipy.fft.ifft if inverse else scipy.fft.fft)(x.astype(dtype))


def relative_l2(result: np.ndarray, exact: np.ndarray) -> float:
    return float(np.linalg.norm(np.abs(result - exact).ravel()) / np.linalg.norm(np.abs(exact).ravel()))


def measure_staged(precision: str, x: np.ndarray, exact_dtype, inverse: bool) -> Error:
    n = x.shape[1]
    result, hinted = staged(x, inverse, BITS[precision])
    exact = reference(x, exact_dtype, inverse)
    rms = np.sqrt(np.mean(np.abs(exact) ** 2))
    worst = float(np.max(np.abs(result - exact)) / rms)
    return Error(precision, n, inverse, hinted, relative_l2(result, exact), worst)


def staged(x: np.ndarray, inverse: bool, bits: int):
    return harness.on_a_built_route(x.shape[1], inverse, bits, lambda: kevra.fft_staged(x, inverse))


def measure_half(x: np.ndarray, inverse: bool) -> Error:
    rows, n = x.shape
    stored = x.view(np.float64).astype(np.float16)  # (rows, 2 n), interleaved
    wide = stored.astype(np.float32).view(np.complex64)
    result = np.empty_like(stored)
    hip = harness.Hip()
    dx, out = hip.upload(stored), hip.malloc(result.nbytes)
    resident = (dx, out, rows, n, inverse, 0, 0, 0)
    _, hinted = harness.on_a_built_route(n, inverse, BITS["half"], lambda: kevra.fft_resident(*resident))
    hip.synchronize()
    hip.download(result, out)
    hip.free(dx, out)

    narrow, _ = staged(wide, inverse, BITS["float"])
    parts = narrow.view(np.float32)
    ulp = np.spacing(np.abs(parts).astype(np.float16)).astype(np.float64)
    worst = float(np.max(np.abs(result - parts.astype(np.float64)) / ulp))
    values = result.astype(np.float64).view(np.complex128)
    return Error("half", n, inverse, hinted, relative_l2(values, reference(wide, np.complex128, inverse)), worst)


def l2_bar(precision: str, sizes: np.ndarray) -> np.ndarray:
    if precision == "half":
        return l2_bar("float", sizes) + HALF_ULP
    return L2_BAR[precision] * EPS[precision] * np.sqrt(np.log2(sizes))


def draw(file: str, errors: list[Error]) -> None:
    """One panel a precision, each over two and a half decades: on one common axis the curves would be flat."""
    import matplotlib

    matplotlib.use("agg")
    import matplotlib.pyplot as plt

    plt.rcParams.update({"svg.hashsalt": "fft_accuracy", "svg.fonttype": "none", "font.family": "sans-serif"})
    panels = [(p, name, color) for p, name, color in PANELS if any(e.precision == p for e in errors)]
    figure, grid = plt.subplots(len(panels), sharex=True, squeeze=False, figsize=(9, 2.5 * len(panels)))
    for axes, (precision, name, color) in zip(grid[:, 0], panels):
        worst = {}
        for e in errors:
            if e.precision == precision:
                worst[e.n] = max(e.l2, worst.get(e.n, 0.0))
        sizes = np.array(sorted(worst))
        bar = l2_bar(precision, sizes)
        axes.plot(sizes, [worst[n] for n in sizes], color=color, linewidth=0.9)
        axes.plot(sizes, bar, color="#444444", linewidth=1.2, linestyle=(0, (5, 3)))
        axes.annotate("at most", (sizes[-1], bar[-1]), (0, 4), textcoords="offset points", ha="right", color="#444444")
        axes.set_title(name, loc="left", color=color, fontweight="bold", fontsize=11)
        axes.set_yscale("log")
        axes.set_ylim(bar[-1] / 80, bar[-1] * 3)
        axes.spines[["top", "right"]].set_visible(False)
        axes.grid(color="#e4e4e4", linewidth=0.6)
    axes.set_xscale("log", base=2)
    marks = [2**k for k in range(1, int(math.log2(sizes[-1])) + 1)]
    axes.set_xticks(marks, [str(n) for n in marks])
    axes.set_xlabel("transform length n, every one with prime factors up to 13")
    figure.supylabel("relative L2 error, the larger of forward and inverse", fontsize=10)
    figure.set_layout_engine("constrained")
    figure.savefig(file, facecolor="white", metadata={"Date": None, "Creator": None} if file.endswith(".svg") else None)


if __name__ == "__main__":
    sys.exit(main())
