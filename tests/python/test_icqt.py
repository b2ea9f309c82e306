"""The direct inverse of constant-Q transforms: its definition in numpy, dual filters of plans, what is refused."""

import kevra
import numpy as np
import pytest
from constant_q import new_key, relative
from support import DOUBLE, FLOAT, STORAGE, Device, pools_in_use

ERROR = {FLOAT: 1e-6, DOUBLE: 1e-13}
COMPLEX = {FLOAT: np.complex64, DOUBLE: np.complex128}


def complex_noise(rng, *shape):
    return rng.standard_normal(shape) + 1j * rng.standard_normal(shape)


def reference(C, length, hop, octaves):
    batch, _, frames = C.shape
    y = np.zeros((batch, length))
    for s, n_d, row, rows, D in octaves:
        span = n_d << s
        spectra = np.zeros((batch, frames, span // 2 + 1), complex)
        spectra[:, :, : n_d // 2 + 1] = np.einsum("bkt,kj->btj", C[:, row : row + rows], D)
        pieces = np.fft.irfft(spectra, span, axis=2)
        total, covered = np.zeros((batch, length)), np.zeros(length)
        for f in range(frames):
            end = min(f * hop + span, length)
            if end > f * hop:
                total[:, f * hop : end] += pieces[:, f, : end - f * hop]
                covered[f * hop : end] += 1
        y += 2**s * total / np.maximum(covered, 1)
    return y


# bins, frames, hop, length, then (s, n_d, row_lo, rows) of each octave
CASES = {
    "three octaves": (12, 20, 32, 900, [(0, 64, 8, 4), (1, 64, 4, 4), (2, 128, 0, 4)]),
    "frames far apart": (3, 5, 100, 700, [(0, 32, 0, 2), (1, 16, 1, 2)]),  # gaps; a bin in both octaves
    "cut short, odd sizes": (5, 30, 7, 60, [(0, 45, 0, 5), (3, 9, 0, 1)]),
    "one frame, one sample": (1, 1, 1, 1, [(1, 2, 0, 1)]),
    "no octaves": (2, 3, 4, 20, []),
}


@pytest.mark.parametrize("name", CASES)
def test_is_its_definition(name):
    bins, frames, hop, length, sizes = CASES[name]
    rng = np.random.default_rng(len(name))
    octaves = [(*size, complex_noise(rng, size[3], size[1] // 2 + 1)) for size in sizes]
    C = complex_noise(rng, 2, bins, frames)
    for prec in FLOAT, DOUBLE:
        own, key = C.astype(COMPLEX[prec]), new_key()
        want = reference(own, length, hop, octaves)
        got = kevra.icqt_direct_staged(own, length, bins, frames, hop, octaves, key)
        assert got.dtype == STORAGE[prec] and got.shape == want.shape
        with Device() as device:
            stream, y = device.stream(), device.upload(np.full(2 * length + 8, 7, STORAGE[prec]))
            rest = 2, bins, frames, hop, length, octaves, key, prec, 0, stream
            kevra.icqt_direct_resident(device.upload(own), y, *rest)
            device.synchronize(stream)
            resident = device.download(y, 2 * length + 8, STORAGE[prec])
        np.testing.assert_array_equal(resident[2 * length :], 7)
        for result in got, resident[: 2 * length].reshape(2, length):
            assert np.linalg.norm(result - want) <= ERROR[prec] * np.linalg.norm(want), f"{name} {prec=}"


@pytest.mark.parametrize("hop, bins, n_bins, decibels", [(32, 12, 72, 45), (64, 24, 132, 40), (45, 12, 54, 40)])
def test_duals_of_a_plan_give_the_signal_back(hop, bins, n_bins, decibels):
    """Of what lies within its band and away from the ends."""
    plan = kevra.constant_q_plan(22050, hop, n_bins, bins, f_min=65.4)
    rng = np.random.default_rng(hop)
    samples = 30001
    spectrum = np.fft.rfft(rng.standard_normal((2, samples)))
    hertz = np.fft.rfftfreq(samples, 1 / 22050)
    spectrum[:, (hertz < plan.frequencies[1]) | (hertz > plan.frequencies[-2])] = 0
    x = np.fft.irfft(spectrum, samples)
    C = kevra.cqt_staged(x, *plan.arguments(samples), "complex")
    for kind in np.complex128, np.complex64:
        y = kevra.constant_q_inverse(C.astype(kind), plan, samples)
        inner = slice(12000, -12000)
        assert -20 * np.log10(relative(y[:, inner], x[:, inner])) > decibels
    with pytest.raises(ValueError, match=r"must be \(batch, "):
        kevra.constant_q_inverse(C, plan, samples + hop)


GOOD = {"length": 40, "n_bins": 3, "frames": 4, "hop": 8, "octaves": [(1, 8, 0, 3, np.ones((3, 5)))]}
REFUSED = [
    ({"hop": 0}, ValueError, "^icqt: hop is 0, must be at least 1"),
    ({"length": -1}, ValueError, "^icqt: length is -1, must be at least 0"),
    ({"n_bins": 2}, ValueError, "^icqt: C has 3 bins and 4 frames, must have n_bins = 2 and frames = 4"),
    ({"octaves": [(1, 8, 1, 3, np.ones((3, 5)))]}, ValueError, "row_lo 1 and 3 rows reach past n_bins = 3"),
    ({"octaves": [(1, 8, 0, 2, np.ones((3, 5)))]}, ValueError, r"D has shape \(3, 5\), must be .* = \(2, 5\)"),
    ({"octaves": [(1, 10, 0, 3, np.ones((3, 5)))]}, ValueError, r"D has shape \(3, 5\), must be .* = \(3, 6\)"),
    ({"octaves": 2 * GOOD["octaves"]}, ValueError, r"^icqt: octaves\[1\]: s is 1, that of octaves\[0\]"),
    ({"octaves": [(-1, 8, 0, 3, np.ones((3, 5)))]}, ValueError, r"^icqt: octaves\[0\]: s is -1"),
    ({"octaves": [(30, 8, 0, 3, np.ones((3, 5)))]}, ValueError, "samples of a frame, is 8589934592, must be at most"),
    ({"octaves": [(1, 8, 0, 3)]}, ValueError, "must be a tuple of s, n_d, row_lo, rows and D"),
    ({"octaves": [(1, 8, 0, 3, np.ones(5))]}, ValueError, "invalid axis: .*D has 1 dimensions"),
]


@pytest.mark.parametrize("changes, kind, words", REFUSED, ids=[str(row[0])[:50] for row in REFUSED])
def test_refuses(changes, kind, words):
    C, before = np.ones((2, 3, 4), np.complex64), pools_in_use()
    with pytest.raises(kind, match=words):
        kevra.icqt_direct_staged(C, **{**GOOD, **changes}, plan_key=new_key())
    assert pools_in_use() == before
    with Device() as device:
        y = device.upload(np.full((2, 40), 7, np.float32))
        if "n_bins" not in changes:
            named = {**GOOD, **changes}
            rest = named["n_bins"], named["frames"], named["hop"], named["length"], named["octaves"], new_key()
            with pytest.raises(kind, match=words):
                kevra.icqt_direct_resident(device.upload(C), y, 2, *rest, FLOAT)
        np.testing.assert_array_equal(device.download(y, (2, 40), np.float32), 7)


def test_refuses_half_dimensions_and_foreign_keys():
    with pytest.raises(ValueError, match="^icqt: half estimates compute in f32 - upcast the tensors$"):
        kevra.icqt_direct_resident(0, 0, 1, 3, 4, 8, 40, GOOD["octaves"], new_key(), 0)
    with pytest.raises(ValueError, match=r"^icqt: expected C \(batch, n_bins, frames\)$"):
        kevra.icqt_direct_staged(np.ones((3, 4), complex), **GOOD, plan_key=new_key())
    key, C = new_key(), np.ones((1, 3, 4), complex)
    kevra.icqt_direct_staged(C, **GOOD, plan_key=key)
    with pytest.raises(ValueError, match="plan_key .* has stood for dual filters of 3 x 5 here, not of 3 x 9"):
        kevra.icqt_direct_staged(C, **{**GOOD, "octaves": [(1, 16, 0, 3, np.ones((3, 9)))]}, plan_key=key)
    with pytest.raises(ValueError, match="^kevra_icqtdual: batch exceeds grid.y limit"):
        kevra.icqt_direct_resident(0, 0, 65536, 3, 4, 8, 40, GOOD["octaves"], key, FLOAT)


def test_nothing_in_nothing_out():
    for shape in (0, 3, 4), (2, 3, 0):
        y = kevra.icqt_direct_staged(np.ones(shape, complex), 40, 3, shape[2], 8, GOOD["octaves"], new_key())
        np.testing.assert_array_equal(y, np.zeros((shape[0], 40)))
