"""Gradients of constant-Q transforms: against numpy's transpose, by dot products and by central differences."""

import re

import kevra
import numpy as np
import pytest
from constant_q import Plan, basis, bin_gradients, draw, half_band, new_key, reference, relative, transpose
from kevra import _diagnostics
from spectrograms import FORMS
from support import DOUBLE, FLOAT, HALF, STORAGE, Device, Fresh, fresh, pools_in_use

# Relative, in the Euclidean norm. A magnitude's gradient divides by bins that carry the rounding of the loudest.
ERROR = {FLOAT: 2e-6, DOUBLE: 1e-13}
REAL_ERROR = {FLOAT: 2e-4, DOUBLE: 1e-11}
DOT = {FLOAT: 1e-6, DOUBLE: 1e-13}
EPS = 1e-10


@pytest.fixture(autouse=True)
def unordered():
    yield
    kevra.set_deterministic(0)


def adjoint(device, x, g, plan, output, prec, eps=EPS, x_ptr=None):
    """What stands behind the result has to stay."""
    stored = g if output != "complex" else g.astype([None, np.complex64, np.complex128][prec])
    out, stream = device.upload(np.full(x.size + 64, 7, x.dtype)), device.stream()
    x_ptr = device.upload(x) if x_ptr is None else x_ptr
    kevra.cqt_adjoint_resident(x_ptr, device.upload(stored), out, *x.shape, *plan.arguments, output, eps, prec,
                               device.index, stream)
    device.synchronize(stream)
    flat = device.download(out, x.size + 64, x.dtype)
    np.testing.assert_array_equal(flat[x.size:], 7)
    return flat[:x.size].reshape(x.shape)


def drawn(seed):
    """1 to 6 levels, most with no octave or with several, every kind of frame length; a signal and a gradient."""
    rng = np.random.default_rng(seed)
    length, n_levels = int(rng.integers(800, 4000)), seed % 6 + 1
    plan = draw(rng, length, n_levels, int(rng.integers(1, 20)), [16, 64, 256, 512, 100, 129, 441])
    batch = int(rng.integers(1, 4))
    x = rng.standard_normal((batch, length))
    g = rng.standard_normal((2, batch, plan.n_bins, plan.frames))
    return plan, x, g[0] + 1j * g[1]


@pytest.mark.parametrize("seed", range(8))
def test_random_plans_in_every_form(seed):
    plan, x, g = drawn(seed)
    spectrum = reference(x, plan)
    form = FORMS[1 + seed % 3]
    with Device() as device:
        for output, prec, ordered in ("complex", FLOAT, 0), ("complex", DOUBLE, 1), (form, FLOAT, 1), (form, DOUBLE, 0):
            kevra.set_deterministic(ordered)
            eps = 1e-3 if seed < 4 else EPS
            given = g if output == "complex" else g.real.astype(STORAGE[prec])
            want = transpose(bin_gradients(spectrum, given, output, eps), plan, x.shape[1])
            # The complex form reads no signal.
            got = adjoint(device, x.astype(STORAGE[prec]), given, plan, output, prec, eps,
                          x_ptr=0 if output == "complex" else None)
            error = relative(got, want)
            bound = REAL_ERROR if output in ("magnitude", "db") else ERROR
            assert error <= bound[prec] * (2 if output == "power" else 1), f"{seed=} {output} {prec=} {plan}: {error}"


def test_octaves_that_share_a_level_all_count():
    """One level, three octaves: no step between levels, and each octave's share is in the sum."""
    rng = np.random.default_rng(2)
    octaves = [(0, 20, n_fft, row_lo, *basis(rng, 4, n_fft)) for n_fft, row_lo in ((64, 4), (100, 0), (64, 8))]
    plan = Plan(1, octaves, half_band(), new_key(), 12, 9)
    x, g = rng.standard_normal((2, 300)), rng.standard_normal((2, 12, 9)) + 0j
    with Device() as device:
        whole = adjoint(device, x, g, plan, "complex", DOUBLE)
        parts = []
        for first in 0, 4, 8:
            only = np.zeros_like(g)
            only[:, first:first + 4] = g[:, first:first + 4]
            parts.append(adjoint(device, x, only, plan, "complex", DOUBLE))
            assert relative(parts[-1], transpose(only, plan, 300)) <= ERROR[DOUBLE]
    np.testing.assert_allclose(whole, sum(parts), rtol=0, atol=1e-13 * abs(whole).max())


