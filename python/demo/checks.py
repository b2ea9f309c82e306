"""The demo's results against the formulas, computed by numpy in double precision."""

import math
from dataclasses import dataclass

import numpy as np
from analysis import CEPSTRA_RANGE, Analysis, Setting, hann

FRAMES_AT_ONCE = 1024  # a long recording's frames would not fit in memory together
FLOAT_ROUNDING = np.finfo(np.float32).eps / 2


@dataclass
class Check:
    name: str
    error: float
    bound: float
    unit: str
    against: str = "numpy"

    @property
    def passed(self):
        return self.error <= self.bound  # an error that is no number has not passed


def check(signal: np.ndarray, result: Analysis, s: Setting) -> list[Check]:
    """RMS: 256 threads add frame / 256 squares each, 8 additions join them, and the square, the division and the root
    round too. STFT: relative, in the Euclidean norm. A band's error is a share of its frame's loudest band, so the
    weaker band may be off by more decibels. MFCC: in double, relative, in the Euclidean norm. Onset: from the same
    bands, relative; 256 threads add their rises as with RMS. Round trip: against the signal itself, relative to its
    peak.
    """
    rms = mel = stft_error = stft_size = 0.0
    decibels = [[] for _ in signal]
    for channel, part, frames in frames_in_double(signal, s):
        root = np.sqrt(np.mean(frames**2, axis=1))
        rms = max_error(rms, abs(result.rms[channel, part] - root) / np.maximum(root, 1e-15))
        spectra = np.fft.rfft(frames * hann(s.frame))
        stft_error += np.sum(abs(result.spectrum[channel, :, part].T - spectra) ** 2)
        stft_size += np.sum(abs(spectra) ** 2)
        powers = abs(np.fft.rfft(frames * s.level_window)) ** 2
        bands = 10 * np.log10(powers @ s.bank.T + 1e-10)
        decibels[channel].append(bands)
        weakness = 10 ** ((bands.max(axis=1, keepdims=True) - bands) / 20)
        mel = max_error(mel, abs(result.mel[channel, :, part].T - bands) / weakness)
    stft = math.sqrt(stft_error / max(stft_size, 1e-30))
    return [
        Check("RMS", rms, (math.ceil(s.frame / 256) + 8 + 3) * FLOAT_ROUNDING, "of the value"),
        Check("STFT", stft, 4e-7, "of the spectrum"),
        Check("mel in dB", mel, 1e-4, "dB"),
        Check("MFCC", cepstra_error(decibels, result), 1e-12, "of the coefficients"),
        Check("onset", onset_error(result), (math.ceil(len(s.bank) / 256) + 8 + 3) * FLOAT_ROUNDING, "of the value"),
        Check("round trip", round_trip_error(signal, result) / max(peak(signal), 1e-15), 2e-6, "of the peak",
              "the recording"),
    ]


def cepstra_error(decibels, result: Analysis) -> float:
    """``decibels`` are the bands of each channel, in pieces of (frames, bands)."""
    error = size = 0.0
    for channel, pieces in enumerate(decibels):
        bands = np.concatenate(pieces)
        bands = np.maximum(bands, bands.max() - CEPSTRA_RANGE)
        count = bands.shape[1]
        rows = np.arange(result.cepstra.shape[1])
        cosines = np.cos(np.pi / count * (np.arange(count)[:, None] + 0.5) * rows) * np.sqrt(2 / count)
        cosines[:, 0] /= np.sqrt(2)
        exact = bands @ cosines
        error += np.sum((result.cepstra[channel].T - exact) ** 2)
        size += np.sum(exact**2)
    return math.sqrt(error / max(size, 1e-30))


def onset_error(result: Analysis) -> float:
    error = 0.0
    for onset, mel in zip(result.onset, result.mel, strict=True):
        rises = np.pad(np.maximum(np.diff(mel.astype(np.float64)), 0).mean(axis=0), (1, 0))
        error = max_error(error, abs(onset - rises) / np.maximum(rises, 1e-15))
    return error


def frames_in_double(signal, s):
    """Channel, which frames, and their samples, reflected at both ends."""
    for channel, row in enumerate(signal):
        padded = np.pad(row.astype(np.float64), s.frame // 2, mode="reflect")
        frames = np.lib.stride_tricks.sliding_window_view(padded, s.frame)[:: s.hop]
        for first in range(0, len(frames), FRAMES_AT_ONCE):
            part = slice(first, first + FRAMES_AT_ONCE)
            yield channel, part, frames[part]


def max_error(before, errors):
    return float(np.maximum(before, errors.max()))  # unlike max(), it keeps a NaN


def peak(signal) -> float:
    return float(abs(signal).max())


def round_trip_error(signal, result: Analysis) -> float:
    return peak(result.round_trip.astype(np.float64) - signal)
