"""Cepstra against numpy and scipy's cosine transform: both routes, floors, lifters, odd sizes, plans, refusals."""

import json
import re

import kevra
import numpy as np
import pytest
import scipy.fft
from kevra import _diagnostics
from spectrograms import frames_of, stft_reference
from support import DOUBLE, FLOAT, HALF, STORAGE, Device, Fresh, fresh, pools_in_use

EPS = 1e-10
# Of a frame's coefficients together, over their lifter's weights: what the decibels of 40 bands are off by, which the
# orthonormal transform does not magnify.
DECIBELS = {FLOAT: 2e-4, DOUBLE: 2e-12}
OPTIONS = {"n_fft": 512, "hop": 128, "center": True, "n_out": 13, "lifter": 0.0, "top_db": -1.0, "eps": EPS}


def weights(n_out, lifter):
    return 1 + lifter / 2 * np.sin(np.pi * np.arange(1, n_out + 1) / lifter) if lifter > 0 else np.ones(n_out)


def reference(y, fb, n_fft, hop, center, n_out, lifter, top_db, eps, window="hann"):
    """(batch, n_out, frames)."""
    bands = 10 * np.log10(fb @ abs(stft_reference(y, window, n_fft, hop, center)) ** 2 + eps)
    if top_db >= 0:
        bands = np.maximum(bands, bands.max(axis=(1, 2), keepdims=True) - top_db)
    c = scipy.fft.dct(bands, axis=1, norm="ortho")
    # Past the bands the cosines turn back: row N is 0, row N + j the negative of row N - j.
    c = np.concatenate([c, 0 * c[:, :1], -c[:, :0:-1]], axis=1)[:, :n_out]
    return c * weights(n_out, lifter)[:, None]


def signal(n_fft, hop, batch=2, frames=9, seed=0):
    """Noise that swells by 60 dB, in rows 30 dB apart: the loudest frame is the last, and another in each row."""
    rng = np.random.default_rng(n_fft + seed)
    samples = n_fft + frames * hop + 3
    envelope = 10 ** (3 * (np.arange(samples) / samples - 1) - 1.5 * np.arange(batch)[:, None])
    return rng.standard_normal((batch, samples)) * envelope


def bank_of(n_fft, n_mels=40):
    return kevra.mel_filter_bank(16000, n_fft, n_mels)


def resident(y, fb, prec, stream=None, window="hann", device=0, **changes):
    o = {**OPTIONS, **changes}
    dtype = STORAGE[DOUBLE if prec == DOUBLE else FLOAT]
    frames = frames_of(y, o["n_fft"], o["hop"], o["center"]).shape[1]
    shape = y.shape[0], frames, o["n_out"]
    count = int(np.prod(shape))
    with Device(device) as at:
        # What stands behind the coefficients has to stay.
        out = at.upload(np.full(count + 64, 7, dtype))
        on = at.stream() if stream else 0
        kevra.cepstra_resident(at.upload(y.astype(dtype)), out, *y.shape, fb, *o.values(), window, prec, device, on)
        at.synchronize(on)
        flat = at.download(out, count + 64, dtype)
    np.testing.assert_array_equal(flat[count:], 7)
    return flat[:count].reshape(shape).swapaxes(1, 2)


def check(y, fb, prec, window="hann", device=0, **changes):
    o = {**OPTIONS, **changes}
    y = y.astype(STORAGE[prec])
    got = resident(y, fb, prec, stream=True, window=window, device=device, **changes)
    want = reference(y, fb, *o.values(), window=window)
    error = np.linalg.norm((got - want) / weights(o["n_out"], o["lifter"])[:, None], axis=1).max()
    assert error <= DECIBELS[prec], f"{error} dB: {y.shape=} {fb.shape=} {prec=} {o}"
    if prec == DOUBLE:
        # Not bit for bit: where buffers lie decides which code the CPU device runs, and so what rounds.
        np.testing.assert_allclose(kevra.cepstra_staged(y, window, fb, *o.values()), got, rtol=1e-13, atol=1e-12)
    return got


def told(function, *arguments, **env):
    """What a fresh process returns, and the kernels that it launched."""
    value, words = Fresh(function, *arguments, env={"KEVRA_DEBUG": "1", **env}).result()
    return value, re.findall(r"launch (\w+) \((\w+)", words)


