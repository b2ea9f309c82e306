"""Gradients of spectral statistics and of contrast: central differences, silence and other kinks, refusals."""

import re

import kevra
import numpy as np
import pytest
from gradients import assert_close, assert_gradient, run
from support import DOUBLE, FLOAT, HALF, Device, fresh, too_many_blocks_to_check

CENTROID, BANDWIDTH, FLATNESS, ROLLOFF = range(4)
# stat and exponent
STATS = [(CENTROID, 2), (BANDWIDTH, 2), (BANDWIDTH, 1), (BANDWIDTH, 3), (BANDWIDTH, 0.5), (FLATNESS, 2)]
PRECISIONS = pytest.mark.parametrize("prec", [FLOAT, DOUBLE], ids=["float", "double"])


def statistic(m, stat, fstep, p, amin=1e-10):
    return run(lambda x, out, stream: kevra.spectral_reduce_resident(
        x, out, *m.shape, stat, fstep, p, amin, 0.85, DOUBLE, 0, stream), [m], (len(m),), DOUBLE)


def statistic_adjoint(m, gy, prec, stat, fstep=2.0, p=2.0, amin=1e-10, repeats=1):
    return run(lambda x, g, out, stream: kevra.spectral_adjoint_resident(
        x, g, out, *m.shape, stat, fstep, p, amin, prec, 0, stream), [m, gy], m.shape, prec, repeats)


def spectra(rows, n):
    """Noise, a slope, and peaks of many sizes."""
    rng = np.random.default_rng(n)
    m = rng.exponential(size=(rows, n)) + 0.1
    m[0] = np.linspace(0.1, 1, n) ** 2 * rng.uniform(0.9, 1.1, n)
    m[-1] **= 3
    return m, rng.standard_normal(rows)


