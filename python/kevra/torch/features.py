"""Statistics of frames: of their magnitudes, and of their samples."""

import operator

import torch

import kevra

from ._resident import once, queue
from ._tensors import Framing, batched, checked, constant, frame_rows, unbatched

_CENTROID, _BANDWIDTH, _FLATNESS = range(3)


def spectral_centroid(m, fstep):
    """Centre of each spectrum: c = sum(fstep i m[i]) / max(sum(m), 1e-10).

    m: magnitudes (..., bins, frames), as stft returns them. fstep: the distance of two bins in the unit that the result
    is to have, rate / n_fft for Hz.
    Returns (..., frames). Raises TypeError for tensors that are not real, ValueError for wrong devices and shapes.
    Source: G. Peeters, A large set of audio features for sound description, CUIDADO project report, 2004.
    """
    return _statistic("spectral_centroid", m, _CENTROID, fstep, 2.0, 0.0)


def spectral_bandwidth(m, fstep, p=2.0):
    """Spread of each spectrum around its centroid c: (sum(m[i] abs(fstep i - c)**p) / max(sum(m), 1e-10))**(1 / p).

    m, fstep: as in spectral_centroid. p: finite and above 0. Silence has the gradient 0.
    Returns (..., frames), in the unit of fstep. Raises as spectral_centroid, and ValueError for p out of bounds.
    Source: as spectral_centroid.
    """
    return _statistic("spectral_bandwidth", m, _BANDWIDTH, fstep, p, 0.0)


def spectral_flatness(m, amin=1e-10):
    """Geometric mean of the powers max(m[i]**2, amin) of each spectrum over their arithmetic mean.

    m: as in spectral_centroid. amin: in the square of m's unit, above 0; what lies below passes no gradient.
    Returns (..., frames), from 0 to 1. Raises as spectral_centroid.
    Source: J. D. Johnston, Transform coding of audio signals using perceptual noise criteria, IEEE J. Sel. Areas
    Commun. 6, 1988.
    """
    return _statistic("spectral_flatness", m, _FLATNESS, 1.0, 2.0, amin)


def _statistic(function, m, *statistic):
    rows, leading = frame_rows(checked(function, "m", m, 2))
    return unbatched(_Statistic.apply(rows, function, statistic), leading)


class _Statistic(torch.autograd.Function):
    @staticmethod
    def forward(ctx, m, function, statistic):
        batch, frames, bins = m.shape
        out = m.new_empty((batch, frames))
        share_of_a_rolloff = 0.0
        queue(kevra.spectral_reduce_resident, m, out, batch * frames, bins, *statistic, share_of_a_rolloff)
        ctx.save_for_backward(m)
        ctx.statistic = statistic
        return out

    @once("spectral_centroid, spectral_bandwidth and spectral_flatness")
    def backward(ctx, g):
        (m,) = ctx.saved_tensors
        gm = torch.empty_like(m)
        queue(kevra.spectral_adjoint_resident, m, g.contiguous(), gm, g.numel(), m.shape[2], *ctx.statistic)
        return (gm,)


def contrast(m, bt, bq, amin=1e-10, linear=False):
    """How far the largest magnitudes of each band stand above its smallest.

    m: magnitudes (..., bins, frames), as stft returns them. bt: n_bands + 1 bins, ascending, to at most bins; bq:
    n_bands counts q. A band's peak is the mean of its q largest magnitudes, its valley that of its q smallest.
    linear: peak - valley; else 10 log10(peak / valley), both raised to amin first. What is raised passes no gradient.
    Returns (..., n_bands, frames); a view whose bands are adjacent in memory.
    Raises TypeError for tensors that are not real, ValueError for wrong devices, shapes and bands.
    Source: D.-N. Jiang, L. Lu, H.-J. Zhang, J.-H. Tao and L.-H. Cai, Music type classification by spectral contrast
    feature, ICME 2002.
    """
    rows, leading = frame_rows(checked("contrast", "m", m, 2))
    bands = constant("contrast", "bt", bt), constant("contrast", "bq", bq)
    return unbatched(_Contrast.apply(rows, (*bands, amin, bool(linear))).transpose(1, 2), leading)


class _Contrast(torch.autograd.Function):
    @staticmethod
    def forward(ctx, m, setting):
        batch, frames, bins = m.shape
        out = m.new_empty((batch, frames, len(setting[1])))
        queue(kevra.contrast_reduce_resident, m, out, batch * frames, bins, *setting)
        ctx.save_for_backward(m)
        ctx.setting = setting
        return out

    @once("contrast")
    def backward(ctx, g):
        (m,) = ctx.saved_tensors
        batch, frames, bins = m.shape
        gm = torch.empty_like(m)
        queue(kevra.contrast_adjoint_resident, m, g.contiguous(), gm, batch * frames, bins, *ctx.setting)
        return (gm,)


def rms(y, frame_length, hop, center=True):
    """Root-mean-square energy per frame: sqrt(sum of x^2 over a frame / frame_length). A silent frame passes no
    gradient.

    y: real (..., samples). frame_length, hop: in samples. center: reflect the signal by frame_length // 2 at both ends.
    Returns (..., frames), in the unit of y, with as many frames as ``kevra.rms_staged`` gives.
    Raises TypeError for tensors that are not real, ValueError for wrong devices and sizes.
    Source: L. R. Rabiner and R. W. Schafer, Digital Processing of Speech Signals, 1978, section 4.2.
    """
    rows, leading = batched(checked("rms", "y", y), 1)
    frames = Framing(None, operator.index(frame_length), operator.index(hop), bool(center))
    return unbatched(_Rms.apply(rows.contiguous(), frames), leading)


class _Rms(torch.autograd.Function):
    @staticmethod
    def forward(ctx, y, frames):
        batch, length = y.shape
        out = y.new_empty((batch, frames.frames(length)))
        queue(kevra.rms_resident, y, out, batch, length, out.shape[1], *frames[1:])
        ctx.save_for_backward(y, out)
        ctx.frames = frames
        return out

    @once("rms")
    def backward(ctx, g):
        y, energy = ctx.saved_tensors
        gy = torch.empty_like(y)
        queue(kevra.rms_adjoint_resident, y, energy, g.contiguous(), gy, *y.shape, g.shape[1], *ctx.frames[1:])
        return (gy,)


def onset_strength(m):
    """Mean over bins of max(0, m[t] - m[t - 1]) per frame; 0 for the first frame. Equal neighbours pass no gradient.

    m: spectrogram (..., bins, frames), as stft and mel return it.
    Returns (..., frames), in the unit of m.
    Raises TypeError for tensors that are not real, ValueError for wrong devices and shapes.
    Source: S. Boeck and G. Widmer, Maximum filter vibrato suppression for onset detection, DAFx 2013, section 2.
    """
    rows, leading = frame_rows(checked("onset_strength", "m", m, 2))
    return unbatched(_Onset.apply(rows), leading)


class _Onset(torch.autograd.Function):
    @staticmethod
    def forward(ctx, m):
        out = m.new_empty(m.shape[:2])
        queue(kevra.onset_strength_resident, m, out, *m.shape)
        ctx.save_for_backward(m)
        return out

    @once("onset_strength")
    def backward(ctx, g):
        (m,) = ctx.saved_tensors
        gm = torch.empty_like(m)
        queue(kevra.onset_strength_adjoint_resident, m, g.contiguous(), gm, *m.shape)
        return (gm,)