def test_signals_of_a_few_samples():
    """Shorter than a filter, down to one sample, so that every level ends within the taps' reach."""
    rng = np.random.default_rng(7)
    parts = basis(rng, 3, 16)
    with Device() as device:
        for length in range(1, 12):
            plan = Plan(3, [(2, 1, 16, 0, *parts), (0, 4, 16, 3, *parts)], half_band(), new_key(), 6, 1)
            x, g = np.zeros((2, length)), rng.standard_normal((2, 6, 1)) + 0j
            np.testing.assert_allclose(adjoint(device, x, g, plan, "complex", DOUBLE), transpose(g, plan, length),
                                       rtol=0, atol=1e-14, err_msg=str(length))


@pytest.mark.parametrize("seed", range(16))
def test_the_transpose_of_the_transform(seed):
    """<A x, g> = <x, A' g>, half of the plans by `constant_q_plan`."""
    plan, x, g = drawn(100 + seed)
    prec = (FLOAT, DOUBLE)[seed % 2]
    arguments = plan.arguments
    if seed % 4 < 2:
        rng = np.random.default_rng(seed)
        designed = kevra.constant_q_plan(8000, 64, 30 + seed, 12, 110.0)
        arguments = designed.arguments(x.shape[1])
        shape = len(x), designed.n_bins, arguments[-1]
        g = rng.standard_normal(shape) + 1j * rng.standard_normal(shape)
        plan = Plan(*arguments)
    x, g = x.astype(STORAGE[prec]), g.astype([None, np.complex64, np.complex128][prec])
    spectrum = kevra.cqt_staged(x, *arguments, "complex")
    with Device() as device:
        gx = adjoint(device, x, g, plan, "complex", prec)
    ahead = np.vdot(spectrum.astype(complex), g.astype(complex)).real
    error = abs(ahead - np.vdot(x.astype(float), gx.astype(float))) / np.linalg.norm(spectrum) / np.linalg.norm(g)
    assert error <= DOT[prec], f"{seed=} {plan}: {error}"


@pytest.mark.parametrize("output", FORMS[1:])
def test_against_central_differences(output):
    for seed in range(4):
        plan, x, g = drawn(200 + seed)
        rng = np.random.default_rng(seed)
        g = g.real * (abs(reference(x, plan)) > 1e-3)  # away from the kink
        direction = rng.standard_normal(x.shape)
        with Device() as device:
            slope = np.vdot(adjoint(device, x, g, plan, output, DOUBLE, 1e-4), direction)
        step = 1e-6
        ends = [kevra.cqt_staged(x + side * direction, *plan.arguments, output, 1e-4) for side in (step, -step)]
        want = np.vdot(g, ends[0] - ends[1]) / (2 * step)
        scale = np.linalg.norm(g) * np.linalg.norm(ends[0] - ends[1]) / (2 * step)
        assert abs(slope - want) <= 1e-6 * scale, f"{output} {seed=} {plan}: {slope} {want}"


def test_silence_has_a_finite_gradient():
    """0 where a bin is 0: an empty row, a signal of zeros, decibels with no eps to speak of."""
    plan, x, g = drawn(3)
    with Device() as device:
        for output in FORMS[1:]:
            for prec in FLOAT, DOUBLE:
                for eps in EPS, 0.0, 1e-300:
                    silent = np.zeros_like(x, STORAGE[prec])
                    got = adjoint(device, silent, g.real.astype(STORAGE[prec]), plan, output, prec, eps)
                    np.testing.assert_array_equal(got, 0)
                    silent[:, 400:] = 1e-25 * x[:, 400:]
                    got = adjoint(device, silent, g.real.astype(STORAGE[prec]), plan, output, prec, eps)
                    assert np.isfinite(got).all(), (output, prec, eps)


