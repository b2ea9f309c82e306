"""Decibels of arrays on the device and the way back, against numpy in extended precision."""

import kevra
import numpy as np
import pytest
from support import DOUBLE, FLOAT, STORAGE, Device, too_many_blocks_to_check

DECIBELS = {FLOAT: 1e-4, DOUBLE: 1e-9}  # absolute error, for values whose level is no more than a few hundred dB


def reference(s, mul, amin, cref, topdb, hastop):
    d = mul * np.log10(np.maximum(s.astype(np.longdouble), amin)) - cref
    return np.maximum(d, d.max(axis=1, keepdims=True) - topdb) if hastop else d


def decibels(s, prec, *arguments, in_place=False):
    with Device() as device:
        x = device.upload(s)
        # What stands behind the items has to stay.
        out = x if in_place else device.upload(np.full(s.size + 64, 7, s.dtype))
        kevra.db_resident(x, out, *s.shape, *arguments, prec)
        device.synchronize(0)
        if in_place:
            return device.download(out, s.shape, s.dtype)
        flat = device.download(out, s.size + 64, s.dtype)
        np.testing.assert_array_equal(flat[s.size:], 7)
        return flat[:s.size].reshape(s.shape)


@pytest.mark.parametrize("hastop", [False, True])
@pytest.mark.parametrize("shape", [(1, 1), (3, 255), (4, 256), (2, 5000)], ids=str)
@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
def test_levels_and_their_floor(prec, shape, hastop):
    # Levels over 200 dB, so that floor and amin both cut; the peak stands anywhere in its item.
    s = (10.0 ** np.random.default_rng(shape[1]).uniform(-14, 6, shape)).astype(STORAGE[prec])
    for scale in (10.0, 1e-10, 0.0, 80.0), (20.0, 1e-5, 3.5, 0.0), (10.0, 1e-12, -20.0, 40.0):
        arguments = (*scale, hastop)
        got = decibels(s, prec, *arguments)
        np.testing.assert_allclose(got, reference(s, *arguments), rtol=0, atol=DECIBELS[prec], err_msg=str(arguments))
        np.testing.assert_array_equal(decibels(s, prec, *arguments, in_place=True), got)
    if hastop:
        assert (decibels(s, prec, 20.0, 1e-5, 0.0, 0.0, True) == got.dtype.type(decibels(
            s.max(axis=1, keepdims=True), prec, 20.0, 1e-5, 0.0, 0.0, False))).all()  # topdb 0: all is the peak


@too_many_blocks_to_check
def test_more_items_than_a_grid_has_rows():
    s = np.arange(1, 2 * 65537 + 1, dtype=np.float32).reshape(65537, 2)
    arguments = (10.0, 1e-10, 0.0, 80.0, False)
    np.testing.assert_allclose(decibels(s, FLOAT, *arguments), reference(s, *arguments), rtol=0, atol=DECIBELS[FLOAT])


@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
def test_silence_lies_at_the_least_value(prec):
    silence = np.zeros((2, 300), STORAGE[prec])
    np.testing.assert_allclose(decibels(silence, prec, 10.0, 1e-10, 0.0, 80.0, True), -100, rtol=0, atol=DECIBELS[prec])


@pytest.mark.parametrize("total", [1, 255, 256, 70001])
@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
def test_the_way_back(prec, total):
    d = np.random.default_rng(total).uniform(-120, 60, total).astype(STORAGE[prec])
    want = 0.25 * 10 ** (d.astype(np.longdouble) / 20)
    with Device() as device:
        out = device.upload(np.full(total + 64, 7, d.dtype))
        kevra.db_inv_resident(device.upload(d), out, total, 20.0, 0.25, prec)
        got = device.download(out, total + 64, d.dtype)
    np.testing.assert_array_equal(got[total:], 7)
    # The exponent's rounding counts as often as the exponent is large.
    np.testing.assert_allclose(got[:total], want, rtol=20 * np.finfo(d.dtype).eps, atol=0)


def test_nothing_is_queued_for_nothing_and_refused_for_less():
    kevra.db_resident(0, 0, 0, 10, 10.0, 1e-10, 0.0, 80.0, True, FLOAT)
    kevra.db_resident(0, 0, -3, 10, 10.0, 1e-10, 0.0, 80.0, True, FLOAT)
    kevra.db_resident(0, 0, 10, 0, 10.0, 1e-10, 0.0, 80.0, True, FLOAT)
    kevra.db_inv_resident(0, 0, 0, 10.0, 1.0, DOUBLE)
    with pytest.raises(ValueError, match="^db: n is -1, must be at least 0$"):
        kevra.db_resident(0, 0, 1, -1, 10.0, 1e-10, 0.0, 80.0, True, FLOAT)
    with pytest.raises(ValueError, match="^db_inv: total is -1, must be at least 0$"):
        kevra.db_inv_resident(0, 0, -1, 10.0, 1.0, FLOAT)
    with pytest.raises(ValueError, match="^db_inv: total is .*, must be at most"):
        kevra.db_inv_resident(0, 0, 1 << 60, 10.0, 1.0, FLOAT)
