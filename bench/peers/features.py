"""Features of spectra and Griffin-Lim among the cases: what is analysed, the exact result, how each contender is
called."""

from __future__ import annotations

from typing import TYPE_CHECKING

import harness
import kevra
import numpy as np
import scipy.fft
from peers import spectrograms

if TYPE_CHECKING:
    from peers.cases import Case

OPERATIONS = ["mfcc", "centroid", "contrast", "griffinlim"]
RECORDINGS = [("music", 1, 30), spectrograms.LONG_MUSIC]
COEFFICIENTS, BANDS, TOP_DB = 20, 128, 80.0
CONTRAST_BANDS, LOWEST_EDGE, QUANTILE = 6, 200.0, 0.02  # octaves above the lowest, which has its own band below
EPS = 1e-10
ITERATIONS, MOMENTUM = 32, 0.99
LONGEST_SEARCH = 10  # seconds that Griffin-Lim is given: its peers take some of them for one of sound
# Relative L2. Cepstra of doubles show the eps under the logarithm, where others take the larger of it and the power.
BOUND = {"float": 1e-5, "double": 1e-10}
CONVERGENCE_BOUND = 0.01  # of the spectral convergence


def sizes(operation: str, recordings: list[tuple[str, int, int]]) -> list[dict]:
    """The fields of a case for every recording, given as kind, rows and seconds."""
    if operation == "griffinlim":
        recordings = list(dict.fromkeys((kind, rows, min(s, LONGEST_SEARCH)) for kind, rows, s in recordings))
    bands = {"mfcc": BANDS, "contrast": CONTRAST_BANDS + 1}.get(operation, 0)
    return [{**fields, "bands": bands} for fields in spectrograms.sizes("stft", recordings)]