def test_no_frames_have_a_gradient_of_zeros_and_no_rows_none():
    plan, x, _ = drawn(4)
    none = plan.changed(frames=0)
    with Device() as device:
        out = device.upload(np.full_like(x, 7))
        kevra.cqt_adjoint_resident(0, 0, out, *x.shape, *none.arguments, "complex", EPS, DOUBLE)
        np.testing.assert_array_equal(device.download(out, x.shape, x.dtype), 0)
    kevra.cqt_adjoint_resident(0, 0, 0, 0, x.shape[1], *plan.arguments, "power", EPS, DOUBLE)


def test_repeats_are_bit_identical_and_take_nothing_from_the_device():
    plan, x, g = drawn(5)
    x, g = x.astype(np.float32), g.real.astype(np.float32)
    kevra.set_deterministic(1)
    with Device() as device:
        x_ptr, g_ptr, stream, results = device.upload(x), device.upload(g), device.stream(), set()
        out = device.empty(x.size, x.dtype)
        for repeat in range(20):
            kevra.cqt_adjoint_resident(x_ptr, g_ptr, out, *x.shape, *plan.arguments, "db", EPS, FLOAT, 0, stream)
            device.synchronize(stream)
            results.add(device.download(out, x.size, x.dtype).tobytes())
            pool = _diagnostics.read()["pools"]["device"]
            held = pool["in_use_blocks"] + pool["cached_blocks"]
            assert repeat < 2 or held == before
            before = held
    assert len(results) == 1


def launches(n_levels, output):
    rng = np.random.default_rng(0)
    octaves = [(n_levels - 1, 10, 64, first, *basis(rng, 2, 64)) for first in (0, 2)]
    plan = Plan(n_levels, octaves, half_band(), new_key(), 4, 5)
    x = rng.standard_normal((2, 1000))
    with Device() as device:
        adjoint(device, x, rng.standard_normal((2, 4, 5)), plan, output, DOUBLE)


@pytest.mark.parametrize("n_levels, output", [(1, "magnitude"), (3, "magnitude"), (3, "complex"), (1, "complex")])
def test_what_is_queued(n_levels, output):
    """The complex form does no forward work; a level without octaves only hands the gradient down."""
    _, words = Fresh(launches, n_levels, output, env={"KEVRA_DEBUG": "1"}).result()
    queued = [name for name in re.findall(r"launch (\w+) \(", words) if name.startswith(("kevra_hb", "kevra_cqt"))]
    forward = ["kevra_hbdec"] * (n_levels - 1) if output != "complex" else []
    record = ["kevra_cqtgc", "kevra_cqtradj", "kevra_cqtaddsl"]
    assert queued == forward + 2 * record + ["kevra_hbadj"] * (n_levels - 1)
    assert ("launch kevra_stft " in words) == (output != "complex")


ONE = np.ones((4, 33))
GOOD = Plan(2, [(0, 100, 64, 4, ONE, ONE), (1, 50, 64, 0, ONE, ONE)], half_band(), "good adjoint", 8, 20)


def test_what_is_refused_is_refused_before_anything_is_queued():
    x, g = np.ones((2, 2000), np.float32), np.ones((2, 8, 20), np.float32)
    octaves = GOOD.octaves
    with Device() as device:
        x_ptr, g_ptr, out = device.upload(x), device.upload(g), device.upload(7 * x)
        for plan, batch, output, eps, prec, text in [
            (GOOD, 2, "power", EPS, HALF, "adjoint: half gradients compute in f32; upcast the tensors$"),
            (GOOD, 65536, "power", EPS, FLOAT, r"kevra_hbdec: batch exceeds grid\.y limit"),
            (GOOD, 65536, "complex", EPS, FLOAT, r"kevra_hbadj: batch exceeds grid\.y limit"),
            (GOOD.changed(n_levels=1, octaves=[octaves[0], (0, *octaves[1][1:])]), 65536, "power", EPS, FLOAT,
             r"kevra_cqtgc: batch exceeds grid\.y limit"),
            (GOOD.changed(n_levels=1), 2, "power", EPS, FLOAT,
             r"cqt_adjoint: octaves\[1\]: level is 1, must be below n_levels = 1"),
            (GOOD.changed(frames=22), 2, "power", EPS, FLOAT, r"cqt_adjoint: octaves\[0\]: frames is 22, must be at"),
            (GOOD.changed(octaves=octaves[:1]), 2, "power", EPS, FLOAT, "cqt_adjoint: bin 0 belongs to no record"),
            (GOOD.changed(taps=np.ones(64)), 2, "power", EPS, FLOAT, r"cqt_adjoint: taps has shape \(1, 64\)"),
            (GOOD, 2, "db", -1.0, FLOAT, "cqt_adjoint: eps is -1, must be finite"),
            (GOOD, -1, "power", EPS, FLOAT, "cqt_adjoint: batch is -1, must be at least 0"),
        ]:
            for _ in range(2):  # with a plan of the shape in place as well
                with pytest.raises(ValueError, match=f"^{text}"):
                    kevra.cqt_adjoint_resident(x_ptr, g_ptr, out, batch, 2000, *plan.arguments, output, eps, prec)
                if plan is GOOD and output != "db":
                    kevra.cqt_adjoint_resident(x_ptr, g_ptr, device.empty(4000, np.float32), 1, 2000, *plan.arguments,
                                               output, eps, FLOAT)
        device.synchronize(0)
        np.testing.assert_array_equal(device.download(out, (2, 2000), np.float32), 7)


