"""Constant-Q transforms and chroma: agreement with librosa, steady tones, chords, the decimator."""

import importlib
import sys
from math import gcd

import harness
import kevra
import numpy as np
from scipy.signal import resample_poly

sys.path.append(str(harness.HERE.parent / "python" / "demo"))
import chords
from sound import read_recordings

RATES = [16000, 22050, 44100, 48000]
HOP = 512
BINS = {12: 84, 36: 252}  # of seven octaves, by bins an octave
CHIRP_SECONDS = 8
LOW, HIGH = 40.0, 3900.0  # Hz of the chirps
TONE_RATE = 22050
PEER_BAR = 0.02


def main() -> int:
    chosen = harness.options(__doc__)
    with harness.cache_folder():
        agreement, notes = against_librosa()
        figures = [*agreement, *tones(), *chord_figures(), *decimator()]
    measured = f"float, hop {HOP}, {len(RATES)} rates from {RATES[0]} to {RATES[-1]} Hz, the worst of each kind"
    return harness.report(chosen, measured, figures, notes)


def against_librosa() -> tuple[list[harness.Figure], dict[str, str]]:
    """Magnitudes, of frames that the longest filter fits into the signal around; relative in the Euclidean norm."""
    try:
        librosa = importlib.import_module("librosa")
    except ImportError:
        return [], {"librosa": "not installed: agreement was not measured"}
    figures, notes = [], {"librosa": librosa.__version__}
    cases = [(kind, bins) for kind in ("chirps", "recordings") for bins in BINS]
    for kind, bins in harness.progress(cases, "signals"):
        errors = {rate: max(disagreement(librosa, y, rate, bins) for y in signals(kind, rate)) for rate in RATES}
        name = f"{kind}, {bins} bins an octave"
        figures.append(harness.Figure(f"{name}, off librosa", max(errors.values()), "relative L2", PEER_BAR))
        notes[name] = ", ".join(f"{rate} Hz {error:.2g}" for rate, error in errors.items())
    return figures, notes


def signals(kind: str, rate: int) -> list[np.ndarray]:
    if kind == "recordings":
        _, recorded, signal = read_recordings(None)
        divisor = gcd(rate, recorded)
        return [resample_poly(signal[0], rate // divisor, recorded // divisor).astype(np.float32)]
    t = np.arange(CHIRP_SECONDS * rate) / rate
    octaves = np.log(HIGH / LOW) / CHIRP_SECONDS
    exponential = LOW * np.expm1(octaves * t) / octaves
    linear = HIGH * t - (HIGH - LOW) / (2 * CHIRP_SECONDS) * t**2
    return [np.sin(2 * np.pi * turns).astype(np.float32) for turns in (exponential, linear)]


def disagreement(librosa, y: np.ndarray, rate: int, bins: int) -> float:
    plan = kevra.constant_q_plan(rate, HOP, BINS[bins], bins)
    own = kevra.cqt_staged(y[None], *plan.arguments(len(y)), "magnitude")[0]
    peers = abs(librosa.cqt(y, sr=rate, hop_length=HOP, n_bins=BINS[bins], bins_per_octave=bins))
    middles, reach = HOP * np.arange(own.shape[1]), plan.lengths[0] / 2
    inner = (middles >= reach) & (middles <= len(y) - reach)
    return float(np.linalg.norm((own - peers)[:, inner]) / np.linalg.norm(peers[:, inner]))


def tones() -> list[harness.Figure]:
    """Of amplitude 1 at each bin's frequency."""
    figures = []
    for bins, n_bins in BINS.items():
        plan = kevra.constant_q_plan(TONE_RATE, HOP, n_bins, bins, scale="amplitude")
        t = np.arange(2 * round(plan.lengths[0])) / TONE_RATE
        peaks, own = [], []
        for part in np.array_split(plan.frequencies, n_bins // 12):
            y = np.sin(2 * np.pi * part[:, None] * t).astype(np.float32)
            middle = kevra.cqt_staged(y, *plan.arguments(len(t)), "magnitude")[:, :, plan.frames(len(t)) // 2]
            peaks += list(middle.argmax(axis=1))
            own += [row[len(own) + i] for i, row in enumerate(middle)]
        elsewhere = int(np.sum(peaks != np.arange(n_bins)))
        spread = float(20 * np.log10(max(own) / min(own)))
        name = f"tones, {bins} bins an octave"
        figures.append(harness.Figure(f"{name}, peaks elsewhere", elsewhere, f"of {n_bins}", 0))
        figures.append(harness.Figure(f"{name}, spread of magnitudes", spread, "dB", 0.5))
    return figures


def chord_figures() -> list[harness.Figure]:
    """The demo's progression, and all major and minor triads in turn."""
    triads = [
        (f"{note}{kind}", [36 + root, 48 + root, 48 + root + third, 55 + root])
        for root, note in enumerate(chords.NOTES)
        for kind, third in (("", 4), ("m", 3))
    ]
    plan = kevra.constant_q_plan(TONE_RATE, HOP, BINS[36], 36)
    figures = []
    for name, progression in {"progression": chords.PROGRESSION, "triads": triads}.items():
        y = chords.synthesise(TONE_RATE, progression)
        chroma = kevra.chroma_staged(y, *plan.chroma_arguments(y.shape[1]))[0]
        wrong = chords.wrong_chords(chroma, TONE_RATE / HOP, progression)
        figures.append(harness.Figure(f"{name}, chords led by other classes", len(wrong), f"of {len(progression)}", 0))
    return figures


def decimator() -> list[harness.Figure]:
    frequencies = np.linspace(0, 0.5, 20001)  # of the rate before it
    taps = kevra.half_band_taps()
    gain = abs(taps @ np.cos(2 * np.pi * np.outer(np.arange(65) - 32, frequencies)))
    decibels = 20 * np.log10(np.maximum(gain, 1e-30))
    stopped = float(-decibels[frequencies >= 0.3].max())
    rippled = float(abs(decibels[frequencies <= 0.2]).max())
    return [
        harness.Figure("decimator, attenuation from 0.3 of the rate", stopped, "dB", 90, at_least=True),
        harness.Figure("decimator, ripple to 0.2 of the rate", rippled, "dB", 0.001),
    ]


if __name__ == "__main__":
    sys.exit(main())
