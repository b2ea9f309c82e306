"""Frames and spectra by their definitions, in double, and the device calls that they are held against."""

import kevra
import numpy as np
from support import DOUBLE, HALF, STORAGE, Device

COSINES = {
    "hann": (0.5, 0.5), "hamming": (0.54, 0.46), "blackman": (0.42, 0.5, 0.08),
    "blackmanharris": (0.35875, 0.48829, 0.14128, 0.01168), "nuttall": (0.3635819, 0.4891775, 0.1365995, 0.0106411),
    "boxcar": (1.0,), "rect": (1.0,),
}
WINDOWS = [*COSINES, "bartlett"]
FORMS = ["complex", "magnitude", "power", "db"]


def window_values(window, n_fft):
    """Periodic windows by name; an array stands for itself."""
    if not isinstance(window, str):
        return np.asarray(window, np.float64)
    i = np.arange(n_fft)
    if window == "bartlett":
        return 1 - abs(2 * i / n_fft - 1)
    return sum((-1) ** m * c * np.cos(2 * np.pi * m * i / n_fft) for m, c in enumerate(COSINES[window]))


def frames_of(y, n_fft, hop, center):
    """(batch, frames, n_fft); np.pad knows the reflection."""
    if center:
        y = np.pad(y, ((0, 0), (n_fft // 2,) * 2), mode="reflect")
    return np.lib.stride_tricks.sliding_window_view(y, n_fft, axis=1)[:, ::hop]


def in_form(spectrum, output, eps=1e-10):
    power = abs(spectrum) ** 2
    return {"complex": spectrum, "magnitude": np.sqrt(power), "power": power}.get(output, 10 * np.log10(power + eps))


def stft_reference(y, window, n_fft, hop, center):
    """Complex, (batch, bins, frames)."""
    frames = frames_of(y.astype(np.float64), n_fft, hop, center) * window_values(window, n_fft)
    return np.fft.rfft(frames, axis=-1).transpose(0, 2, 1)


def overlap_add(z, window, n, hop, center, length=-1):
    """From (batch, frames, bins): signal, summed squared windows, and the most of a row before the division."""
    batch, frames, bins = z.shape
    z = z.astype(np.complex128)
    z[..., 0].imag = 0
    if n % 2 == 0:
        z[..., -1].imag = 0
    total = (frames - 1) * hop + n
    raw, envelope = np.zeros((batch, total)), np.zeros(total)
    for t in range(frames):
        raw[:, t * hop:t * hop + n] += np.fft.irfft(z[:, t], n) * window
        envelope[t * hop:t * hop + n] += window**2
    pad = n // 2 if center else 0
    end = pad + min(length if length >= 1 else total - 2 * pad, total - pad)
    heard = envelope > 1e-8
    signal = np.where(heard, raw / np.where(heard, envelope, 1), 0)
    return signal[:, pad:end], envelope[pad:end], abs(raw).max(axis=1, keepdims=True)


# Relative error of a whole spectrogram in the Euclidean norm. Frames that go through device memory add the error of
# one long transform, which has bounds of its own.
SPECTRUM_ERROR = {DOUBLE: 1e-14, 1: 4e-7}
LONG_SPECTRUM_ERROR = {DOUBLE: 1e-14, 1: 6e-7}


def spectrum_bound(n_fft, prec):
    return (LONG_SPECTRUM_ERROR if kevra.route_explain("stft", n_fft, prec)["staged"] else SPECTRUM_ERROR)[prec]


def assert_spectrum(got, spectrum, output, prec, bound, what, eps=1e-10):
    """``spectrum`` is the complex reference; a decibel may be off by what the bin's own error makes of it."""
    want = in_form(spectrum, output, eps)
    assert got.shape == want.shape, what
    if output == "db":
        size = np.sqrt(np.square(abs(spectrum)).mean()) * bound * 4
        own = 10 * np.log10((abs(spectrum) + size) ** 2 + eps) - 10 * np.log10(
            np.maximum(abs(spectrum) - size, 0) ** 2 + eps)
        off = abs(got - want) - own
        assert off.max() <= {DOUBLE: 1e-9, 1: 1e-4}[prec], f"{what}: {off.max()} dB"
        return
    error = np.linalg.norm(got - want) / np.linalg.norm(want)
    assert error <= bound * (2 if output == "power" else 1), f"{what}: {error}"


def stft_resident(y, window, n_fft, hop, center, output, prec, eps=1e-10, shift=0):
    """The resident call on rows of ``y``; the signal stands ``shift`` elements behind an aligned address."""
    storage = STORAGE[HALF if prec == 3 else prec]
    pad = n_fft // 2 if center else 0
    frames = (y.shape[1] + 2 * pad - n_fft) // hop + 1
    shape = (y.shape[0], frames, n_fft // 2 + 1, *([2] if output == "complex" else []))
    with Device() as device:
        x = device.upload(np.concatenate([np.zeros(shift), y.ravel()]).astype(storage))
        out = device.upload(np.full(int(np.prod(shape)), np.nan, storage))
        kevra.stft_resident(x + shift * storage(0).itemsize, out, *y.shape, n_fft, hop, center, output, eps, window,
                            prec)
        got = device.download(out, shape, storage).astype(np.float64)
    if output == "complex":
        got = got[..., 0] + 1j * got[..., 1]
    return got.swapaxes(1, 2)
