"""Gradients of chroma at constant peaks, against numpy and against differences of the sums by class."""

import kevra
import numpy as np
import pytest
from constant_q import bin_gradients, draw, reference, relative, transpose
from support import DOUBLE, FLOAT, HALF, STORAGE, Device, fresh

ERROR = {FLOAT: 2e-4, DOUBLE: 1e-11}  # a magnitude's gradient divides by the magnitude


def case(n_chroma, frames=260):
    """Noise with a silent row, and classes of which one has no bin."""
    rng = np.random.default_rng(n_chroma)
    x = rng.standard_normal((3, 2001))
    x[1] = 0
    plan = draw(rng, 2001, 3, frames, [64, 200])
    classes = rng.integers(0, max(n_chroma - 1, 1), plan.n_bins)
    return x, plan, classes, rng.standard_normal((3, n_chroma, frames))


def arguments(plan, classes, n_chroma):
    levels, octaves, taps, *names, frames = plan.arguments
    return levels, octaves, taps, classes, *names, n_chroma, frames


def adjoint(device, x, g, plan, classes, prec):
    out, stream = device.upload(np.full(x.size + 64, 7, x.dtype)), device.stream()
    kevra.chroma_adjoint_resident(device.upload(x), device.upload(g), out, *x.shape,
                                  *arguments(plan, classes, g.shape[1]), prec, 0, stream)
    device.synchronize(stream)
    flat = device.download(out, x.size + 64, x.dtype)
    np.testing.assert_array_equal(flat[x.size:], 7)
    return flat[:x.size].reshape(x.shape)


def sums(x, plan, classes, n_chroma):
    folded = np.zeros((len(x), n_chroma, plan.frames))
    np.add.at(folded, (slice(None), classes), abs(reference(x, plan)))
    return folded


def run_case(n_chroma, frames=260):
    x, plan, classes, g = case(n_chroma, frames)
    peaks = np.maximum(sums(x, plan, classes, n_chroma).max(axis=1, keepdims=True), 1e-30)
    of_bins = bin_gradients(reference(x, plan), (g / peaks)[:, classes], "magnitude")
    want = transpose(of_bins, plan, x.shape[1])
    with Device() as device:
        for prec in FLOAT, DOUBLE:
            for ordered in 0, 1:
                kevra.set_deterministic(ordered)
                got = adjoint(device, x.astype(STORAGE[prec]), g.astype(STORAGE[prec]), plan, classes, prec)
                assert not got[1].any() and relative(got, want) <= ERROR[prec], f"{n_chroma=} {prec=}"
    kevra.set_deterministic(0)
    return x, plan, classes, g, peaks, got


@pytest.mark.parametrize("n_chroma", [1, 12, 1024])
def test_gradients_at_constant_peaks(n_chroma):
    x, plan, classes, g, peaks, got = run_case(n_chroma)
    direction = np.random.default_rng(0).standard_normal(x.shape)
    direction[1] = 0  # a kink
    ends = [np.vdot(g, sums(x + side * direction, plan, classes, n_chroma) / peaks) for side in (1e-6, -1e-6)]
    slope = np.vdot(got, direction)
    assert abs(slope - (ends[0] - ends[1]) / 2e-6) <= 1e-6 * np.linalg.norm(got) * np.linalg.norm(direction)


def test_designed_plans_have_their_chroma_arguments():
    """Scaling a class's gradient scales its share; the forward pass's tables serve."""
    plan = kevra.constant_q_plan(8000, 64, 36, 12, 110.0)
    x = np.random.default_rng(1).standard_normal((2, 3000))
    g = np.zeros((2, 12, plan.frames(3000)))
    g[:, 4] = 1
    kevra.chroma_staged(x, *plan.chroma_arguments(3000))
    shares = []
    with Device() as device:
        for scale in 1, -3:
            out = device.empty(x.size, x.dtype)
            kevra.chroma_adjoint_resident(device.upload(x), device.upload(scale * g), out, *x.shape,
                                          *plan.chroma_arguments(3000), DOUBLE)
            device.synchronize(0)
            shares.append(device.download(out, x.shape, x.dtype))
    assert shares[0].any() and relative(shares[1], -3 * shares[0]) <= 1e-12


def test_what_is_refused_is_refused_before_anything_is_queued():
    x, plan, classes, g = case(12, 20)
    last = plan.n_bins - 1
    with Device() as device:
        pointers = device.upload(x), device.upload(g), device.upload(7 * np.ones_like(x))
        for change, changed, n_chroma, prec, words in [
            (classes, plan, 12, HALF, "adjoint: half gradients compute in f32; upcast the tensors$"),
            (classes[:-1], plan, 12, DOUBLE, f"chroma_adjoint: classes has {last} entries, must have one a bin"),
            (classes + 0.5, plan, 12, DOUBLE, "chroma_adjoint: classes has 1 dimensions of type float64"),
            (np.where(np.arange(last + 1) == last, 12, classes), plan, 12, DOUBLE,
             rf"chroma_adjoint: classes\[{last}\] is 12, must be at least 0 and below n_chroma = 12"),
            (classes, plan, 1025, DOUBLE, "chroma_adjoint: n_chroma is 1025, must be at most 1024"),
            (classes, plan.changed(octaves=[(-1, *plan.octaves[0][1:]), *plan.octaves[1:]]), 12, DOUBLE,
             r"chroma_adjoint: octaves\[0\]: level is -1"),
        ]:
            with pytest.raises(ValueError, match=f"^{words}"):
                kevra.chroma_adjoint_resident(*pointers, *x.shape, *arguments(changed, change, n_chroma), prec)
        with pytest.raises(ValueError, match=r"^kevra_hbdec: batch exceeds grid\.y limit"):
            kevra.chroma_adjoint_resident(*pointers, 65536, 2001, *arguments(plan, classes, 12), DOUBLE)
        np.testing.assert_array_equal(device.download(pointers[2], x.shape, x.dtype), 7)
        kevra.chroma_adjoint_resident(*pointers, *x.shape, *arguments(plan.changed(frames=0), classes, 12), DOUBLE)
        np.testing.assert_array_equal(device.download(pointers[2], x.shape, x.dtype), 0)


@pytest.mark.parametrize("switch", [{"KEVRA_CPU_CHECK": "1"}, {"KEVRA_CPU_ORDER": "shuffle:1"}], ids=str)
def test_no_race_and_no_order(switch):
    fresh(run_case, 12, 9, env=switch)
