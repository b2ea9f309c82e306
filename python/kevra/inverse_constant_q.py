"""From constant-Q transforms back to signals: dual filters for plans, and the way back by them."""

from __future__ import annotations

import math

import numpy as np

from . import _rocm

_BETWEEN = 8  # responses are taken at this many points a bin of a level's transform, and straight lines between them


def dual_octaves(plan):
    """The dual filters of a constant-Q plan, an octave each, as ``icqt_direct_staged`` and ``icqt_direct_resident``
    take them.

    With G_k the response of bin k to a tone, and P the sum of abs(G_k)^2 over all bins, the dual filter of bin k is
    conj(G_k) / P: a transform followed by the filters then has a gain of 1 from the lowest to the highest bin, but for
    what frames too far apart fold back (``hop``). Outside of that range P is held where it ends, so that the duals
    fade out with the filters.

    plan: a ConstantQPlan.

    Returns a list of tuples (level, n_d, row_lo, rows, D), D complex (rows, n_d // 2 + 1), in the order of
    plan.octaves. A frame's middle is its sample span / 2, span = n_d 2^level, so the signal made of an octave begins
    span / 2 samples before the one that was transformed. As spans differ, every octave is a call of its own with a
    plan_key of its own; ``constant_q_inverse`` shows how.

    Source: G. A. Velasco, N. Holighaus, M. Doerfler and T. Grill, Constructing an invertible constant-Q transform with
    nonstationary Gabor frames, DAFx 2011.
    """
    return [_dual(plan, octave) for octave in plan.octaves]


def constant_q_inverse(C, plan, samples, n_iter=0):
    """Signals from their complex constant-Q transform: the estimate by dual filters, then ``n_iter`` steps of conjugate
    gradient towards the signal whose transform is nearest.

    C: array (batch, plan.n_bins, plan.frames(samples)) as ``cqt_staged(y, *plan.arguments(samples), "complex")`` makes
    it; complex128 is computed in double, all else in float.
    plan: a ConstantQPlan. What lies outside its bins' bands is lost; the steps of ``hop`` have to be small against the
    filters of the highest bins, or the estimate holds what they fold back.
    samples: of the signals. n_iter: 0 is the estimate alone, close but for the ends of the signal.

    Returns (batch, samples). Raises ValueError for other shapes, RuntimeError when HIP fails. Sources: as
    ``dual_octaves`` and ``icqt_cg_staged``.
    """
    C = np.asarray(C)
    frames = plan.frames(samples)
    if C.ndim != 3 or C.shape[1:] != (plan.n_bins, frames):
        raise ValueError(f"constant_q_inverse: C has shape {C.shape}, must be (batch, {plan.n_bins}, {frames}) for "
                         f"this plan and {samples} samples")
    y = 0
    for level, n_d, row, rows, D in dual_octaves(plan):
        delay = n_d * 2**level // 2
        octave, key = [(level, n_d, 0, rows, D)], f"{plan.plan_key}_duals{row}"
        part = C[:, row : row + rows]
        y = y + _rocm.icqt_direct_staged(part, samples + delay, rows, frames, plan.hop, octave, key)[:, delay:]
    return _rocm.icqt_cg_staged(C, y, *plan.arguments(samples), n_iter) if n_iter > 0 else y


def _dual(plan, octave):
    level, hop, n_fft, row, real, _ = octave
    # Every sample has equally many frames over it, or the mean of them would waver; and frames have a middle.
    step = math.lcm(hop, 2)
    least = -(-n_fft // step)
    n_d = step * min(factor << (-(-least // factor) - 1).bit_length() for factor in (1, 3, 5))  # quick to transform
    responses = _responses(octave, n_d)
    power = _power(plan, np.arange(n_d // 2 + 1) * plan.sample_rate / 2**level / n_d)
    D = n_d * np.divide(responses.conj(), power, out=np.zeros_like(responses), where=power > 0)
    return level, n_d, row, len(real), D * np.where(np.arange(n_d // 2 + 1) % 2, -1, 1)  # to the middle of the frame


def _responses(octave, points):
    """What an octave's bins answer to exp(2 pi j i t / points), (rows, points // 2 + 1); t counts from the middle of a
    frame, in samples of the level."""
    _, _, n_fft, _, real, imaginary = octave
    filters = np.fft.fft(real + 1j * imaginary, n_fft, axis=1)
    turn = np.exp(-2j * np.pi * (n_fft // 2) / points * np.arange(points // 2 + 1))
    return points * np.fft.ifft(filters, points, axis=1)[:, : points // 2 + 1] * turn


def _power(plan, frequencies):
    """The sum of all bins' squared responses at frequencies in Hz, from the lowest to the highest bin."""
    inside = np.clip(frequencies, plan.frequencies.min(), plan.frequencies.max())
    total = np.zeros(len(inside))
    for octave in plan.octaves:
        points = _BETWEEN * octave[2]
        own = np.arange(points // 2 + 1) * plan.sample_rate / 2 ** octave[0] / points
        total += np.interp(inside, own, (abs(_responses(octave, points)) ** 2).sum(axis=0), right=0)
    return total
