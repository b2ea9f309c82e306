"""Constant-Q transforms of random plans against numpy: routes, forms, precisions, plans that do not hold together."""

import re

import kevra
import numpy as np
import pytest
from constant_q import Plan, basis, draw, half_band, in_form, new_key, reference, relative
from kevra import _diagnostics
from spectrograms import FORMS
from support import DOUBLE, FLOAT, HALF, STORAGE, Device, Fresh, fresh, pools_in_use

# Relative, in the Euclidean norm: against numpy in double, and of the two routes against each other.
ERROR = {FLOAT: 1e-6, DOUBLE: 1e-13}
ROUTES_APART = 5e-7
HALF_ERROR = 1.5e-3  # of the result's maximum
DECIBELS = {FLOAT: 1e-4, DOUBLE: 1e-9}
TWO_STAGES = 1
EPS = 1e-10


@pytest.fixture(autouse=True)
def no_hints():
    yield
    kevra.shape_hint_clear()


def two_stages(plan, prec, output):
    for _, hop, n_fft, *_ in plan.octaves:
        kevra.set_shape_hint("cqt", n_fft, hop, False, 64 if prec == DOUBLE else 32, output, 0, 0, 0, 0, 0, TWO_STAGES)


def signal(rng, batch, length, prec=DOUBLE):
    return (rng.standard_normal((batch, length)) * np.linspace(0.3, 1, batch)[:, None]).astype(STORAGE[prec])


def resident(device, y, plan, output, prec, stream=0, eps=EPS):
    """Widened; what stands behind the result has to stay."""
    shape = (len(y), plan.n_bins, plan.frames, *([2] if output == "complex" else []))
    count = int(np.prod(shape))
    out = device.upload(np.full(count + 64, 7, STORAGE[prec]))
    kevra.cqt_resident(device.upload(y), out, *y.shape, *plan.arguments, output, eps, prec, device.index, stream)
    device.synchronize(stream)
    flat = device.download(out, count + 64, STORAGE[prec])
    np.testing.assert_array_equal(flat[count:], 7)
    got = flat[:count].reshape(shape).astype(np.float64)
    return got[..., 0] + 1j * got[..., 1] if output == "complex" else got


def assert_form(got, spectrum, output, prec, what, eps=EPS):
    want = in_form(spectrum, output, eps)
    assert got.shape == want.shape, what
    if prec == HALF:
        error = abs(got - want).max() / abs(want).max()
        assert error <= HALF_ERROR, f"{what}: {error} of the maximum"
    elif output == "db":
        # A transform's error is a share of all bins: it counts less where a bin is loud.
        error = abs(got - want) / 10 ** ((want.max() - want) / 20)
        assert error.max() <= DECIBELS[prec], f"{what}: {error.max()} dB"
    else:
        error = relative(got, want)
        assert error <= ERROR[prec] * (2 if output == "power" else 1), f"{what}: {error}"


def random_case(seed):
    """1 to 8 levels, odd and even lengths, frame lengths of every kind."""
    rng = np.random.default_rng(seed)
    plan = draw(rng, length := int(rng.integers(3000, 9000)), int(seed % 8 + 1), int(rng.integers(1, 24)))
    return plan, signal(rng, int(rng.integers(1, 4)), length)


