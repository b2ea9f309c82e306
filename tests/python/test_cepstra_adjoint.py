"""Gradients of cepstra, against numpy's transposed steps and differences."""

import itertools

import kevra
import numpy as np
import pytest
from mel_gradients import BOUND, assert_rows, banks_of, mel_transposed
from signal_gradients import Guarded, frames_in
from spectrograms import stft_reference
from support import DOUBLE, FLOAT, STORAGE, Device, fresh, pools_in_use

# n_fft, hop, batch, coefficients, lifter: one block and a fused forward, both routes back, more coefficients than bands.
SHAPES = [(64, 16, 3, 5, 22.0), (400, 160, 2, 13, 0.0), (1009, 300, 2, 1, -1.0), (16, 3, 3, 12, 7.5)]


@pytest.fixture(autouse=True)
def as_at_start():
    yield
    kevra.set_deterministic(0)


def case(n, hop, batch, n_out, kind="triangles"):
    """Frames from loud to soft, so that a floor raises some, and a gradient laid out (batch, coefficients, frames)."""
    rng = np.random.default_rng(n)
    y = rng.standard_normal((batch, 7 * hop + n))
    y *= np.geomspace(1, 1e-3, y.shape[1])
    return y, banks_of(n)[kind], rng.standard_normal((batch, n_out, frames_in(y.shape[1], n, hop, True)))


def cosines(n_out, n_mels, lifter):
    k, m = np.arange(n_out)[:, None], np.arange(n_mels)
    weight = 1 + lifter / 2 * np.sin(np.pi * (k + 1) / lifter) if lifter > 0 else 1
    return weight * np.sqrt(np.where(k > 0, 2, 1) / n_mels) * np.cos(np.pi * k * (m + 0.5) / n_mels)


def floored(g, decibels, top_db):
    """From the gradient of the raised bands, (batch, frames, bands), to that of the bands."""
    out = g.copy()
    for row, bands in zip(out, decibels, strict=True):
        low = bands < bands.max() - top_db
        row.ravel()[bands.argmax()] += row[low].sum()
        row[low] = 0
    return out


def want_of(y, fb, n, hop, n_out, lifter, top_db, gc, eps=1e-10):
    g = gc.swapaxes(1, 2) @ cosines(n_out, len(fb), lifter)
    decibels = 10 * np.log10(abs(stft_reference(y, "hann", n, hop, True).swapaxes(1, 2)) ** 2 @ fb.T + eps)
    if top_db >= 0:
        edge = decibels.max(axis=(1, 2), keepdims=True) - top_db
        assert (abs(decibels - edge)[decibels != edge] > 1e-6).all()  # no rounding decides who is raised
        assert (decibels < edge).any() or top_db > 100
        g = floored(g, decibels, top_db)
    return mel_transposed(y, fb, n, hop, True, 2, "db", g, eps)


def resident(y, fb, n, hop, n_out, lifter, top_db, gc, prec, eps=1e-10, repeats=1):
    storage = STORAGE[prec]
    with Device() as device:
        stream = device.stream()
        given, signal = device.upload(gc.astype(storage)), device.upload(y.astype(storage))
        results = []
        for _ in range(repeats):
            gx = Guarded(device, y.size, storage)
            kevra.cepstra_adjoint_resident(given, signal, gx.address, *y.shape, fb, n, hop, True, n_out, lifter,
                                           top_db, eps, "hann", prec, 0, stream)
            device.synchronize(stream)
            results.append(gx.read(*y.shape).astype(np.float64))
    return results if repeats > 1 else results[0]


