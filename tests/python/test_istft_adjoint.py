"""Gradients through the inverse short-time transform, against numpy's transforms and dot products."""

import itertools

import kevra
import numpy as np
import pytest
from signal_gradients import istft_adjoint, istft_reference, istft_transposed
from support import DOUBLE, FLOAT, STORAGE, Device, too_many_blocks_to_check

ROUTES = {  # n_fft, hop
    "powers of two": ((2, 1), (64, 16), (2048, 512)),
    "mixed radices": ((6, 2), (15, 4), (400, 160)),
    "a prime stage": ((34, 10),),
    "staged, a large prime": ((1009, 250), (2018, 500)),
    "staged, too long for a block": ((20000, 6000),),
}
CASES = [pytest.param(n, hop, id=f"{n} {hop} {label}") for label, sizes in ROUTES.items() for n, hop in sizes]
SIZES = [size for sizes in ROUTES.values() for size in sizes]
BOUND = {FLOAT: 2e-6, DOUBLE: 1e-14}


@pytest.mark.parametrize(("n", "hop"), CASES)
def test_every_precision_and_route(n, hop):
    for prec, center, frames in (FLOAT, True, 6), (FLOAT, False, 5), (DOUBLE, True, 3), (DOUBLE, False, 1):
        rng = np.random.default_rng(n + frames)
        length = (frames - 1) * hop + n - (n // 2 * 2 if center else 0)
        gy = rng.standard_normal((3, length)).astype(STORAGE[prec])
        # On a pedestal: no sum of squares is so small that it enlarges errors.
        window = 0.54 - 0.46 * np.cos(2 * np.pi * np.arange(n) / n)
        got = istft_adjoint(gy, window, n, hop, center, frames, prec)
        want = istft_transposed(gy, window, n, hop, center, frames)
        error = np.linalg.norm(got - want) / np.linalg.norm(want)
        assert error <= BOUND[prec], f"{n=} {hop=} {prec=} {center=} {frames=}: {error}"


@pytest.mark.parametrize("n", [8, 9])
def test_every_hop_and_length(n):
    """Cut ends, edge bins of even and odd n_fft, samples that no window reaches, and those past the last frame."""
    rng = np.random.default_rng(n)
    window = np.append(0, rng.uniform(0.5, 1, n - 1))
    window[-1] = 1e-5
    for hop, center, frames in itertools.product((1, 3, n), (False, True), (1, 4)):
        total = (frames - 1) * hop + n - (n // 2 if center else 0)
        for length in (0, 1, total - n // 2, total, total + 3):
            gy = rng.standard_normal((2, length))
            got = istft_adjoint(gy, window, n, hop, center, frames, DOUBLE)
            want = istft_transposed(gy, window, n, hop, center, frames)
            what = f"{hop=} {center=} {frames=} {length=}"
            np.testing.assert_allclose(got, want, rtol=1e-12, atol=1e-12, err_msg=what)
            np.testing.assert_array_equal(got.imag[..., 0], 0)
            if n % 2 == 0:
                np.testing.assert_array_equal(got.imag[..., -1], 0)


@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
def test_is_the_transpose_of_the_forward_pass(prec):
    rng = np.random.default_rng(prec)
    for trial in range(30):
        n, hop = SIZES[trial % len(SIZES)]
        center = bool(rng.integers(2))
        frames = int(rng.integers(2, 7))
        length = int(rng.integers(1, (frames - 1) * hop + n - (n // 2 if center else 0) + 1))
        window = rng.uniform(0.1, 1, n)
        z = (rng.standard_normal((2, frames, n // 2 + 1, 2)).astype(STORAGE[prec])) @ (1, 1j)
        z = z.astype(np.result_type(STORAGE[prec], np.complex64))
        y = kevra.istft_staged(z, window, n, hop, center, length).astype(np.float64)
        gy = rng.standard_normal(y.shape).astype(STORAGE[prec])
        back = istft_adjoint(gy, window, n, hop, center, frames, prec)
        off = abs(np.vdot(y, gy) - np.vdot(z, back).real)
        size = np.linalg.norm(y) * np.linalg.norm(gy)
        assert off <= {FLOAT: 1e-6, DOUBLE: 1e-13}[prec] * size, f"{n=} {hop=} {center=} {length=}: {off / size}"
    want = istft_reference(z, window, n, hop, center, length)
    assert np.linalg.norm(y - want) <= {FLOAT: 1e-5, DOUBLE: 1e-12}[prec] * np.linalg.norm(want)


@too_many_blocks_to_check
def test_more_rows_than_a_grid_has():
    gy = np.random.default_rng(0).standard_normal((65537, 4))
    got = istft_adjoint(gy, "boxcar", 2, 2, False, 2, FLOAT)
    np.testing.assert_allclose(got, istft_transposed(gy, "boxcar", 2, 2, False, 2), atol=1e-5)


GOOD = {"batch": 2, "length": 32, "n_fft": 16, "hop": 4, "center": False, "frames": 5, "window": "hann", "prec": FLOAT}
REFUSED = [
    ({"prec": 0}, "adjoint: half gradients compute in f32; upcast the tensors"),
    ({"prec": 3}, "adjoint: half gradients compute in f32; upcast the tensors"),
    ({"batch": -1}, "istft_adjoint: batch is -1, must be at least 0"),
    ({"length": -1}, "istft_adjoint: length is -1, must be at least 0"),
    ({"n_fft": 1}, "istft_adjoint: n_fft is 1, must be at least 2"),
    ({"hop": 0}, "istft_adjoint: hop is 0, must be at least 1"),
    ({"hop": 17}, "istft_adjoint: hop is 17, must be at most 16"),
    ({"frames": -1}, "istft_adjoint: frames is -1, must be at least 0"),
    ({"window": np.ones(15)}, "window array must have win_length"),
]


@pytest.mark.parametrize(("changes", "words"), REFUSED)
def test_refuses_and_queues_nothing(changes, words):
    with Device() as device:
        gy, gz = device.upload(np.ones((2, 32), np.float32)), device.upload(np.full(180, 5, np.float32))
        with pytest.raises(ValueError, match=words):
            kevra.istft_adjoint_resident(gy, gz, **{**GOOD, **changes})
        for nothing in "batch", "frames":
            kevra.istft_adjoint_resident(0, gz, **{**GOOD, nothing: 0})
        np.testing.assert_array_equal(device.download(gz, 180, np.float32), 5)
