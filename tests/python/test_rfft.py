"""Real transforms and their inverses against a reference in extended precision, on every route and by every wish."""

import kevra
import numpy as np
import pytest
import scipy.fft
from support import DOUBLE, FLOAT, HALF, STORAGE, Device, assert_fft, fresh, pools_in_use

WIDTH = {HALF: 16, FLOAT: 32, DOUBLE: 64}  # what set_shape_hint calls prec
DIRECTIONS = {"forward": False, "inverse": True}
SIZES = {
    "tiny": (1, 2, 3),
    "even, shared memory": (4, 6, 10, 16, 22, 26, 34, 58, 98, 272, 1128),
    "even, powers of two": (32, 64, 128, 512, 2048, 8192),
    "even, uniform radices": (48, 60, 96, 250, 1000, 1250, 7680),
    "even, other radices": (110, 182, 1716, 3072),
    "odd, uniform radices": (9, 15, 25, 45, 81, 225, 343, 625, 1125, 3125),
    "odd, shared memory": (143, 77, 1001),
    "odd, a prime stage": (17, 51, 145),
    "odd, without stages": (5, 7, 141, 323),
    "even, products of large primes": (646, 1058),
    "chirp": (97, 202),
    "four-step": (16384, 32768),
}
HALF_SIZES = (1, 2, 3, 7, 10, 25, 48, 64, 98, 143, 272, 512, 1000, 2048)
SHARED, REGISTER = {"core": 1}, {"core": 2}


@pytest.fixture(autouse=True)
def no_hints():
    yield
    kevra.shape_hint_clear()


def hint(n, prec, inverse, device=0, ept=0, fpb=0, tpf=0, core=0, var=0):
    kevra.set_shape_hint("rfft", n, 0, inverse, WIDTH[prec], "", 0, device, ept, fpb, tpf, core, var)


