"""Mel spectrograms against numpy: cores, forms, precisions, banks of every kind, both routes, plans, refusals."""

import json
import re

import kevra
import numpy as np
import pytest
from spectrograms import frames_of, stft_reference
from support import DOUBLE, FLOAT, HALF, STORAGE, Device, Fresh, fresh, pools_in_use, too_many_blocks_to_check

PACKED = 3
PARTS = {**dict(enumerate(STORAGE)), PACKED: np.float16}
WIDTH = {HALF: 16, FLOAT: 32, DOUBLE: 64, PACKED: 8}  # what set_shape_hint calls prec
# Relative, in the Euclidean norm; in half storage, of the row's maximum.
ERROR = {FLOAT: 4e-7, DOUBLE: 1e-14, HALF: 1.5e-3, PACKED: 1e-2}
DECIBELS = {FLOAT: 1e-4, DOUBLE: 1e-9}  # above -80 dB, for the loud bands of a frame
RESULTS = [(2, "power"), (1, "magnitude"), (1, "power"), (2, "db")]
EPS = 1e-10

# Core, n_fft, hop, center, bands, hint. Frames and bands are no multiples of what a block takes.
CORES = [
    ("cooley_tukey", 2, 1, True, 3, {}),
    ("cooley_tukey", 4, 3, False, 1, {}),
    ("cooley_tukey", 64, 16, True, 5, {}),
    ("cooley_tukey", 512, 128, True, 40, {"core": 1}),
    ("cooley_tukey", 1024, 301, True, 129, {"var": 5 << 4}),
    ("cooley_tukey", 2048, 512, False, 80, {"core": 1, "var": 15 << 4, "fpb": 2}),
    ("warp", 256, 64, True, 33, {"tpf": 32}),
    ("warp", 512, 100, False, 128, {}),
    ("warp", 1024, 256, True, 31, {"tpf": 32, "fpb": 3}),
    ("ept16", 512, 128, True, 80, {"core": 3}),
    ("ept16", 2048, 512, True, 128, {"core": 3}),
    ("ept16", 4096, 1000, False, 64, {"core": 3}),
    ("mixed", 6, 2, True, 2, {}),
    ("mixed", 34, 7, True, 9, {}),
    ("mixed", 400, 160, True, 80, {}),
    ("mixed", 960, 240, False, 64, {"var": 4}),
    ("mixed", 1200, 300, True, 40, {"tpf": 100}),
    ("pair", 3, 1, True, 2, {}),
    ("pair", 17, 5, False, 4, {}),
    ("pair", 441, 147, True, 65, {"tpf": 64}),
    ("pair", 1001, 250, True, 40, {"var": 4}),
]


@pytest.fixture(autouse=True)
def no_hints():
    yield
    kevra.shape_hint_clear()


def hint(n_fft, hop, center, n_mels, prec, output, ept=0, fpb=0, tpf=0, core=0, var=0):
    kevra.set_shape_hint("mel", n_fft, hop, center, WIDTH[prec], output, n_mels, 0, ept, fpb, tpf, core, var)


def reference(y, fb, n_fft, hop, center, power, output, window="hann"):
    bands = fb @ abs(stft_reference(y, window, n_fft, hop, center)) ** power
    if output == "db":
        return 10 * np.log10(bands + EPS)
    return np.sqrt(bands) if output == "magnitude" else bands


def signal(n_fft, hop, prec, batch=2, frames=7, seed=0):
    """Noise, rows of different size, for some more than `frames` hops; half has to hold the powers."""
    rng = np.random.default_rng(n_fft + seed)
    y = rng.standard_normal((batch, n_fft + frames * hop + 3)) * np.linspace(0.3, 1, batch)[:, None]
    return (y / np.sqrt(n_fft)).astype(PARTS[prec])


