"""A constant-Q plan carried out by numpy in double precision, to hold the device's results against."""

import numpy as np


def transform(plan, y: np.ndarray) -> np.ndarray:
    """Complex bins (batch, n_bins, frames) of y (batch, samples)."""
    frames = plan.frames(y.shape[1])
    result = np.zeros((len(y), plan.n_bins, frames), np.complex128)
    x = y.astype(np.float64)
    for level in range(plan.n_levels):
        for hop, n_fft, first, real, imaginary in (octave[1:] for octave in plan.octaves if octave[0] == level):
            padded = np.pad(x, ((0, 0), (n_fft // 2,) * 2))
            windows = np.lib.stride_tricks.sliding_window_view(padded, n_fft, axis=1)[:, ::hop][:, :frames]
            basis = (real + 1j * imaginary).T
            for row, answer in zip(windows, result):
                answer[first : first + len(real)] = (np.fft.rfft(row) @ basis).T
        x = decimated(x, plan.taps)
    return result


def decimated(x, taps):
    """Every second sample of the filtered rows, as far as their own samples reach."""
    padded = np.pad(x, ((0, 0), (len(taps) // 2,) * 2))
    return np.stack([np.convolve(row, taps, "valid")[::2] for row in padded])


def chroma(plan, magnitudes: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
    """(batch, n_chroma, frames) with a largest class of 1 in each frame, and (batch, frames): what was divided by."""
    folded = (plan.classes == np.arange(plan.n_chroma)[:, None]) @ magnitudes
    peaks = folded.max(axis=1)
    return folded / np.maximum(peaks, 1e-30)[:, None], peaks
