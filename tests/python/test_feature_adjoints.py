"""Gradients of decibels, energy per frame, onset strength and tonal coordinates: central differences and kinks."""

import kevra
import numpy as np
import pytest
from gradients import assert_close, assert_gradient, run
from support import DOUBLE, FLOAT, HALF, Device, fresh, too_many_blocks_to_check

PRECISIONS = pytest.mark.parametrize("prec", [FLOAT, DOUBLE], ids=["float", "double"])


def forward(function, x, out_shape, *arguments):
    return run(lambda a, out, stream: function(a, out, *arguments, DOUBLE, 0, stream), [x], out_shape, DOUBLE)


def db_adjoint(s, g, prec, mul, amin, topdb, hastop, repeats=1):
    return run(lambda a, b, out, stream: kevra.db_adjoint_resident(
        a, b, out, *s.shape, mul, amin, topdb, hastop, prec, 0, stream), [s, g], s.shape, prec, repeats)


@pytest.mark.parametrize("n", [1, 40, 300])
def test_decibels_against_central_differences(n):
    rng = np.random.default_rng(n)
    s, g = 10.0 ** rng.uniform(-6, 3, (3, n)), rng.standard_normal((3, n))
    for mul, amin, topdb, hastop in [(10, 1e-10, 80, False), (20, 1e-2, 80, False), (10, 1e-10, 40, True),
                                     (20, 1e-3, 60, True), (-10, 1e-3, 30, True), (10, 1e-10, 500, True)]:
        assert_gradient(lambda x: forward(kevra.db_resident, x, x.shape, *x.shape, mul, amin, 1.5, topdb, hastop),
                        lambda x, gy, prec: db_adjoint(x, gy, prec, mul, amin, topdb, hastop),
                        s, g, f"{n=} {mul=} {amin=} {topdb=} {hastop=}")


@PRECISIONS
def test_decibels_at_the_peak_at_the_floor_and_of_silence(prec):
    unit = 10 / np.log(10)
    # Two peaks share what the two values at the floor receive; the one below amin has no way back of its own.
    s, g = np.array([[1.0, 1e-5, 1.0, 0.1, 0.0]]), np.array([[1.0, 2.0, 3.0, 4.0, 8.0]])
    want = unit * np.array([[1 + 5, 0, 3 + 5, 40, 0]])
    np.testing.assert_allclose(db_adjoint(s, g, prec, 10, 1e-10, 30, True), want, rtol=1e-6)
    # Exactly at the floor, which is the peak where topdb is 0: half stays, and what is given returns in equal parts.
    given = (0.5 * (1 + 3) + 2 + 4 + 8) / 2
    np.testing.assert_allclose(db_adjoint(s, g, prec, 10, 1e-10, 0, True),
                               unit * np.array([[0.5 + given, 0, 1.5 + given, 0, 0]]), rtol=1e-6)
    for amin in 1e-10, 0.0:
        for hastop in False, True:
            assert not db_adjoint(np.zeros((2, 300)), np.ones((2, 300)), prec, 10, amin, 80, hastop).any()
            got = db_adjoint(np.array([[0.0, 2.0]]), np.ones((1, 2)), prec, 10, amin, 80, hastop)
            np.testing.assert_allclose(got, [[0, unit / 2 * (1 + hastop)]], rtol=1e-6)


def rms_adjoint(x, rms, gy, prec, frame_length, hop, center, repeats=1):
    return run(lambda a, r, g, out, stream: kevra.rms_adjoint_resident(
        a, r, g, out, *x.shape, gy.shape[1], frame_length, hop, center, prec, 0, stream), [x, rms, gy], x.shape, prec,
        repeats)


# Batch, length, frames, frame length, hop, center: frames that overlap, that leave gaps, that reach past the end, and
# signals that are reflected more than once.
RMS = [(2, 60, 7, 16, 8, True), (1, 61, 8, 15, 7, True), (2, 40, 3, 8, 12, False), (2, 30, 9, 10, 5, False),
       (1, 300, 5, 64, 50, False), (2, 5, 6, 24, 2, True), (1, 2, 4, 9, 1, True), (3, 9, 4, 16, 3, False),
       (2, 1, 1, 1, 1, False)]


@pytest.mark.parametrize("batch, length, frames, frame_length, hop, center", RMS)
def test_energy_against_central_differences(batch, length, frames, frame_length, hop, center):
    rng = np.random.default_rng(length)
    x, gy = rng.standard_normal((batch, length)), rng.standard_normal((batch, frames))

    def rms(x):
        sizes = length, frames, frame_length, hop, center
        return forward(kevra.rms_resident, x, (len(x), frames), len(x), *sizes)

    assert_gradient(rms, lambda x, gy, prec: rms_adjoint(x, rms(x), gy, prec, frame_length, hop, center), x, gy,
                    f"{length=} {frames=} {frame_length=} {hop=} {center=}")


@PRECISIONS
def test_silent_frames_pass_nothing(prec):
    x = np.zeros((1, 24))
    x[0, 10] = 3
    rms = np.sqrt((x.reshape(1, 3, 8) ** 2).mean(axis=2))
    got = rms_adjoint(x, rms, np.ones((1, 3)), prec, 8, 8, False)
    np.testing.assert_allclose(got, np.where(x, 1 / np.sqrt(8), 0), rtol=1e-6)


def onset_adjoint(m, gy, prec, repeats=1):
    return run(lambda a, g, out, stream: kevra.onset_strength_adjoint_resident(
        a, g, out, *m.shape, prec, 0, stream), [m, gy], m.shape, prec, repeats)


