"""Gradients with respect to signals and spectrograms by numpy, and the device calls that they are held against."""

import kevra
import numpy as np
from spectrograms import overlap_add, window_values
from support import STORAGE, Device

# Where bin k of frame f of row b stands: axes in the order of memory, and every which element is one.
LAYOUTS = {"bins adjacent": ((0, 1, 2), 1), "frames adjacent": ((0, 2, 1), 1), "rows adjacent": ((1, 2, 0), 1),
           "gaps": ((0, 1, 2), 2)}


def frames_in(length, n_fft, hop, center):
    return (length + center * (n_fft // 2) * 2 - n_fft) // hop + 1


def laid_out(gradient, layout):
    """(batch, frames, bins) in another order of memory, NaN in its gaps, and the strides in elements."""
    order, every = LAYOUTS[layout]
    memory = np.repeat(gradient.transpose(order), every, axis=-1)
    if every > 1:
        memory[..., 1::every] = np.nan
    sizes = [memory.shape[axis] for axis in range(3)]
    steps = [sizes[1] * sizes[2], sizes[2], every]
    return np.ascontiguousarray(memory), *(steps[order.index(axis)] for axis in (0, 2, 1))


def folded_back(padded, length, pad):
    """Rows of a padded signal's gradient to those of the signal: np.pad knows what stands where."""
    place = np.pad(np.arange(length), pad, mode="reflect") if pad else np.arange(length)
    out = np.zeros((len(padded), length))
    covered = min(padded.shape[1], len(place))
    np.add.at(out, (slice(None), place[:covered]), padded[:, :covered])
    return out


def stft_transposed(gradient, window, n_fft, hop, center, length):
    """From (batch, frames, bins): inverse real transforms, which count an inner bin twice, of halved inner bins."""
    halved = gradient.astype(np.complex128) / 2
    halved[..., 0] *= 2
    if n_fft % 2 == 0:
        halved[..., -1] *= 2
    frames = np.fft.irfft(halved, n_fft, axis=-1) * n_fft * window_values(window, n_fft)
    padded = np.zeros((len(frames), (frames.shape[1] - 1) * hop + n_fft))
    for f in range(frames.shape[1]):
        padded[:, f * hop:f * hop + n_fft] += frames[:, f]
    return folded_back(padded, length, n_fft // 2 if center else 0)


def form_factor(spectrum, output, eps):
    """d form / d abs(X), over abs(X)."""
    power = abs(spectrum) ** 2
    magnitude = np.sqrt(power)
    return {"complex": np.ones(power.shape), "power": np.full(power.shape, 2.0),
            "magnitude": np.divide(1, magnitude, out=np.zeros(power.shape), where=magnitude > 1e-12),
            "db": 20 / np.log(10) / np.maximum(power + eps, 1e-300)}[output]


def real_pairs(z, storage):
    return np.stack([z.real, z.imag], axis=-1).astype(storage)


class Guarded:
    """An output of ``count`` elements that are NaN before, with others behind that have to stay."""

    def __init__(self, device, count, dtype):
        self.device, self.count, self.dtype = device, count, dtype
        self.address = device.upload(np.append(np.full(count, np.nan), np.full(64, 7)).astype(dtype))

    def read(self, *shape):
        flat = self.device.download(self.address, self.count + 64, self.dtype)
        np.testing.assert_array_equal(flat[self.count:], 7)
        return flat[:self.count].reshape(shape)


def stft_adjoint(gradient, x, window, n_fft, hop, center, output, prec, eps=1e-10, layout="bins adjacent",
                 with_stream=False, length=None):
    """``gradient`` is (batch, frames, bins), complex or real by ``output``; x the signal, or None with its length."""
    storage = STORAGE[prec]
    length = length or x.shape[1]
    wide = np.result_type(storage, np.complex64) if output == "complex" else storage
    memory, sb, sk, st = laid_out(gradient.astype(wide), layout)
    batch, frames, bins = gradient.shape
    with Device() as device:
        stream = device.stream() if with_stream else 0
        gx = Guarded(device, batch * length, storage)
        g = device.upload(memory)
        sizes = batch, bins, frames, sb, sk, st, n_fft, hop, center, length
        if output == "complex":
            kevra.stft_adjoint_resident(g, gx.address, *sizes, window, prec, 0, stream)
        else:
            signal = device.upload(x.astype(storage))
            kevra.stft_adjoint_mode_resident(g, signal, gx.address, *sizes, output, eps, window, prec, 0, stream)
        device.synchronize(stream)
        return gx.read(batch, length).astype(np.float64)


def istft_adjoint(gy, window, n_fft, hop, center, frames, prec):
    storage = STORAGE[prec]
    batch, bins = len(gy), n_fft // 2 + 1
    with Device() as device:
        gz = Guarded(device, batch * frames * bins * 2, storage)
        g = device.upload(gy.astype(storage)) if gy.size else 0
        kevra.istft_adjoint_resident(g, gz.address, *gy.shape, n_fft, hop, center,
                                     frames, window, prec)
        device.synchronize(0)
        parts = gz.read(batch, frames, bins, 2).astype(np.float64)
    return parts[..., 0] + 1j * parts[..., 1]


def istft_transposed(gy, window, n_fft, hop, center, frames):
    """(batch, frames, bins), a frame's samples by np.fft.rfft; what the forward pass does not make is cut off."""
    w = window_values(window, n_fft)
    bins, pad = n_fft // 2 + 1, n_fft // 2 if center else 0
    total = (frames - 1) * hop + n_fft
    envelope = np.zeros(total)
    for t in range(frames):
        envelope[t * hop:t * hop + n_fft] += w**2
    heard = envelope > 1e-8
    padded = np.zeros((len(gy), total))
    count = min(gy.shape[1], total - pad)
    padded[:, pad:pad + count] = gy[:, :count]
    padded = np.where(heard, padded / np.where(heard, envelope, 1), 0)
    gz = np.stack([np.fft.rfft(padded[:, t * hop:t * hop + n_fft] * w, axis=1) for t in range(frames)], axis=1)
    twice = np.full(bins, 2.0)
    twice[0] = 1
    gz.imag[..., 0] = 0
    if n_fft % 2 == 0:
        twice[-1] = 1
        gz.imag[..., -1] = 0
    return gz * twice / n_fft


def istft_reference(z, window, n_fft, hop, center, length=-1):
    return overlap_add(z, window_values(window, n_fft), n_fft, hop, center, length)[0]
