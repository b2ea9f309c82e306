"""Convolution of rows, through transforms."""

import functools
import math

import torch

import kevra

from ._resident import once, queue
from ._tensors import checked, unbatched


def convolve(a, b, mode="full"):
    """Convolution along the last axis: out[t] = sum of a[t - i] b[i].

    a: (..., n), b: (..., m), real or complex; the leading axes are broadcast. A kernel without any is shared by all
    rows and its gradient added up over them. Of two types the wider one counts, and complex if one is.
    mode: "full" has n + m - 1 samples, "same" the n samples from (m - 1) // 2 on, "valid" the n - m + 1 that see all of
    b.
    Returns (..., samples), in the unit of a times that of b.
    Raises TypeError for tensors of whole numbers, ValueError for wrong devices, shapes and modes.
    Source: T. G. Stockham, High-speed convolution and correlation, AFIPS 1966.
    """
    a, b = (checked("convolve", name, tensor, complex_too=True) for name, tensor in (("a", a), ("b", b)))
    n, m = a.shape[-1], b.shape[-1]
    start, count = _window(n, m, mode)
    dtype = torch.promote_types(a.dtype, b.dtype)
    leading = torch.broadcast_shapes(a.shape[:-1], b.shape[:-1])
    rows = a.to(dtype).expand(*leading, n).reshape(math.prod(leading), n)
    if math.prod(b.shape[:-1]) == 1:
        kernels = b.to(dtype).reshape(1, m)
    else:
        kernels = b.to(dtype).expand(*leading, m).reshape(math.prod(leading), m)
    return unbatched(_Convolve.apply(rows.contiguous(), kernels.contiguous(), start, count), leading)


def _window(n, m, mode):
    """First sample of the full convolution that is wanted, and how many."""
    if n < 1 or m < 1:
        raise ValueError(f"convolve: a has {n} samples and b {m}, each must have at least 1")
    windows = {"full": (0, n + m - 1), "same": ((m - 1) // 2, n), "valid": (m - 1, n - m + 1)}
    if mode not in windows:
        raise ValueError(f"convolve: mode is {mode!r}, must be one of {', '.join(map(repr, windows))}")
    if mode == "valid" and n < m:
        raise ValueError(f"convolve: a has {n} samples, must have at least the {m} of b where mode is 'valid'")
    return windows[mode]


@functools.cache
def _transform_length(least):
    """The least number from `least` up that has no prime factor above 5."""
    best = 1 << (least - 1).bit_length()
    fives = 1
    while fives < best:
        odd = fives
        while odd < best:
            best = min(best, odd << max(0, -(-least // odd) - 1).bit_length())
            odd *= 3
        fives *= 5
    return best


class _Convolve(torch.autograd.Function):
    @staticmethod
    def forward(ctx, a, b, start, count):
        (rows, n), (rows_b, m) = a.shape, b.shape
        out = a.new_empty((rows, count))
        convolution = kevra.conv_cplx_resident if a.is_complex() else kevra.conv_fft_resident
        ctx.transform = _transform_length(n + m - 1)
        queue(convolution, a, b, out, rows, rows_b, n, m, ctx.transform, start, count)
        ctx.save_for_backward(*(x if wanted else None for x, wanted in zip((a, b), reversed(ctx.needs_input_grad[:2]))))
        ctx.shapes, ctx.start = (a.shape, b.shape), start
        return out

    @once("convolve")
    def backward(ctx, g):
        g = g.contiguous()
        (a, b), ((rows, n), (rows_b, m)) = ctx.saved_tensors, ctx.shapes
        ga = gb = None
        if ctx.needs_input_grad[0]:
            ga = _correlate(ctx, g, b, g.new_empty((rows, n)), False)
        if ctx.needs_input_grad[1]:
            gb = _correlate(ctx, g, a, g.new_empty((rows_b, m)), rows_b != rows)
        return ga, gb


def _correlate(ctx, g, other, out, sum_rows):
    """The gradient of one operand: that of the result correlated with the other operand."""
    rows, count = g.shape
    if rows == 0:
        return out.zero_()
    queue(kevra.conv_adjoint_resident, g, other, out, rows, len(other), count, other.shape[1], ctx.transform, ctx.start,
          other.shape[1] - 1, out.shape[1], sum_rows, g.is_complex())
    return out
