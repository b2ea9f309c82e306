"""Rows of mel bands back to bins, against numpy in extended precision."""

import itertools

import kevra
import numpy as np
import pytest
from kevra import _diagnostics
from support import DOUBLE, FLOAT, HALF, STORAGE, UNIT, Device, fresh, pools_in_use

# Rows, bands, bins: single values, a block's worth of results and one to either side, bands below and around the four
# that are added at a time.
SHAPES = [(1, 1, 1), (3, 2, 5), (5, 3, 51), (1, 4, 256), (257, 5, 1), (7, 40, 201), (100, 128, 1025)]
new_key = (f"test {i}" for i in itertools.count()).__next__


def bands_and_matrix(rows, n_in, n_out):
    rng = np.random.default_rng(n_out)
    return rng.exponential(size=(rows, n_in)), rng.standard_normal((n_out, n_in))


def resident(m, matrix, key, clamp, prec, device=0):
    dtype = STORAGE[DOUBLE if prec == DOUBLE else FLOAT]
    count = len(m) * len(matrix)
    with Device(device) as at:
        # What stands behind the bins has to stay.
        out = at.upload(np.full(count + 64, 7, dtype))
        stream = at.stream()
        kevra.inverse_mel_scale_resident(at.upload(m.astype(dtype)), out, len(m), matrix, key, clamp, prec, device,
                                         stream)
        at.synchronize(stream)
        flat = at.download(out, count + 64, dtype)
    np.testing.assert_array_equal(flat[count:], 7)
    return flat[:count].reshape(len(m), len(matrix))


def assert_bins(got, m, matrix, clamp, prec):
    m, matrix = m.astype(got.dtype).astype(np.longdouble), matrix.astype(got.dtype).astype(np.longdouble)
    want = m @ matrix.T
    # A quarter of the products are added one by one, and each is rounded.
    tolerance = UNIT[prec][1] * (m.shape[1] / 4 + 5) * (abs(m) @ abs(matrix).T)
    assert got.shape == want.shape and got.dtype == STORAGE[prec]
    if clamp:
        assert (got >= 0).all() and not np.signbit(got[want < -tolerance]).any()
        want = np.maximum(want, 0)
    assert (abs(got - want) <= tolerance).all()


@pytest.mark.parametrize("shape", SHAPES, ids=str)
def test_both_forms(shape):
    m, matrix = bands_and_matrix(*shape)
    for prec in FLOAT, DOUBLE:
        key = new_key()
        for clamp in False, True:
            got = resident(m, matrix, key, clamp, prec)
            assert_bins(got, m, matrix, clamp, prec)
            for given in m, np.asfortranarray(m), np.repeat(m, 2, axis=0)[::2]:
                staged = kevra.inverse_mel_scale_staged(given.astype(STORAGE[prec]), matrix, key, clamp)
                np.testing.assert_array_equal(staged, got)
    np.testing.assert_array_equal(resident(m, matrix, key, True, HALF), resident(m, matrix, key, True, FLOAT))


def test_brings_back_what_a_bank_took():
    """Through the pseudo-inverse of a bank: bands that are bands of something come back as they were."""
    bank = kevra.mel_filter_bank(16000, 512, 40)
    back = np.linalg.pinv(bank)
    bands = np.random.default_rng(0).exponential(size=(20, 257)) @ bank.T
    bins = kevra.inverse_mel_scale_staged(bands, back, "pinv 512 40", False)
    np.testing.assert_allclose(bins @ bank.T, bands, rtol=1e-10)


def test_a_key_and_a_shape_name_a_matrix():
    m, first = bands_and_matrix(4, 6, 9)
    _, second = bands_and_matrix(4, 6, 10)
    one, other = new_key(), new_key()
    for _ in range(2):
        for key, matrix in (one, first), (other, -first), (one, second), (one, second.T @ np.eye(10, 6)):
            for prec in FLOAT, DOUBLE:
                assert_bins(resident(m, matrix, key, False, prec), m, matrix, False, prec)
    # Of one key and one shape, the first.
    for dtype, prec in (np.float32, FLOAT), (np.float64, DOUBLE):
        assert_bins(kevra.inverse_mel_scale_staged(m.astype(dtype), 0 * first, one, False), m, first, False, prec)
    # A matrix of other order or type is read as float64.
    for given in np.asfortranarray(first), first.astype(np.float32), np.round(first).astype(np.int8):
        got = kevra.inverse_mel_scale_staged(m, given, new_key(), False)
        assert_bins(got, m, np.asarray(given, np.float64), False, DOUBLE)


def on_two_devices():
    m, matrix = bands_and_matrix(4, 6, 9)
    for device in 0, 1, 0:
        assert_bins(resident(m, matrix, "key", True, DOUBLE, device), m, matrix, True, DOUBLE)


def test_devices_have_matrices_of_their_own():
    fresh(on_two_devices, env={"KEVRA_CPU_DEVICES": "2"})


def every_shape():
    return [resident(*bands_and_matrix(*shape), str(shape), clamp, prec).tobytes()
            for shape in SHAPES for clamp in (False, True) for prec in (FLOAT, DOUBLE)]


def test_check_mode_finds_nothing_and_no_order_changes_a_bit():
    want = fresh(every_shape, env={"KEVRA_CPU_ORDER": "forward"})
    for order in "reverse", "shuffle:1":
        assert fresh(every_shape, env={"KEVRA_CPU_ORDER": order}) == want, order
    fresh(every_shape, env={"KEVRA_CPU_CHECK": "1"})


def test_repeated_calls_take_no_new_memory():
    m, matrix = bands_and_matrix(50, 40, 201)
    for dtype in np.float32, np.float64:
        counts = []
        for _ in range(4):
            kevra.inverse_mel_scale_staged(m.astype(dtype), matrix, "repeated", True)
            pool = _diagnostics.read()["pools"]["device"]
            counts.append((pool["in_use_blocks"], pool["cached_blocks"]))
        assert counts[1:] == counts[:1] * 3


def test_refusals_and_nothing_for_no_rows():
    m, matrix = bands_and_matrix(4, 6, 9)
    before = pools_in_use()
    assert kevra.inverse_mel_scale_staged(m[:0], matrix, new_key(), True).shape == (0, 9)
    kevra.inverse_mel_scale_resident(0, 0, 0, matrix, new_key(), True, FLOAT)
    for given, words in [
        ((m[0], matrix), r"expected a 2-D \(rows, n_in\) array$"),
        ((m[:, 1:], matrix), "inverse_mel_scale: P columns must match M's n_in"),
        ((m, matrix[0]), "inverse_mel_scale: P has 1 dimensions, must be a 2-D"),
        ((m, matrix[:0]), "inverse_mel_scale: n_out is 0, must be at least 1"),
        ((m[:, :0], matrix[:, :0]), "inverse_mel_scale: n_in is 0, must be at least 1"),
    ]:
        with pytest.raises(ValueError, match=f"^{words}"):
            kevra.inverse_mel_scale_staged(*given, new_key(), True)
    for frames, words in (-1, "-1, must be at least 0"), (2**62, f"{2**62}, must be at most"):
        with pytest.raises(ValueError, match=f"^inverse_mel_scale: frames is {words}"):
            kevra.inverse_mel_scale_resident(0, 0, frames, matrix, new_key(), True, FLOAT)
    with pytest.raises(TypeError, match="float16"):
        kevra.inverse_mel_scale_staged(m.astype(np.float16), matrix, new_key(), True)
    assert pools_in_use() == before
