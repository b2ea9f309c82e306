"""Constant-Q transforms back to signals by conjugate gradient: the method in numpy, with a graph and without, and what
happens when the device fails on the way."""

import itertools
import re

import kevra
import numpy as np
import pytest
from constant_q import Plan, basis, half_band, new_key, reference, relative
from kevra import _diagnostics
from support import DOUBLE, FLOAT, STORAGE, Device, Fresh, pools_in_use

COMPLEX = {FLOAT: np.complex64, DOUBLE: np.complex128}
# The steps go the same way for as long as rounding has not been amplified by the ill-conditioned ones.
ERROR = {FLOAT: 2e-4, DOUBLE: 1e-11}


def matrix(plan, length):
    """The transform as a real matrix, the real parts of all coefficients above the imaginary ones."""
    columns = reference(np.eye(length), plan).reshape(length, -1).T
    return np.concatenate([columns.real, columns.imag])


def parts(C):
    flat = C.reshape(len(C), -1)
    return np.concatenate([flat.real, flat.imag], axis=1).astype(np.float64)


def steps(A, C, y, n_iter):
    """Each row by itself."""
    y = y.astype(np.float64)
    for row, c in zip(y, parts(C)):
        r = A.T @ (c - A @ row)
        p, rs = r.copy(), r @ r
        for _ in range(n_iter):
            q = A.T @ (A @ p)
            alpha = rs / max(p @ q, 1e-30)
            row += alpha * p
            r -= alpha * q
            rs, old = r @ r, rs
            p = r + rs / max(old, 1e-30) * p
    return y


def plan_of(seed, n_levels, frames, sizes):
    rng = np.random.default_rng(seed)
    octaves, row = [], 0
    for level in range(n_levels):
        n_fft, rows = int(rng.choice(sizes)), int(rng.integers(4, 9))
        octaves.append((level, 32 >> level, n_fft, row, *basis(rng, rows, n_fft)))
        row += rows
    return Plan(n_levels, octaves, half_band(rng), new_key(), row, frames)


def case(seed, n_levels=3, sizes=(32, 64, 100), length=301, batch=2):
    rng = np.random.default_rng(seed)
    plan = plan_of(seed, n_levels, 9, sizes)
    C = reference(rng.standard_normal((batch, length)), plan)
    return plan, C, rng.standard_normal((batch, length))


@pytest.mark.parametrize("seed, n_levels, length, batch", [(0, 1, 300, 1), (1, 3, 301, 3), (2, 4, 290, 300)])
def test_steps_are_those_of_the_method(seed, n_levels, length, batch):
    plan, C, y0 = case(seed, n_levels, length=length, batch=batch)
    A = matrix(plan, length)
    for prec in FLOAT, DOUBLE:
        own, start = C.astype(COMPLEX[prec]), y0.astype(STORAGE[prec])
        for n_iter in (0, 1, 2, 5) if batch < 10 else (3,):
            got = kevra.icqt_cg_staged(own, start, *plan.arguments, n_iter)
            assert got.dtype == STORAGE[prec] and got.shape == start.shape
            want = steps(A, own, start, n_iter)
            assert relative(got, want) <= (ERROR[prec] if n_iter else 0), f"{prec=} {n_iter=}"
    np.testing.assert_array_equal(kevra.icqt_cg_staged(C, y0, *plan.arguments, -3), y0)


def test_resident_on_a_stream_waits_and_keeps_to_its_rows():
    plan, C, y0 = case(5)
    want = steps(matrix(plan, 301), C, y0, 4)
    with Device() as device:
        for stream in device.stream(), device.stream(1), 0:
            y = device.upload(np.append(y0.ravel(), np.full(64, 7.0)))
            kevra.icqt_cg_resident(device.upload(C), y, 2, 301, *plan.arguments, 4, DOUBLE, 0, stream)
            got = device.download(y, 2 * 301 + 64, np.float64)
            np.testing.assert_array_equal(got[602:], 7)
            assert relative(got[:602].reshape(2, 301), want) <= ERROR[DOUBLE]


def test_what_has_converged_stays():
    """One row at rest, of which all scalars are 0, beside one on its way; and a start at the solution."""
    plan, C, y0 = case(6)
    C[0], y0[0] = 0, 0
    for prec in FLOAT, DOUBLE:
        own, start = C.astype(COMPLEX[prec]), y0.astype(STORAGE[prec])
        got = kevra.icqt_cg_staged(own, start, *plan.arguments, 6)
        np.testing.assert_array_equal(got[0], 0)
        alone = kevra.icqt_cg_staged(own[1:], start[1:], *plan.arguments, 6)
        assert relative(got[1:], alone) <= ERROR[prec]
    y = np.random.default_rng(7).standard_normal((2, 301))
    again = kevra.icqt_cg_staged(reference(y, plan), y, *plan.arguments, 3)
    np.testing.assert_allclose(again, y, atol=1e-12)


def test_the_pool_does_not_grow_from_call_to_call():
    """Scratch of the graph comes from the stream's blocks and goes back to them."""
    plan, C, y0 = case(8)
    kevra.drain_pool()
    cached = []
    for _ in range(3):
        kevra.icqt_cg_staged(C, y0, *plan.arguments, 5)
        cached.append(_diagnostics.read()["pools"]["device"]["cached_blocks"])
    assert cached[0] == cached[1] == cached[2] > 0


