"""The constant-Q transform and the chroma of a synthesised chord progression and of the recording."""

from dataclasses import dataclass
from functools import partial

import chords
import constant_q_numpy
import kevra
import numpy as np
from analysis import measure
from checks import Check

BINS, BINS_PER_OCTAVE = 252, 36  # three a semitone: with one, a note would reach the classes beside its own
HOP_SECONDS = 0.02
PROGRESSION_RATE = 22050
# Below the one not even an octave fits under half of the rate, below the other not all bins do.
LOWEST_RATE, FULL_RATE = 131, 8400


@dataclass
class Panel:
    """``level`` (bins, frames) in dB, a sine at full scale being 0 dB; ``chroma`` (12, frames); both of channel 1."""

    name: str
    plan: kevra.ConstantQPlan
    level: np.ndarray
    chroma: np.ndarray
    chords: list[chords.Chord]

    @property
    def rate(self):
        return self.plan.sample_rate

    @property
    def hop(self):
        return self.plan.hop


def plan_for(rate):
    hop = 2 ** max(0, round(np.log2(HOP_SECONDS * rate)))
    bins = BINS if rate >= FULL_RATE else None
    return kevra.constant_q_plan(rate, hop, bins, BINS_PER_OCTAVE, scale="amplitude")


def analyse(name, rate, signal):
    """Panels, checks against numpy, and the times of the last panel's operations. A recording of so low a rate that
    no octave fits has no panel."""
    sources = [("A chord progression", PROGRESSION_RATE, chords.synthesise(PROGRESSION_RATE), chords.chords())]
    if rate >= LOWEST_RATE:
        sources.append((name, rate, signal, []))
    panels, cqt_error, chroma_error = [], 0.0, 0.0
    for title, its_rate, y, struck in sources:
        plan, samples = plan_for(its_rate), y.shape[1]
        magnitude, cqt_time = measure(partial(kevra.cqt_staged, y, *plan.arguments(samples), "magnitude"))
        chroma, chroma_time = measure(partial(kevra.chroma_staged, y, *plan.chroma_arguments(samples)))
        errors = distances(plan, y, magnitude, chroma)
        cqt_error, chroma_error = np.maximum((cqt_error, chroma_error), errors)  # unlike max(), it keeps a NaN
        level = 20 * np.log10(np.maximum(magnitude[0], 1e-5))
        panels.append(Panel(title, plan, level, chroma[0], struck))
    wrong = chords.wrong_chords(panels[0].chroma, panels[0].rate / panels[0].hop)
    checks = [
        Check("CQT", float(cqt_error), 1e-6, "of the transform"),
        Check("chroma", float(chroma_error), 1e-5, "of the loudest frame's peak"),
        Check("chords", len(wrong), 0, f"of {len(panels[0].chords)} chords", "the notes played"),
    ]
    return panels, checks, {"CQT": cqt_time, "chroma": chroma_time}


def distances(plan, y, magnitude, chroma):
    """From numpy in double precision: of the magnitudes relative in the Euclidean norm, of the chroma the largest,
    each frame weighted by what its classes were divided by, since a silent frame's classes are rounding errors."""
    exact = abs(constant_q_numpy.transform(plan, y))
    folded, peaks = constant_q_numpy.chroma(plan, exact)
    cqt = np.linalg.norm((magnitude - exact).ravel()) / max(np.linalg.norm(exact.ravel()), 1e-30)
    return cqt, np.max(abs(chroma - folded) * peaks[:, None]) / max(peaks.max(), 1e-30)
