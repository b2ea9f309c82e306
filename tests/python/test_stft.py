"""The short-time transform in every core, form and precision, against definitions in double."""

import re

import kevra
import numpy as np
import pytest
import scipy.signal
from spectrograms import (
    FORMS,
    SPECTRUM_ERROR,
    WINDOWS,
    assert_spectrum,
    in_form,
    spectrum_bound,
    stft_reference,
    stft_resident,
    window_values,
)
from support import DOUBLE, FLOAT, HALF, STORAGE, fresh, pools_in_use

# By the way that a frame takes: a core, pairs of odd frames, a prime stage, device memory with and without a chirp.
SIZES = {
    "shared memory": [2, 4, 8, 16, 32, 64, 256, 1024], "shuffles": [512], "registers": [2048, 4096, 8192],
    "mixed radices": [6, 10, 12, 30, 100, 240, 400, 640, 882, 960, 1200, 3000], "pairs": [3, 5, 7, 9, 15, 45, 441, 625],
    "prime stage": [34, 68, 51, 17, 598], "device memory": [254, 127, 16384, 20000, 9999],
}


def signal(batch, length, dtype, seed=0):
    return np.random.default_rng(seed).standard_normal((batch, length)).astype(dtype)


def random_setting(rng, n_fft):
    center = bool(rng.integers(2))
    hop = int(rng.integers(1, n_fft * 2)) if rng.integers(2) else max(n_fft // 4, 1)
    least = n_fft // 2 + 1 if center else n_fft
    length = least + int(rng.integers(0, max(6 * min(hop, n_fft), 40)))
    window = WINDOWS[rng.integers(len(WINDOWS))] if rng.integers(4) else rng.random(n_fft) + 0.5
    return int(rng.integers(1, 4)), length, window, hop, center, FORMS[rng.integers(4)]


@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
@pytest.mark.parametrize("way", SIZES)
def test_random_settings(way, prec):
    rng = np.random.default_rng([prec, len(way)])
    for n_fft in SIZES[way]:
        for _ in range(1 if n_fft > 9000 else 3):
            batch, length, window, hop, center, output = random_setting(rng, n_fft)
            y = signal(batch, length, STORAGE[prec], length)
            got = kevra.stft_staged(y, window, n_fft, hop, center, output)
            name = window if isinstance(window, str) else "array"
            what = f"batch {batch}, length {length}, {name}, n_fft {n_fft}, hop {hop}, center {center}, {output}"
            assert got.dtype == (np.result_type(y, np.complex64) if output == "complex" else y.dtype)
            # The one sample of some windows is zero.
            spectrum = stft_reference(y, window, n_fft, hop, center)
            if np.linalg.norm(spectrum) > 1e-3:
                assert_spectrum(got, spectrum, output, prec, spectrum_bound(n_fft, prec), what)


def test_agrees_with_an_independent_implementation_inside_the_signal():
    y = signal(1, 4000, np.float64)
    other = scipy.signal.ShortTimeFFT(scipy.signal.get_window("hann", 256), 64, 1, phase_shift=None)
    want = other.stft(y[0])[:, -other.p_min:]
    got = kevra.stft_staged(y, "hann", 256, 64, True, "complex")[0]
    inside = slice(2, got.shape[1] - 3)
    np.testing.assert_allclose(got[:, inside], want[:, inside], atol=1e-12)


@pytest.mark.parametrize("window", WINDOWS)
def test_a_window_by_name_is_its_formula(window):
    y = signal(2, 700, np.float64)
    named = kevra.stft_staged(y, window, 96, 40, False, "complex")
    given = kevra.stft_staged(y, window_values(window, 96), 96, 40, False, "complex")
    np.testing.assert_allclose(named, given, atol=1e-13)
    assert_spectrum(named, stft_reference(y, window, 96, 40, False), "complex", DOUBLE, 1e-14, window)


def test_frame_counts_around_blocks_and_pairs():
    for n_fft, hop in (256, 64), (512, 100), (2048, 512), (441, 110), (400, 160):
        for frames in 1, 2, 3, 7, 8, 9, 17:
            for extra in 0, hop - 1:
                y = signal(2, n_fft + (frames - 1) * hop + extra, np.float32, frames)
                got = kevra.stft_staged(y, "hann", n_fft, hop, False, "complex")
                assert got.shape == (2, n_fft // 2 + 1, frames)
                assert_spectrum(got, stft_reference(y, "hann", n_fft, hop, False), "complex", FLOAT, 4e-7,
                                f"{frames} frames of {n_fft}")


# The two-sample load wants an even length, hop and pad and an address that is a multiple of 8.
@pytest.mark.parametrize("length, n_fft, hop, shift", [
    (4096, 512, 128, 0), (4097, 512, 128, 0), (4096, 512, 127, 0), (4096, 512, 128, 1), (4097, 1024, 256, 1),
    (5000, 2048, 512, 1), (3000, 402, 100, 0), (3000, 400, 160, 3), (3001, 400, 160, 0), (3000, 64, 200, 1)])
@pytest.mark.parametrize("center", [False, True])
def test_loads_at_every_alignment(length, n_fft, hop, shift, center):
    y = signal(3, length, np.float32)
    got = stft_resident(y, "hamming", n_fft, hop, center, "complex", FLOAT, shift=shift)
    assert_spectrum(got, stft_reference(y, "hamming", n_fft, hop, center), "complex", FLOAT, 4e-7, (length, hop, shift))


HINTS = [
    {"ept": 16}, {"ept": 4, "fpb": 3}, {"ept": 1 << 20}, {"tpf": 32}, {"tpf": 7}, {"tpf": 1 << 20, "fpb": 1 << 20},
    {"core": 1}, {"core": 2}, {"core": 3}, {"core": 3, "var": 2 << 4}, {"var": 1 << 4}, {"var": 15 << 4}, {"var": 4},
    {"fpb": 100, "tpf": 48, "var": 3 << 4},
]


@pytest.fixture
def no_hints():
    yield
    kevra.shape_hint_clear()


@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
@pytest.mark.parametrize("n_fft", [2, 16, 32, 64, 512, 1024, 4096, 34, 400, 255])
def test_a_hint_changes_the_kernel_and_not_the_result(n_fft, prec, no_hints):
    hop = max(n_fft // 3, 1)
    y = signal(2, 3 * n_fft + 5, STORAGE[prec])
    want = stft_reference(y, "hann", n_fft, hop, True)
    for hint in HINTS:
        fields = {"ept": 0, "fpb": 0, "tpf": 0, "core": 0, "var": 0} | hint
        kevra.set_shape_hint("stft", n_fft, hop, True, 32 * prec, "complex", 0, 0, *fields.values())
        got = kevra.stft_staged(y, "hann", n_fft, hop, True, "complex")
        assert_spectrum(got, want, "complex", prec, SPECTRUM_ERROR[prec], hint)


@pytest.mark.parametrize("n_fft", [256, 400, 441, 512, 1024, 2048, 127, 254])
@pytest.mark.parametrize("output", FORMS)
def test_half_storage_keeps_what_float_keeps(n_fft, output):
    # Near the largest half: bins reach some 50000 in the linear forms.
    scale = {"power": 200.0, "db": 50000.0}.get(output, 50000.0)
    y = signal(3, 4 * n_fft, np.float64)
    y *= scale / abs(stft_reference(y, "hann", n_fft, n_fft // 4, True)).max()
    y = y.astype(np.float16)
    want = in_form(stft_reference(y, "hann", n_fft, n_fft // 4, True), output)
    got = stft_resident(y, "hann", n_fft, n_fft // 4, True, output, HALF)
    assert np.isfinite(got).all()
    row = abs(want).max(axis=1, keepdims=True)
    assert (abs(got - want) <= 1.5e-3 * row).all()


@pytest.mark.parametrize("n_fft", [64, 512, 1024, 2048, 400])
def test_half_arithmetic(n_fft):
    """Each of log2 n_fft stages rounds to 11 bits; 10 units hold the worst bin. Other lengths compute in float."""
    y = signal(3, 4 * n_fft, np.float16)
    for output in FORMS[:3]:
        want = in_form(stft_reference(y, "hann", n_fft, n_fft // 4, True), output)
        got = stft_resident(y, "hann", n_fft, n_fft // 4, True, output, 3)
        assert (abs(got - want) <= 10 * 2**-11 * abs(want).max(axis=1, keepdims=True)).all(), output


def test_silence_and_eps():
    y = np.zeros((1, 3000), np.float32)
    y[:, 1500:] = signal(1, 1500, np.float32)
    for eps in 1e-10, 1.23456789e-5, 1e-3, 0.0:  # one shape: a plan made for another eps must not serve
        for n_fft in 512, 400, 127:
            got = kevra.stft_staged(y, "hann", n_fft, 128, False, "db", eps)
            with np.errstate(divide="ignore"):
                silent = np.float32(10 * np.log10(eps))
            np.testing.assert_allclose(got[..., 0], silent, rtol=1e-6)
            assert not np.isnan(got).any()
        exact = kevra.stft_staged(y.astype(np.float64), "hann", 400, 128, False, "db", eps or 1e-300)
        np.testing.assert_allclose(exact[..., 0], 10 * np.log10(eps or 1e-300), rtol=1e-14)


def test_plans_are_kept_apart_and_found_again():
    """Calls that differ in one argument, in turns."""
    y = signal(2, 3000, np.float32)
    rng = np.random.default_rng(1)
    taps = [rng.random(512), rng.random(512)]
    settings = [
        (y, "hann", 512, 128, True, "complex"), (y, "hann", 512, 128, False, "complex"),
        (y, "hann", 512, 128, True, "power"), (y, "hamming", 512, 128, True, "complex"),
        (y, taps[0], 512, 128, True, "complex"), (y, taps[1], 512, 128, True, "complex"),
        (y[:, :2999], "hann", 512, 128, True, "complex"), (y, "hann", 512, 64, True, "complex"),
        (y, "hann", 256, 128, True, "complex"), (y[:1], "hann", 512, 128, True, "complex"),
        (y, "hann", 127, 128, True, "complex"), (y, "hann", 127, 128, True, "magnitude"),
    ]
    for _ in range(2):
        for i, (x, window, n_fft, hop, center, output) in enumerate(settings):
            spectrum = stft_reference(x, window, n_fft, hop, center)
            got = kevra.stft_staged(x, window, n_fft, hop, center, output)
            assert_spectrum(got, spectrum, output, FLOAT, spectrum_bound(n_fft, FLOAT), i)
            for prec in HALF, 3, DOUBLE:
                other = stft_resident(x, window, n_fft, hop, center, output, prec)
                assert np.linalg.norm(other - got) <= 5e-3 * np.linalg.norm(got), (i, prec)


def test_result_is_a_view_and_blocks_go_home():
    in_use = []
    for _ in range(2):  # tables stay with the first calls
        for n_fft in 512, 441, 254:
            got = kevra.stft_staged(signal(2, 3000, np.float32), "hann", n_fft, 100, True, "power")
            bins, frames = got.shape[1:]
            assert got.strides == (4 * bins * frames, 4, 4 * bins) and got.flags.writeable
        del got
        in_use.append(pools_in_use())
    assert in_use[0] == in_use[1]


BAD = [
    (dict(y=np.zeros(5)), "expected a 2-D (batch, samples) array"),
    (dict(y=np.zeros((1, 32))), "stft: signal length must exceed pad for reflect padding"),
    (dict(y=np.zeros((1, 0)), center=False), "stft: signal too short for n_fft"),
    (dict(y=np.zeros((1, 63)), center=False), "stft: signal too short for n_fft"),
    (dict(y=np.zeros((0, 640))), "stft: batch is 0, must be at least 1"),
    (dict(y=np.zeros((70000, 40))), "kevra_stft: batch exceeds grid.y limit"),
    (dict(hop=0), "stft: hop is 0, must be at least 1"), (dict(hop=-3), "stft: hop is -3"),
    (dict(hop=2**31), "stft: hop is 2147483648, must be at most"),
    (dict(n_fft=1), "stft: n_fft is 1, must be at least 2"), (dict(n_fft=2**40), "stft: n_fft is"),
    (dict(window="kaiser"), "'bartlett', 'boxcar') or a float array; got 'kaiser'"),
    (dict(window=np.ones(63)), "window array must have win_length (64) samples, got 63"),
    (dict(window=np.ones((2, 32))), "window must be a name or a 1-D float array"),
    (dict(window=None), "window must be a name or a 1-D float array"),
    (dict(window=np.ones(64, complex)), "window must be a name or a 1-D float array"),
    (dict(output="db", eps=-1.0), "stft: eps is -1"), (dict(output="db", eps=float("nan")), "stft: eps is nan"),
]


@pytest.mark.parametrize("change, message", BAD)
def test_bad_arguments(change, message):
    arguments = dict(y=np.zeros((2, 640)), window="hann", n_fft=64, hop=16, center=True, output="complex") | change
    before = pools_in_use()
    with pytest.raises(ValueError, match=re.escape(message)):
        kevra.stft_staged(**arguments)
    assert pools_in_use() == before
    # The shortest signals that there are.
    assert kevra.stft_staged(np.zeros((1, 33)), "hann", 64, 16, True, "complex").shape == (1, 33, 3)
    assert kevra.stft_staged(np.zeros((1, 64)), "hann", 64, 16, False, "complex").shape == (1, 33, 1)


def test_refuses_float16_arrays():
    with pytest.raises(TypeError, match="cast to float32"):
        kevra.stft_staged(np.zeros((1, 640), np.float16), "hann", 64, 16, True, "complex")


def test_more_rows_through_device_memory_than_a_grid_has():
    for n_fft in 127, 254:
        y = signal(1, 65600 + n_fft, np.float32)
        got = kevra.stft_staged(y, "hann", n_fft, 1, False, "magnitude")
        want = in_form(stft_reference(y, "hann", n_fft, 1, False), "magnitude")
        assert np.linalg.norm(got - want) <= 6e-7 * np.linalg.norm(want)


def run_settings(sizes):
    """In a process of its own: the worst relative error, each over its bound, and the cores."""
    worst, cores = 0, set()
    for n_fft in sizes:
        for prec in FLOAT, DOUBLE:
            for hop, length in (n_fft // 4 or 1, 5 * n_fft + 3), (n_fft // 3 + 1, 2 * n_fft + 2):
                y = signal(2, length, STORAGE[prec])
                want = stft_reference(y, "hann", n_fft, hop, True)
                got = stft_resident(y, "hann", n_fft, hop, True, "complex", prec)
                worst = max(worst, np.linalg.norm(got - want) / np.linalg.norm(want) / spectrum_bound(n_fft, prec))
            cores.add(kevra.route_explain("stft", n_fft, prec)["core"])
    return worst, cores


@pytest.mark.parametrize("order", ["shuffle:1", "reverse"])
def test_every_core_in_check_mode_and_any_thread_order(order):
    sizes = [4, 64, 256, 512, 2048, 100, 34, 45, 51, 254, 127]
    worst, cores = fresh(run_settings, sizes, env={"KEVRA_CPU_CHECK": 1, "KEVRA_CPU_ORDER": order})
    assert worst <= 1
    assert cores == {"cooley_tukey", "warp", "mixed", "ept16", "four_step"}


def test_either_side_of_what_shared_memory_holds():
    """A frame of 2^k needs n_fft / 2 + 1 values and one more for every 16 of them."""
    for n_fft, elem in (512, 8), (2048, 8), (512, 16):
        row = (n_fft // 2 + 1 + n_fft // 32) * elem
        for limit, core in (row, None), (row - 8, "four_step"):
            worst, cores = fresh(run_settings, [n_fft], env={"KEVRA_CPU_SHARED_LIMIT": limit})
            assert worst <= 1.5, (n_fft, limit)
            assert core is None or core in cores