def signal(rows, n, prec, inverse, seed=1):
    """Samples, or bins as pairs of reals, in the precision's storage. Rows of an even length differ in size; those of
    an odd length share a transform and its rounding, two by two."""
    values = np.random.default_rng(seed).standard_normal((rows, n // 2 + 1, 2) if inverse else (rows, n))
    scale = np.logspace(-1, 1, rows).reshape(rows, *[1] * (values.ndim - 1)) if n % 2 == 0 else 1
    return (values * scale).astype(STORAGE[prec])


def as_numbers(stored, bins):
    """What the storage holds, as reals or as complex values, in float at least."""
    if stored.dtype == np.float16:
        stored = stored.astype(np.float32)
    return stored.view(np.result_type(stored.dtype, np.complex64))[..., 0] if bins else stored


def reference(stored, n, inverse):
    exact = as_numbers(stored, inverse)
    return scipy.fft.irfft(exact.astype(np.clongdouble), n) if inverse else scipy.fft.rfft(exact.astype(np.longdouble))


def resident(device, stored, n, inverse, prec, stream=0):
    rows = len(stored)
    shape = (rows, n) if inverse else (rows, n // 2 + 1, 2)
    count = int(np.prod(shape))
    # What stands behind the rows has to stay.
    x, out = device.upload(stored), device.upload(np.full(count + 64, 7, stored.dtype))
    (kevra.irfft_resident if inverse else kevra.rfft_resident)(x, out, rows, n, prec, device.index, stream)
    device.synchronize(stream)
    flat = device.download(out, count + 64, stored.dtype)
    np.testing.assert_array_equal(flat[count:], 7)
    return flat[:count].reshape(shape)


def check(device, rows, n, prec, inverse, stream=0, note=""):
    stored = signal(rows, n, prec, inverse, seed=n)
    got = resident(device, stored, n, inverse, prec, stream)
    what = f"{n=} {rows=} {prec=} {inverse=} {note}"
    want = reference(stored, n, inverse)
    times = 2 if n in SIZES["odd, without stages"] else 1  # they take the chirp's convolution
    assert_fft(as_numbers(got, not inverse) + 0j, want + 0j, prec, what, times, "rfft", n)
    return stored, got


def assert_same(got, want):
    """But for the last places: where arrays stand decides whether clang's loops run in vectors, and how they round."""
    np.testing.assert_allclose(got, want, rtol=0, atol=4 * np.finfo(want.dtype).eps * abs(want).max())


def ignored_parts_changed(bins, n):
    """The spectra with other imaginary parts where a real signal has none."""
    changed = bins.copy()
    changed[:, 0, 1] += 3
    if n % 2 == 0:
        changed[:, -1, 1] -= 5
    return changed


@pytest.mark.parametrize("direction", DIRECTIONS)
@pytest.mark.parametrize("n", [pytest.param(n, id=f"{n} {label}") for label, sizes in SIZES.items() for n in sizes])
def test_every_route_in_every_precision(n, direction):
    inverse = DIRECTIONS[direction]
    with Device() as device:
        for prec, stream in (HALF, 0), (FLOAT, device.stream()), (DOUBLE, device.stream(1)):
            if prec == HALF and n not in HALF_SIZES:
                continue
            stored, got = check(device, 5, n, prec, inverse, stream)
            if inverse:
                changed = resident(device, ignored_parts_changed(stored, n), n, inverse, prec, stream)
                assert_same(changed, got)
            if prec == HALF:
                continue
            values = as_numbers(stored, inverse)
            staged = kevra.irfft_staged(values, n) if inverse else kevra.rfft_staged(values)
            assert_same(staged, as_numbers(got, not inverse))


@pytest.mark.parametrize("core", [SHARED, REGISTER], ids=["shared memory", "registers"])
@pytest.mark.parametrize("n", [9, 25, 64, 98, 225, 250, 1024, 4096])
def test_either_kernel_serves_a_size(n, core):
    with Device() as device:
        for prec in HALF, FLOAT, DOUBLE:
            for inverse in False, True:
                hint(n, prec, inverse, **core)
                check(device, 3, n, prec, inverse, note=core)


@pytest.mark.parametrize("n", [2, 9, 15, 32, 60, 143])
def test_rows_of_every_count(n):
    with Device() as device:
        for rows in 1, 2, 3, 16, 17, 257:
            for inverse in False, True:
                _, got = check(device, rows, n, FLOAT, inverse)
                if rows > 1:  # the rows that share a block, or a transform, do not touch each other
                    alone = signal(rows, n, FLOAT, inverse, seed=n)[-1:]
                    if n % 2 == 0:  # alone it runs in another compile of the kernel than side by side
                        off = abs(resident(device, alone, n, inverse, FLOAT) - got[-1:])
                        assert off.max() <= 4 * np.finfo(got.dtype).eps * abs(got[-1:]).max()


def test_rows_of_one_transform_stay_apart():
    """A row of large values rounds into its neighbour no more than to the neighbour's share of the pair."""
    x = np.zeros((3, 45), np.float32)
    x[1] = np.random.default_rng(1).standard_normal(45)
    spectra = kevra.rfft_staged(x)
    assert abs(spectra[[0, 2]]).max() < 45 * np.finfo(np.float32).eps * abs(spectra[1]).max()
    back = kevra.irfft_staged(spectra, 45)
    assert_fft(back[1:2], x[1:2].astype(np.longdouble), FLOAT, "the middle row", 2, "rfft", 45)


@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
@pytest.mark.parametrize("n", [1, 2, 3, 15, 16, 143, 360, 1024])
def test_the_inverse_leads_back_and_shifts_turn(n, prec):
    x = as_numbers(signal(3, n, prec, False), False)
    bins = kevra.rfft_staged(x)
    assert_fft(kevra.irfft_staged(bins, n) + 0j, x + 0j, prec, "the inverse of the forward", 3, "rfft", max(n, 2))
    assert (bins[:, 0].imag == 0).all() and (n % 2 == 1 or (bins[:, -1].imag == 0).all())
    places = np.arange(0, n, max(n // 7, 1))
    turns = places[:, None] * np.arange(n // 2 + 1) % n
    roots = np.exp(-2j * np.arctan(np.longdouble(1)) * 4 * turns / n)
    got = kevra.rfft_staged(np.eye(n, dtype=x.dtype)[places])
    assert_fft(got, roots, prec, "shifted impulses", 1, "rfft", max(n, 2))


WISHES = [
    *[{"core": core, "ept": ept} for core in (0, 2) for ept in (1, 2, 3, 5, 8, 20, 32, 10**9)],
    *[{"core": core, "fpb": fpb} for core in (1, 2) for fpb in (1, 3, 64, 10**9)],
    *[{"core": 1, "tpf": tpf} for tpf in (1, 7, 64, 1000, 10**9)],
    *[{"core": 1, "var": var} for var in (1, 4, 5, 8, 2**31 - 1)],
    {"core": 1, "tpf": 33, "fpb": 2, "var": 5}, {"core": 2, "ept": 32, "fpb": 2, "tpf": 5, "var": 15}, {"core": 99},
    {"ept": -5, "fpb": -1, "tpf": -1, "core": -1, "var": -1}]


@pytest.mark.parametrize("wish", WISHES, ids=str)
def test_wishes_change_the_kernel_and_not_the_result(wish):
    with Device() as device:
        for n, prec, inverse in ((4, FLOAT, False), (64, HALF, True), (250, FLOAT, True), (100, DOUBLE, False),
                                 (45, FLOAT, False), (34, DOUBLE, True), (256, FLOAT, False), (51, FLOAT, True)):
            hint(n, prec, inverse, **wish)
            check(device, 5, n, prec, inverse, note=wish)


def test_a_hint_counts_at_once_and_for_its_own_shape_alone():
    x = as_numbers(signal(3, 40, FLOAT, False), False)
    bins = kevra.rfft_staged(x)
    back = kevra.irfft_staged(bins, 40)
    for _ in range(2):
        hint(40, FLOAT, False, core=2)  # the register kernel has other radices and rounds differently
        assert (kevra.rfft_staged(x) != bins).any()
        np.testing.assert_array_equal(kevra.irfft_staged(bins, 40), back)
        kevra.shape_hint_clear()
        np.testing.assert_array_equal(kevra.rfft_staged(x), bins)


def test_arrays_of_any_type_and_layout():
    x = np.random.default_rng(2).standard_normal((4, 30))
    for given in (x[::2, ::-1], np.asfortranarray(x), (10 * x).astype(np.int16), x > 0, x.astype(np.float16),
                  x.astype(np.longdouble), np.broadcast_to(x[:1], (3, 30)), x.astype(np.float32)):
        computed = given.astype(float if given.dtype == float else np.float32)
        bins = kevra.rfft_staged(given)
        prec = DOUBLE if given.dtype == float else FLOAT
        assert bins.dtype == (complex if prec == DOUBLE else np.complex64) and bins.flags.c_contiguous
        assert_fft(bins, scipy.fft.rfft(computed.astype(np.longdouble)), prec, str(given.dtype), op="rfft", n=30)
        spectrum = np.asfortranarray(bins)
        np.testing.assert_array_equal(kevra.irfft_staged(spectrum, 30), kevra.irfft_staged(bins, 30))


def test_refuses_what_is_no_batch_of_rows():
    x, bins = np.ones((2, 20), np.float32), np.ones((2, 11), np.complex64)
    before = pools_in_use()
    for bad in x[0], x[None], np.float32(1):
        with pytest.raises(ValueError, match=r"^rfft: x must be \[B, N\] real$"):
            kevra.rfft_staged(np.asarray(bad))
    for bad, n in ((bins[0], 20), (bins[None], 20), (bins, 19), (bins, 22), (bins[:, :0], 20)):
        with pytest.raises(ValueError, match=r"^irfft: X must be \[B, n // 2 \+ 1\] complex$"):
            kevra.irfft_staged(bad, n)
    for bad, words in (x[:0], "batch is 0"), (x[:, :0], "n is 0"):
        with pytest.raises(ValueError, match=f"^rfft: {words}, must be"):
            kevra.rfft_staged(bad)
    for bad, n, words in (bins[:0], 20, "batch is 0"), (bins, 0, "n is 0"), (bins, -3, "n is -3"), (bins, 2**40, "n is"):
        with pytest.raises(ValueError, match=f"^irfft: {words}.*, must be"):
            kevra.irfft_staged(bad, n)
    for name, transform in ("rfft", kevra.rfft_resident), ("irfft", kevra.irfft_resident):
        for rows, n, words in (0, 8, "batch is 0"), (2**31, 8, "batch is 2"), (1, -1, "n is -1"), (1, 2**31, "n is 2"):
            with pytest.raises(ValueError, match=f"^{name}: {words}"):
                transform(0, 0, rows, n, FLOAT, 0, 0)
        with pytest.raises(RuntimeError, match="SetDevice"):
            transform(0, 0, 1, 8, FLOAT, 99, 0)
    assert pools_in_use() == before


CHECKED = [(n, prec, inverse, wish) for inverse in (False, True) for n, prec, wish in (
    (3, HALF, {}), (10, FLOAT, {}), (34, FLOAT, {}), (34, DOUBLE, {}), (51, FLOAT, SHARED), (98, HALF, {}),
    (250, FLOAT, {}), (250, FLOAT, REGISTER), (45, FLOAT, {}), (45, DOUBLE, {"core": 1, "var": 4}), (64, DOUBLE, {}),
    (256, HALF, REGISTER), (128, FLOAT, {"core": 1, "fpb": 3}), (128, FLOAT, {"core": 2, "fpb": 3}))]


def checked_transforms(cases):
    with Device() as device:
        results = []
        for n, prec, inverse, wish in cases:
            hint(n, prec, inverse, **wish)
            results.append(check(device, 7, n, prec, inverse, note=wish)[1].tobytes())
        return results


def test_check_mode_finds_nothing_and_the_order_of_threads_changes_no_bit():
    fresh(checked_transforms, CHECKED, env={"KEVRA_CPU_CHECK": "1"})
    want = fresh(checked_transforms, CHECKED, env={"KEVRA_CPU_ORDER": "forward"})
    for order in "reverse", "shuffle:11":
        assert fresh(checked_transforms, CHECKED, env={"KEVRA_CPU_ORDER": order}) == want, order
