"""Frame lengths that suit a recording, and the operations of the demo over its frames."""

import time
from dataclasses import dataclass
from pathlib import Path

import kevra
import numpy as np
from kevra import _diagnostics

FRAME_SECONDS = 0.04  # short enough for syllables, long enough to tell the harmonics of a voice apart
SHORTEST, LONGEST = 16, 8192
MOST_BANDS = 128
COEFFICIENTS = 20
CEPSTRA_RANGE = 80.0  # dB below the loudest band, where the cepstra's floor is
# A warm time is the median of as many calls as fit both.
WARM_CALLS, WARM_SECONDS = 20, 0.5


@dataclass
class Setting:
    """``level_window`` is the Hann window over half its sum: with it a sine at full scale has power 1, or 0 dB."""

    rate: int
    frame: int
    hop: int
    level_window: np.ndarray
    bank: np.ndarray


@dataclass
class Analysis:
    """Rows are channels. ``level`` and ``mel`` are in dB, (channels, bins or bands, frames); ``cepstra`` are (channels,
    coefficients, frames), and ``onset`` is the mean rise of the mel bands in dB a frame.
    """

    rms: np.ndarray
    spectrum: np.ndarray
    level: np.ndarray
    mel: np.ndarray
    cepstra: np.ndarray
    onset: np.ndarray
    round_trip: np.ndarray


@dataclass
class Timing:
    first: float  # seconds
    later: float
    compiled: bool


def hann(frame):
    return 0.5 - 0.5 * np.cos(2 * np.pi * np.arange(frame) / frame)


def setting_for(rate: int, samples: int, frame: int | None = None) -> Setting:
    """By default a power of two near 40 ms; shorter for a signal that has no such frame."""
    if frame is None:
        frame = min(max(2 ** round(np.log2(FRAME_SECONDS * rate)), SHORTEST), LONGEST)
    while frame > samples:
        frame //= 2
    window = hann(frame)
    # A bank whose peaks are 1 keeps the scale of the window.
    bank = kevra.mel_filter_bank(rate, frame, min(MOST_BANDS, max(1, frame // 8)), norm=None)
    return Setting(rate, frame, max(1, frame // 4), window * (2 / window.sum()), bank)


def analyse(signal: np.ndarray, s: Setting) -> tuple[Analysis, dict[str, Timing]]:
    times = {}

    def timed(name, operation, *arguments):
        result, times[name] = measure(lambda: operation(*arguments))
        return result

    rms = timed("RMS", kevra.rms_staged, signal, s.frame, s.hop, True)
    spectrum = timed("STFT", kevra.stft_staged, signal, "hann", s.frame, s.hop, True, "complex")
    level = timed("STFT in dB", kevra.stft_staged, signal, s.level_window, s.frame, s.hop, True, "db")
    mel = timed("mel in dB", kevra.mel_staged, signal, s.level_window, s.bank, s.frame, s.hop, True, 2, "db")
    cepstra = timed("MFCC", kevra.cepstra_staged, signal, s.level_window, s.bank, s.frame, s.hop, True,
                    min(COEFFICIENTS, len(s.bank)), 0.0, CEPSTRA_RANGE)
    onset = timed("onset", kevra.onset_strength_staged, mel)
    # The spectrum is a view whose frames lie one behind the other in memory: turned round, it is not copied.
    back = timed("ISTFT", kevra.istft_staged, spectrum.swapaxes(1, 2), "hann", s.frame, s.hop, True, signal.shape[1])
    return Analysis(rms, spectrum, level, mel, cepstra, onset, back), times


def measure(call):
    """The result, and what the first and the later calls took."""
    before = cached_objects()
    started = time.perf_counter()
    result = call()
    first = time.perf_counter() - started
    compiled = cached_objects() != before
    later = []
    while not later or (len(later) < WARM_CALLS and sum(later) < WARM_SECONDS):
        started = time.perf_counter()
        call()
        later.append(time.perf_counter() - started)
    return result, Timing(first, sorted(later)[len(later) // 2], compiled)


def cached_objects():
    """The code objects on disk; one that was stale is replaced under its name, which its time of change tells."""
    return {(file.name, file.stat().st_mtime_ns) for file in Path(_diagnostics.read()["cache"]).glob("*.hsaco")}