def bank_of(n_mels, n_fft, seed=0):
    """Bands anywhere, of any width, that overlap as they like; the first is a single bin, the third empty."""
    rng = np.random.default_rng(n_mels + seed)
    bins = n_fft // 2 + 1
    bank = np.zeros((n_mels, bins))
    for row in bank:
        low, high = sorted(rng.integers(0, bins + 1, 2))
        row[low:high] = rng.uniform(0, 2 / max(high - low, 1), high - low)
    bank[0] = 0
    bank[0, bins // 2] = 0.5
    bank[2:3] = 0
    return bank


def resident(device, y, fb, n_fft, hop, center, power, output, prec, stream=0, eps=EPS):
    shape = y.shape[0], frames_of(y, n_fft, hop, center).shape[1], len(fb)
    count = int(np.prod(shape))
    # What stands behind the bands has to stay.
    out = device.upload(np.full(count + 64, 7, PARTS[prec]))
    kevra.mel_resident(device.upload(y), out, *y.shape, fb, n_fft, hop, center, power, output, eps, "hann", prec,
                       device.index, stream)
    device.synchronize(stream)
    flat = device.download(out, count + 64, PARTS[prec])
    np.testing.assert_array_equal(flat[count:], 7)
    return flat[:count].reshape(shape).swapaxes(1, 2)


def assert_bands(got, want, prec, output, what):
    assert got.shape == want.shape and got.dtype == PARTS[prec], what
    error = abs(got - want)
    if prec in (HALF, PACKED):
        bound = ERROR[prec] * abs(want).max(axis=1, keepdims=True)
        assert (error <= bound).all(), f"{what}: {(error / bound).max()} of the bound"
    elif output == "db":
        # A transform's error is a share of its frame: it counts more where a band is weaker than that.
        error /= 10 ** ((want.max(axis=1, keepdims=True) - want) / 20)
        loud = want > -80
        assert loud.any() and error[loud].max() <= DECIBELS[prec], f"{what}: {error[loud].max()} dB"
    else:
        error = np.linalg.norm(error) / np.linalg.norm(want)
        assert error <= ERROR[prec], f"{what}: {error}"


def check(y, fb, n_fft, hop, center, power, output, prec):
    with Device() as device:
        got = resident(device, y, fb, n_fft, hop, center, power, output, prec)
    assert_bands(got, reference(y, fb, n_fft, hop, center, power, output), prec, output,
                 f"{n_fft=} {hop=} {center=} n_mels={len(fb)} {power=} {output=} {prec=}")
    return got


def check_core(case, prec, results=RESULTS):
    _, n_fft, hop, center, n_mels, wish = case
    y, fb = signal(n_fft, hop, prec), bank_of(n_mels, n_fft)
    for power, output in results:
        hint(n_fft, hop, center, n_mels, prec, output, **wish)
        check(y, fb, n_fft, hop, center, power, output, prec)


@pytest.mark.parametrize("prec", [FLOAT, DOUBLE], ids=["float", "double"])
@pytest.mark.parametrize("case", CORES, ids=lambda case: f"{case[0]}-{case[1]}")
def test_every_core(case, prec):
    check_core(case, prec)


@pytest.mark.parametrize("n_fft", [64, 400, 441, 512, 2048])
def test_half_storage_and_arithmetic(n_fft):
    for prec in HALF, PACKED:
        check_core((None, n_fft, n_fft // 4, True, 40, {}), prec)


def test_half_overflows_only_where_the_result_does():
    """Powers past the largest half, which the bank brings back."""
    fb = 1e-3 * bank_of(40, 1024)
    y = (200 * signal(1024, 256, FLOAT)).astype(np.float16)
    assert reference(y, np.eye(513), 1024, 256, True, 2, "power").max() > 70000
    for prec in HALF, PACKED:
        check(y, fb, 1024, 256, True, 2, "power", prec)


@pytest.mark.parametrize("n_fft, threads", [(256, 16), (512, 32), (400, 96), (441, 160)])
def test_band_counts_around_the_threads_of_a_frame(n_fft, threads):
    y = signal(n_fft, 50, FLOAT)
    for n_mels in 1, 2, threads - 1, threads, threads + 1, 3 * threads + 1:
        check(y, bank_of(n_mels, n_fft), n_fft, 50, True, 2, "power", FLOAT)


@pytest.mark.parametrize("n_fft, per_block", [(64, 8), (512, 8), (2048, 4), (400, 1), (441, 2)])
def test_frame_counts_around_a_block(n_fft, per_block):
    fb = bank_of(20, n_fft)
    for frames in {1, 2, 3, per_block, per_block + 1, 2 * per_block - 1, 2 * per_block + 1}:
        y = signal(n_fft, 40, FLOAT, batch=3, frames=frames)[:, :n_fft + 40 * (frames - 1)]
        got = check(y, fb, n_fft, 40, False, 2, "power", FLOAT)
        assert got.shape[2] == frames


BANKS = {
    "all zero": lambda n, k: np.zeros((n, k)),
    "every bin in every row": lambda n, k: np.random.default_rng(1).uniform(0.1, 1, (n, k)),
    "single bins": lambda n, k: np.eye(n, k)[:, ::-1],
    "the ends alone, zeros between": lambda n, k: np.eye(1, k) + np.eye(1, k, k - 1) + np.zeros((n, 1)),
    "negative weights": lambda n, k: -bank_of(n, 2 * k - 2),
    "mel": lambda n, k: kevra.mel_filter_bank(16000, 2 * k - 2, n),
}


@pytest.mark.parametrize("kind", BANKS)
def test_banks(kind):
    for n_fft in 256, 400:
        y = signal(n_fft, 100, DOUBLE)
        fb = BANKS[kind](30, n_fft // 2 + 1)
        want = reference(y, fb, n_fft, 100, True, 2, "power")
        got = kevra.mel_staged(y, "hann", fb, n_fft, 100, True, 2, "power")
        np.testing.assert_allclose(got, want, rtol=1e-12, atol=1e-13 * abs(want).max(), err_msg=kind)
        for order in np.asfortranarray(fb), np.repeat(fb, 2, axis=0)[::2], fb.astype(np.float32):
            same = kevra.mel_staged(y, "hann", order, n_fft, 100, True, 2, "power")
            np.testing.assert_allclose(same, got, rtol=1e-6, atol=0)


def test_silence():
    fb = bank_of(10, 400)
    for dtype, off in (np.float32, 1e-5), (np.float64, 1e-12):
        silence = np.zeros((1, 2000), dtype)
        for eps in 1e-10, 1e-3:
            db = kevra.mel_staged(silence, "hann", fb, 400, 160, True, 2, "db", eps)
            np.testing.assert_allclose(db, 10 * np.log10(eps), rtol=0, atol=off)
        assert (kevra.mel_staged(silence, "hann", fb, 400, 160, True, 1, "db", 0.0) == -np.inf).all()
        assert (kevra.mel_staged(silence, "hann", fb, 400, 160, True, 2, "magnitude") == 0).all()


def test_a_staged_result_is_a_view_of_what_the_device_wrote():
    y, fb = signal(400, 160, FLOAT), bank_of(13, 400)
    got = kevra.mel_staged(y, "hann", fb, 400, 160, True, 2, "power")
    frames = got.shape[2]
    assert got.strides == (13 * frames * 4, 4, 13 * 4)
    with Device() as device:
        np.testing.assert_array_equal(resident(device, y, fb, 400, 160, True, 2, "power", FLOAT, device.stream()), got)
    for other in y.astype(np.float64)[:, ::-1][:, ::-1], (100 * y).astype(np.int16):
        again = kevra.mel_staged(other, "hann", fb, 400, 160, True, 2, "power")
        assert again.dtype == (np.float64 if other.dtype == np.float64 else np.float32)
        want = reference(other, fb, 400, 160, True, 2, "power")
        np.testing.assert_allclose(again, want, rtol=1e-4, atol=1e-6 * want.max())


def test_a_plan_serves_its_own_call_alone():
    """Calls that differ in one thing each, twice over and mixed."""
    y = signal(512, 128, DOUBLE)
    fb = bank_of(20, 512)
    base = (fb, 512, 128, True, 2, "power")
    calls = [base, (bank_of(20, 512, seed=9), *base[1:]), (fb[:10], *base[1:]), (fb, 512, 64, True, 2, "power"),
             (fb, 513, 128, True, 2, "power"), (fb, 512, 128, False, 2, "power"), (fb, 512, 128, True, 1, "power"),
             (fb, 512, 128, True, 2, "magnitude"), (fb, 512, 128, True, 2, "db")]
    for _ in range(2):
        for call in calls:
            for prec in DOUBLE, FLOAT, HALF:
                check(y.astype(PARTS[prec]), *call, prec)
        check(y[:, :-100], *base, DOUBLE)
        check(y[:1], *base, DOUBLE)
        for window in "blackman", np.linspace(0, 1, 512):
            want = reference(y, *base, window=window)
            np.testing.assert_allclose(kevra.mel_staged(y, window, *base), want, rtol=1e-11)


def test_a_bank_that_changes_in_place_is_another_bank():
    y = signal(2048, 512, DOUBLE)
    for n_mels, n_fft, places in (3, 64, [(0, 0), (2, 32)]), (128, 2048, [(0, 3), (127, 897)]):
        fb = bank_of(n_mels, n_fft)
        check(y, fb, n_fft, 512, True, 2, "power", DOUBLE)
        step = fb.size // 512
        for row, column in places:
            assert fb.size <= 512 or row == 0 or (row * fb.shape[1] + column) % step == 0  # where the hash looks
            fb[row, column] += 1.5
            check(y, fb, n_fft, 512, True, 2, "power", DOUBLE)


def told(function, *arguments, debug=1, **env):
    """What a fresh process returns, and what it tells about its kernels."""
    return Fresh(function, *arguments, env={"KEVRA_DEBUG": str(debug), **env}).result()


def both_forms(n_fft, prec):
    y, fb = signal(n_fft, n_fft // 4, prec), bank_of(20, n_fft)
    with Device() as device:
        return [resident(device, y, fb, n_fft, n_fft // 4, True, power, output, prec).astype(np.float64)
                for power, output in RESULTS[1:]]


@pytest.mark.parametrize("prec", [HALF, FLOAT, DOUBLE], ids=["half", "float", "double"])
@pytest.mark.parametrize("n_fft", [256, 400, 441])
def test_both_sides_of_the_route_edge(n_fft, prec):
    """One byte less than a frame needs, and it goes through device memory: the same bands from both."""
    s = 8 if prec == DOUBLE else 4
    bins, half = n_fft // 2 + 1, n_fft // 2
    if n_fft == 256:  # padding, and for double the table of roots
        edge = s * bins + 2 * s * (bins + half // 16) + (2 * s * 3 * half // 2 if prec == DOUBLE else 0)
    else:
        edge = s * bins * (1 + n_fft % 2) + 2 * s * (n_fft if n_fft % 2 else half)
    fused, words = told(both_forms, n_fft, prec, KEVRA_CPU_SHARED_LIMIT=edge)
    assert set(re.findall(r"launch (\w+) .* shared (\d+)", words)) == {("kevra_mel", str(edge))}
    staged, words = told(both_forms, n_fft, prec, KEVRA_CPU_SHARED_LIMIT=edge - 1)
    names = set(re.findall(r"launch (\w+) ", words))
    assert "kevra_melred" in names and "kevra_mel" not in names
    for a, b in zip(fused, staged):
        np.testing.assert_allclose(a, b, rtol=4 * ERROR[prec], atol=4 * ERROR[prec] * abs(a).max())


@pytest.mark.parametrize("n_fft, prec", [(16384, FLOAT), (8192, DOUBLE), (2 * 127, FLOAT), (127, DOUBLE),
                                         (20000, DOUBLE), (9001, HALF)])
def test_frames_that_no_block_holds(n_fft, prec):
    y, fb = signal(n_fft, n_fft // 3, prec, frames=3), bank_of(30, n_fft)
    for power, output in (1, "magnitude"), (2, "db"):
        check(y, fb, n_fft, n_fft // 3, True, power, output, prec)
    before = pools_in_use()
    check(y, fb, n_fft, n_fft // 3, True, 2, "db", prec)
    assert pools_in_use() == before


@too_many_blocks_to_check
def test_more_staged_rows_than_a_grid():
    y = signal(254, 1, FLOAT, batch=2, frames=40000)
    check(y, bank_of(3, 254), 254, 1, False, 2, "power", FLOAT)


def checked_cores():
    for case in CORES:
        for prec in FLOAT, DOUBLE:
            check_core(case, prec, RESULTS[:1])
    for prec in HALF, PACKED:
        check_core((None, 512, 128, True, 40, {}), prec, RESULTS[3:])
    check_core((None, 254, 64, True, 40, {}), FLOAT, RESULTS[1:2])


def test_check_mode_finds_nothing_in_any_core():
    _, words = told(checked_cores, debug=2, KEVRA_CPU_CHECK="1")
    assert set(re.findall(r"core=(\w+)", words)) == {"ct", "warp", "mixed", "ept16"}


def bits_of_results():
    with Device() as device:
        return [resident(device, signal(n, hop, prec), bank_of(30, n), n, hop, True, 2, "db", prec).tobytes()
                for n, hop in ((64, 16), (512, 128), (2048, 512), (400, 160), (441, 147))
                for prec in (FLOAT, DOUBLE, PACKED)]


def test_the_order_of_threads_and_blocks_changes_no_bit():
    want = fresh(bits_of_results, env={"KEVRA_CPU_ORDER": "forward"})
    for order in "reverse", "shuffle:1":
        assert fresh(bits_of_results, env={"KEVRA_CPU_ORDER": order}) == want, order


def one_launch(n_fft, hop, n_mels):
    y = signal(n_fft, hop, FLOAT, frames=32)
    kevra.mel_staged(y, "hann", kevra.mel_filter_bank(16000, n_fft, n_mels), n_fft, hop, False, 2, "power")
    return y.shape[0] * frames_of(y, n_fft, hop, False).shape[1]


@pytest.mark.parametrize("n_fft", [512, 2048, 400, 441])
def test_spectra_never_reach_device_memory(n_fft, tmp_path):
    profile = tmp_path / "profile"
    frames = fresh(one_launch, n_fft, n_fft // 4, 20, env={"KEVRA_CPU_CHECK": "1", "KEVRA_CPU_PROFILE": profile})
    launch, = [json.loads(line) for line in profile.read_text().splitlines()]
    assert launch["bytes_written"] == frames * 20 * 4
    # A frame's samples and the window; its bands' weights, and where these begin, end and belong.
    weights = np.count_nonzero(kevra.mel_filter_bank(16000, n_fft, 20))
    assert launch["bytes_read"] == frames * 4 * (2 * n_fft + weights + 3 * 20)


def on_two_devices():
    y = signal(400, 160, DOUBLE)
    with Device() as first, Device(1) as second:
        for device in first, second, first:
            for n_mels in 20, 21:
                fb = bank_of(n_mels, 400)
                got = resident(device, y, fb, 400, 160, True, 2, "power", DOUBLE, device.stream())
                assert_bands(got, reference(y, fb, 400, 160, True, 2, "power"), DOUBLE, "power", device.index)


def test_devices_have_banks_of_their_own():
    fresh(on_two_devices, env={"KEVRA_CPU_DEVICES": "2"})


def test_refusals_name_the_value_and_queue_nothing():
    y, fb = signal(400, 160, FLOAT), bank_of(40, 400)
    good = {"y": y, "window": "hann", "fb": fb, "n_fft": 400, "hop": 160, "center": True, "power": 2, "output": "db"}
    before = pools_in_use()
    for change, words in [
        ({"power": 3}, r"mel: power is 3, must be 1 \(magnitude\) or 2 \(power\)"),
        ({"power": 1.5}, r"mel: power is 1\.5"),
        ({"power": float("nan")}, r"mel: power is -?nan"),
        ({"y": y[0]}, r"expected a 2-D \(batch, samples\) array"),
        ({"y": y[:0]}, r"mel: batch is 0"),
        ({"y": np.broadcast_to(y[:1], (65536, y.shape[1]))}, r"kevra_mel: batch exceeds grid\.y limit: 65536 rows"),
        ({"fb": fb[:, :-1]}, r"mel: filterbank bins != n_fft/2\+1 \(200 columns for n_fft 400\)"),
        ({"fb": fb[:0]}, r"mel: filterbank has 0 rows, must have from 1 to"),
        ({"fb": fb[0]}, r"mel: fb has 1 dimensions, must be a 2-D"),
        ({"y": y[:, :200]}, r"mel: signal length must exceed pad for reflect padding"),
        ({"y": y[:, :399], "center": False}, r"mel: signal too short for n_fft"),
        ({"hop": 0}, r"mel: hop is 0"),
        ({"window": np.ones(399)}, r"window array must have win_length \(400\) samples, got 399"),
        ({"window": "hanning"}, r"window must be one of"),
        ({"eps": -1.0}, r"mel: eps is -1, must be finite and not below 0"),
    ]:
        with pytest.raises(ValueError, match=f"^{words}"):
            kevra.mel_staged(**{**good, **change})
    with pytest.raises(TypeError, match="float16"):
        kevra.mel_staged(**{**good, "y": y.astype(np.float16)})
    for power in 0, 4:
        with pytest.raises(ValueError, match=f"^mel: power is {power}"):
            kevra.mel_resident(0, 0, 1, 4000, fb, 400, 160, True, power, "db", EPS, "hann", FLOAT)
    assert pools_in_use() == before
