"""Decibels, and from mel bands back to bins."""

import hashlib
import math

import numpy as np
import torch

import kevra

from ._resident import once, queue
from ._tensors import checked, constant, frame_rows, unbatched


def db(s, mul=10.0, amin=1e-10, ref=1.0, top_db=None, axes=2):
    """Decibels: mul * log10(max(s, amin) / ref). What lies below amin passes no gradient.

    s: real, of any shape. mul: 10 for powers, 20 for amplitudes. amin, ref: in the unit of s, above 0.
    top_db: raise what lies further than this below the largest of its item to that level; its gradient goes to the
    largest, in even parts where several are. None raises nothing. axes: how many of the last axes make an item; 2 for
    spectrograms.
    Returns the shape of s.
    Raises TypeError for tensors that are not real, ValueError for wrong devices, amin, ref and axes out of bounds.
    Source: ISO 80000-3:2006, quantities of level.
    """
    s = checked("db", "s", s, 0)
    for name, value in ("amin", amin), ("ref", ref):
        if not value > 0:
            raise ValueError(f"db: {name} is {value}, must be above 0")
    if axes < 1:
        raise ValueError(f"db: axes is {axes}, must be at least 1")
    turned = s.ndim > 1 and axes > 1 and s.mT.is_contiguous() and not s.is_contiguous()  # as stft and mel return them
    dense = s.mT if turned else s.contiguous()
    split = max(s.ndim - axes, 0)
    setting = (mul, amin, mul * math.log10(ref), 0.0 if top_db is None else top_db, top_db is not None)
    levels = _Db.apply(dense, (math.prod(s.shape[:split]), math.prod(s.shape[split:])), setting)
    return levels.mT if turned else levels


class _Db(torch.autograd.Function):
    @staticmethod
    def forward(ctx, s, items, setting):
        out = torch.empty_like(s)
        queue(kevra.db_resident, s, out, *items, *setting)
        ctx.save_for_backward(s)
        ctx.items, ctx.setting = items, setting
        return out

    @once("db")
    def backward(ctx, g):
        (s,) = ctx.saved_tensors
        gs = torch.empty_like(s)
        mul, amin, _, top_db, has_top = ctx.setting
        queue(kevra.db_adjoint_resident, s, g.contiguous(), gs, *ctx.items, mul, amin, top_db, has_top)
        return (gs,)


def inverse_mel_scale(m, P, clamp=True, key=None):
    """Bins of spectra from mel bands: P times the bands of each frame.

    m: bands (..., n_in, frames), as mel returns them. P: array or tensor (n_out, n_in), as a rule the pseudo-inverse of
    a filter bank. clamp: values below 0 become 0 and pass no gradient.
    key: a name that always stands for the same P, which is uploaded once for it; by default a digest of P, computed at
    each call (about a millisecond a megabyte).
    Returns (..., n_out, frames), in the unit of m times that of P; a view whose bins are adjacent in memory.
    Raises TypeError for tensors that are not real, ValueError for wrong devices and shapes.
    Source: R. Penrose, A generalized inverse for matrices, Proc. Cambridge Phil. Soc. 51, 1955.
    """
    matrix = np.ascontiguousarray(constant("inverse_mel_scale", "P", P), dtype=np.float64)
    rows, leading = frame_rows(checked("inverse_mel_scale", "m", m, 2))
    if matrix.ndim != 2 or matrix.shape[1] != rows.shape[2]:
        raise ValueError(f"inverse_mel_scale: P has shape {matrix.shape}, must be (n_out, {rows.shape[2]}) for m of as "
                         "many bands")
    if key is None:
        key = f"inverse_mel_{hashlib.blake2b(matrix, digest_size=16).hexdigest()}"
    return unbatched(_InverseMel.apply(rows, matrix, key, bool(clamp)).transpose(1, 2), leading)


class _InverseMel(torch.autograd.Function):
    @staticmethod
    def forward(ctx, m, *setting):
        batch, frames, _ = m.shape
        out = m.new_empty((batch, frames, len(setting[0])))
        queue(kevra.inverse_mel_scale_resident, m, out, batch * frames, *setting)
        ctx.save_for_backward(m)
        ctx.setting = setting
        return out

    @once("inverse_mel_scale")
    def backward(ctx, g):
        (m,) = ctx.saved_tensors
        gm = torch.empty_like(m)
        queue(kevra.inverse_mel_scale_adjoint_resident, m, g.contiguous(), gm, g.shape[0] * g.shape[1], *ctx.setting)
        return (gm,)