@pytest.mark.parametrize("prec", [FLOAT, DOUBLE], ids=["float", "double"])
@pytest.mark.parametrize("n_fft, hop, center", [(2, 1, True), (64, 16, False), (512, 128, True), (2048, 512, True),
                                                (400, 160, True), (441, 147, False), (254, 64, True)])
def test_floors_and_lifters_on_every_core(n_fft, hop, center, prec):
    """The powers of two run fused where there is no floor; 254 = 2 x 127 has frames that no block transforms."""
    y, shape = signal(n_fft, hop), {"n_fft": n_fft, "hop": hop, "center": center}
    for n_mels in 40, 3:
        fb = bank_of(n_fft, n_mels) if n_fft > 2 else np.random.default_rng(0).uniform(size=(n_mels, 2))
        for n_out in 1, n_mels, 2 * n_mels - 1:
            check(y, fb, prec, n_out=n_out, lifter=22.0, **shape)
        for top_db in 80.0, 20.0, np.inf:
            check(y, fb, prec, top_db=top_db, n_out=min(13, n_mels), **shape)


def test_a_top_of_0_leaves_the_peak_of_each_row():
    y, fb = signal(512, 128), bank_of(512)
    got = check(y, fb, DOUBLE, top_db=0.0)
    peak = kevra.mel_staged(y, "hann", fb, 512, 128, True, 2, "db").max(axis=(1, 2))
    assert peak[0] - peak[1] > 25
    np.testing.assert_allclose(got[:, 0], np.broadcast_to(peak[:, None] * np.sqrt(40), got[:, 0].shape), rtol=1e-13)
    assert abs(got[:, 1:]).max() < 1e-11
    np.testing.assert_array_equal(check(y[1:], fb, DOUBLE, top_db=0.0), got[1:])


def test_lifters():
    y, fb = signal(512, 128), bank_of(512)
    plain = check(y, fb, DOUBLE)
    np.testing.assert_allclose(check(y, fb, DOUBLE, lifter=22.0)[:, 0], plain[:, 0] * (1 + 11 * np.sin(np.pi / 22)),
                               rtol=1e-14)
    np.testing.assert_array_equal(check(y, fb, DOUBLE, lifter=-5.0), plain)


def test_silence():
    fb = bank_of(512)
    for top_db in -1.0, 0.0, 80.0:
        for eps in 1e-10, 1e-3:
            got = check(np.zeros((2, 2000)), fb, DOUBLE, top_db=top_db, eps=eps)
            np.testing.assert_allclose(got[:, 0], 10 * np.log10(eps) * np.sqrt(40), rtol=1e-13)
            assert abs(got[:, 1:]).max() < 1e-11


def test_staged_takes_every_real_type_and_returns_a_view_in_double():
    fb, arguments = bank_of(400), (400, 160, True, 13, 22.0, 80.0)
    y = 1000 * signal(400, 160)
    for given in y, y.astype(np.float32), y.astype(np.int16), y > 0, y[:, ::2], np.asfortranarray(y):
        got = kevra.cepstra_staged(given, "hann", fb, *arguments)
        want = reference(given, fb, *arguments, EPS)
        assert got.dtype == np.float64 and got.shape == want.shape
        frames = got.shape[2]
        assert got.strides == (13 * frames * 8, 8, 13 * 8)
        np.testing.assert_allclose(got, want, rtol=0, atol=1e-10)
    with pytest.raises(TypeError, match="float16"):
        kevra.cepstra_staged(y.astype(np.float16), "hann", fb, *arguments)


def test_half_precisions_are_float():
    y, fb = signal(512, 128), bank_of(512)
    for top_db in -1.0, 80.0:
        want = resident(y, fb, FLOAT, top_db=top_db)
        for prec in HALF, 3:
            np.testing.assert_array_equal(resident(y, fb, prec, top_db=top_db), want)


def rows_of_frames(n_fft, prec, *row_counts):
    with np.errstate(all="raise"):
        return [check(signal(n_fft, 128, batch=rows, frames=11), bank_of(n_fft), prec, n_fft=n_fft, center=False,
                      lifter=22.0) for rows in row_counts]