@pytest.mark.parametrize("shape", [(1, 1, 1), (2, 5, 3), (3, 2, 300)], ids=str)
def test_onsets_against_central_differences(shape):
    rng = np.random.default_rng(shape[2])
    m, gy = rng.exponential(size=shape), rng.standard_normal(shape[:2])
    if shape[1] > 1:  # a lone frame is 0 whatever it holds
        assert_gradient(lambda x: forward(kevra.onset_strength_resident, x, (len(x), shape[1]), len(x), *shape[1:]),
                        onset_adjoint, m, gy, f"{shape=}")
    m[:] = 2  # equal neighbours, and the next item louder
    m[1:] = 5
    assert not onset_adjoint(m, gy, DOUBLE).any()


def tonnetz_adjoint(c, gy, prec, repeats=1):
    return run(lambda a, g, out, stream: kevra.tonnetz_adjoint_resident(a, g, out, len(c), prec, 0, stream),
               [c, gy], c.shape, prec, repeats)


def test_tonal_coordinates():
    rng = np.random.default_rng(12)
    c, gy = rng.exponential(size=(300, 12)), rng.standard_normal((300, 6))
    assert_gradient(lambda x: forward(kevra.tonnetz_resident, x, (len(x), 6), len(x)), tonnetz_adjoint, c, gy, "chroma")
    c[3], c[200], c[299, 0] = 0, -c[200], -c[299].sum()
    for prec in FLOAT, DOUBLE:
        got = tonnetz_adjoint(c, gy, prec)
        assert not got[[3, 200, 299]].any() and got[[2, 4, 298]].all()


@too_many_blocks_to_check
def test_more_items_than_a_launch_takes():
    x, times = np.array([[1.0, 2.0], [5.0, 0.5]]), 32769
    many = np.tile(x, (times, 1))
    got = db_adjoint(many, many, FLOAT, 10, 1e-10, 80, True)
    np.testing.assert_array_equal(got, np.tile(got[:2], (times, 1)))
    got = rms_adjoint(many, np.sqrt((many**2).mean(1, keepdims=True)), many[:, :1], FLOAT, 2, 1, False)
    assert_close(got[:2], x * x[:, :1] / 2 / np.sqrt((x**2).mean(1, keepdims=True)), 1e-6, "first")
    np.testing.assert_array_equal(got, np.tile(got[:2], (times, 1)))


def every_kernel():
    rng = np.random.default_rng(5)
    s = rng.exponential(size=(2, 700))
    for prec in FLOAT, DOUBLE:
        for hastop in False, True:
            db_adjoint(s, s, prec, 10, 1e-2, 10, hastop, repeats=20)
        rms_adjoint(s, s[:, :8], s[:, 8:16], prec, 90, 100, True, repeats=20)
        onset_adjoint(s.reshape(2, 2, 350), s[:, :2], prec, repeats=20)
        tonnetz_adjoint(s[:, :360].reshape(-1, 12), s[:, :180].reshape(-1, 6), prec, repeats=20)


@pytest.mark.parametrize("switch", [{"KEVRA_CPU_CHECK": "1"}, {"KEVRA_CPU_ORDER": "shuffle:1"}], ids=str)
def test_no_race_and_the_same_bits_in_any_order(switch):
    fresh(every_kernel, env=switch)


def test_refusals_and_nothing_for_nothing():
    with Device() as device:
        out = device.upload(np.full(24, 7.0))
        db, rms = kevra.db_adjoint_resident, kevra.rms_adjoint_resident
        onset, tonnetz = kevra.onset_strength_adjoint_resident, kevra.tonnetz_adjoint_resident
        for call, arguments, text in [
            (db, (0, 0, out, 2, 12, 10.0, 1e-10, 80.0, True, HALF),
             "db: half gradients compute in f32 - upcast the tensors$"),
            (db, (0, 0, out, 2, -1, 10.0, 1e-10, 80.0, True, FLOAT), "db: n is -1, must be at least 0"),
            (rms, (0, 0, 0, out, 1, 24, 3, 8, 8, False, HALF, 0, 0), "rms adjoint requires widened f32 tensors$"),
            (rms, (0, 0, 0, out, 1, 24, 0, 8, 8, False, FLOAT, 0, 0), "rms: frames is 0, must be at least 1"),
            (rms, (0, 0, 0, out, 1, 1, 1, 8, 8, True, FLOAT, 0, 0), "rms: length is 1, must be at least 2"),
            (onset, (0, 0, out, 1, 2, 12, HALF, 0, 0), "onset adjoint requires widened f32 tensors$"),
            (onset, (0, 0, out, 1, 2, 0, FLOAT, 0, 0), "onset_strength: bins is 0, must be at least 1"),
            (tonnetz, (0, 0, out, 2, HALF, 0, 0), "tonnetz adjoint requires widened f32 tensors$"),
            (tonnetz, (0, 0, out, -1, FLOAT, 0, 0), "tonnetz: rows is -1, must be at least 0"),
        ]:
            with pytest.raises(ValueError, match=f"^{text}"):
                call(*arguments)
        db(0, 0, out, 0, 12, 10.0, 1e-10, 80.0, True, FLOAT)
        db(0, 0, out, 2, 0, 10.0, 1e-10, 80.0, True, FLOAT)
        onset(0, 0, out, 2, 0, 12, FLOAT, 0, 0)
        tonnetz(0, 0, out, 0, DOUBLE, 0, 0)
        np.testing.assert_array_equal(device.download(out, 24, np.float64), 7)
