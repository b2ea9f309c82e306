"""Spectral contrast against numpy: sorted and by histograms, from signals and from magnitudes, routes, refusals."""

import re

import kevra
import numpy as np
import pytest
from spectrograms import frames_of, stft_reference
from statistics_of_frames import CORES, hint, noise, resident
from support import DOUBLE, FLOAT, HALF, STORAGE, Fresh, fresh, pools_in_use, too_many_blocks_to_check

AMIN = 1e-6
# Of the largest magnitude, or in decibels.
ERROR = {HALF: 1e-3, FLOAT: 2e-6, DOUBLE: 1e-12}
DECIBELS = {HALF: 2e-2, FLOAT: 2e-3, DOUBLE: 1e-8}


@pytest.fixture(autouse=True)
def no_hints():
    yield
    kevra.shape_hint_clear()


def contrast(m, bt, bq, amin, linear):
    values = []
    for lo, hi, q in zip(bt, bt[1:], bq):
        band = np.sort(m[..., lo:hi].astype(np.float64))
        peak, valley = band[..., -q:].mean(-1), band[..., :q].mean(-1)
        if not linear:
            peak, valley = 10 * np.log10(np.maximum(peak, amin)), 10 * np.log10(np.maximum(valley, amin))
        values.append(peak - valley)
    return np.stack(values, -1)