def test_plans_give_signals_back():
    plan = kevra.constant_q_plan(22050, 64, 48, 12, f_min=65.4, scale="amplitude")
    samples = 12000
    spectrum = np.fft.rfft(np.random.default_rng(0).standard_normal((2, samples)))
    hertz = np.fft.rfftfreq(samples, 1 / 22050)
    spectrum[:, (hertz < plan.frequencies[1]) | (hertz > plan.frequencies[-2])] = 0
    x = np.fft.irfft(spectrum, samples)
    C = kevra.cqt_staged(x, *plan.arguments(samples), "complex")
    estimate, solved = (kevra.constant_q_inverse(C, plan, samples, n) for n in (0, 20))
    assert relative(estimate, x) < 0.2 and relative(solved, x) < 10 ** (-30 / 20)


STEPS = 5
FAULTS = [
    "hipStreamCreateWithFlags:1", "hipStreamBeginCapture:1", "hipStreamEndCapture:1", "hipGraphInstantiate:1",
    "hipGraphDestroy:1", "hipEventCreate:1", "hipEventRecord:1", "hipStreamWaitEvent:1", "hipGraphLaunch:1",
    f"hipGraphLaunch:{STEPS - 1}", "hipEventRecord:2", "hipStreamWaitEvent:2", "hipEventDestroy:1",
    "hipGraphExecDestroy:1", "hipStreamDestroy:1",
]


def solve(n_iter=STEPS):
    """What two calls gave or raised, and the blocks in use behind them: those of tables."""
    plan, C, y0 = case(9)
    values = []
    for _ in range(2):
        try:
            values.append(kevra.icqt_cg_staged(C, y0, *plan.arguments, n_iter))
        except RuntimeError as error:
            values.append(str(error))
    return *values, pools_in_use()[0]


@pytest.fixture(scope="module")
def clean(tmp_path_factory):
    """A folder of kernels, and what comes of calls that nothing happens to."""
    folder = tmp_path_factory.mktemp("cache")
    return folder, Fresh(solve, env={"KEVRA_CACHE_DIR": folder}).result()[0]


def under(fault, folder, *arguments):
    value, errors = Fresh(solve, *arguments, env={"KEVRA_CACHE_DIR": folder, "KEVRA_CPU_FAIL": fault}).result()
    return value, "as KEVRA_CPU_FAIL asks" in errors


@pytest.mark.parametrize("fault", FAULTS)
def test_without_a_graph_steps_are_queued_one_by_one(fault, clean):
    folder, (want, _, tables) = clean
    (first, second, blocks), failed = under(fault, folder)
    assert failed and blocks == tables
    assert relative(first, want) < 1e-12 and relative(second, want) < 1e-12


def test_a_failing_launch_is_told_or_made_good(clean):
    """Made good while a graph is recorded; told before and, since nothing is queued twice, never behind it."""
    folder, (want, _, tables) = clean
    told = []
    for k in itertools.count(1, 6):
        (first, second, blocks), failed = under(f"hipModuleLaunchKernel:{k}", folder)
        if not failed:
            break
        told.append(isinstance(first, str))
        assert blocks == tables and relative(want, second) < 1e-12
        if told[-1]:
            assert re.search(r"ModuleLaunchKernel\(.* \[kevra_\w+\] failed: ", first, re.S), first
        else:
            assert relative(first, want) < 1e-12
        if told.count(False) == 2:
            break
    assert told.count(True) >= 2 and told == sorted(told, reverse=True)


def test_replays_are_as_many_as_steps_and_one_step_needs_no_graph(clean):
    folder, _ = clean
    assert under(f"hipGraphLaunch:{2 * STEPS}", folder)[1]
    assert not under(f"hipGraphLaunch:{2 * STEPS + 1}", folder)[1]
    assert not under("hipStreamCreateWithFlags:1", folder, 1)[1]


C, Y = np.ones((2, 4, 5), np.complex64), np.ones((2, 64), np.float32)
GOOD = {"n_levels": 1, "octaves": [(0, 16, 32, 0, np.ones((4, 17)), np.zeros((4, 17)))], "taps": half_band(),
        "n_bins": 4, "frames": 5, "n_iter": 2}
SHAPES = r"^icqt: expected C \(batch, n_bins, frames\) and y0 \(batch, samples\)$"
REFUSED = [
    (C[0], Y, {}, SHAPES),
    (C, Y[0], {}, SHAPES),
    (C[:1], Y, {}, SHAPES),
    (C[:, :3], Y, {}, "^icqt: C has 3 bins and 5 frames, must have n_bins = 4 and frames = 5"),
    (C, Y[:, :60], {}, r"^icqt: octaves\[0\]: frames is 5, must be at most 4"),
    (C, Y, {"n_levels": 0}, "^icqt: n_levels is 0, must be at least 1"),
    (C, Y[:, :0], {}, "^icqt: length is 0, must be at least 1"),
]


@pytest.mark.parametrize("bins, start, changes, words", REFUSED)
def test_refuses(bins, start, changes, words):
    before = pools_in_use()
    with pytest.raises(ValueError, match=words):
        kevra.icqt_cg_staged(bins, start, **{**GOOD, **changes}, plan_key=new_key())
    assert pools_in_use() == before
    with pytest.raises(ValueError, match="^icqt: half solves compute in f32 - upcast the tensors$"):
        kevra.icqt_cg_resident(0, 0, 2, 64, **GOOD, plan_key=new_key(), prec=0)


def test_no_rows_and_no_frames():
    for frames, batch in (5, 0), (0, 2):
        design = {**GOOD, "frames": frames, "plan_key": new_key()}
        got = kevra.icqt_cg_staged(C[:batch, :, :frames], Y[:batch], **design)
        np.testing.assert_array_equal(got, Y[:batch])
