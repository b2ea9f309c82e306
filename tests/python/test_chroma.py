"""Chroma of random plans and tonnetz of chroma, against numpy."""

import kevra
import numpy as np
import pytest
from constant_q import draw, reference
from support import DOUBLE, FLOAT, HALF, STORAGE, UNIT, Device, fresh

ERROR = {HALF: 2e-3, FLOAT: 2e-6, DOUBLE: 1e-13}  # absolute; the largest of a frame is 1


def chroma_reference(y, plan, classes, n_chroma):
    folded = np.zeros((len(y), n_chroma, plan.frames))
    np.add.at(folded, (slice(None), classes), abs(reference(y, plan)))
    return folded / np.maximum(folded.max(axis=1, keepdims=True), 1e-30)


def case(n_chroma, prec):
    """Noise with a silent row, and classes of which one has no bin."""
    rng = np.random.default_rng(n_chroma)
    y = rng.standard_normal((3, 4001))
    y[1] = 0
    plan = draw(rng, 4001, 3, 270, [64, 200])
    classes = rng.integers(0, max(n_chroma - 1, 1), plan.n_bins)
    return y.astype(STORAGE[prec]), plan, classes


def chroma_resident(y, plan, classes, n_chroma, prec):
    shape = len(y), n_chroma, plan.frames
    count = int(np.prod(shape))
    levels, octaves, taps, *rest = plan.arguments
    key, n_bins, frames = rest
    with Device() as device:
        out, stream = device.upload(np.full(count + 64, 7, y.dtype)), device.stream()
        kevra.chroma_resident(device.upload(y), out, *y.shape, levels, octaves, taps, classes, key, n_bins, n_chroma,
                              frames, prec, 0, stream)
        device.synchronize(stream)
        flat = device.download(out, count + 64, y.dtype)
    np.testing.assert_array_equal(flat[count:], 7)
    return flat[:count].reshape(shape)


def chroma_staged(y, plan, classes, n_chroma):
    levels, octaves, taps, key, n_bins, frames = plan.arguments
    return kevra.chroma_staged(y, levels, octaves, taps, classes, key, n_bins, n_chroma, frames)


@pytest.mark.parametrize("n_chroma", [1, 12, 36, 1024])
def test_chroma_in_both_forms_and_every_precision(n_chroma):
    for prec in HALF, FLOAT, DOUBLE:
        y, plan, classes = case(n_chroma, prec)
        want = chroma_reference(y, plan, classes, n_chroma)
        results = [chroma_resident(y, plan, classes, n_chroma, prec)]
        if prec != HALF:
            results.append(chroma_staged(y, plan, classes, n_chroma))
        for got in results:
            assert got.shape == want.shape and got.dtype == STORAGE[prec]
            np.testing.assert_allclose(got, want, rtol=0, atol=ERROR[prec])
            assert n_chroma == 1 or not got[:, n_chroma - 1].any()
            np.testing.assert_array_equal(got.max(axis=1), [[1] * plan.frames, [0] * plan.frames, [1] * plan.frames])


def test_bad_classes_are_refused_before_anything_is_queued():
    y, plan, classes = case(12, FLOAT)
    last = plan.n_bins - 1
    for change, n_chroma, words in [
        (classes[:-1], 12, f"classes has {last} entries, must have one a bin, n_bins = {last + 1}"),
        (np.where(np.arange(last + 1) == last, 12, classes), 12,
         rf"classes\[{last}\] is 12, must be at least 0 and below n_chroma = 12"),
        (classes - 100, 12, rf"classes\[0\] is {classes[0] - 100}, must be at least 0"),
        (classes[None], 12, "classes has 2 dimensions"),
        (classes + 0.5, 12, "classes has 1 dimensions of type float64, must be a 1-D array of whole numbers"),
        (classes, 0, "n_chroma is 0, must be at least 1"),
        (classes, 1025, "n_chroma is 1025, must be at most 1024"),
    ]:
        with pytest.raises(ValueError, match=f"^chroma: {words}"):
            chroma_staged(y, plan, change, n_chroma)
    with pytest.raises(ValueError, match=r"^chroma: octaves\[0\]: level is -1"):
        chroma_staged(y, plan.changed(octaves=[(-1, *plan.octaves[0][1:])]), classes, 12)
    with pytest.raises(ValueError, match=r"^expected a 2-D \(batch, samples\) array$"):
        chroma_staged(y[0], plan, classes, 12)
    assert chroma_staged(y[:0], plan, classes, 12).shape == (0, 12, plan.frames)