def test_few_frames_take_one_kernel_and_many_three():
    """12 frames a row: at two multiprocessors the edge is 48."""
    general = [("kevra_mel", "raw_mel"), ("kevra_cepstra", "cepstra")]
    for n_fft, few in ((512, [("kevra_mel", "raw_cepf")]), (400, general)):
        results, launches = told(rows_of_frames, n_fft, FLOAT, 4, 5, 4, KEVRA_CPU_THREADS="2")
        kinds = [(name, re.match(r"raw_[a-z]+|[a-z]+", key)[0]) for name, key in launches]
        assert kinds == few + general + few
        np.testing.assert_array_equal(results[0], results[2])
        np.testing.assert_allclose(results[0], results[1][:4], rtol=0, atol=DECIBELS[FLOAT] * 12)


def test_both_sides_of_the_memory_edge():
    """A byte less than one frame, its powers and its bands need: the bands go through device memory."""
    for prec, s in (FLOAT, 4), (DOUBLE, 8):
        table = 2 * s * (256 + 128) if prec == DOUBLE else 0
        edge = s * (257 + 40) + 2 * s * (257 + 256 // 16) + table
        (fused,), launches = told(rows_of_frames, 512, prec, 2, KEVRA_CPU_SHARED_LIMIT=edge)
        assert {name for name, _ in launches} == {"kevra_mel"}
        (general,), launches = told(rows_of_frames, 512, prec, 2, KEVRA_CPU_SHARED_LIMIT=edge - 1)
        assert {name for name, _ in launches} == {"kevra_mel", "kevra_cepstra"}
        np.testing.assert_allclose(fused, general, rtol=0, atol=12 * DECIBELS[prec])


def one_fused_launch():
    y = signal(512, 128, frames=6)
    kevra.cepstra_staged(y, "hann", bank_of(512), *list(OPTIONS.values())[:-1])
    return y.shape[0] * frames_of(y, 512, 128, True).shape[1]


def test_bands_of_the_fused_kernel_never_reach_device_memory(tmp_path):
    profile = tmp_path / "profile"
    frames = fresh(one_fused_launch, env={"KEVRA_CPU_CHECK": "1", "KEVRA_CPU_PROFILE": profile})
    launch, = [json.loads(line) for line in profile.read_text().splitlines()]
    assert launch["bytes_written"] == frames * 13 * 8


def on_every_route(prec):
    """Frames and bands that are no multiples of what a block takes; one row and several."""
    results = []
    for n_fft in 64, 512, 2048, 400:
        for top_db in -1.0, 30.0:
            for n_out, n_mels in (13, 40), (70, 37):
                y, fb = signal(n_fft, n_fft // 4, batch=3, frames=7), bank_of(n_fft, n_mels)
                results.append(resident(y, fb, prec, n_fft=n_fft, hop=n_fft // 4, n_out=n_out, top_db=top_db))
    return [result.tobytes() for result in results]


def test_check_mode_finds_nothing_and_no_order_changes_a_bit():
    for prec in FLOAT, DOUBLE:
        want = fresh(on_every_route, prec, env={"KEVRA_CPU_ORDER": "forward"})
        for order in "reverse", "shuffle:1":
            assert fresh(on_every_route, prec, env={"KEVRA_CPU_ORDER": order}) == want, order
        fresh(on_every_route, prec, env={"KEVRA_CPU_CHECK": "1"})


def test_a_plan_serves_its_own_call_alone():
    """Calls that differ in one thing each, twice over and mixed, on both routes."""
    y, fb = signal(512, 128), bank_of(512)
    changes = [{}, {"n_out": 12}, {"lifter": 22.0}, {"lifter": 23.0}, {"eps": 1e-6}, {"hop": 64}, {"center": False},
               {"n_fft": 513}]
    for _ in range(2):
        for change in changes:
            for top_db in -1.0, 10.0, 40.0:
                bank = bank_of(change.get("n_fft", 512))
                check(y, bank, DOUBLE, **{"top_db": top_db, **change})
                check(y, bank, FLOAT, **{"top_db": top_db, **change})
        for top_db in -1.0, 40.0:
            check(y, bank_of(512, 39), DOUBLE, top_db=top_db)
            check(y, fb[::-1], DOUBLE, top_db=top_db)
            check(y, fb, DOUBLE, top_db=top_db, window="blackman")
            check(y[:1, :-100], fb, DOUBLE, top_db=top_db)


def on_two_devices():
    for device in 0, 1, 0:
        for top_db in -1.0, 40.0:
            check_on = signal(512, 128)
            want = reference(check_on, bank_of(512), *{**OPTIONS, "top_db": top_db}.values())
            got = resident(check_on, bank_of(512), DOUBLE, stream=True, device=device, top_db=top_db)
            np.testing.assert_allclose(got, want, rtol=0, atol=DECIBELS[DOUBLE])


def test_devices_have_cosines_of_their_own():
    fresh(on_two_devices, env={"KEVRA_CPU_DEVICES": "2"})


def blocks():
    """Of the device pool, in use and waiting."""
    pool = _diagnostics.read()["pools"]["device"]
    return pool["in_use_blocks"], pool["in_use_blocks"] + pool["cached_blocks"]


def test_repeated_calls_take_no_new_memory():
    y, fb = signal(400, 160), bank_of(400)
    for top_db in -1.0, 80.0:
        arguments = "hann", fb, 400, 160, True, 13, 0.0, top_db
        kevra.cepstra_staged(y, *arguments)
        after_first = blocks()
        for _ in range(3):
            kevra.cepstra_staged(y, *arguments)
        assert blocks() == after_first


def test_nothing_is_queued_for_no_rows_and_refusals_name_the_value():
    y, fb = signal(400, 160), bank_of(400)
    good = {"y": y, "window": "hann", "fb": fb, "n_fft": 400, "hop": 160, "center": True, "n_out": 13, "lifter": 22.0,
            "top_db": 80.0}
    before = pools_in_use()
    for top_db in -1.0, 80.0:
        assert kevra.cepstra_staged(**{**good, "y": y[:0], "top_db": top_db}).shape == (0, 13, 12)
        kevra.cepstra_resident(0, 0, 0, 4000, fb, 400, 160, True, 13, 22.0, top_db, EPS, "hann", FLOAT)
    for change, words in [
        ({"n_out": 0}, "cepstra: n_out is 0, must be at least 1"),
        ({"n_out": 2**40}, f"cepstra: n_out is {2**40}, must be at most {(2**31 - 1) // 40}$"),
        ({"lifter": np.nan}, "cepstra: lifter is nan, must be finite"),
        ({"lifter": np.inf}, "cepstra: lifter is inf, must be finite"),
        ({"top_db": np.nan}, "cepstra: top_db is nan, must be a number"),
        ({"eps": -1.0}, "mel: eps is -1, must be finite and not below 0"),
        ({"y": y[0]}, r"expected a 2-D \(batch, samples\) array$"),
        ({"y": np.broadcast_to(y[:1], (65536, y.shape[1]))}, r"kevra_mel: batch exceeds grid\.y limit: 65536 rows"),
        ({"y": y[:, :200]}, "mel: signal length must exceed pad for reflect padding"),
        ({"y": y[:, :399], "center": False}, "mel: signal too short for n_fft"),
        ({"fb": fb[:, 1:]}, r"mel: filterbank bins != n_fft/2\+1 \(200 columns"),
        ({"fb": fb[:0]}, "mel: filterbank has 0 rows"),
        ({"hop": 0}, "mel: hop is 0"),
        ({"window": np.ones(399)}, r"window array must have win_length \(400\) samples"),
    ]:
        with pytest.raises(ValueError, match=f"^{words}"):
            kevra.cepstra_staged(**{**good, **change})
    with pytest.raises(ValueError, match="^cepstra: batch is -1, must be at least 0"):
        kevra.cepstra_resident(0, 0, -1, 4000, fb, 400, 160, True, 13, 0.0, -1.0, EPS, "hann", FLOAT)
    with pytest.raises(ValueError, match="^cepstra: batch x frames is .*, must be at most"):
        kevra.cepstra_resident(0, 0, 65535, 10**9, fb, 400, 1, True, 13, 0.0, -1.0, EPS, "hann", FLOAT)
    assert pools_in_use() == before