@pytest.mark.parametrize(("n", "hop", "batch", "n_out", "lifter"), SHAPES)
def test_floors_banks_and_precisions(n, hop, batch, n_out, lifter):
    for deterministic, (top_db, kind) in enumerate(itertools.product((-1.0, 0.0, 25.0, 400.0), banks_of(n))):
        kevra.set_deterministic(deterministic // 2 % 2)
        y, fb, gc = case(n, hop, batch, n_out, kind)
        for prec in FLOAT, DOUBLE:
            given = y.astype(STORAGE[prec])
            want = want_of(given, fb, n, hop, n_out, lifter, top_db, gc)
            got = resident(given, fb, n, hop, n_out, lifter, top_db, gc, prec)
            # Soft bands have large gradients, and their loud frame's error.
            assert_rows(got, want, 20 * BOUND[prec], f"{n=} {n_out=} {top_db=} {kind} {prec=}")


@pytest.mark.parametrize("top_db", [-1.0, 30.0])
def test_is_the_derivative_of_the_forward_pass(top_db):
    y, fb, gc = case(64, 16, 2, 7)
    got = resident(y, fb, 64, 16, 7, 22.0, top_db, gc, DOUBLE, 1e-6)
    rng = np.random.default_rng(3)
    for _ in range(3):
        step = rng.standard_normal(y.shape) * abs(y) * 1e-6
        ahead, behind = (kevra.cepstra_staged(y + s, "hann", fb, 64, 16, True, 7, 22.0, top_db, 1e-6)
                         for s in (step, -step))
        want = np.vdot(gc, ahead - behind) / 2
        assert abs(want - np.vdot(got, step)) <= 1e-6 * np.linalg.norm(got) * np.linalg.norm(step)


def test_raised_bands_follow_the_first_of_equal_peaks():
    """Two frames alike, far apart in the grid's order, and quieter ones: the later of the two receives its own alone."""
    n, frames = 16, 301
    one = np.random.default_rng(0).standard_normal(n)
    y = np.tile(one * 1e-3, frames).reshape(frames, n)
    y[[30, 290]] = one
    fb, gc = np.eye(9)[[3]], np.zeros((1, 1, frames))
    gc[..., [0, 30, 290]] = 1
    y = y.reshape(1, -1)
    with Device() as device:
        gx = Guarded(device, y.size, np.float64)
        kevra.cepstra_adjoint_resident(device.upload(gc), device.upload(y), gx.address, *y.shape, fb, n, n, False, 1, 0.0,
                                       20.0, 1e-10, "hann", DOUBLE)
        device.synchronize(0)
        got = gx.read(frames, n)
    assert np.linalg.norm(got[290]) > 0
    np.testing.assert_allclose(got[30], 2 * got[290], rtol=1e-12)
    np.testing.assert_array_equal(np.delete(got, [30, 290], axis=0), 0)


@pytest.mark.parametrize("eps", [1e-10, 0.0])
@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
def test_silence_has_no_gradient(prec, eps):
    fb, gc = banks_of(32)["triangles"], np.ones((2, 4, 9))
    y = np.zeros((2, 8 * 8))
    y[1, :40] = np.random.default_rng(1).standard_normal(40)
    for top_db in -1.0, 0.0, 80.0:
        got = resident(y, fb, 32, 8, 4, 0.0, top_db, gc, prec, eps)
        assert np.isfinite(got).all()
        np.testing.assert_array_equal(got[0], 0)
        assert np.linalg.norm(got[1]) > 0


def repeated():
    kevra.set_deterministic(1)
    y, fb, gc = case(64, 5, 3, 6, "crowded")
    return {r.tobytes() for r in resident(y, fb, 64, 5, 6, 22.0, 30.0, gc, FLOAT, repeats=20)}


def test_deterministic_runs_agree_and_check_mode_finds_nothing():
    assert len(fresh(repeated, env={"KEVRA_CPU_ORDER": "shuffle:7"})) == 1
    fresh(repeated, env={"KEVRA_CPU_CHECK": "1"})


def test_refusals_and_nothing_for_no_rows():
    before = pools_in_use()
    good = {"batch": 1, "length": 64, "fb": np.ones((3, 9)), "n_fft": 16, "hop": 4, "center": True, "n_out": 4,
            "lifter": 0.0, "top_db": 80.0, "eps": 1e-10, "window": "hann", "prec": FLOAT}
    for change, words in [
        ({"prec": 0}, "^adjoint: half gradients compute in f32; upcast the tensors$"),
        ({"prec": 3}, "^adjoint: half gradients"), ({"n_out": 0}, "^cepstra: n_out is 0"),
        ({"batch": -1}, "^cepstra: batch is -1"), ({"top_db": float("nan")}, "^cepstra: top_db is nan"),
        ({"fb": np.ones((3, 8))}, "^mel: filterbank bins"), ({"length": 8}, "^mel: signal length must exceed pad"),
    ]:
        with pytest.raises(ValueError, match=words):
            kevra.cepstra_adjoint_resident(0, 0, 0, **{**good, **change})
    kevra.cepstra_adjoint_resident(0, 0, 0, **{**good, "batch": 0})
    assert pools_in_use() == before