def test_a_table_of_classes_never_reaches_past_a_smaller_sum():
    """The table is the first call's: its entries are held against every call's n_chroma."""
    y, plan, _ = case(12, DOUBLE)
    high, low = np.full(plan.n_bins, 30), np.zeros(plan.n_bins, int)
    want = chroma_staged(y, plan, high, 31)
    np.testing.assert_array_equal(chroma_staged(y, plan, low, 31), want)
    with pytest.raises(ValueError, match=f"^chroma: plan_key '{plan.plan_key}' has stood for {plan.n_bins} classes "
                                         "below 31"):
        chroma_staged(y, plan, low, 12)
    np.testing.assert_array_equal(chroma_staged(y, plan.changed(), low, 12)[0, 0], 1)


def tonnetz_reference(c):
    """(batch, 6, frames), from the circles that the coordinates go round."""
    p = np.arange(12)
    turns = [(1, p * 7 * np.pi / 6), (1, p * 3 * np.pi / 2), (0.5, p * 2 * np.pi / 3)]
    circles = np.array([r * f(a) for r, a in turns for f in (np.sin, np.cos)])
    wide = c.astype(np.float64)
    total = wide.sum(axis=1, keepdims=True)
    return np.where(total > 0, np.einsum("dp,bpt->bdt", circles, wide) / np.where(total > 0, total, 1), 0)


def tonnetz_resident(c, prec):
    batch, _, frames = c.shape
    with Device() as device:
        out, stream = device.empty(batch * frames * 6, c.dtype), device.stream()
        kevra.tonnetz_resident(device.upload(c.transpose(0, 2, 1)), out, batch * frames, prec, 0, stream)
        device.synchronize(stream)
        return device.download(out, (batch, frames, 6), c.dtype).swapaxes(1, 2)


@pytest.mark.parametrize("frames", [1, 255, 256, 257])
def test_tonnetz_in_both_forms_and_every_precision(frames):
    rng = np.random.default_rng(frames)
    for prec in HALF, FLOAT, DOUBLE:
        c = rng.uniform(0, 1, (2, 12, frames)).astype(STORAGE[prec])
        c[0, :, 0] = 0  # no sum
        c[1, :, -1] = -1  # a sum below zero
        want = tonnetz_reference(c)
        got = [tonnetz_resident(c, prec)]
        if prec != HALF:
            got += [kevra.tonnetz_staged(c), kevra.tonnetz_staged(np.asfortranarray(c))]
            e = c.itemsize
            assert got[1].strides == (frames * 6 * e, e, 6 * e)
        for result in got:
            assert result.dtype == STORAGE[prec]
            np.testing.assert_allclose(result, want, rtol=0, atol=UNIT[prec][0] + 16 * UNIT[prec][1])
            assert not result[0, :, 0].any() and not result[1, :, -1].any()


def test_tonnetz_is_exact_where_its_basis_is():
    one_class = kevra.tonnetz_staged(np.eye(12)[None])[0]
    assert np.count_nonzero(one_class == 0) == 4 + 12 + 4  # no rounded sine of a multiple of pi
    np.testing.assert_allclose(np.hypot(one_class[0::2], one_class[1::2]), [[1] * 12, [1] * 12, [0.5] * 12], rtol=1e-15)


def test_tonnetz_refuses_other_shapes_and_keywords():
    for c in np.ones((12, 5)), np.ones((1, 11, 5)), np.ones((1, 1, 12, 5)):
        with pytest.raises(ValueError, match=r"^tonnetz expects \(batch, 12, frames\)$"):
            kevra.tonnetz_staged(c)
    with pytest.raises(ValueError, match="^tonnetz: rows is -1"):
        kevra.tonnetz_resident(0, 0, -1, FLOAT, 0, 0)
    with pytest.raises(TypeError):
        kevra.tonnetz_staged(C=np.ones((1, 12, 5)))
    kevra.tonnetz_resident(0, 0, 0, FLOAT, 0, 0)
    assert kevra.tonnetz_staged(np.zeros((3, 12, 0))).shape == (3, 6, 0)


def every_precision():
    for prec in HALF, FLOAT, DOUBLE:
        y, plan, classes = case(12, prec)
        y, plan = y[:, :2001], plan.changed(frames=5)
        got = chroma_resident(y, plan, classes, 12, prec)
        np.testing.assert_allclose(got, chroma_reference(y, plan, classes, 12), rtol=0, atol=ERROR[prec])
        tonnetz_resident(got, prec)


@pytest.mark.parametrize("switch", [{"KEVRA_CPU_CHECK": "1"}, {"KEVRA_CPU_ORDER": "shuffle:1"}], ids=str)
def test_no_race_and_no_order(switch):
    fresh(every_precision, env=switch)