def input_shape(case: Case) -> tuple[int, ...]:
    """A signal, or the magnitudes that one is sought for."""
    if case.operation == "griffinlim":
        return (case.batch, case.frames, case.frame_length // 2 + 1)
    return (case.batch, case.n)


def output_shape(case: Case) -> tuple[int, ...]:
    if case.operation == "griffinlim":
        return (case.batch, sought(case))
    columns = {"mfcc": COEFFICIENTS, "contrast": CONTRAST_BANDS + 1}.get(case.operation)
    return (case.batch, columns, case.frames) if columns else (case.batch, case.frames)


def sought(case: Case) -> int:
    """Samples that Griffin-Lim finds: as many as it has inside, so that peers that cut each round's cut nothing."""
    return (case.frames - 1) * case.hop


def magnitudes(case: Case, signal: np.ndarray) -> np.ndarray:
    """(batch, frames, bins)"""
    return abs(spectrograms.spectrum(case, signal, workers=-1))


def phases(case: Case, shape: tuple[int, ...]) -> np.ndarray:
    return np.ones(shape, case.complex)


def exact(case: Case, x: np.ndarray) -> np.ndarray:
    """In double, row by row: spectra of long recordings fill gigabytes."""
    of_one = {"mfcc": exact_mfcc, "centroid": exact_centroid, "contrast": exact_contrast, "griffinlim": searched}
    return np.concatenate([of_one[case.operation](case, row[None].astype(np.float64)) for row in x])


def exact_mfcc(case: Case, x: np.ndarray) -> np.ndarray:
    power = magnitudes(case, x) ** 2
    decibels = 10 * np.log10(power @ spectrograms.bank(case).T + EPS)
    decibels = np.maximum(decibels, decibels.max() - TOP_DB)
    return scipy.fft.dct(decibels, norm="ortho")[..., :COEFFICIENTS].swapaxes(1, 2)


def exact_centroid(case: Case, x: np.ndarray) -> np.ndarray:
    m = magnitudes(case, x)
    return m @ (bin_width(case) * np.arange(m.shape[-1])) / m.sum(axis=-1)


def exact_contrast(case: Case, x: np.ndarray) -> np.ndarray:
    m = magnitudes(case, x)
    edges, counts = band_table(case)
    bands = []
    for low, high, q in zip(edges, edges[1:], counts):
        band = np.sort(m[..., low:high], axis=-1)
        bands.append(10 * np.log10(band[..., -q:].mean(axis=-1) / band[..., :q].mean(axis=-1)))
    return np.stack(bands, axis=1)


def searched(case: Case, s: np.ndarray) -> np.ndarray:
    """Griffin-Lim as a user of numpy and scipy writes it."""
    ang, before = phases(case, s.shape), 0
    for _ in range(ITERATIONS):
        z = spectrograms.spectrum(case, from_spectrum(case, s * ang), workers=-1)
        u = z - MOMENTUM / (1 + MOMENTUM) * before
        ang, before = u / (abs(u) + 1e-16), z
    return from_spectrum(case, s * ang)


def from_spectrum(case: Case, z: np.ndarray) -> np.ndarray:
    frames = scipy.fft.irfft(z, case.frame_length, workers=-1)
    return spectrograms.overlap_added(case, frames, sought(case))


def bin_width(case: Case) -> float:
    return case.rate / case.frame_length


def band_table(case: Case) -> tuple[np.ndarray, np.ndarray]:
    """Edges and counts as librosa has them: a band begins one bin below its lower edge and leaves its last bin to the
    next one, but counts it."""
    top = case.frame_length // 2 + 1
    lower = LOWEST_EDGE * 2.0 ** np.arange(CONTRAST_BANDS) / bin_width(case)
    edges = np.array([0, *np.floor(lower).astype(int), top], np.int32)
    counted = np.diff(edges) + np.array([*[1] * CONTRAST_BANDS, 0])
    return edges, np.maximum(1, np.rint(QUANTILE * counted)).astype(np.int32)


def make_input(case: Case, random: np.random.Generator) -> np.ndarray:
    signal = random.standard_normal((case.batch, case.n), dtype=case.real)
    return magnitudes(case, signal) if case.operation == "griffinlim" else signal


def disagreement(case: Case, result: np.ndarray, wanted: np.ndarray, s: np.ndarray) -> str | None:
    """Signals that Griffin-Lim finds differ soon, since it multiplies what was rounded; how good they are does not."""
    own, exact_one = (convergence(case, s, signal) for signal in (result, wanted))
    if abs(own / exact_one - 1) <= CONVERGENCE_BOUND:
        return None
    return f"has a spectral convergence of {own:.4g}, must be within {CONVERGENCE_BOUND:.0%} of {exact_one:.4g}"


def convergence(case: Case, s: np.ndarray, signal: np.ndarray) -> float:
    """How far the signal's magnitudes lie from those sought, over these."""
    off = magnitudes(case, signal.astype(np.float64)) - s
    return float(np.linalg.norm(off) / np.linalg.norm(s))


def resident_call(case: Case, hip: harness.Hip, x: int, out: int, precision: int) -> tuple[str, tuple, list[int]]:
    """kevra's function, its arguments, and memory to free behind it."""
    frame = (case.frame_length, case.hop, True)
    signal = (x, out, case.batch, case.n)
    if case.operation == "griffinlim":
        ang = hip.upload(phases(case, input_shape(case)))  # the first call alone begins with these
        shape = input_shape(case)
        return "griffinlim_resident", (x, ang, out, *shape, *frame, *search(case), "hann", precision), [ang]
    if case.operation == "mfcc":
        options = (COEFFICIENTS, 0.0, TOP_DB, EPS, "hann", precision)
        return "cepstra_resident", (*signal, spectrograms.bank(case), *frame, *options), []
    if case.operation == "contrast":
        return "contrast_signal_resident", (*signal, "hann", *frame, *band_table(case), EPS, False, precision), []
    return "spectral_signal_resident", (*signal, "hann", *frame, *centroid(case), precision), []


def search(case: Case) -> tuple[int, float, int]:
    return ITERATIONS, MOMENTUM, sought(case)


def centroid(case: Case) -> tuple:
    """The statistic, a bin's width, and what others of its kind need."""
    return 0, bin_width(case), 2.0, EPS, 0.85


def staged_call(case: Case, x: np.ndarray):
    frame = (case.frame_length, case.hop, True)
    if case.operation == "griffinlim":
        ang = phases(case, x.shape)
        return lambda: kevra.griffinlim_staged(x, ang, "hann", *frame, *search(case))
    if case.operation == "mfcc":
        bank = spectrograms.bank(case)
        return lambda: kevra.cepstra_staged(x, "hann", bank, *frame, COEFFICIENTS, 0.0, TOP_DB, EPS)
    if case.operation == "contrast":
        return lambda: kevra.contrast_staged(x, "hann", *frame, *band_table(case), EPS, False)
    return lambda: kevra.spectral_staged(x, "hann", *frame, *centroid(case))


def librosa_call(librosa, case: Case, x: np.ndarray):
    """With its own defaults but for the padding and the type of the mel bank."""
    frame = {"n_fft": case.frame_length, "hop_length": case.hop, "pad_mode": "reflect"}
    if case.operation == "griffinlim":
        bins_first = x.swapaxes(1, 2)
        search_for = {"n_iter": ITERATIONS, "momentum": MOMENTUM, "length": sought(case), "init": None}
        return lambda: librosa.griffinlim(bins_first, **search_for, **frame)
    if case.operation == "mfcc":
        options = {"n_mfcc": COEFFICIENTS, "n_mels": BANDS, "dtype": case.real}
        return lambda: librosa.feature.mfcc(y=x, sr=case.rate, **options, **frame)
    if case.operation == "contrast":
        options = {"n_bands": CONTRAST_BANDS, "fmin": LOWEST_EDGE, "quantile": QUANTILE}
        return lambda: librosa.feature.spectral_contrast(y=x, sr=case.rate, **options, **frame)
    return lambda: librosa.feature.spectral_centroid(y=x, sr=case.rate, **frame)[:, 0]


def torchaudio_call(torchaudio, case: Case, x):
    """`x` is a tensor."""
    frame = {"n_fft": case.frame_length, "hop_length": case.hop}
    if case.operation == "griffinlim":
        search_for = {
            "n_iter": ITERATIONS,
            "momentum": MOMENTUM,
            "length": sought(case),
            "rand_init": False,
            "power": 1.0,
        }
        bins_first, transform = x.transpose(1, 2), torchaudio.transforms.GriffinLim(**frame, **search_for)
        transform = transform.to(x.device)
        return lambda: transform(bins_first)
    if case.operation == "mfcc":
        mel = {**frame, "n_mels": BANDS, "norm": "slaney", "mel_scale": "slaney"}
        transform = torchaudio.transforms.MFCC(case.rate, COEFFICIENTS, melkwargs=mel).to(x.device)
    else:
        transform = torchaudio.transforms.SpectralCentroid(case.rate, **frame).to(x.device)
    return lambda: transform(x)


def figures(results: list[dict]) -> list[harness.Figure]:
    """Against librosa, nothing for what was not timed beside it."""
    found = []
    for result in results:
        rate = result.get("rate", 1)
        what = f"{result['n'] / rate:g} s at {rate} Hz"
        for own in result.get("speed_against", {}):
            speed = result["speed_against"][own].get("librosa")
            if result["operation"] == "mfcc" and speed is not None:
                found.append(
                    harness.Figure(f"MFCC of {what}, {own}, speed over librosa", speed, "", 1.0, at_least=True)
                )
            if result["operation"] == "griffinlim" and speed is not None:
                reached = result["convergence"]
                apart = abs(reached[own] / reached["librosa"] - 1)
                name = f"Griffin-Lim of {what}, {own}, spectral convergence against librosa's"
                found.append(harness.Figure(name, apart, "", CONVERGENCE_BOUND))
    return found
