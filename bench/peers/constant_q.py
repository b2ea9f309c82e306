"""Constant-Q transforms among the cases: what is recorded, the exact result, and how each contender is called."""

from __future__ import annotations

import sys
from functools import cache
from typing import TYPE_CHECKING

import harness
import kevra
import numpy as np

if TYPE_CHECKING:
    from peers.cases import Case

sys.path.append(str(harness.HERE.parent / "python" / "demo"))
import constant_q_numpy

OPERATIONS = ["cqt", "chroma"]  # magnitudes of bins; pitch classes
RATE, HOP = 22050, 512
SECONDS = [10, 300]
BINS = {"cqt": (84, 12), "chroma": (252, 36)}  # how many, and of an octave: librosa's defaults
BOUND = 2e-6  # relative L2, float
PEER_BOUND = 0.02  # where filters are sampled, sparse and decimated in another way
LONG, LEAST_SPEED = 300, 2.0  # seconds; over librosa


def sizes(operation: str, seconds: list[int]) -> list[dict]:
    """The fields of a case for every signal of so many seconds."""
    bins, _ = BINS[operation]
    return [{"n": RATE * length, "batch": 1, "hop": HOP, "rate": RATE, "bins": bins} for length in seconds]


def output_rows(case: Case) -> int:
    return case.bins if case.operation == "cqt" else plan(case.operation).n_chroma


@cache
def plan(operation: str) -> kevra.ConstantQPlan:
    return kevra.constant_q_plan(RATE, HOP, *BINS[operation])


def exact(case: Case, x: np.ndarray) -> np.ndarray:
    own = plan(case.operation)
    magnitudes = abs(constant_q_numpy.transform(own, x))
    return magnitudes if case.operation == "cqt" else constant_q_numpy.chroma(own, magnitudes)[0]


def resident_call(case: Case, x: int, out: int, precision: int) -> tuple[str, tuple]:
    """kevra's function and its arguments."""
    signal, own = (x, out, case.batch, case.n), plan(case.operation)
    if case.operation == "cqt":
        return "cqt_resident", (*signal, *own.arguments(case.n), "magnitude", 1e-10, precision, 0, 0)
    return "chroma_resident", (*signal, *own.chroma_arguments(case.n), precision, 0, 0)


def staged_call(case: Case, x: np.ndarray):
    own = plan(case.operation)
    if case.operation == "cqt":
        return lambda: kevra.cqt_staged(x, *own.arguments(case.n), "magnitude")
    return lambda: kevra.chroma_staged(x, *own.chroma_arguments(case.n))


def librosa_call(librosa, case: Case, x: np.ndarray):
    """With its own defaults; its tuning is told, not estimated."""
    signal = {"y": x, "sr": case.rate, "hop_length": case.hop, "tuning": 0.0}
    if case.operation == "cqt":
        return lambda: abs(librosa.cqt(**signal))
    return lambda: librosa.feature.chroma_cqt(**signal)


def nnaudio_call(torch, features, case: Case, x):
    """`x` is a tensor; the filters lie beside it, as in a module's buffers."""
    bins, bins_per_octave = BINS[case.operation]
    frame = {"sr": case.rate, "hop_length": case.hop, "fmin": plan(case.operation).frequencies[0]}
    shape = {"n_bins": bins, "bins_per_octave": bins_per_octave, "output_format": "Magnitude", "pad_mode": "constant"}
    transform = features.CQT(**frame, **shape, verbose=False).to(x.device)

    def cqt():
        with torch.no_grad():
            return transform(x, normalization_type="librosa")

    return cqt


def figures(results: list[dict]) -> list[harness.Figure]:
    """Five minutes against librosa's, array in and array out; nothing where it was not timed."""
    found = []
    for result in results:
        speed = result.get("speed_against", {}).get("kevra staged", {}).get("librosa")
        if result["operation"] == "cqt" and result["n"] == RATE * LONG and speed is not None:
            name = f"CQT of {LONG} s at {RATE} Hz, {result['bins']} bins, staged, speed over librosa"
            found.append(harness.Figure(name, speed, "", LEAST_SPEED, at_least=True))
    return found
