"""Onset strength of spectrograms, against numpy."""

import math

import kevra
import numpy as np
import pytest
from support import DOUBLE, FLOAT, HALF, STORAGE, UNIT, Device, fresh

# One bin, one frame, a block's worth of bins and one to either side, several rounds of the block.
SHAPES = [(1, 1, 1), (2, 1, 7), (3, 7, 1), (2, 255, 5), (2, 256, 5), (2, 257, 33), (1, 1025, 40), (65, 4, 3)]


def spectrogram(batch, bins, frames, dtype):
    return np.random.default_rng(bins).exponential(size=(batch, bins, frames)).astype(dtype)


def reference(s):
    rises = np.maximum(np.diff(s.astype(np.longdouble), axis=2), 0).mean(axis=1)
    return np.pad(rises, ((0, 0), (1, 0)))


def assert_onsets(got, s, prec):
    storage, arithmetic = UNIT[prec]
    assert got.shape == s.shape[::2] and got.dtype == STORAGE[prec]
    # A thread adds bins / 256 rises, eight halvings follow, then the mean; each difference is rounded once.
    tolerance = storage + arithmetic * (math.ceil(s.shape[1] / 256) + 12)
    np.testing.assert_allclose(got, reference(s), rtol=tolerance, atol=tolerance * 1e-3)


def resident(s, prec):
    batch, bins, frames = s.shape
    with Device() as device:
        out = device.empty(batch * frames, s.dtype)
        stream = device.stream()
        kevra.onset_strength_resident(device.upload(s.transpose(0, 2, 1)), out, batch, frames, bins, prec, 0, stream)
        device.synchronize(stream)
        return device.download(out, (batch, frames), s.dtype)


@pytest.mark.parametrize("shape", SHAPES, ids=str)
def test_both_forms_in_every_precision(shape):
    for prec in HALF, FLOAT, DOUBLE:
        s = spectrogram(*shape, STORAGE[prec])
        assert_onsets(resident(s, prec), s, prec)
        if prec != HALF:
            assert_onsets(kevra.onset_strength_staged(s), s, prec)
            assert_onsets(kevra.onset_strength_staged(np.asfortranarray(s)), s, prec)


def test_only_rises_count_and_no_item_sees_the_one_before():
    falling = np.linspace(9, 1, 20, dtype=np.float32) * np.ones((2, 300, 1), np.float32)
    assert not kevra.onset_strength_staged(falling).any()
    # A loud item behind a silent one: its first frame is no onset. One rising bin counts for its share.
    s = np.zeros((2, 8, 4))
    s[1], s[1, 3, 2] = 5, 7
    np.testing.assert_array_equal(kevra.onset_strength_staged(s), [[0] * 4, [0, 0, 0.25, 0]])


def test_halves_are_subtracted_in_float():
    # A difference of 2046.5 is no half; three of them rounded would give 6138 in place of 6139.5.
    s = np.zeros((1, 4, 2), np.float16)
    s[0, :3, 0], s[0, :3, 1] = 1.5, 2048
    assert resident(s, HALF)[0, 1] == np.float16(6139.5 / 4) != np.float16(6138 / 4)


def test_guards_and_nothing_for_no_frames():
    kevra.onset_strength_resident(0, 0, 0, 5, 4, FLOAT, 0, 0)
    kevra.onset_strength_resident(0, 0, 5, 0, 4, FLOAT, 0, 0)
    assert kevra.onset_strength_staged(np.zeros((0, 4, 5))).shape == (0, 5)
    assert kevra.onset_strength_staged(np.zeros((3, 4, 0))).shape == (3, 0)
    for sizes, text in {(1, 1, 0): "bins is 0, must be at least 1", (1, -1, 4): "frames is -1",
                        (-1, 1, 4): "batch is -1",
                        (1 << 20, 1 << 20, 4): "batch x frames is 1099511627776, must be at most"}.items():
        with pytest.raises(ValueError, match=f"^onset_strength: {text}"):
            kevra.onset_strength_resident(0, 0, *sizes, FLOAT, 0, 0)
    with pytest.raises(ValueError, match=r"^onset strength expects \(batch, bins, frames\)$"):
        kevra.onset_strength_staged(np.zeros((4, 5)))
    with pytest.raises(TypeError, match="float16"):
        kevra.onset_strength_staged(np.zeros((1, 4, 5), np.float16))
    with pytest.raises(TypeError):
        kevra.onset_strength_staged(S=np.zeros((1, 4, 5)))


def every_precision():
    for prec in HALF, FLOAT, DOUBLE:
        s = spectrogram(2, 300, 5, STORAGE[prec])
        assert_onsets(resident(s, prec), s, prec)


@pytest.mark.parametrize("switch", [{"KEVRA_CPU_CHECK": "1"}, {"KEVRA_CPU_ORDER": "shuffle:1"}], ids=str)
def test_no_race_and_no_order(switch):
    fresh(every_precision, env=switch)
