"""Short-time transforms and what is computed from signals by way of them."""

import operator

import torch

import kevra

from ._resident import once, queue
from ._tensors import as_complex, batched, checked, complex_of, filter_bank, framing, one_of, real_of, unbatched


def stft(y, window, n_fft, hop, center=True, output="complex", eps=1e-10):
    """Short-time Fourier transform: X[k] of a frame is the sum of w[i] s[i] exp(-2 pi i k i / n_fft), unscaled.

    y: real (..., samples). window: a name or n_fft samples; n_fft, hop: in samples; center: reflect the signal by
    n_fft // 2 at both ends: all as in ``kevra.stft_staged``.
    output: "complex", "magnitude", "power" or "db" (10 log10(power + eps)).
    Returns (..., n_fft // 2 + 1, frames) with frames = (samples + 2 pad - n_fft) // hop + 1; a view whose bins are
    adjacent in memory. The gradient of a magnitude up to 1e-12 is 0.
    Raises TypeError for tensors that are not real, ValueError for wrong devices, sizes, windows, outputs and eps.
    Source: J. B. Allen, Short term spectral analysis, synthesis, and modification by discrete Fourier transform,
    IEEE Trans. ASSP 25, 1977.
    """
    y = checked("stft", "y", y)
    one_of("stft", "output", output, ["complex", "magnitude", "power", "db"])
    rows, leading = batched(y, 1)
    spectra = _Stft.apply(rows.contiguous(), framing("stft", window, n_fft, hop, center), output, eps)
    return unbatched(spectra.transpose(1, 2), leading)


class _Stft(torch.autograd.Function):
    @staticmethod
    def forward(ctx, y, frames, output, eps):
        batch, length = y.shape
        dtype = complex_of(y.dtype) if output == "complex" else y.dtype
        out = y.new_empty((batch, frames.frames(length), frames.bins), dtype=dtype)
        queue(kevra.stft_resident, y, out, batch, length, *frames[1:], output, eps, frames.window)
        ctx.length, ctx.frames, ctx.form = length, frames, (output, eps)
        if output != "complex":
            ctx.save_for_backward(y)
        return out

    @once("stft")
    def backward(ctx, g):
        gy = g.new_empty((len(g), ctx.length), dtype=real_of(g.dtype))
        setting = (*_layout(g), *ctx.frames[1:], ctx.length)
        if g.is_complex():
            queue(kevra.stft_adjoint_resident, g, gy, *setting, ctx.frames.window)
        else:
            queue(kevra.stft_adjoint_mode_resident, g, *ctx.saved_tensors, gy, *setting, *ctx.form, ctx.frames.window)
        return (gy,)


def _layout(g):
    """Batch, bins and frames of (batch, frames, bins), then their strides: gradients are read wherever they lie."""
    batch, frames, bins = g.shape
    of_batch, of_frame, of_bin = g.stride()
    return batch, bins, frames, of_batch, of_bin, of_frame


def istft(z, window, n_fft, hop, center=True, length=None):
    """Signals from spectra: the windowed inverse transforms of the frames are overlap-added and divided by the sum of
    the squared windows. Samples whose sum is at most 1e-8 are 0, and pass no gradient.

    z: (..., n_fft // 2 + 1, frames), as stft returns it, in any layout. The imaginary parts of bin 0 and, for even
    n_fft, of the last bin are ignored. window, hop, center: as in ``kevra.istft_staged``.
    length: samples wanted, at most (frames - 1) * hop + n_fft less the padding in front; None for as many as there are.
    Returns real (..., samples).
    Raises TypeError for tensors of whole numbers, ValueError for wrong devices, sizes and windows.
    Source: D. W. Griffin and J. S. Lim, Signal estimation from modified short-time Fourier transform, IEEE Trans. ASSP
    32, 1984.
    """
    z = as_complex("istft", "z", z, 2)
    frames = framing("istft", window, n_fft, hop, center)
    whole = max(0, (z.shape[-1] - 1) * frames.hop + frames.n_fft - frames.padding)
    if length is None:
        length = max(0, whole - frames.padding)
    elif operator.index(length) < 1:
        raise ValueError(f"istft: length is {length}, must be at least 1, or None for all that there is")
    rows, leading = batched(z, 2)
    return unbatched(_Istft.apply(rows, frames, min(length, whole)), leading)


class _Istft(torch.autograd.Function):
    @staticmethod
    def forward(ctx, z, frames, length):
        batch, bins, count = z.shape
        out = z.new_empty((batch, length), dtype=real_of(z.dtype))
        queue(kevra.istft_resident, z, out, batch, bins, count, *z.stride(), *frames[1:], length, frames.window)
        ctx.frames, ctx.count = frames, count
        return out

    @once("istft")
    def backward(ctx, g):
        batch, length = g.shape
        gz = g.new_empty((batch, ctx.count, ctx.frames.bins), dtype=complex_of(g.dtype))
        queue(kevra.istft_adjoint_resident, g.contiguous(), gz, batch, length, *ctx.frames[1:], ctx.count,
              ctx.frames.window)
        return (gz.transpose(1, 2),)