ZEROED = [r"glp\[l\], 0, \(size_t\)B \* lens\[l\]", r"padded\.p, 0, \(size_t\)B \* plen",
          r"gS\.p, 0, \(size_t\)B \* nfl \* nb \* 2"]
# The test's own three arrays come before what the operation asks for.
FAILING = [
    *[("hipMemsetD8Async", k + 1, rf"memsetD8Async\({what} \* sizeof\(T\), \(stream_t\)stream\)")
      for k, what in enumerate(ZEROED)],
    ("hipMalloc", 4, r"r \[memAlloc\]"), ("hipMalloc", 14, r"r \[memAlloc\]"),
    ("hipMemcpyHtoD", 5, r"memcpyHtoD\(.*\)"), ("hipMemcpyParam2DAsync", 1, r"memcpy2DAsync\(&c, \(stream_t\)stream\)"),
    ("hipModuleLaunchKernel", 1, r".*ModuleLaunchKernel\(.* \[kevra_hbdec\]"),
    ("hipModuleLaunchKernel", 4, r".*ModuleLaunchKernel\(.* \[kevra_cqtradj\]"),
]


def a_call_after_a_failure():
    """The failure, and the blocks in use after it and after a call that went well."""
    rng = np.random.default_rng(0)
    x, g = rng.standard_normal((2, 2000)), rng.standard_normal((2, 8, 20))
    failure, lost = None, 0
    with Device() as device:
        for _ in range(2):
            try:
                got = adjoint(device, x, g, GOOD, "power", DOUBLE)
            except RuntimeError as error:
                failure, lost = str(error), pools_in_use()[0]
        want = transpose(bin_gradients(reference(x, GOOD), g, "power"), GOOD, 2000)
        assert relative(got, want) <= ERROR[DOUBLE]
    return failure, lost, pools_in_use()[0]


@pytest.mark.parametrize("name, k, words", FAILING)
def test_a_call_of_the_device_that_fails_leaves_nothing_behind(name, k, words):
    failure, lost, in_use = fresh(a_call_after_a_failure, env={"KEVRA_CPU_FAIL": f"{name}:{k}"})
    assert re.search(rf": {words} failed: ", failure, re.DOTALL), failure
    assert lost <= in_use, "less than a healthy process holds for its tables"


def checked():
    """In the deterministic order no bit depends on anything; levels, odd sizes, surplus threads."""
    kevra.set_deterministic(1)
    digests = []
    for seed in 1, 8:
        plan, x, g = drawn(seed)
        for output, prec in ("complex", FLOAT), ("magnitude", DOUBLE), ("db", FLOAT):
            x, given = x.astype(STORAGE[prec]), g if output == "complex" else g.real.astype(STORAGE[prec])
            with Device() as device:
                digests.append(adjoint(device, x, given, plan, output, prec).tobytes())
    return digests


def test_check_mode_finds_nothing_and_order_changes_no_bit():
    want = fresh(checked, env={"KEVRA_CPU_ORDER": "forward"})
    assert fresh(checked, env={"KEVRA_CPU_ORDER": "shuffle:1"}) == want
    fresh(checked, env={"KEVRA_CPU_CHECK": "1"})