@pytest.mark.parametrize("seed", range(16))
def test_random_plans_on_both_routes(seed):
    plan, y = random_case(seed)
    spectrum = reference(y, plan)
    output = FORMS[seed // 8 if seed % 8 < 4 else seed % 4]
    for prec in FLOAT, DOUBLE:
        x = y.astype(STORAGE[prec])
        results = []
        for route in "fused", "two stages":
            if route == "two stages":
                two_stages(plan, prec, output)
            results.append(kevra.cqt_staged(x, *plan.arguments, output))
            what = f"{seed=} {output} {prec=} {route} {y.shape} {plan}"
            assert results[-1].dtype == (np.result_type(x, np.complex64) if output == "complex" else x.dtype), what
            assert_form(results[-1], reference(x, plan) if prec == FLOAT else spectrum, output, prec, what)
        if output != "db":
            assert relative(*results) <= ROUTES_APART, what


@pytest.mark.parametrize("output", FORMS)
def test_half_storage(output):
    """On level 0 and below; powers of neighbouring bins lie within what a half holds."""
    rng = np.random.default_rng(1)
    y = signal(rng, 2, 3001, HALF)
    for n_levels in 1, 3:
        for sizes in [128, 1024], [100, 441]:
            plan = draw(rng, y.shape[1], n_levels, 9, sizes)
            with Device() as device:
                got = resident(device, y, plan, output, HALF)
            if output == "db":
                loud = in_form(reference(y, plan), output) > -60
                np.testing.assert_allclose(got[loud], in_form(reference(y, plan), output)[loud], atol=0.05)
            else:
                assert_form(got, reference(y, plan), output, HALF, f"{output} {plan}")


SMALL = draw(np.random.default_rng(3), 2000, 3, 11, [64, 256])


@pytest.mark.parametrize("prec", [FLOAT, DOUBLE], ids=["float", "double"])
@pytest.mark.parametrize("n_fft", [2, 4, 32, 512, 1024, 2048, 4096, 8192])
def test_frame_counts_around_a_block(n_fft, prec):
    """Every core, at counts of frames that fill the last block or do not."""
    rng = np.random.default_rng(n_fft)
    rows = min(max(8192 // n_fft, 2), 30)  # more than the threads of a frame where these are few
    y = signal(rng, 2, 2 * n_fft + 102, prec)
    for frames in (1, 2, 3, 4, 5, 8, 9, 15) if n_fft <= 4096 else (3,):
        octaves = [(0, max(n_fft // 8, 7), n_fft, 0, *basis(rng, rows, n_fft))]
        plan = Plan(1, octaves, half_band(), new_key(), rows, frames)
        with Device() as device:
            got = resident(device, y, plan, "complex", prec)
        assert_form(got, reference(y, plan), "complex", prec, f"{n_fft=} {frames=}")


def test_a_row_of_zeros_and_a_nan_are_no_support():
    y = signal(np.random.default_rng(0), 2, 900)
    br, bi = np.zeros((2, 3, 65))
    br[1, 20], bi[1, 40] = 1, 2
    # Counts as zero: the row begins and ends at its numbers, and reads nothing further out.
    br[1, 5] = bi[1, 60] = np.nan
    br[2, 0] = br[2, 64] = 1
    for n_fft in 128, 129:
        plan = Plan(1, [(0, 50, n_fft, 0, br, bi)], half_band(), new_key(), 3, 10)
        spectrum = reference(y, plan.changed(octaves=[(0, 50, n_fft, 0, np.nan_to_num(br), np.nan_to_num(bi))]))
        for output in FORMS:
            got = kevra.cqt_staged(y, *plan.arguments, output, 1e-3)
            silent = 10 * np.log10(1e-3) if output == "db" else 0
            np.testing.assert_allclose(got[:, 0], silent, rtol=1e-14)
            assert_form(got, spectrum, output, DOUBLE, f"{n_fft=} {output}", 1e-3)


def test_eps_of_each_call_counts():
    y = signal(np.random.default_rng(0), 1, 2000)
    for eps in 1e-10, 1e-2, 0.0, 1e-2:
        for prec in FLOAT, DOUBLE:
            got = kevra.cqt_staged(y.astype(STORAGE[prec]), *SMALL.arguments, "db", eps)
            want = in_form(reference(y, SMALL), "power")
            np.testing.assert_array_equal(np.isneginf(got), want + eps == 0)
            loud = want > 1e-6
            assert abs(got[loud] - 10 * np.log10(want[loud] + eps)).max() < 1e-3


def test_a_key_stands_for_tables_that_are_read_once():
    rng = np.random.default_rng(5)
    y = signal(rng, 2, 2000, FLOAT)
    plan = draw(rng, 2000, 2, 9, [64, 100])
    want = kevra.cqt_staged(y, *plan.arguments, "power")
    first = plan.octaves[0]
    # Nothing of the arrays is read again, on no route and at no length; another key reads them.
    emptied = [(*octave[:4], 0 * octave[4], 0 * octave[5]) for octave in plan.octaves]
    silent = (plan.n_levels, emptied, 0 * plan.taps, plan.plan_key, plan.n_bins, plan.frames)
    np.testing.assert_array_equal(kevra.cqt_staged(y, *silent, "power"), want)
    two_stages(plan, FLOAT, "power")
    np.testing.assert_allclose(kevra.cqt_staged(y, *silent, "power"), want, rtol=1e-4, atol=1e-5 * want.max())
    assert not kevra.cqt_staged(y, *silent[:3], new_key(), *silent[4:], "power").any()
    # Tables of another size would be read past their ends.
    wider = np.zeros((len(first[4]), 201))
    octaves = [(first[0], 1, 400, first[3], wider, wider), *plan.octaves[1:]]
    with pytest.raises(ValueError, match=rf"^cqt: octaves\[0\]: plan_key '{plan.plan_key}' has stood for a basis of "
                                         rf"{len(wider)} x {first[4].shape[1]} here, not of {len(wider)} x 201"):
        kevra.cqt_staged(y, *plan.changed(octaves=octaves, plan_key=plan.plan_key).arguments, "power")


def blocks():
    device = _diagnostics.read()["pools"]["device"]
    return device["in_use_blocks"] + device["cached_blocks"]


def test_repeated_calls_take_nothing_from_the_device():
    rng = np.random.default_rng(6)
    plan = draw(rng, 9001, 6, 20)
    y = signal(rng, 3, 9001, FLOAT)
    with Device() as device:
        stream = device.stream()
        x, out = device.upload(y), device.empty(3 * plan.n_bins * 20, np.float32)
        for repeat in range(6):
            kevra.cqt_resident(x, out, *y.shape, *plan.arguments, "power", EPS, FLOAT, 0, stream)
            if repeat == 1:
                before = blocks(), pools_in_use()
        assert (blocks(), pools_in_use()) == before
        device.synchronize(stream)
        got = device.download(out, (3, plan.n_bins, 20), np.float32)
        assert_form(got, reference(y, plan), "power", FLOAT, plan)


def launches(route):
    plan, y = SMALL.changed(), signal(np.random.default_rng(0), 2, 2000, HALF)
    if route == "two stages":
        two_stages(plan, HALF, "power")
    with Device() as device:
        resident(device, y, plan, "power", HALF)
    return sorted(octave[0] for octave in plan.octaves)


@pytest.mark.parametrize("route", ["fused", "two stages"])
def test_what_is_queued(route):
    """Level by level; only the first reads halves; a hint sends spectra through device memory."""
    levels, words = Fresh(launches, route, env={"KEVRA_DEBUG": "1"}).result()
    queued = re.findall(r"launch (\w+) \((\w+?)(?:_d0)?\)", words)
    want = []
    for level in range(3):
        for _ in range(levels.count(level)):
            want += ["kevra_cqtpad"] if level == 0 else []
            want += ["kevra_cqtf"] if route == "fused" else ["kevra_stft", "kevra_cqtred"]
        want += ["kevra_hbdec"] if level < 2 else []
    assert [name for name, _ in queued] == want
    assert [key for name, key in queued if name == "kevra_hbdec"] == ["cqt_hbdec_1_0", "cqt_hbdec_1_1"]
    assert {key[-4:] for name, key in queued if name == "kevra_cqtred"} <= {"_2_0"}


def test_nothing_for_no_rows_and_no_frames():
    y = np.zeros((2, 2000), np.float32)
    assert kevra.cqt_staged(y[:0], *SMALL.arguments, "power").shape == (0, SMALL.n_bins, 11)
    assert kevra.cqt_staged(y, *SMALL.changed(frames=0).arguments, "complex").shape == (2, SMALL.n_bins, 0)
    kevra.cqt_resident(0, 0, 0, 2000, *SMALL.arguments, "power", EPS, FLOAT)


ONE = np.ones((4, 33))


def with_octave(index, **fields):
    """GOOD with items of one record changed."""
    names = ["level", "hop", "n_fft", "row_lo", "br", "bi"]
    octaves = [list(octave) for octave in GOOD.octaves]
    for name, value in fields.items():
        octaves[index][names.index(name)] = value
    return {"octaves": [tuple(octave) for octave in octaves]}


GOOD = Plan(2, [(0, 100, 64, 4, ONE, ONE), (1, 50, 64, 0, ONE, ONE)], half_band(), "good", 8, 20)
REFUSED = [
    ({"n_levels": 0}, r"cqt: n_levels is 0, must be at least 1"),
    ({"n_levels": 33}, r"cqt: n_levels is 33, must be at most 32"),
    ({"n_levels": 1}, r"cqt: octaves\[1\]: level is 1, must be below n_levels = 1"),
    (with_octave(0, level=-1), r"cqt: octaves\[0\]: level is -1, must be at least 0"),
    (with_octave(1, hop=0), r"cqt: octaves\[1\]: hop is 0"),
    (with_octave(1, hop=1.5), r"cqt: octaves\[1\]: hop is 1\.5, must be a whole number"),
    (with_octave(1, hop=2**70), r"cqt: octaves\[1\]: hop is 1180591620717411303424, must be a whole"),
    (with_octave(1, hop=53), r"cqt: octaves\[1\]: frames is 20, must be at most 19: its level has 1000 samples, its"),
    (with_octave(0, n_fft=1), r"cqt: octaves\[0\]: n_fft is 1, must be at least 2"),
    (with_octave(0, n_fft=66), r"cqt: octaves\[0\]: br has 33 columns, must have n_fft // 2 \+ 1 = 34"),
    (with_octave(0, n_fft=2**30), r"cqt: octaves\[0\]: br has 33 columns"),
    (with_octave(0, bi=ONE[:3]), r"cqt: octaves\[0\]: bi has shape \(3, 33\), must have that of br, \(4, 33\)"),
    (with_octave(0, br=ONE[0]), r"invalid axis: cqt: octaves\[0\]: br has 1 dimensions, must be a 2-D"),
    (with_octave(0, br=3.0), r"invalid axis: cqt: octaves\[0\]: br has 0 dimensions"),
    (with_octave(1, bi=ONE[None]), r"cqt: octaves\[1\]: bi has 3 dimensions"),
    (with_octave(1, br=1j * ONE), r"cqt: octaves\[1\]: br has 2 dimensions of type complex128, must be"),
    (with_octave(1, br=ONE[:0], bi=ONE[:0]), r"cqt: octaves\[1\]: rows of br is 0"),
    (with_octave(0, row_lo=5), r"cqt: octaves\[0\]: row_lo 5 and 4 rows of br reach past n_bins = 8"),
    (with_octave(0, row_lo=2**62), r"cqt: octaves\[0\]: row_lo 4611686018427387904 and 4 rows"),
    (with_octave(0, row_lo=-1), r"cqt: octaves\[0\]: row_lo is -1"),
    (with_octave(0, row_lo=2), r"cqt: octaves\[0\]: bin 2 is one of octaves\[1\] too"),
    ({"n_bins": 9}, r"cqt: bin 8 belongs to no record of octaves"),
    ({"octaves": GOOD.octaves[:1]}, r"cqt: bin 0 belongs to no record of octaves"),
    ({"octaves": []}, r"cqt: bin 0 belongs to no record"),
    ({"octaves": [GOOD.octaves[0], GOOD.octaves[1][:5]]}, r"cqt: octaves\[1\] must be a tuple of level, hop,"),
    ({"octaves": [GOOD.octaves[0], 7]}, r"cqt: octaves\[1\] must be a tuple of level, hop,"),
    ({"taps": np.ones(64)}, r"cqt: taps has shape \(1, 64\), must be one row of 65"),
    ({"taps": np.ones((5, 13))}, r"cqt: taps has 2 dimensions"),
    ({"frames": -1}, r"cqt: frames is -1, must be at least 0"),
    ({"frames": 2**31}, r"cqt: frames is 2147483648"),
    ({"n_bins": 0}, r"cqt: n_bins is 0"),
]


@pytest.mark.parametrize("changes, words", REFUSED, ids=[words[:60] for _, words in REFUSED])
def test_a_plan_that_does_not_hold_together_is_refused(changes, words):
    y = np.ones((2, 2000), np.float32)
    before = pools_in_use()
    with pytest.raises(ValueError, match=f"^{words}"):
        kevra.cqt_staged(y, *GOOD.changed(**changes).arguments, "power")
    with Device() as device:
        out = device.upload(np.full(2 * 9 * 20, 7, np.float32))
        with pytest.raises(ValueError, match=f"^{words}"):
            kevra.cqt_resident(device.upload(y), out, 2, 2000, *GOOD.changed(**changes).arguments, "power", EPS, FLOAT)
        np.testing.assert_array_equal(device.download(out, 2 * 9 * 20, np.float32), 7)
    assert pools_in_use() == before


def test_other_arguments_that_are_refused():
    y = np.ones((2, 2000), np.float32)
    with pytest.raises(ValueError, match=r"^expected a 2-D \(batch, samples\) array$"):
        kevra.cqt_staged(y[0], *GOOD.arguments, "power")
    with pytest.raises(TypeError, match="float16"):
        kevra.cqt_staged(y.astype(np.float16), *GOOD.arguments, "power")
    with pytest.raises(ValueError, match="^cqt: eps is -1, must be finite"):
        kevra.cqt_staged(y, *GOOD.arguments, "db", -1.0)
    for n_levels, kernel in (2, "kevra_hbdec"), (1, "kevra_cqtred"):
        plan = GOOD if n_levels == 2 else GOOD.changed(n_levels=1, **with_octave(1, level=0, hop=100))
        kevra.cqt_staged(y, *plan.arguments, "power")
        with pytest.raises(ValueError, match=rf"^{kernel}: batch exceeds grid\.y limit: 65536 rows"):
            kevra.cqt_resident(0, 0, 65536, 2000, *plan.arguments, "power", EPS, FLOAT)
    with pytest.raises(ValueError, match="^cqt: batch is -1"):
        kevra.cqt_resident(0, 0, -1, 2000, *GOOD.arguments, "power", EPS, FLOAT)
    with pytest.raises(ValueError, match="^cqt: length is 0"):
        kevra.cqt_staged(y[:, :0], *GOOD.arguments, "power")


FAILING = {
    "hipMalloc": r"r \[memAlloc\]", "hipMemcpyHtoD": r"memcpyHtoD\(\w+(\.p)?, \S+, .*\)",
    "hipMemsetD8Async": r"memsetD8Async\(padded\.p, 0, \(size_t\)B \* plen \* sizeof\(T\), \(stream_t\)stream\)",
    "hipMemcpyParam2DAsync": r"memcpy2DAsync\(&c, \(stream_t\)stream\)",
    "hipModuleLaunchKernel": r".*ModuleLaunchKernel\(.* \[kevra_(cqtf|hbdec)\]",
}


def a_call_after_a_failure():
    """The failure, and the blocks in use after it and after a call that went well."""
    y = signal(np.random.default_rng(0), 2, 2000, DOUBLE)
    failure, lost = None, 0
    for _ in range(2):
        try:
            kevra.cqt_staged(y, *GOOD.arguments, "complex")
        except RuntimeError as error:
            failure, lost = str(error), pools_in_use()[1]
    got = kevra.cqt_staged(y, *GOOD.arguments, "complex")
    assert_form(got, reference(y, GOOD), "complex", DOUBLE, "after a failure")
    return failure, lost, pools_in_use()


@pytest.mark.parametrize("name", FAILING)
def test_a_call_of_the_device_that_fails_leaves_nothing_behind(name):
    _, _, healthy = fresh(a_call_after_a_failure)
    for k in 1, 2, 4:
        environment = {"KEVRA_CPU_FAIL": f"{name}:{k}"}
        (failure, pinned, in_use), errors = Fresh(a_call_after_a_failure, env=environment).result()
        if "as KEVRA_CPU_FAIL asks" in errors:
            assert re.search(rf": {FAILING[name]} failed: ", failure, re.DOTALL), failure
        assert (pinned, in_use) == (0, healthy), f"call {k} of {name}"


def checked_plans():
    """Every core and both routes, blocks with surplus frames among them."""
    rng = np.random.default_rng(9)
    digests = []
    for prec, sizes in (HALF, [256, 32]), (FLOAT, [512, 100]), (FLOAT, [2048, 441]), (DOUBLE, [128, 128]):
        y = signal(rng, 2, 1501, prec)
        octaves = [(level, 7 - level, n_fft, 5 * level, *basis(rng, 5, n_fft)) for level, n_fft in enumerate(sizes)]
        plan = Plan(2, octaves, half_band(), new_key(), 10, 11)
        with Device() as device:
            for _ in range(2):
                got = resident(device, y, plan, "magnitude", prec)
                assert_form(got, reference(y, plan), "magnitude", prec, plan)
                digests.append(got.tobytes())
                two_stages(plan, prec, "magnitude")
        kevra.shape_hint_clear()
    return digests


def test_check_mode_finds_nothing():
    fresh(checked_plans, env={"KEVRA_CPU_CHECK": "1"})


def test_the_order_of_threads_and_blocks_changes_no_bit():
    want = fresh(checked_plans, env={"KEVRA_CPU_ORDER": "forward"})
    for order in "reverse", "shuffle:1":
        assert fresh(checked_plans, env={"KEVRA_CPU_ORDER": order}) == want, order
