"""The constant-Q transform, chroma and tonnetz."""

import torch

import kevra
from kevra.constant_q import ConstantQPlan

from ._resident import once, queue
from ._tensors import batched, checked, complex_of, frame_rows, one_of, real_of, unbatched


def cqt(y, plan, output="complex", eps=1e-10):
    """Constant-Q transform by a plan.

    y: real (..., samples). plan: what ``kevra.constant_q_plan`` returns.
    output: "complex", "magnitude", "power" or "db" (10 log10(power + eps)). The gradient of a magnitude of 0 is 0.
    Returns (..., n_bins, frames) with ``plan.frames(samples)`` frames.
    Raises TypeError for tensors that are not real and for plans that are none, ValueError for wrong devices, signals
    too short, outputs and eps.
    Source: J. C. Brown and M. S. Puckette, An efficient algorithm for the calculation of a constant Q transform,
    J. Acoust. Soc. Am. 92, 1992; C. Schoerkhuber and A. Klapuri, Constant-Q transform toolbox for music processing, SMC
    2010.
    """
    rows, leading = _signal("cqt", y, plan)
    one_of("cqt", "output", output, ["complex", "magnitude", "power", "db"])
    return unbatched(_Cqt.apply(rows, plan, output, eps), leading)


def _signal(function, y, plan):
    if not isinstance(plan, ConstantQPlan):
        raise TypeError(f"{function}: plan is a {type(plan).__name__}, must be what kevra.constant_q_plan returns")
    rows, leading = batched(checked(function, "y", y), 1)
    return rows.contiguous(), leading


class _Cqt(torch.autograd.Function):
    @staticmethod
    def forward(ctx, y, plan, output, eps):
        batch, length = y.shape
        design = plan.arguments(length)
        dtype = complex_of(y.dtype) if output == "complex" else y.dtype
        out = y.new_empty((batch, plan.n_bins, plan.frames(length)), dtype=dtype)
        queue(kevra.cqt_resident, y, out, batch, length, *design, output, eps)
        ctx.setting = (length, *design, output, eps)
        if output != "complex":
            ctx.save_for_backward(y)
        return out

    @once("cqt")
    def backward(ctx, g):
        batch, length = len(g), ctx.setting[0]
        gy = g.new_empty((batch, length), dtype=real_of(g.dtype))
        y = ctx.saved_tensors[0] if ctx.saved_tensors else 0  # the gradient of complex values does not read it
        queue(kevra.cqt_adjoint_resident, y, g.contiguous(), gy, batch, *ctx.setting)
        return (gy,)


def chroma(y, plan):
    """Magnitudes of a constant-Q transform added up by pitch class, each frame divided by its largest class, or by
    1e-30 where that is larger.

    y: real (..., samples). plan: what ``kevra.constant_q_plan`` returns.
    Returns (..., n_chroma, frames), from 0 to 1. The gradient counts the division by the largest class, which
    ``kevra.chroma_adjoint_resident`` leaves out; where several classes are the largest, the first is.
    Raises TypeError for tensors that are not real and for plans that are none, ValueError for wrong devices and signals
    too short.
    Source: T. Fujishima, Realtime chord recognition of musical sound: a system using Common Lisp Music, ICMC 1999.
    """
    rows, leading = _signal("chroma", y, plan)
    return unbatched(_Chroma.apply(rows, plan), leading)


class _Chroma(torch.autograd.Function):
    @staticmethod
    def forward(ctx, y, plan):
        batch, length = y.shape
        out = y.new_empty((batch, plan.n_chroma, plan.frames(length)))
        queue(kevra.chroma_resident, y, out, batch, length, *plan.chroma_arguments(length))
        ctx.save_for_backward(y, out)
        ctx.plan = plan
        return out

    @once("chroma")
    def backward(ctx, g):
        y, out = ctx.saved_tensors
        # out = sums / peak, and the entry point takes the peak for a constant: d peak is -sum(g out) / peak. Where the
        # floor of 1e-30 stands in for the peak no class is 1, and it is a constant.
        largest, where = out.max(dim=1, keepdim=True)
        of_peak = torch.where(largest >= 1, (g * out).sum(dim=1, keepdim=True), 0)
        g = g.contiguous().scatter_add(1, where, -of_peak)
        gy = torch.empty_like(y)
        queue(kevra.chroma_adjoint_resident, y, g, gy, *y.shape, *ctx.plan.chroma_arguments(y.shape[1]))
        return (gy,)


def tonnetz(c):
    """Tonal coordinates of chroma: coordinate d of a frame is the sum of basis[d, p] c[p] over the sum of c[p]; 0 where
    that sum is not positive, with the gradient 0.

    c: real (..., 12, frames), as chroma returns it.
    Returns (..., 6, frames); a view whose coordinates are adjacent in memory.
    Raises TypeError for tensors that are not real, ValueError for wrong devices and shapes.
    Source: C. Harte, M. Sandler and M. Gasser, Detecting harmonic change in musical audio, ACM AMCMM 2006.
    """
    rows, leading = frame_rows(checked("tonnetz", "c", c, 2))
    if rows.shape[2] != 12:
        raise ValueError(f"tonnetz: c has {rows.shape[2]} classes, must have 12")
    return unbatched(_Tonnetz.apply(rows).transpose(1, 2), leading)


class _Tonnetz(torch.autograd.Function):
    @staticmethod
    def forward(ctx, c):
        batch, frames, _ = c.shape
        out = c.new_empty((batch, frames, 6))
        queue(kevra.tonnetz_resident, c, out, batch * frames)
        ctx.save_for_backward(c)
        return out

    @once("tonnetz")
    def backward(ctx, g):
        (c,) = ctx.saved_tensors
        gc = torch.empty_like(c)
        queue(kevra.tonnetz_adjoint_resident, c, g.contiguous(), gc, c.shape[0] * c.shape[1])
        return (gc,)