@pytest.mark.parametrize("n", [2, 33, 256, 513])
def test_statistics_against_central_differences(n):
    m, gy = spectra(3, n)
    for stat, p in STATS:
        assert_gradient(lambda x: statistic(x, stat, 2.5, p), lambda x, g, prec: statistic_adjoint(  # noqa: B023
            x, g, prec, stat, 2.5, p), m, gy, f"{n=} {stat=} {p=}")  # noqa: B023
    # Half the powers stand below the floor and have no say.
    amin = float(np.sort(m, axis=None)[m.size // 2:][:2].mean() ** 2)
    got = statistic_adjoint(m, gy, DOUBLE, FLATNESS, amin=amin)
    assert (got[m**2 < amin] == 0).all() and (got[m**2 > amin] != 0).all()
    assert_gradient(lambda x: statistic(x, FLATNESS, 1.0, 2, amin), lambda x, g, prec: statistic_adjoint(
        x, g, prec, FLATNESS, amin=amin), m, gy, f"{n=} {amin=}")


@PRECISIONS
def test_silence_and_single_bins(prec):
    n, gy = 300, np.array([3.0, -2.0, 1.0, 1.0])
    m = np.zeros((4, n))
    m[1, 77], m[2, 0] = 0.3, 5  # 77 is no bin that a division hits exactly
    m[3] = 1e-14  # sum below the floor
    for fstep in 1.0, 22050 / 2048, 0.1:
        f = fstep * np.arange(n)
        for p in 2, 1, 3, 0.5:
            got = statistic_adjoint(m, gy, prec, BANDWIDTH, fstep, p)
            assert not got[:3].any(), f"{fstep=} {p=} {abs(got[:3]).max()}"
            assert np.isfinite(got).all()
        got = statistic_adjoint(m, gy, prec, CENTROID, fstep)
        np.testing.assert_allclose(got[[0, 3]], gy[[0, 3], None] * f / 1e-10, rtol=1e-5)
        np.testing.assert_allclose(got[1], -2 * (f - f[77]) / 0.3, rtol=1e-5, atol=1e-3)
    assert not statistic_adjoint(m, gy, prec, FLATNESS)[[0, 3]].any()
    # No floor at all: one zero makes the geometric mean 0.
    assert not statistic_adjoint(m, gy, prec, FLATNESS, amin=0.0)[:3].any()
    # A centroid on a bin, where an exponent below 1 has no slope: the neighbours' cancel out.
    even = np.ones((1, 5))
    for p in 0.5, 1:
        np.testing.assert_allclose(statistic_adjoint(even, [1.0], prec, BANDWIDTH, 1.0, p),
                                   statistic_adjoint(even, [1.0], prec, BANDWIDTH, 1.0, p)[:, ::-1], rtol=1e-5)


def contrast(m, bt, bq, amin, linear):
    return run(lambda x, out, stream: kevra.contrast_reduce_resident(
        x, out, *m.shape, bt, bq, amin, linear, DOUBLE, 0, stream), [m], (len(m), len(bq)), DOUBLE)


def contrast_adjoint(m, gy, prec, bt, bq, amin=1e-6, linear=True, repeats=1):
    return run(lambda x, g, out, stream: kevra.contrast_adjoint_resident(
        x, g, out, *m.shape, bt, bq, amin, linear, prec, 0, stream), [m, gy], m.shape, prec, repeats)


def chosen(m, gy, bt, bq, amin, linear):
    """By a sort of numpy's."""
    want = np.zeros(m.shape)
    for b, q in enumerate(bq):
        for row in range(len(m)):
            at = np.argsort(m[row, bt[b]:bt[b + 1]], kind="stable") + bt[b]
            for places, sign in (at[:q], -1), (at[-q:], 1):
                mean = m[row, places].mean()
                level = 1 if linear else 0 if mean < amin else 10 / np.log(10) / mean
                want[row, places] += sign * gy[row, b] * level / q
    return want


@pytest.mark.parametrize("linear", [True, False], ids=["linear", "dB"])
@pytest.mark.parametrize("bt, bq", [
    ([0, 1, 3, 20, 52], [1, 2, 3, 32]), ([5, 37, 70], [4, 1]), ([0, 129], [64]), ([3, 4], [1]), ([0, 300], [1]),
], ids=str)
def test_contrast_against_central_differences(bt, bq, linear):
    rng = np.random.default_rng(bt[-1])
    m = np.stack([rng.permutation(n) for n in [bt[-1] + 4] * 3]) * 0.01 + 0.1  # no two alike
    gy = rng.standard_normal((3, len(bq)))
    if linear or bt[1] - bt[0] > 1 or len(bq) > 1:  # a lone bin has no contrast in either
        assert_gradient(lambda x: contrast(x, bt, bq, 1e-6, linear), lambda x, g, prec: contrast_adjoint(
            x, g, prec, bt, bq, 1e-6, linear), m, gy, f"{bt=} {linear=}")
    got = contrast_adjoint(m, gy, DOUBLE, bt, bq, 1.0, linear)
    np.testing.assert_allclose(got, chosen(m, gy, bt, bq, 1.0, linear), rtol=1e-13, atol=1e-15)
    assert not got[:, :bt[0]].any() and not got[:, bt[-1]:].any()


@PRECISIONS
def test_contrast_of_equal_infinite_and_silent_magnitudes(prec):
    flat = np.ones((1, 6))
    np.testing.assert_array_equal(contrast_adjoint(flat, [[6.0]], prec, [0, 6], [2]), [[-3, -3, 0, 0, 3, 3]])
    np.testing.assert_array_equal(contrast_adjoint(flat, [[6.0]], prec, [0, 6], [6]), [[0] * 6])
    for amin in 1e-6, 0.0:
        assert not contrast_adjoint(np.zeros((2, 9)), np.ones((2, 2)), prec, [0, 4, 9], [1, 2], amin, False).any()
    # Nothing of another band or row may be touched, whatever a band holds.
    m = np.ones((3, 40))
    m[1, 20:25] = np.inf, np.nan, np.nan, -np.inf, 3.3e38
    got = contrast_adjoint(m, np.full((3, 3), 2.0), prec, [0, 13, 27, 40], [1, 3, 1])
    want = contrast_adjoint(np.ones((3, 40)), np.full((3, 3), 2.0), prec, [0, 13, 27, 40], [1, 3, 1])
    untouched = np.ones((3, 40), bool)
    untouched[1, 13:27] = False
    np.testing.assert_array_equal(got[untouched], want[untouched])
    np.testing.assert_array_equal(contrast_adjoint(m, np.empty((3, 0)), prec, [0], []), np.zeros((3, 40)))


@PRECISIONS
def test_contrast_by_histograms(prec):
    """Bands that no block can sort; the levels tell all of these magnitudes apart."""
    width, bt, bq = 20000, [3, 20003, 20010], [300, 2]
    rng = np.random.default_rng(1)
    m = np.stack([rng.permutation(width + 20) for _ in range(2)]).astype(np.float32) / 256 + 100
    gy = rng.standard_normal((2, 2))
    for linear, amin in (True, 0), (False, 1e-6), (False, 150.0):
        got = contrast_adjoint(m, gy, prec, bt, bq, amin, linear, repeats=2)
        want = chosen(m.astype(np.float64), gy, bt, bq, amin, linear)
        assert_close(got, want, 3e-6, f"{linear=} {amin=}")  # means of floats
    assert not contrast_adjoint(np.full((1, width), 0.3), [[1.0]], prec, [0, width], [9], 1e-6, False).any()
    # 8 zeros and 4 ones: of the 3 smallest and the 6 largest the equal ones share the parts.
    few = np.full((1, width), 0.5)
    few[0, 100:108], few[0, 5000:5004] = 0, 1
    got = contrast_adjoint(few, [[1.0]], prec, [0, width], [3])
    np.testing.assert_allclose(got[0, [100, 107, 5000, 5003, 0]], [-1 / 8, -1 / 8, 1 / 4, 1 / 4, 0], rtol=1e-6)
    got = contrast_adjoint(few, [[1.0]], prec, [0, width], [6])[0]
    np.testing.assert_allclose(got[[100, 5000, 0]], [-1 / 8, 1 / 6, (2 / 6) / (width - 12)], rtol=1e-5)
    np.testing.assert_allclose([got[few[0] == 0].sum(), got.sum()], [-1, 0], atol=1e-5)


@too_many_blocks_to_check
def test_more_rows_than_a_launch_takes():
    m = np.tile(np.array([[1.0, 2.0, 4.0], [3.0, 1.0, 0.5]]), (32769, 1))
    got = statistic_adjoint(m, np.ones(len(m)), FLOAT, CENTROID)
    np.testing.assert_array_equal(got, np.tile(got[:2], (32769, 1)))
    got = contrast_adjoint(m, np.ones((len(m), 1)), FLOAT, [0, 3], [1])
    np.testing.assert_array_equal(got, np.tile([[-1, 0, 1], [1, 0, -1]], (32769, 1)))


def every_kernel():
    m, gy = spectra(2, 300)
    for prec in FLOAT, DOUBLE:
        for stat, p in STATS[:3] + STATS[-1:]:
            statistic_adjoint(m, gy, prec, stat, 1.0, p, repeats=20)
        contrast_adjoint(m, np.ones((2, 2)), prec, [2, 131, 290], [5, 100], linear=False, repeats=20)
        contrast_adjoint(np.resize(m, (1, 17000)), [[1.0]], prec, [0, 17000], [50], repeats=20)


@pytest.mark.parametrize("switch", [{"KEVRA_CPU_CHECK": "1"}, {"KEVRA_CPU_ORDER": "shuffle:1"}], ids=str)
def test_no_race_and_the_same_bits_in_any_order(switch):
    fresh(every_kernel, env=switch)


def test_refusals_and_nothing_for_no_rows():
    with Device() as device:
        at = device.upload(np.full(8, 7.0)), device.upload(np.ones(8)), device.upload(np.full(8, 7.0))

        def spectral(rows=2, n=4, stat=BANDWIDTH, p=2.0, prec=DOUBLE):
            kevra.spectral_adjoint_resident(*at, rows, n, stat, 1.0, p, 1e-10, prec)

        def banded(rows=2, n=4, bt=(0, 4), bq=(1,), prec=DOUBLE):
            kevra.contrast_adjoint_resident(*at, rows, n, bt, bq, 1e-6, True, prec)

        for call, change, text in [
            (spectral, {"prec": HALF}, "spectral: half gradients compute in f32 - upcast the tensors$"),
            (spectral, {"stat": ROLLOFF}, "spectral: stat is 3, the rolloff, .* has no gradient; use 0 "),
            (spectral, {"stat": 4}, "spectral: stat is 4, must be"),
            (spectral, {"stat": -1}, "spectral: stat is -1, must be"),
            (spectral, {"p": 0.0}, "spectral: p is 0"),
            (spectral, {"p": np.nan}, "spectral: p is "),
            (spectral, {"rows": -1}, "spectral: rows is -1, must be at least 0"),
            (spectral, {"n": 0}, "spectral: n is 0, must be at least 1"),
            (banded, {"prec": HALF}, "contrast: half gradients compute in f32 - upcast the tensors$"),
            (banded, {"bq": (1, 1)}, "contrast: band table must hold n_bands \\+ 1 edges$"),
            (banded, {"bt": (0, 5)}, re.escape("contrast: bt[1] is 5, must be from 0 to the 4 bins")),
            (banded, {"bq": (5,)}, re.escape("contrast: bq[0] is 5, must be from 1 to the band's width, 4")),
            (banded, {"rows": -1}, "contrast: rows is -1, must be at least 0"),
        ]:
            with pytest.raises(ValueError, match="^" + text):
                call(**change)
        spectral(rows=0)
        banded(rows=0)
        np.testing.assert_array_equal(device.download(at[2], 8, np.float64), 7)
