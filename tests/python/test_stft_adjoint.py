"""Gradients through the short-time transform, against numpy's transposed transform, differences and dot products."""

import itertools
import math

import kevra
import numpy as np
import pytest
from signal_gradients import LAYOUTS, form_factor, frames_in, stft_adjoint, stft_transposed
from spectrograms import FORMS, stft_reference
from support import DOUBLE, FLOAT, STORAGE, Device, fresh, pools_in_use, too_many_blocks_to_check

REAL_FORMS = FORMS[1:]
ROUTES = {  # n_fft, hop
    "powers of two": ((2, 1), (64, 16), (1024, 256)),
    "mixed radices": ((6, 2), (15, 4), (400, 160)),
    "gaps between frames": ((16, 20),),
    "a prime stage": ((34, 10),),
    "staged, a large prime": ((1009, 250), (2018, 500)),
    "staged, too long for a block": ((20000, 6000),),
}
CASES = [pytest.param(n, hop, id=f"{n} {hop} {label}") for label, sizes in ROUTES.items() for n, hop in sizes]
SIZES = [size for sizes in ROUTES.values() for size in sizes]
# Relative error of a row in the Euclidean norm, from a forward and a backward transform of float or double.
BOUND = {FLOAT: 2e-6, DOUBLE: 1e-14}


@pytest.fixture(autouse=True)
def as_at_start():
    yield
    kevra.set_deterministic(0)


def signal_and_gradient(n, hop, center, output, prec, batch=3, eps=1e-3, frames=6):
    """A bin's incoming gradient is as small as makes its own gradient well defined: no bin's error is blown up."""
    rng = np.random.default_rng(n + hop)
    length = (frames - 1) * hop + n + hop // 3
    x = rng.standard_normal((batch, length)).astype(STORAGE[prec])
    spectrum = stft_reference(x, "hann", n, hop, center).swapaxes(1, 2)
    gradient = rng.standard_normal((*spectrum.shape, 2)).astype(STORAGE[prec]) @ (1, 1j)
    if output != "complex":
        damped = np.where(abs(spectrum) > 1e-3, 1 / form_factor(spectrum, output, eps), 0)
        gradient = (gradient.real * np.minimum(damped, 10)).astype(STORAGE[prec])
    return x, spectrum, gradient


def assert_rows(got, want, bound, what):
    error = np.linalg.norm(got - want, axis=1) / np.linalg.norm(want, axis=1)
    assert error.max() <= bound, f"{what}: {error.max()}"