def bands_of(bins, seed=0):
    """Bands of one bin, of two, and as wide as the spectrum lets them be; counts from 1 to the width."""
    rng = np.random.default_rng(bins + seed)
    inner = rng.choice(np.arange(1, bins), min(5, bins - 1), replace=False)
    bt = np.unique([0, min(1, bins), *inner, bins]).astype(np.int32)
    width = np.diff(bt)
    bq = rng.integers(1, width + 1).astype(np.int32)
    bq[-1] = max(1, width[-1] // 50)
    return bt, bq


def magnitudes(y, n_fft, hop, center):
    return abs(stft_reference(y, "hann", n_fft, hop, center)).swapaxes(1, 2)


def assert_contrast(got, m, bt, bq, linear, prec, what, amin=AMIN):
    want = contrast(m, bt, bq, amin, linear)
    assert got.shape == want.shape, what
    off = abs(got - want)
    if linear:
        off = off / max(m.max(), 1e-30)
    else:
        # A valley is off by a share of the spectrum's largest: in decibels that counts for more.
        off = off / np.maximum(1, 1e-2 * m.max() / np.maximum(m.min(), amin))
    bound = (ERROR if linear else DECIBELS)[prec]
    assert off.max() <= bound, f"{what}: {off.max()}"


def from_signal(y, n_fft, hop, center, bt, bq, linear, prec):
    shape = *frames_of(y, n_fft, hop, center).shape[:2], len(bq)
    return resident(lambda x, out: kevra.contrast_signal_resident(
        x, out, *y.shape, "hann", n_fft, hop, center, bt, bq, AMIN, linear, prec), y, shape)


def from_magnitudes(m, bt, bq, linear, prec, amin=AMIN):
    told, got = resident(lambda x, out: kevra.contrast_reduce_resident(
        x, out, *m.shape, bt, bq, amin, linear, prec), m, (len(m), len(bq)))
    assert told is None
    return got


def check_core(case, prec):
    _, n_fft, hop, center, wish = case
    hint(kevra, n_fft, hop, center, prec, **wish)
    y = noise(n_fft, hop, STORAGE[prec])
    m = magnitudes(y, n_fft, hop, center)
    bt, bq = bands_of(n_fft // 2 + 1)
    for linear in True, False:
        told, got = from_signal(y, n_fft, hop, center, bt, bq, linear, prec)
        # The longest frame leaves no room for its widest band in double.
        assert told is (prec == FLOAT or n_fft < 4096)
        if told:
            assert_contrast(got, m, bt, bq, linear, prec, f"{case} {linear=} {prec=}")


@pytest.mark.parametrize("prec", [FLOAT, DOUBLE], ids=["float", "double"])
@pytest.mark.parametrize("case", CORES, ids=lambda case: f"{case[0]}-{case[1]}")
def test_from_the_signal_in_every_core(case, prec):
    check_core(case, prec)


def check_rows(bins, rows=3):
    m = np.random.default_rng(bins).exponential(size=(rows, bins)) + 1e-3
    for seed in range(3):
        bt, bq = bands_of(bins, seed)
        for prec in HALF, FLOAT, DOUBLE:
            stored = m.astype(STORAGE[prec])
            for linear in True, False:
                got = from_magnitudes(stored, bt, bq, linear, prec)
                assert_contrast(got, stored, bt, bq, linear, prec, f"{bins=} {bt=} {bq=} {linear=} {prec=}")


@pytest.mark.parametrize("bins", [1, 2, 33, 257, 1025])
def test_from_magnitudes_in_every_precision(bins):
    check_rows(bins)


def test_bands_need_not_reach_the_ends_of_the_spectrum():
    m = np.random.default_rng(2).exponential(size=(4, 40))
    bt, bq = np.array([7, 8, 30]), np.array([1, 3])
    np.testing.assert_allclose(from_magnitudes(m, bt, bq, True, DOUBLE), contrast(m, bt, bq, AMIN, True), atol=1e-14)


def test_equal_values_floors_and_counts_of_a_whole_band():
    wide = 20000  # by histograms
    for width in 1, 37, wide:
        flat = np.full((2, width), 0.3, np.float32)
        for linear in True, False:
            assert not from_magnitudes(flat, [0, width], [width], linear, FLOAT).any()
    # Below amin there is nothing to see, but in a difference.
    quiet = np.linspace(1e-9, 1e-7, 64)[None]
    assert from_magnitudes(quiet, [0, 64], [4], False, DOUBLE)[0, 0] == 0
    assert from_magnitudes(quiet, [0, 64], [1], True, DOUBLE)[0, 0] == pytest.approx(9.9e-8)
    loud = np.concatenate([quiet, quiet + 1], axis=1)
    np.testing.assert_allclose(from_magnitudes(loud, [0, 128], [32], False, DOUBLE), 60, rtol=1e-6)


# The band's values by their kind: spread, with many ties, all but one equal, a small range far from zero, falling.
WIDE = {
    "spread": lambda rng, n: rng.exponential(size=n),
    "few levels": lambda rng, n: rng.integers(0, 7, n) / 7,
    "mostly silence": lambda rng, n: np.where(rng.random(n) < 0.9, 0, rng.random(n)),
    "one louder": lambda rng, n: np.eye(1, n, n // 3)[0] + 0.5,
    "small range": lambda rng, n: 1000 + rng.random(n),
    "falling": lambda rng, n: np.linspace(3, 1, n),
    "on the edges of levels": lambda rng, n: rng.integers(0, 257, n) / 256,
    "two magnitudes": lambda rng, n: np.where(rng.random(n) < 0.5, 1e-6, 1e6),
}


def check_histograms(kind, width):
    rng = np.random.default_rng(width)
    band = WIDE[kind](rng, width)
    for prec in HALF, FLOAT, DOUBLE:
        rows = np.stack([np.clip(band, 0, 60000), np.clip(band, 0, 60000)[::-1]]).astype(STORAGE[prec])
        m = np.pad(rows, ((0, 0), (5, 3)), constant_values=99)  # neighbours count for nothing
        for q in sorted({1, 2, width // 100 + 1, width // 2, width - 1, width}):
            got = from_magnitudes(m, [5, 5 + width], [q], True, prec).astype(np.float64)
            want = contrast(m, [5, 5 + width], [q], AMIN, True)
            values = rows.astype(np.float64)
            # Half a level at either end; sums in float, and the result in its storage.
            bound = np.ptp(values) / 65536 + 1e-6 * abs(values).max() + (prec == HALF) * 2**-11 * abs(want).max()
            assert abs(got - want).max() <= bound, f"{kind} {width=} {q=} {prec=}: {abs(got - want).max()} > {bound}"


@pytest.mark.parametrize("kind", WIDE)
def test_histograms_against_sorting(kind):
    check_histograms(kind, 20011)


def test_histograms_in_decibels():
    m = np.random.default_rng(3).exponential(size=(2, 30000)) + 0.1
    bt, bq = [0, 1, 20000, 30000], [1, 300, 200]
    np.testing.assert_allclose(from_magnitudes(m, bt, bq, False, DOUBLE), contrast(m, bt, bq, AMIN, False), atol=1e-2)


def infinite_and_not_a_number():
    m = np.random.default_rng(4).exponential(size=(5, 20000)).astype(np.float32)
    want = from_magnitudes(m, [0, 20000], [100], True, FLOAT)
    m[1, 77], m[2, 5], m[3] = np.inf, np.nan, np.nan
    got = from_magnitudes(m, [0, 20000], [100], True, FLOAT)
    np.testing.assert_array_equal(got[[0, 4]], want[[0, 4]])


def test_histograms_stay_in_their_memory_whatever_they_read():
    fresh(infinite_and_not_a_number, env={"KEVRA_CPU_CHECK": "1"})


def kernels_for(width, prec):
    m = np.random.default_rng(5).exponential(size=(2, width)).astype(STORAGE[prec])
    got = from_magnitudes(m, [0, width], [width // 10], True, prec)
    bound = np.ptp(m) / 65536 + ERROR[prec] * m.max() + (prec == HALF) * 2**-11 * m.max()
    assert abs(got - contrast(m, [0, width], [width // 10], AMIN, True)).max() <= bound


@pytest.mark.parametrize("prec, size", [(HALF, 4), (FLOAT, 4), (DOUBLE, 8)])
def test_the_widest_band_decides_between_sort_and_histograms(prec, size):
    for width, limit, kernel, shared in [
        (1024, 1024 * size, "kevra_contrast", 1024 * size), (1024, 1024 * size - 1, "kevra_contrastg", 2112),
        (1025, 2048 * size, "kevra_contrast", 2048 * size), (1025, 2048 * size - 1, "kevra_contrastg", 2112),
    ]:
        _, words = Fresh(kernels_for, width, prec, env={"KEVRA_DEBUG": "1", "KEVRA_CPU_SHARED_LIMIT": limit}).result()
        launched, = re.findall(r"launch (\w+) .* shared (\d+)", words)
        assert launched == (kernel, str(shared)), (width, limit)


STAGED = {"fused": [64, 512, 2048], "mixed": [1000], "pair": [441], "device memory": [16384]}


@pytest.mark.parametrize("way", STAGED)
def test_staged(way):
    for n_fft in STAGED[way]:
        bins = n_fft // 2 + 1
        y = noise(n_fft, n_fft // 3, np.float64, frames=4)
        bt, bq = bands_of(bins)
        for linear in True, False:
            got = kevra.contrast_staged(y, "hann", n_fft, n_fft // 3, True, bt, bq, AMIN, linear)
            frames, bands = frames_of(y, n_fft, n_fft // 3, True).shape[1], len(bq)
            assert got.dtype == np.float64 and got.strides == (bands * frames * 8, 8, bands * 8)
            m = magnitudes(y, n_fft, n_fft // 3, True)
            # Bands of the longest frames go through histograms.
            assert_contrast(got.swapaxes(1, 2), m, bt, bq, linear, FLOAT if n_fft == 16384 else DOUBLE, f"{n_fft=}")
        told, _ = from_signal(y, n_fft, n_fft // 3, True, bt, bq, linear, DOUBLE)
        assert told is (way == "fused")


def at_the_edge(n_fft, bt, bq):
    y = noise(n_fft, n_fft // 4, np.float32, frames=9)
    told, got = from_signal(y, n_fft, n_fft // 4, True, bt, bq, True, FLOAT)
    m = magnitudes(y, n_fft, n_fft // 4, True)
    staged = kevra.contrast_staged(y, "hann", n_fft, n_fft // 4, True, bt, bq, AMIN, True)
    assert_contrast(staged.swapaxes(1, 2), m, bt, bq, True, DOUBLE, "staged")
    if told:
        assert_contrast(got, m, bt, bq, True, FLOAT, "fused")
    return told


def test_either_side_of_what_shared_memory_holds():
    """A frame, its magnitudes and the widest band, padded to a power of two; in double none of these fits."""
    for n_fft, bt, pad in (512, [0, 129, 257], 256), (512, [0, 128, 256], 128), (1024, [0, 3, 4, 300], 512):
        bq = np.maximum(1, np.diff(bt) // 4)
        frame = 8 * (n_fft // 2 + 1 + n_fft // 32) + 4 * (n_fft // 2 + 1 + pad)
        for limit, told in (frame - 8, False), (frame, True), (2 * frame - 8, True):
            value, words = Fresh(at_the_edge, n_fft, bt, bq,
                                 env={"KEVRA_DEBUG": "1", "KEVRA_CPU_SHARED_LIMIT": limit}).result()
            assert value is told, (n_fft, limit)
            if told:
                assert f"shared {frame} " in re.search("launch kevra_stft .*", words)[0]


def test_tables_and_plans_are_kept_apart():
    y = noise(512, 128, np.float64)
    m = magnitudes(y, 512, 128, True)
    rows = m.reshape(-1, 257)
    for _ in range(2):
        for bt, bq in [([0, 10, 40], [2, 3]), ([0, 10, 40], [3, 2]), ([1, 10, 40], [2, 3]), ([0, 10, 257], [2, 3]),
                       ([0, 10], [2]), ([0, 2, 3, 10], [1, 1, 2])]:
            for linear in True, False:
                got = kevra.contrast_staged(y, "hann", 512, 128, True, bt, bq, AMIN, linear).swapaxes(1, 2)
                assert_contrast(got, m, bt, bq, linear, DOUBLE, f"{bt} {bq} {linear=}")
                got = from_magnitudes(rows, bt, bq, linear, DOUBLE)
                assert_contrast(got, rows, bt, bq, linear, DOUBLE, f"{bt} {bq} {linear=}")


@too_many_blocks_to_check
def test_more_rows_than_a_launch():
    m = np.random.default_rng(1).exponential(size=(65538, 5)).astype(np.float32)
    np.testing.assert_allclose(from_magnitudes(m, [0, 2, 5], [1, 1], True, FLOAT),
                               contrast(m, [0, 2, 5], [1, 1], AMIN, True), atol=1e-5)


def every_kernel():
    for case in CORES:
        check_core(case, FLOAT)
    check_core(CORES[2], DOUBLE)
    check_rows(257)
    check_histograms("few levels", 20011)


@pytest.mark.parametrize("order", ["forward", "shuffle:1"])
def test_no_race_in_any_order(order):
    fresh(every_kernel, env={"KEVRA_CPU_CHECK": "1", "KEVRA_CPU_ORDER": order})


def test_types_of_bands_and_what_is_empty():
    y = noise(64, 16, np.float32)
    want = kevra.contrast_staged(y, "hann", 64, 16, True, [0, 5, 33], [2, 3], AMIN, True)
    for convert in np.int64, np.int32, np.uint8, tuple:
        bands = (convert(values) for values in ([0, 5, 33], [2, 3]))
        np.testing.assert_array_equal(kevra.contrast_staged(y, "hann", 64, 16, True, *bands, AMIN, True), want)
    strided = np.repeat(np.array([0, 5, 33], np.int32), 2)[::2]
    np.testing.assert_array_equal(kevra.contrast_staged(y, "hann", 64, 16, True, strided, [2, 3], AMIN, True), want)
    frames = want.shape[2]
    assert kevra.contrast_staged(y[:0], "hann", 64, 16, True, [0, 5, 33], [2, 3], AMIN, True).shape == (0, 2, frames)
    for n_fft in 64, 100:
        empty = kevra.contrast_staged(y, "hann", n_fft, 16, True, [0], [], AMIN, True)
        assert empty.shape == (2, 0, frames_of(y, n_fft, 16, True).shape[1])
    kevra.contrast_reduce_resident(0, 0, 0, 5, [0, 5], [1], AMIN, True, FLOAT)
    kevra.contrast_reduce_resident(0, 0, 3, 5, [0], [], AMIN, True, FLOAT)
    for rows, bt, bq in (0, [0, 5], [1]), (2, [0], []):
        assert kevra.contrast_signal_resident(0, 0, rows, 500, "hann", 64, 16, True, bt, bq, AMIN, True, FLOAT) is True


def test_refusals_queue_nothing():
    y = noise(64, 16, np.float64)
    good = {"window": "hann", "n_fft": 64, "hop": 16, "center": True, "bt": [0, 5, 33], "bq": [2, 3], "amin": AMIN,
            "linear": True}
    kevra.contrast_staged(y, **good)
    before = pools_in_use()
    for change, text in [
        ({"bt": [0, 5]}, "^contrast: band table must hold n_bands \\+ 1 edges$"),
        ({"bt": [0, 5, 9, 33, 33], "bq": [1] * 5}, "^contrast: band table must hold n_bands \\+ 1 edges$"),
        ({"bt": [], "bq": []}, "^contrast: band table must hold n_bands"),
        ({"bt": [-1, 5, 33]}, r"^contrast: bt\[0\] is -1, must be from 0 to the 33 bins"),
        ({"bt": [0, 5, 34]}, r"^contrast: bt\[2\] is 34, must be from 0 to the 33 bins"),
        ({"bt": [0, 40, 33]}, r"^contrast: bt\[2\] is 33, must be above bt\[1\], 40"),
        ({"bt": [0, 0, 33]}, r"^contrast: bt\[1\] is 0, must be above bt\[0\], 0"),
        ({"bt": [0, -(2**31), 33]}, r"^contrast: bt\[1\] is -2147483648, must be above"),
        ({"bq": [0, 3]}, r"^contrast: bq\[0\] is 0, must be from 1 to the band's width, 5"),
        ({"bq": [2, 29]}, r"^contrast: bq\[1\] is 29, must be from 1 to the band's width, 28"),
        ({"bt": [0, 5, 2**32 + 33]}, r"^contrast: bt\[2\] is 4294967329, must fit 32 bits"),
        ({"bt": [0, 5.5, 33]}, "^contrast: bt must be a 1-D array of whole numbers"),
        ({"bq": [[2, 3]]}, "^contrast: bq must be a 1-D array of whole numbers"),
    ]:
        arguments = good | change
        with pytest.raises(ValueError, match=text):
            kevra.contrast_staged(y, **arguments)
        with pytest.raises(ValueError, match=text):
            kevra.contrast_signal_resident(0, 0, *y.shape, **arguments, prec=FLOAT)
        with pytest.raises(ValueError, match=text):
            kevra.contrast_reduce_resident(0, 0, 2, 33, arguments["bt"], arguments["bq"], AMIN, True, HALF)
    for change, text in [({"n_fft": 0}, "^stft: n_fft is 0"), ({"hop": 0}, "^stft: hop is 0")]:
        with pytest.raises(ValueError, match=text):
            kevra.contrast_staged(y, **(good | change))
        with pytest.raises(ValueError, match=text):
            kevra.contrast_signal_resident(0, 0, *y.shape, **(good | change), prec=DOUBLE)
    with pytest.raises(ValueError, match=r"^expected a 2-D \(batch, samples\) array$"):
        kevra.contrast_staged(y[0], **good)
    with pytest.raises(TypeError, match="float16"):
        kevra.contrast_staged(y.astype(np.float16), **good)
    for rows, n, text in (-1, 33, "rows is -1, must be at least 0"), (1, 0, "n is 0, must be at least 1"):
        with pytest.raises(ValueError, match=f"^contrast: {text}"):
            kevra.contrast_reduce_resident(0, 0, rows, n, [0, 5, 33], [2, 3], AMIN, True, FLOAT)
    # Half storage has no signal form, whatever the bands are.
    assert kevra.contrast_signal_resident(0, 0, *y.shape, **(good | {"bt": [0]}), prec=HALF) is False
    assert pools_in_use() == before
