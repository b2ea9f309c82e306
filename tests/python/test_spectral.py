"""Centroid, bandwidth, flatness and rolloff against numpy: from signals and from magnitudes, routes, refusals."""

import json
import re

import kevra
import numpy as np
import pytest
from spectrograms import frames_of, stft_reference
from statistics_of_frames import CORES, hint, noise, resident
from support import DOUBLE, FLOAT, HALF, STORAGE, Fresh, fresh, pools_in_use, too_many_blocks_to_check

CENTROID, BANDWIDTH, FLATNESS, ROLLOFF = range(4)
AMIN, ROLL = 1e-10, 0.85
# stat and exponent
STATS = [(CENTROID, 2), (BANDWIDTH, 2), (BANDWIDTH, 1), (BANDWIDTH, 3), (BANDWIDTH, 0.5), (FLATNESS, 2), (ROLLOFF, 2)]
# Relative, in the Euclidean norm of all frames.
ERROR = {HALF: 1e-3, FLOAT: 3e-6, DOUBLE: 1e-12}


@pytest.fixture(autouse=True)
def no_hints():
    yield
    kevra.shape_hint_clear()


def magnitudes(y, window, n_fft, hop, center):
    return abs(stft_reference(y, window, n_fft, hop, center)).swapaxes(1, 2)


def statistic(m, stat, fstep, p, amin=AMIN, roll=ROLL):
    m = m.astype(np.float64)
    f = fstep * np.arange(m.shape[-1])
    total = np.maximum(m.sum(-1), 1e-10)
    centroid = (f * m).sum(-1) / total
    if stat == CENTROID:
        return centroid
    if stat == BANDWIDTH:
        return ((m * abs(f - centroid[..., None]) ** p).sum(-1) / total) ** (1 / p)
    if stat == FLATNESS:
        w = np.maximum(m * m, amin)
        return np.exp(np.log(w).mean(-1)) / w.mean(-1)
    reached = m.cumsum(-1) >= roll * m.sum(-1, keepdims=True)
    return fstep * np.where(reached.any(-1), reached.argmax(-1), m.shape[-1] - 1)


def assert_statistic(got, m, stat, fstep, p, prec, what, amin=AMIN, roll=ROLL):
    want = statistic(m, stat, fstep, p, amin, roll)
    assert got.shape == want.shape, what
    if stat == ROLLOFF:
        # A running sum within its rounding of the threshold may have reached it or not.
        k = np.round(got.astype(np.float64) / fstep).astype(int)
        np.testing.assert_allclose(got, fstep * k, rtol=ERROR[prec], err_msg=what)
        sums = np.pad(m.astype(np.float64).cumsum(-1), [(0, 0)] * (m.ndim - 1) + [(1, 0)])
        share = ERROR[FLOAT if prec == HALF else prec] * sums[..., -1]
        before, reached = (np.take_along_axis(sums, (k + i)[..., None], -1)[..., 0] for i in (0, 1))
        threshold = roll * sums[..., -1]
        off = (k != np.round(want / fstep)) & ~((before < threshold + share) & (reached > threshold - share))
        assert not off.any(), f"{what}: {k[off]}"
        return
    error = np.linalg.norm(got - want) / np.linalg.norm(want)
    assert error <= ERROR[prec], f"{what}: {error}"


def from_signal(y, window, n_fft, hop, center, stat, fstep, p, prec, amin=AMIN, roll=ROLL):
    shape = frames_of(y, n_fft, hop, center).shape[:2]
    return resident(lambda x, out: kevra.spectral_signal_resident(
        x, out, *y.shape, window, n_fft, hop, center, stat, fstep, p, amin, roll, prec), y, shape)


def from_magnitudes(m, stat, fstep, p, prec, amin=AMIN, roll=ROLL):
    told, got = resident(lambda x, out: kevra.spectral_reduce_resident(
        x, out, *m.shape, stat, fstep, p, amin, roll, prec), m, m.shape[:1])
    assert told is None
    return got


def check_core(case, prec, stats=STATS):
    _, n_fft, hop, center, wish = case
    hint(kevra, n_fft, hop, center, prec, **wish)
    y = noise(n_fft, hop, STORAGE[prec])
    m = magnitudes(y, "hann", n_fft, hop, center)
    for stat, p in stats:
        told, got = from_signal(y, "hann", n_fft, hop, center, stat, 22050 / n_fft, p, prec)
        assert told is True
        assert_statistic(got, m, stat, 22050 / n_fft, p, prec, f"{case} {stat=} {p=} {prec=}")


