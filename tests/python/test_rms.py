"""Root-mean-square energy per frame, against numpy."""

import gc

import kevra
import numpy as np
import pytest
from support import DOUBLE, FLOAT, HALF, STORAGE, Device, fresh, pools_in_use, rms_reference, rms_tolerance

WORDS = "batch, length, frame_length, hop, center"
# The branches: one frame, one sample a frame, odd and even frames, frames of several blocks' worth, signals shorter
# than the pad (reflected more than once), hops beyond the frame.
SHAPES = [
    (1, 64, 64, 64, False), (1, 1, 1, 1, True), (3, 1, 1, 5, False), (2, 100, 1, 1, True), (2, 100, 1, 7, False),
    (2, 1000, 255, 64, True), (2, 1000, 256, 64, True), (2, 1000, 257, 100, False), (1, 5000, 2048, 512, True),
    (1, 5, 64, 2, True), (2, 2, 513, 1, True), (3, 3, 1000, 1, True), (1, 300, 16, 50, True), (1, 300, 16, 50, False),
    (65, 40, 8, 3, True),
]
rng = np.random.default_rng(20240607)
SHAPES += [
    (int(rng.integers(1, 6)), n := int(rng.integers(2, 3000)), int(rng.integers(1, n if i % 2 else 4 * n)),
     int(rng.integers(1, 900)), i % 2 == 0)
    for i in range(16)
]


def signal(batch, length, dtype=np.float64, seed=1):
    values = np.random.default_rng(seed).standard_normal((batch, length))
    return (values * np.logspace(-2, 2, batch)[:, None]).astype(dtype)


def padded_reference(y, frame_length, hop, center):
    padded = y.astype(np.longdouble)
    if center and y.shape[1] > 1:
        padded = np.pad(padded, ((0, 0), (frame_length // 2,) * 2), mode="reflect")
    windows = np.lib.stride_tricks.sliding_window_view(padded, frame_length, axis=1)
    return np.sqrt((windows[:, ::hop] ** 2).mean(axis=-1))


def assert_rms(got, want, prec, frame_length):
    assert got.shape == want.shape and got.dtype == STORAGE[prec]
    np.testing.assert_allclose(got, want, rtol=rms_tolerance(prec, frame_length), atol=0)


@pytest.mark.parametrize(WORDS, SHAPES)
@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
def test_staged(prec, batch, length, frame_length, hop, center):
    y = signal(batch, length, STORAGE[prec])
    got = kevra.rms_staged(y, frame_length, hop, center)
    assert_rms(got, padded_reference(y, frame_length, hop, center), prec, frame_length)


@pytest.mark.parametrize(WORDS, SHAPES)
def test_resident_in_every_precision_on_every_kind_of_stream(batch, length, frame_length, hop, center):
    past = 0 if length == 1 else 3  # frames are the caller's to choose: these reach past the end
    frames = max((length - frame_length) // hop, 0) + 1 + past
    with Device() as device:
        calls = []
        for prec, stream in zip((HALF, FLOAT, DOUBLE, 3), (device.stream(), 0, device.stream(1), device.stream())):
            x = signal(batch, length, STORAGE[prec % 3 or (prec == 3)], seed=prec)
            out = device.empty(batch * frames, x.dtype)
            kevra.rms_resident(device.upload(x), out, batch, length, frames, frame_length, hop, center, prec, 0, stream)
            calls.append((prec, stream, x, out))
        for prec, stream, x, out in calls:
            device.synchronize(stream)
            got = device.download(out, (batch, frames), x.dtype)
            assert_rms(got, rms_reference(x, frames, frame_length, hop, center), 1 if prec == 3 else prec, frame_length)


LAYOUTS = {
    "integers": lambda y: (y * 10).astype(np.int16),
    "booleans": lambda y: y > 0,
    "big-endian floats": lambda y: y.astype(">f4"),
    "big-endian doubles": lambda y: y.astype(">f8"),
    "Fortran order": np.asfortranarray,
    "strides": lambda y: np.repeat(y, 3, axis=1)[::1, ::3],
    "negative strides": lambda y: y[::-1, ::-1],
    "broadcast": lambda y: np.broadcast_to(y[:1], y.shape),
    "unaligned": lambda y: np.frombuffer(b"\0" + y.tobytes(), np.uint8)[1:].view(y.dtype).reshape(y.shape),
    "lists": lambda y: y.astype(np.float32).tolist(),
}


@pytest.mark.parametrize("layout", LAYOUTS)
def test_takes_arrays_of_every_layout(layout):
    y = LAYOUTS[layout](signal(3, 700))
    values = np.asarray(y)
    prec = DOUBLE if values.dtype.kind == "f" and values.itemsize == 8 else FLOAT
    got = kevra.rms_staged(y, 128, 32, True)
    assert_rms(got, padded_reference(values.astype(STORAGE[prec]), 128, 32, True), prec, 128)


def test_leaves_its_input_alone():
    y = signal(2, 500, np.float32)
    before = y.copy()
    y.flags.writeable = False
    kevra.rms_staged(y, 64, 16, True)
    np.testing.assert_array_equal(y, before)


def test_nan_and_infinity_reach_their_frames_and_no_others():
    y = signal(1, 96, np.float32)
    y[0, 20], y[0, 40] = np.nan, -np.inf
    y[0, 64:80] = 0
    got = kevra.rms_staged(y, 16, 16, False)[0]
    assert np.isnan(got[1]) and got[2] == np.inf and got[4] == 0
    assert np.isfinite(got[[0, 3, 5]]).all()


def test_halves_are_summed_in_float():
    # The squares overflow half storage, their mean's root does not; the least half squared vanishes in half.
    for value in (300.0, 60000.0, 2.0**-24):
        x = np.full((1, 512), value, np.float16)
        with Device() as device:
            out = device.empty(1, np.float16)
            kevra.rms_resident(device.upload(x), out, 1, 512, 1, 512, 1, False, HALF, 0, 0)
            assert device.download(out, 1, np.float16)[0] == np.float16(value)


def results_outlive_a_drain():
    before = pools_in_use()
    y = signal(2, 4000, np.float32)
    result = kevra.rms_staged(y, 256, 64, True)
    assert result.flags.writeable and result.flags.c_contiguous and result.base is not None
    assert pools_in_use() == (before[0], before[1] + 1), "the result is no block of the pinned pool"
    kept = result.copy()
    kevra.drain_pool()
    kevra.rms_staged(np.zeros_like(y), 256, 64, True)  # would take a block that had wrongly been cached
    np.testing.assert_array_equal(result, kept)
    result[:] = 5
    view = result[0]
    del result
    gc.collect()
    assert pools_in_use()[1] == before[1] + 1 and (view == 5).all(), "a view keeps the block"
    del view
    gc.collect()
    assert pools_in_use() == before


def test_results_are_writable_pool_memory_and_survive_a_drain():
    fresh(results_outlive_a_drain)