def mel(y, window, fb, n_fft, hop, center=True, power=2, output="power", eps=1e-10):
    """Bands of short-time spectra: band m of a frame is the sum of fb[m, k] |X[k]|**power over the bins k, X as in
    stft.

    y: real (..., samples). window, n_fft, hop, center: as in stft.
    fb: array or tensor (n_mels, n_fft // 2 + 1), as ``kevra.mel_filter_bank`` makes it; known by a sampled hash, see
    ``kevra.mel_staged``. power: 1 for magnitudes, 2 for powers.
    output: "power" is the band itself, "magnitude" its square root, "db" 10 log10(band + eps).
    Returns (..., n_mels, frames); a view whose bands are adjacent in memory.
    Raises TypeError for tensors that are not real, ValueError for wrong devices, sizes, banks, windows, powers, outputs
    and eps.
    Source: S. B. Davis and P. Mermelstein, Comparison of parametric representations for monosyllabic word recognition
    in continuously spoken sentences, IEEE Trans. ASSP 28, 1980.
    """
    y = checked("mel", "y", y)
    one_of("mel", "output", output, ["power", "magnitude", "db"])
    rows, leading = batched(y, 1)
    frames = framing("mel", window, n_fft, hop, center)
    bands = _Mel.apply(rows.contiguous(), frames, *filter_bank("mel", fb), (power, output, eps))
    return unbatched(bands.transpose(1, 2), leading)


class _Mel(torch.autograd.Function):
    @staticmethod
    def forward(ctx, y, frames, fb, n_mels, form):
        batch, length = y.shape
        out = y.new_empty((batch, frames.frames(length), n_mels))
        queue(kevra.mel_resident, y, out, batch, length, fb, *frames[1:], *form, frames.window)
        ctx.save_for_backward(y)
        ctx.frames, ctx.fb, ctx.form = frames, fb, form
        return out

    @once("mel")
    def backward(ctx, g):
        (y,) = ctx.saved_tensors
        gy = torch.empty_like(y)
        queue(kevra.mel_adjoint_resident, g, y, gy, *_layout(g), ctx.fb, *ctx.frames[1:], y.shape[1], *ctx.form,
              ctx.frames.window)
        return (gy,)


def mfcc(y, window, fb, n_fft, hop, center=True, n_out=13, lifter=0.0, top_db=80.0, eps=1e-10):
    """Mel-frequency cepstral coefficients: coefficient k is w[k] times coefficient k of the orthonormal DCT-II over a
    frame's bands in decibels, 10 log10(band + eps), of powers.

    y: real (..., samples). window, n_fft, hop, center: as in stft; fb: as in mel.
    n_out: coefficients. lifter: w[k] = 1 + lifter / 2 sin(pi (k + 1) / lifter); 0 weighs nothing.
    top_db: bands further than this below the loudest band of their row of y are raised to that level, and their
    gradient goes to it; None raises none.
    Returns (..., n_out, frames); a view whose coefficients are adjacent in memory.
    Raises TypeError for tensors that are not real, ValueError for wrong devices, sizes, banks, windows, lifters, top_db
    and eps.
    Source: S. B. Davis and P. Mermelstein, Comparison of parametric representations for monosyllabic word recognition
    in continuously spoken sentences, IEEE Trans. ASSP 28, 1980.
    """
    y = checked("mfcc", "y", y)
    rows, leading = batched(y, 1)
    frames = framing("mfcc", window, n_fft, hop, center)
    form = (operator.index(n_out), float(lifter), -1.0 if top_db is None else float(top_db), float(eps))
    coefficients = _Mfcc.apply(rows.contiguous(), frames, filter_bank("mfcc", fb)[0], form)
    return unbatched(coefficients.transpose(1, 2), leading)


class _Mfcc(torch.autograd.Function):
    @staticmethod
    def forward(ctx, y, frames, fb, form):
        batch, length = y.shape
        out = y.new_empty((batch, frames.frames(length), max(form[0], 0)))
        queue(kevra.cepstra_resident, y, out, batch, length, fb, *frames[1:], *form, frames.window)
        ctx.save_for_backward(y)
        ctx.frames, ctx.fb, ctx.form = frames, fb, form
        return out

    @once("mfcc")
    def backward(ctx, g):
        (y,) = ctx.saved_tensors
        gy = torch.empty_like(y)
        queue(kevra.cepstra_adjoint_resident, g.transpose(1, 2).contiguous(), y, gy, *y.shape, ctx.fb, *ctx.frames[1:],
              *ctx.form, ctx.frames.window)
        return (gy,)