@pytest.mark.parametrize("prec", [FLOAT, DOUBLE], ids=["float", "double"])
@pytest.mark.parametrize("case", CORES, ids=lambda case: f"{case[0]}-{case[1]}")
def test_from_the_signal_in_every_core(case, prec):
    check_core(case, prec)


@pytest.mark.parametrize("n", [1, 2, 255, 256, 257, 1025])
def test_from_magnitudes_in_every_precision(n):
    m = np.random.default_rng(n).exponential(size=(5, n))
    m[2] = np.linspace(0, 1, n) ** 4 + 1e-3
    for prec in HALF, FLOAT, DOUBLE:
        stored = m.astype(STORAGE[prec])
        for stat, p in STATS:
            # One bin has no width: 0 exactly.
            if n > 1 or stat == FLATNESS:
                got = from_magnitudes(stored, stat, 2.0, p, prec)
                assert_statistic(got, stored, stat, 2.0, p, prec, f"{n=} {stat=} {p=} {prec=}")
            else:
                assert not from_magnitudes(stored, stat, 2.0, p, prec).any()


@pytest.mark.parametrize("prec", [FLOAT, DOUBLE], ids=["float", "double"])
def test_silence_and_the_ends_of_the_rolloff(prec):
    y = np.zeros((2, 1024), STORAGE[prec])
    y[1, 300] = 1  # a click: every bin alike
    for form in "signal", "magnitudes":
        def values(stat, p=2.0, amin=AMIN, roll=ROLL):
            if form == "signal":
                return from_signal(y, "boxcar", 1024, 1024, False, stat, 10.0, p, prec, amin, roll)[1][:, 0]
            m = magnitudes(y, "boxcar", 1024, 1024, False)[:, 0].astype(STORAGE[prec])
            return from_magnitudes(m, stat, 10.0, p, prec, amin, roll)

        for stat, p, silent, click in [
            (CENTROID, 2, 0, 2560), (BANDWIDTH, 2, 0, 10 * np.sqrt((513**2 - 1) / 12)),
            (BANDWIDTH, 1, 0, 10 * 256 * 257 / 513), (FLATNESS, 2, 1, 1),
        ]:
            np.testing.assert_allclose(values(stat, p), [silent, click], rtol=1e-5, err_msg=f"{form} {stat=} {p=}")
        np.testing.assert_array_equal(values(ROLLOFF, roll=1.5), [0, 5120])  # never reached but in silence
        np.testing.assert_array_equal(values(ROLLOFF, roll=0.0), [0, 0])
        # 256.5 bins' worth is reached by the 257th.
        np.testing.assert_array_equal(values(ROLLOFF, roll=0.5), [0, 2560])
        # What lies below amin counts as amin.
        np.testing.assert_allclose(values(FLATNESS, amin=2.0), [1, 1], rtol=1e-5)


STAGED = {"fused": [64, 512, 2048], "mixed": [1000], "pair": [441], "chirp": [254], "device memory": [16384]}