@pytest.mark.parametrize(("n", "hop"), CASES)
def test_every_form_precision_layout_and_route(n, hop):
    settings = list(zip([0, 1, 1, 0], [True, False, True, False], LAYOUTS, strict=True))
    for number, (prec, output) in enumerate(itertools.product((FLOAT, DOUBLE), FORMS)):
        # Another one in double than in float.
        deterministic, center, layout = settings[(number + number // len(FORMS)) % len(settings)]
        kevra.set_deterministic(deterministic)
        x, spectrum, gradient = signal_and_gradient(n, hop, center, output, prec)
        of_bins = gradient * form_factor(spectrum, output, 1e-3) * (1 if output == "complex" else spectrum)
        want = stft_transposed(of_bins, "hann", n, hop, center, x.shape[1])
        got = stft_adjoint(gradient, x, "hann", n, hop, center, output, prec, 1e-3, layout, prec == FLOAT)
        assert_rows(got, want, BOUND[prec], f"{n=} {hop=} {output=} {prec=} {deterministic=} {center=} {layout=}")


@pytest.mark.parametrize("deterministic", [0, 1])
@pytest.mark.parametrize("n", [8, 9])
def test_every_length_hop_and_end(n, deterministic):
    """Impulses at every sample's place: mirrors at both ends, samples behind the last frame, gaps."""
    kevra.set_deterministic(deterministic)
    window = np.arange(1.0, n + 1)
    rng = np.random.default_rng(n)
    for center, hop in itertools.product((False, True), (1, 3, n, n + 5)):
        for length in range(n // 2 + 1 if center else n, n + 7):
            frames = frames_in(length, n, hop, center)
            gradient = rng.standard_normal((2, frames, n // 2 + 1, 2)) @ (1, 1j)
            want = stft_transposed(gradient, window, n, hop, center, length)
            got = stft_adjoint(gradient, None, window, n, hop, center, "complex", DOUBLE, length=length)
            np.testing.assert_allclose(got, want, rtol=0, atol=1e-12, err_msg=f"{n=} {hop=} {center=} {length=}")
            np.testing.assert_array_equal(got[:, ~np.isin(np.arange(length), reached(n, hop, center, length))], 0)


def reached(n, hop, center, length):
    pad = n // 2 if center else 0
    place = np.pad(np.arange(length), pad, mode="reflect") if pad else np.arange(length)
    return np.unique([place[f * hop:f * hop + n] for f in range(frames_in(length, n, hop, center))])


@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
def test_is_the_transpose_of_the_forward_pass(prec):
    rng = np.random.default_rng(prec)
    for trial in range(30):
        n, hop = SIZES[trial % len(SIZES)]
        center = bool(rng.integers(2))
        length = n + int(rng.integers(5 * n))
        kevra.set_deterministic(trial % 2)
        x = rng.standard_normal((2, length)).astype(STORAGE[prec])
        window = rng.uniform(0.1, 1, n)
        forward = kevra.stft_staged(x, window, n, hop, center, "complex").swapaxes(1, 2).astype(np.complex128)
        gradient = (rng.standard_normal((*forward.shape, 2)).astype(STORAGE[prec])) @ (1, 1j)
        back = stft_adjoint(gradient, None, window, n, hop, center, "complex", prec, length=length)
        off = abs(np.vdot(forward, gradient).real - np.vdot(x, back))
        size = np.linalg.norm(forward) * np.linalg.norm(gradient)
        assert off <= {FLOAT: 1e-6, DOUBLE: 1e-13}[prec] * size, f"{n=} {hop=} {center=} {length=}: {off / size}"


@pytest.mark.parametrize("output", REAL_FORMS)
@pytest.mark.parametrize(("n", "hop"), [(64, 16), (15, 4), (2018, 800)])
def test_is_the_derivative_of_the_forward_pass(n, hop, output):
    rng = np.random.default_rng(n)
    x = rng.standard_normal((2, 5 * n))
    for center, eps in (True, 1e-2), (False, 1e-2), (False, 1.0):
        options = "hann", n, hop, center, output
        gradient = rng.standard_normal(kevra.stft_staged(x, *options, eps).shape)
        slope = stft_adjoint(gradient.swapaxes(1, 2), x, *options, DOUBLE, eps)
        for _ in range(3):
            step = rng.standard_normal(x.shape) * 1e-6
            ahead, behind = (kevra.stft_staged(x + s, *options, eps) for s in (step, -step))
            want = np.vdot(gradient, ahead - behind) / 2
            size = np.linalg.norm(slope) * np.linalg.norm(step)
            assert abs(want - np.vdot(slope, step)) <= 1e-6 * size


@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
@pytest.mark.parametrize("n", [32, 2018])
def test_silence_and_single_zero_bins_have_finite_gradients(n, prec):
    # One frame of silence, one whose bins from 1 up are 0 to rounding, one of noise.
    x = np.zeros((1, 3 * n))
    x[:, n:2 * n] = 1
    x[:, 2 * n:] = np.random.default_rng(n).standard_normal(n)
    gradient = np.ones((1, 3, n // 2 + 1))
    for output, eps in ("magnitude", 0), ("power", 0), ("db", 0), ("db", 1e-10), ("db", 1e-60):
        got = stft_adjoint(gradient, x, "boxcar", n, n, False, output, prec, eps)
        assert np.isfinite(got).all(), (output, eps)
        np.testing.assert_array_equal(got[:, :n], 0, f"{output} {eps}")
        assert np.linalg.norm(got[:, 2 * n:]) > 0
    # A bin of exactly 0 beside others: of +1, -1, +1, ... all but the last.
    x = np.resize([1.0, -1.0], (1, 32))
    got = stft_adjoint(np.ones((1, 1, 17)), x, "boxcar", 32, 32, False, "magnitude", prec)
    np.testing.assert_allclose(got, x, atol=1e-6)


@pytest.mark.parametrize(("n", "hop"), [(64, 5), (1009, 250)])
@pytest.mark.parametrize("output", ["complex", "db"])
def test_deterministic_runs_agree_bit_for_bit(n, hop, output):
    assert len(set(fresh(repeated, n, hop, output, env={"KEVRA_CPU_ORDER": "shuffle:7"}))) == 1


def repeated(n, hop, output):
    kevra.use_cpu_device()
    kevra.set_deterministic(1)
    rng = np.random.default_rng(n)
    length, bins, batch = 6 * n, n // 2 + 1, 4
    frames = frames_in(length, n, hop, True)
    with Device() as device:
        x = device.upload(rng.standard_normal((batch, length)).astype(np.float32))
        g = device.upload(rng.standard_normal((batch, frames, bins, 2)).astype(np.float32))
        gx = device.empty(batch * length, np.float32)
        sizes = batch, bins, frames, frames * bins, 1, bins, n, hop, True, length
        results = []
        for _ in range(20):
            if output == "complex":
                kevra.stft_adjoint_resident(g, gx, *sizes, "hann", FLOAT)
            else:
                kevra.stft_adjoint_mode_resident(g, x, gx, *sizes, output, 1e-10, "hann", FLOAT)
            results.append(device.download(gx, batch * length, np.float32).tobytes())
    return results


@too_many_blocks_to_check
def test_more_rows_than_a_grid_has():
    gradient = np.random.default_rng(0).standard_normal((65537, 2, 2, 2)) @ (1, 1j)
    got = stft_adjoint(gradient, None, "boxcar", 2, 2, False, "complex", FLOAT, length=4)
    np.testing.assert_allclose(got, stft_transposed(gradient, "boxcar", 2, 2, False, 4), atol=1e-5)
    x = np.random.default_rng(1).standard_normal((65537, 4))
    got = stft_adjoint(gradient.real, x, "boxcar", 2, 2, False, "power", FLOAT)
    spectrum = stft_reference(x, "boxcar", 2, 2, False).swapaxes(1, 2)
    np.testing.assert_allclose(got, stft_transposed(2 * gradient.real * spectrum, "boxcar", 2, 2, False, 4), atol=1e-4)


GOOD = {"batch": 2, "bins": 9, "frames": 5, "stride_batch": 45, "stride_bin": 1, "stride_frame": 9, "n_fft": 16,
        "hop": 4, "center": False, "length": 32, "window": "hann", "prec": FLOAT}
REFUSED = [
    ({"prec": 0}, "adjoint: half gradients compute in f32; upcast the tensors"),
    ({"prec": 3}, "adjoint: half gradients compute in f32; upcast the tensors"),
    ({"bins": 8}, "stft_adjoint: bins must be n_fft/2\\+1"),
    ({"frames": 4}, "stft_adjoint: frames is 4, must be 5, as many as 32 samples have"),
    ({"frames": 6}, "frames is 6, must be 5"),
    ({"batch": -1}, "stft_adjoint: batch is -1, must be at least 0"),
    ({"hop": 0}, "stft_adjoint: hop is 0, must be at least 1"),
    ({"length": 15}, "stft_adjoint: signal too short for n_fft"),
    ({"length": 8, "center": True}, "stft_adjoint: signal length must exceed pad"),
    ({"window": np.ones(15)}, "window array must have win_length"),
    ({"output": "complex"}, "stft_adjoint_mode: output must be magnitude.*stft_adjoint_resident"),
    ({"output": "db", "eps": -1.0}, "stft_adjoint: eps is -1"),
    ({"output": "db", "eps": math.nan}, "stft_adjoint: eps is nan"),
]


@pytest.mark.parametrize(("changes", "words"), REFUSED)
def test_refuses_and_queues_nothing(changes, words):
    with Device() as device:
        x, gx = device.upload(np.ones((2, 32), np.float32)), device.upload(np.full(64, 5, np.float32))
        g = device.upload(np.ones((2, 5, 9, 2), np.float32))
        values = {**GOOD, **changes}
        mode = {"output": "magnitude", "eps": 1e-10, **values}
        with pytest.raises(ValueError, match=words):
            kevra.stft_adjoint_mode_resident(g, x, gx, **mode)
        if "output" not in changes:
            with pytest.raises(ValueError, match=words):
                kevra.stft_adjoint_resident(g, gx, **values)
        # No rows, no launch.
        kevra.stft_adjoint_resident(0, gx, **{**GOOD, "batch": 0})
        np.testing.assert_array_equal(device.download(gx, 64, np.float32), 5)


@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
def test_a_frame_that_fits_a_block_without_its_spectrum(prec):
    """The complex form takes it; the real forms would need room for the spectrum and say so."""
    n = {FLOAT: 8192, DOUBLE: 4096}[prec]
    x, spectrum, gradient = signal_and_gradient(n, n // 2, False, "complex", prec, batch=1, frames=3)
    got = stft_adjoint(gradient, None, "hann", n, n // 2, False, "complex", prec, length=x.shape[1])
    assert_rows(got, stft_transposed(gradient, "hann", n, n // 2, False, x.shape[1]), BOUND[prec], n)
    with pytest.raises(ValueError, match="stft_adjoint: n_fft exceeds the device shared-memory limit"):
        stft_adjoint(abs(gradient), x, "hann", n, n // 2, False, "magnitude", prec)


@pytest.mark.parametrize("n", [64, 1009])
def test_scratch_goes_back_to_the_pool(n):
    x, _, gradient = signal_and_gradient(n, n // 4, True, "power", FLOAT)
    for deterministic in 0, 1:
        kevra.set_deterministic(deterministic)
        in_use = []
        for _ in range(2):  # the first call's tables stay
            stft_adjoint(gradient, x, "hann", n, n // 4, True, "power", FLOAT)
            in_use.append(pools_in_use())
        assert in_use[0] == in_use[1]
