"""Constant-Q transforms and back: the solver's residual with a graph and without, and how close signals come."""

import multiprocessing
import os
import sys
import time
from concurrent.futures import ProcessPoolExecutor
from dataclasses import dataclass
from math import gcd

import harness
import kevra
import numpy as np
from accuracy.transforms import launched_kernels, start_process
from scipy.signal import resample_poly

sys.path.append(str(harness.HERE.parent / "python" / "demo"))
import chords
from sound import read_recordings

RATE = 22050
# hop, bins, bins an octave, scale. A frame has to begin a good three times within the filter of the highest bin.
PLANS = {
    "72 bins, 12 an octave, hop 32": (32, 72, 12, "amplitude"),
    "72 bins, 12 an octave, hop 32, scale ortho": (32, 72, 12, "ortho"),
    "132 bins, 24 an octave, hop 64": (64, 132, 24, "amplitude"),
    "180 bins, 36 an octave, hop 64": (64, 180, 36, "amplitude"),
}
RANGE_STEPS, STEPS = 10, 20
RESIDUAL_BAR, APART_BAR, DECIBEL_BAR = 1e-3, 1e-6, 30
NO_GRAPH = "hipStreamBeginCapture:1"


def main() -> int:
    chosen = harness.options(__doc__, seconds=2, seed=1)
    with harness.cache_folder():
        figures, notes = range_figures(chosen)
        for name, shape in harness.progress(PLANS.items(), "plans"):
            decibels, seconds = round_trip(chosen, plan_of(shape))
            figures.append(harness.Figure(f"{name}, SNR after {STEPS} steps", decibels[STEPS], "dB", DECIBEL_BAR, True))
            steps = ", ".join(f"{value:.1f} dB after {n}" for n, value in decibels.items())
            notes[f"{name}, steps"] = f"{steps}; {seconds:.2f} s for {STEPS}"
        for name, y in sounds().items():
            notes[name] = sound_note(y)
    told = f"float, {RATE} Hz, {chosen.seconds} s of noise in the plan's band, seed {chosen.seed}"
    return harness.report(chosen, told, figures, notes)


def plan_of(shape):
    hop, n_bins, bins, scale = shape
    return kevra.constant_q_plan(RATE, hop, n_bins, bins, scale=scale)


def range_figures(chosen) -> tuple[list[harness.Figure], dict[str, str]]:
    """Each way in a process of its own; without a graph, the failure is the first thing that a capture meets. Additions
    in no fixed order would hide the difference, so they are off. On a GPU no failure is to be had: both take the graph.
    """
    spawn = multiprocessing.get_context("spawn")
    answers = {}
    for way, fault in {"graph": "", "no graph": NO_GRAPH}.items():
        os.environ["KEVRA_CPU_FAIL"] = fault
        with ProcessPoolExecutor(1, mp_context=spawn, initializer=start_process, initargs=(chosen.gpu,)) as pool:
            answers[way] = pool.submit(in_range, chosen.seed, chosen.seconds).result()
    del os.environ["KEVRA_CPU_FAIL"]
    figures = [
        harness.Figure(f"{way}, residual after {RANGE_STEPS} steps", answer.residual, "of the bins", RESIDUAL_BAR)
        for way, answer in answers.items()
    ]
    graph, other = answers.values()
    apart = relative(graph.solved, other.solved)
    figures.append(harness.Figure("one way against the other", apart, "relative L2", APART_BAR))
    notes = {
        f"{way}, {RANGE_STEPS} steps": f"{answer.seconds * 1e3:.0f} ms, {answer.launches} kernels queued by the host"
        for way, answer in answers.items()
    }
    notes["the same twice, additions in any order"] = f"{graph.unordered:.2g} apart, relative L2"
    return figures, notes


@dataclass
class InRange:
    solved: np.ndarray
    residual: float
    seconds: float
    launches: int
    unordered: float


def in_range(seed: int, seconds: int) -> InRange:
    """From zeros to A' A w, w being white noise: one step from zeros makes a multiple of that."""
    plan = plan_of(PLANS["72 bins, 12 an octave, hop 32"])
    arguments = plan.arguments(seconds * RATE)
    start = np.zeros((1, seconds * RATE), np.float32)
    noise = np.random.default_rng(seed).standard_normal(start.shape).astype(np.float32)

    def solved(C, steps):
        return kevra.icqt_cg_staged(C, start, *arguments, steps)

    def bins(y):
        return kevra.cqt_staged(y, *arguments, "complex")

    kevra.set_deterministic(True)
    C = bins(solved(bins(noise), 1))
    launched_kernels()
    started = time.perf_counter()
    y = solved(C, RANGE_STEPS)
    taken = time.perf_counter() - started
    launches = len(launched_kernels())
    kevra.set_deterministic(False)
    unordered = relative(solved(C, RANGE_STEPS), solved(C, RANGE_STEPS))
    return InRange(y, relative(bins(y), C), taken, launches, unordered)


def round_trip(chosen, plan) -> tuple[dict[int, float], float]:
    """SNR by the number of steps from the estimate by dual filters, 0 being that estimate; and seconds for the most."""
    noise = np.random.default_rng(chosen.seed).standard_normal((1, chosen.seconds * RATE))
    y = within_band(noise, plan).astype(np.float32)
    C = kevra.cqt_staged(y, *plan.arguments(y.shape[1]), "complex")
    decibels, seconds = {}, 0.0
    for n in 0, 5, RANGE_STEPS, STEPS:
        started = time.perf_counter()
        decibels[n] = snr(kevra.constant_q_inverse(C, plan, y.shape[1], n), y)
        seconds = time.perf_counter() - started
    return decibels, seconds


def within_band(y: np.ndarray, plan) -> np.ndarray:
    """What lies between the second and the last but one bin."""
    spectrum = np.fft.rfft(y)
    hertz = np.fft.rfftfreq(y.shape[1], 1 / RATE)
    spectrum[:, (hertz < plan.frequencies[1]) | (hertz > plan.frequencies[-2])] = 0
    return np.fft.irfft(spectrum, y.shape[1])


def sounds() -> dict[str, np.ndarray]:
    name, rate, recorded = read_recordings(None)
    divisor = gcd(RATE, rate)
    t = np.arange(4 * RATE) / RATE
    chirp = 40.0 * (np.exp(np.log(3500 / 40) / 4 * t) - 1) / (np.log(3500 / 40) / 4)
    return {
        name: resample_poly(recorded[:1], RATE // divisor, rate // divisor, axis=1).astype(np.float32),
        "chords": chords.synthesise(RATE, chords.PROGRESSION),
        "exponential chirp, 40 to 3500 Hz": np.sin(2 * np.pi * chirp)[None].astype(np.float32),
    }


def sound_note(y: np.ndarray) -> str:
    """All of it, what is out of the band included, and what lies within."""
    plan = kevra.constant_q_plan(RATE, 32, 84, 12, scale="amplitude")
    C = kevra.cqt_staged(y, *plan.arguments(y.shape[1]), "complex")
    again = kevra.constant_q_inverse(C, plan, y.shape[1], STEPS)
    inside = snr(within_band(again, plan), within_band(y, plan))
    return f"{plan.n_bins} bins, hop 32: {snr(again, y):.1f} dB SNR after {STEPS} steps, {inside:.1f} dB in its band"


def snr(got: np.ndarray, want: np.ndarray) -> float:
    return -20 * float(np.log10(relative(got, want)))


def relative(got: np.ndarray, want: np.ndarray) -> float:
    return float(np.linalg.norm(got - want) / np.linalg.norm(want))


if __name__ == "__main__":
    sys.exit(main())