@pytest.mark.parametrize("way", STAGED)
def test_staged(way):
    for n_fft in STAGED[way]:
        y = noise(n_fft, n_fft // 3, np.float64, frames=4)
        m = magnitudes(y, "hamming", n_fft, n_fft // 3, True)
        for stat, p in STATS:
            got = kevra.spectral_staged(y, "hamming", n_fft, n_fft // 3, True, stat, 2.5, p, AMIN, ROLL)
            assert got.dtype == np.float64
            assert_statistic(got, m, stat, 2.5, p, DOUBLE, f"{n_fft=} {stat=} {p=}")
        told, _ = from_signal(y, "hamming", n_fft, n_fft // 3, True, CENTROID, 1.0, 2, DOUBLE)
        assert told is (way == "fused")


def test_staged_types_and_empty_batches():
    y = noise(64, 16, np.float32)
    arguments = "hann", 64, 16, True, FLATNESS, 1.0, 2.0, AMIN, ROLL
    want = statistic(magnitudes(y, "hann", 64, 16, True), FLATNESS, 1.0, 2)
    for same in y, y.astype(np.float64), np.asfortranarray(y), y.tolist():
        np.testing.assert_allclose(kevra.spectral_staged(same, *arguments), want, rtol=1e-12)
    np.testing.assert_allclose(kevra.spectral_staged(y.astype(int), *arguments),
                               kevra.spectral_staged(y.astype(int) * 1.0, *arguments), rtol=0)
    with pytest.raises(TypeError, match="float16"):
        kevra.spectral_staged(y.astype(np.float16), *arguments)
    for n_fft in 64, 100:
        empty = kevra.spectral_staged(y[:0], "hann", n_fft, 16, True, CENTROID, 1.0, 2.0, AMIN, ROLL)
        assert empty.shape == (0, frames_of(y, n_fft, 16, True).shape[1])
    kevra.spectral_reduce_resident(0, 0, 0, 5, CENTROID, 1.0, 2.0, AMIN, ROLL, FLOAT)
    assert kevra.spectral_signal_resident(0, 0, 0, 500, *arguments, FLOAT) is True


def test_the_signal_form_says_no_and_touches_nothing():
    """With addresses that no kernel could use."""
    def asked(n_fft, prec, stat=CENTROID):
        return kevra.spectral_signal_resident(0, 0, 1, 100000, "hann", n_fft, 256, True, stat, 1.0, 2.0, AMIN, ROLL,
                                              prec)

    for _ in range(2):
        assert not any(asked(n_fft, prec) for n_fft in (1000, 441) for prec in (FLOAT, DOUBLE))
        assert not asked(512, HALF) and not asked(32768, FLOAT) and not asked(16384, DOUBLE)
    assert asked(512, HALF, stat=9) is False  # before anything is looked at
    y = noise(512, 128, np.float32)
    assert from_signal(y, "hann", 512, 128, True, CENTROID, 1.0, 2, 3)[0] is True  # any other code is float


def at_the_edge(n_fft, prec):
    y = noise(n_fft, n_fft // 4, STORAGE[prec], frames=9)
    told, got = from_signal(y, "hann", n_fft, n_fft // 4, True, BANDWIDTH, 1.0, 2.0, prec)
    staged = kevra.spectral_staged(y, "hann", n_fft, n_fft // 4, True, BANDWIDTH, 1.0, 2.0, AMIN, ROLL)
    m = magnitudes(y, "hann", n_fft, n_fft // 4, True)
    assert_statistic(staged, m, BANDWIDTH, 1.0, 2.0, DOUBLE, "staged")
    if told:
        assert_statistic(got, m, BANDWIDTH, 1.0, 2.0, prec, "fused")
    return told


@pytest.mark.parametrize("n_fft, threads, prec", [(1024, 64, FLOAT), (512, 32, DOUBLE), (2048, 64, FLOAT)])
def test_either_side_of_what_shared_memory_holds(n_fft, threads, prec):
    """The work area counts: a frame that fits alone has no room for its magnitudes."""
    half, size = n_fft // 2, 8 if prec == DOUBLE else 4
    frame = 2 * size * (half + 1 + half // 16) + size * (half + 1 + 2 * threads)
    roots = 2 * size * 3 * half // 2 if prec == DOUBLE else 0
    for frames, less, told in (1, 8, False), (1, 0, True), (2, 8, True), (2, 0, True):
        limit = frames * frame + roots - less
        environment = {"KEVRA_DEBUG": "1", "KEVRA_CPU_SHARED_LIMIT": limit}
        value, words = Fresh(at_the_edge, n_fft, prec, env=environment).result()
        assert value is told, limit
        if told:
            fits = frames - (less > 0)
            assert f"shared {fits * frame + roots} " in re.search("launch kevra_stft .*", words)[0]


def test_plans_are_kept_apart():
    """Calls that differ in one thing each, twice over, between transforms of the same sizes."""
    y = noise(512, 128, np.float64)
    base = {"window": "hann", "n_fft": 512, "hop": 128, "center": True, "stat": CENTROID, "fstep": 2.0, "p": 2.0,
            "amin": AMIN, "roll": ROLL}
    changes = [{}, {"stat": BANDWIDTH}, {"stat": BANDWIDTH, "p": 3.0}, {"stat": FLATNESS}, {"stat": ROLLOFF},
               {"stat": ROLLOFF, "roll": 0.3}, {"stat": FLATNESS, "amin": 1.0}, {"fstep": 0.5}, {"n_fft": 256},
               {"hop": 64}, {"center": False}, {"window": "boxcar"}]
    for _ in range(2):
        for change in changes:
            a = base | change
            m = magnitudes(y, a["window"], a["n_fft"], a["hop"], a["center"])
            got = kevra.spectral_staged(y, **a)
            assert_statistic(got, m, a["stat"], a["fstep"], a["p"], DOUBLE, str(change), a["amin"], a["roll"])
        spectrum = kevra.stft_staged(y, "hann", 512, 128, True, "magnitude").swapaxes(1, 2)
        np.testing.assert_allclose(spectrum, magnitudes(y, "hann", 512, 128, True), rtol=1e-9, atol=1e-12)


@too_many_blocks_to_check
def test_more_rows_than_a_launch():
    m = np.random.default_rng(1).exponential(size=(65538, 3)).astype(np.float32)
    for stat, p in (CENTROID, 2), (ROLLOFF, 2):
        assert_statistic(from_magnitudes(m, stat, 1.0, p, FLOAT), m, stat, 1.0, p, FLOAT, f"{stat=}")


def one_call():
    y = noise(512, 128, np.float32, frames=32)
    from_signal(y, "hann", 512, 128, False, BANDWIDTH, 1.0, 2.0, FLOAT)
    return y.shape[0] * frames_of(y, 512, 128, False).shape[1]


def test_spectra_never_reach_device_memory(tmp_path):
    profile = tmp_path / "profile"
    frames = fresh(one_call, env={"KEVRA_CPU_CHECK": "1", "KEVRA_CPU_PROFILE": profile})
    launch, = [json.loads(line) for line in profile.read_text().splitlines()]
    assert (launch["bytes_written"], launch["bytes_read"]) == (4 * frames, 4 * frames * 2 * 512)


def every_kernel():
    for case in CORES:
        check_core(case, FLOAT)
    for case in CORES[2:4] + CORES[-1:]:
        check_core(case, DOUBLE)
    for n in 1, 257:
        test_from_magnitudes_in_every_precision(n)


@pytest.mark.parametrize("order", ["forward", "shuffle:1"])
def test_no_race_in_any_order(order):
    fresh(every_kernel, env={"KEVRA_CPU_CHECK": "1", "KEVRA_CPU_ORDER": order})


def test_refusals_queue_nothing():
    y = noise(64, 16, np.float64)
    good = {"y": y, "window": "hann", "n_fft": 64, "hop": 16, "center": True, "stat": BANDWIDTH, "fstep": 1.0, "p": 2.0,
            "amin": AMIN, "roll": ROLL}
    kevra.spectral_staged(**good)
    before = pools_in_use()
    for change, text in [
        ({"stat": -1}, r"^spectral: stat is -1, must be 0 \(centroid\), 1"), ({"stat": 4}, "^spectral: stat is 4"),
        ({"p": 0.0}, "^spectral: p is 0, must be finite and above 0"), ({"p": float("nan")}, "^spectral: p is"),
        ({"y": y[0]}, r"^expected a 2-D \(batch, samples\) array$"), ({"hop": 0}, "^stft: hop is 0"),
        ({"y": y[:, :32]}, "^stft: signal length must exceed pad"), ({"window": "kaiser"}, "^window must be one of"),
        ({"n_fft": 1}, "^stft: n_fft is 1"), ({"n_fft": 100, "y": y[:, :50]}, "^stft: signal length must exceed pad"),
        ({"y": np.zeros((65536, 33))}, "^kevra_stft: batch exceeds grid.y limit"),
    ]:
        with pytest.raises(ValueError, match=text):
            kevra.spectral_staged(**(good | change))
    rows = {"rows": 2, "n": 5, "stat": BANDWIDTH, "fstep": 1.0, "p": 2.0, "amin": AMIN, "roll": ROLL, "prec": FLOAT}
    for change, text in [({"rows": -1}, "rows is -1, must be at least 0"), ({"n": 0}, "n is 0, must be at least 1"),
                         ({"stat": 4}, "stat is 4"), ({"stat": -1, "prec": HALF}, "stat is -1"),
                         ({"p": -1.0}, "p is -1")]:
        with pytest.raises(ValueError, match=f"^spectral: {text}"):
            kevra.spectral_reduce_resident(0, 0, **(rows | change))
    for change, text in ({"stat": 4}, "stat is 4"), ({"p": 0.0}, "p is 0"):
        arguments = {name: value for name, value in (good | change).items() if name != "y"}
        with pytest.raises(ValueError, match=f"^spectral: {text}"):
            kevra.spectral_signal_resident(0, 0, *y.shape, **arguments, prec=FLOAT)
    assert pools_in_use() == before
    kevra.spectral_reduce_resident(0, 0, **(rows | {"rows": 0, "stat": CENTROID, "p": 0.0}))  # p counts for nothing
