"""From spectrograms back to signals, against an overlap-add of numpy's own inverse transforms in double."""

import hashlib
import math

import kevra
import numpy as np
import pytest
from kevra import _diagnostics
from spectrograms import overlap_add
from support import DOUBLE, FLOAT, HALF, STORAGE, UNIT, Device, Fresh, fresh, pools_in_use

ROUTES = {  # by what makes the frames; n_fft, hop
    "folded, a power of two": ((4, 1), (64, 16), (512, 128), (2048, 512)),
    "folded, mixed radices": ((6, 2), (400, 160), (882, 441), (1200, 7)),
    "folded, a prime stage": ((34, 10), (272, 68)),
    "folded, primes twice": ((578, 144),),
    "no transform left": ((2, 1), (1, 1)),
    "pairs of frames": ((3, 1), (15, 4), (255, 85), (1001, 250)),
    "pairs, a prime stage": ((17, 5), (51, 13)),
    "staged, a large prime": ((2018, 500), (1009, 250)),
    "staged, four steps": ((32768, 8192), (20000, 6000)),
}
CASES = [pytest.param(n, hop, id=f"{n} {hop} {label}") for label, sizes in ROUTES.items() for n, hop in sizes]
COMPLEX = {HALF: np.complex64, FLOAT: np.complex64, DOUBLE: np.complex128}


@pytest.fixture(autouse=True)
def as_at_start():
    yield
    kevra.set_deterministic(0)
    kevra.shape_hint_clear()


def window_of(n, periods=1):
    """A raised cosine on a pedestal: no hop up to n leaves a gap."""
    return 0.54 - 0.46 * np.cos(2 * np.pi * periods * np.arange(n) / n)


def spectra(batch, frames, n, prec, seed=0):
    """Parts in the precision's storage, (batch, frames, bins, 2), rows of very different sizes."""
    z = np.random.default_rng(seed).standard_normal((batch, frames, n // 2 + 1, 2))
    return (z * np.logspace(-1, 1, batch)[:, None, None, None]).astype(STORAGE[prec])


def complex_of(parts):
    wide = np.result_type(parts.dtype, np.float32)
    return np.ascontiguousarray(parts, wide).view(np.result_type(wide, np.complex64))[..., 0]


def assert_signal(got, z, window, n, hop, center, prec, what, length=-1):
    """Errors count before the division: a small envelope enlarges them and the signal alike."""
    want, envelope, peak = overlap_add(z, window, n, hop, center, length)
    assert got.shape == want.shape, what
    np.testing.assert_array_equal(got[:, envelope <= 0.9e-8], 0, what)
    error = abs(got.astype(float) - want)
    if prec == HALF:
        error = np.maximum(error - np.spacing(abs(want).astype(np.float16)).astype(float), 0)
    off = (error * envelope / peak).max(initial=0) / UNIT[prec][1]
    convolved = kevra.route_explain("istft", n, prec)["bluestein"]  # which rounds more
    assert off <= (8 + 4 * math.log(n)) * (1 + convolved), f"{what}: {off} units of {peak=}"


# Where bin k of frame f of row b stands: a copy of the parts, the index of the first, three strides.
LAYOUTS = {
    "bins adjacent": lambda p: strided(p, (0, 1, 2)),
    "frames adjacent": lambda p: strided(p, (0, 2, 1)),
    "rows adjacent": lambda p: strided(p, (1, 2, 0)),
    "gaps": lambda p: strided(np.repeat(p, 2, axis=2), (0, 1, 2), every=2),
    "frames backwards": lambda p: backwards(p),
}


def strided(parts, order, every=1):
    memory = parts.transpose(*order, 3).copy(order="C")
    if every > 1:
        memory[..., 1::every, :] = np.nan
    row, frame, k = (math.prod(memory.shape[order.index(axis) + 1:3]) for axis in range(3))
    return memory, 0, row, k * every, frame


def backwards(parts):
    memory, _, row, k, frame = strided(parts[:, ::-1], (0, 1, 2))
    return memory, (parts.shape[1] - 1) * frame, row, k, -frame


def resident(device, parts, window, n, hop, center, prec, length=-1, layout="bins adjacent", stream=0):
    batch, frames, bins = parts.shape[:3]
    memory, first, sb, sk, st = LAYOUTS[layout](parts)
    total = (frames - 1) * hop + n
    pad = n // 2 if center else 0
    samples = min(length if length >= 1 else total - 2 * pad, total - pad)
    # What stands behind the rows has to stay.
    y = device.upload(np.full(batch * samples + 64, 7, STORAGE[prec]))
    z = device.upload(memory) + first * 2 * memory.itemsize
    kevra.istft_resident(z, y, batch, bins, frames, sb, sk, st, n, hop, center, length, window, prec, device.index,
                         stream)
    device.synchronize(stream)
    flat = device.download(y, batch * samples + 64, STORAGE[prec])
    np.testing.assert_array_equal(flat[batch * samples:], 7)
    return flat[:batch * samples].reshape(batch, samples)


@pytest.mark.parametrize(("n", "hop"), CASES)
def test_every_precision_layout_and_route(n, hop):
    window = window_of(n)
    layouts = iter(list(LAYOUTS) * 3)
    with Device() as device:
        for prec in HALF, FLOAT, DOUBLE:
            stream = device.stream() if prec == FLOAT else 0
            for deterministic, center, frames in (0, True, 6), (1, False, 5), (1, True, 7), (0, False, 1):
                kevra.set_deterministic(deterministic)
                parts = spectra(3, frames, n, prec, seed=n)
                layout = next(layouts)
                got = resident(device, parts, window, n, hop, center, prec, layout=layout, stream=stream)
                what = f"{n=} {hop=} {prec=} {deterministic=} {center=} {frames=} {layout=}"
                assert_signal(got, complex_of(parts), window, n, hop, center, prec, what)


@pytest.mark.parametrize("n", [12, 13])
def test_every_hop_and_length(n):
    z = complex_of(spectra(2, 5, n, DOUBLE))
    for hop in range(1, n + 1):
        total = 4 * hop + n
        for center in False, True:
            for length in -7, 0, 1, 2 * hop, total - n // 2 - 1, total - n // 2, total, 2**62:
                got = kevra.istft_staged(z, window_of(n), n, hop, center, length)
                assert_signal(got, z, window_of(n), n, hop, center, DOUBLE, f"{n=} {hop=} {center=} {length=}", length)


@pytest.mark.parametrize("n", [400, 2048, 255, 1009, 2018, 16384, 32768])
@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
def test_undoes_the_forward_transform(prec, n):
    x = np.random.default_rng(n).uniform(-1, 1, (2, 6 * n)).astype(STORAGE[prec])
    z = kevra.stft_staged(x, "hann", n, n // 4, True, "complex").swapaxes(1, 2)
    assert z.flags.c_contiguous
    y = kevra.istft_staged(z, "hann", n, n // 4, True, x.shape[1])
    inside = slice(n, y.shape[1] - n)
    bar = {FLOAT: 2e-6, DOUBLE: 1e-13}[prec]
    assert abs(y[:, inside] - x[:, inside]).max() <= bar * abs(x).max()


def test_ends_without_a_window_are_silent():
    z = complex_of(spectra(1, 4, 1024, FLOAT))
    y = kevra.istft_staged(z, "hann", 1024, 256, False)
    assert y[0, 0] == 0
    assert np.isfinite(y).all()
    assert_signal(y, z, 0.5 - 0.5 * np.cos(2 * np.pi * np.arange(1024) / 1024), 1024, 256, False, FLOAT, "hann")


def test_one_centred_frame_of_even_length_has_no_samples():
    for n, samples in (16, 0), (15, 1), (2018, 0):
        y = kevra.istft_staged(complex_of(spectra(3, 1, n, FLOAT)), "hamming", n, 4, True)
        assert (y.shape, y.dtype) == ((3, samples), np.float32)
    kevra.istft_resident(0, 0, 3, 9, 1, 9, 1, 9, 16, 4, True, -1, "hamming", FLOAT)  # no pointer is looked at


def test_a_name_and_its_samples_are_the_same_window():
    z = complex_of(spectra(1, 6, 512, DOUBLE))
    periodic = 0.5 - 0.5 * np.cos(2 * np.pi * np.arange(512) / 512)
    kevra.set_deterministic(1)
    by_name, by_samples = (kevra.istft_staged(z, w, 512, 128, True) for w in ("hann", periodic))
    np.testing.assert_allclose(by_name, by_samples, rtol=0, atol=1e-15 * abs(by_name).max())


def test_calls_that_differ_little_keep_tables_and_plans_apart():
    x = np.random.default_rng(1).uniform(-1, 1, (1, 2000))
    for name in "hann", "hamming":
        for n, hop in (320, 1), (320, 3), (256, 64), (256, 66):
            z = kevra.stft_staged(x, name, n, hop, True, "complex").swapaxes(1, 2)
            y = kevra.istft_staged(z, name, n, hop, True)
            inside = slice(n, y.shape[1] - n)
            assert abs(y[:, inside] - x[:, inside]).max() <= 1e-13, f"{name} {n=} {hop=}"


def test_windows_that_leave_gaps_are_refused():
    z = np.ones((1, 3, 9), np.complex64)
    for window, hop in ("boxcar", 16), ("hann", 8), ("hamming", 16), (np.r_[np.ones(4), np.zeros(12)], 4):
        kevra.istft_staged(z, window, 16, hop, True)
    gap = np.ones(16)
    gap[3::8] = 3e-6  # squares of 9e-12, two of which pass at a hop of 8
    kevra.istft_staged(z, gap, 16, 8, True)
    for window, hop in ("hann", 16), ("bartlett", 16), (np.r_[np.ones(4), np.zeros(12)], 5), (gap, 16), (gap * 0.7, 8):
        for _ in range(2):  # a refusal is not remembered as a pass
            with pytest.raises(ValueError, match="^istft: window/hop combination violates NOLA$"):
                kevra.istft_staged(z, window, 16, hop, True)


STAGED = {
    "2-D": (dict(Z=np.ones((3, 9), np.complex64)), ValueError, r"^expected a 3-D \(batch, frames, bins\) array$"),
    "bins": (dict(Z=np.ones((1, 3, 8), np.complex64)), ValueError, r"^istft: bins must be n_fft/2\+1$"),
    "hop 0": (dict(hop=0), ValueError, r"^istft: hop must be in \[1, n_fft\]$"),
    "hop past the frame": (dict(hop=17), ValueError, r"^istft: hop must be in \[1, n_fft\]$"),
    "no frames": (dict(Z=np.ones((1, 0, 9), np.complex64)), ValueError, "frames is 0, must be at least 1"),
    "no rows": (dict(Z=np.ones((0, 3, 9), np.complex64)), ValueError, "batch is 0, must be at least 1"),
    "no size": (dict(Z=np.ones((1, 3, 1), np.complex64), n_fft=0), ValueError, r"win_length must be in \[1, n_fft\]"),
    "a name": (dict(window="welch"), ValueError, "got 'welch'$"),
    "too few samples": (dict(window=np.ones(15)), ValueError, r"win_length \(16\) samples, got 15$"),
    "float16": (dict(Z=np.ones((1, 3, 9), np.float16)), TypeError, "^float16 input is not supported here"),
}
RESIDENT = {
    "bins": (dict(bins=8), r"^istft: bins must be n_fft/2\+1$"),
    "batch": (dict(batch=2**31), "batch is 2147483648, must be at most 2147483647"),
    "frames": (dict(frames=2**31), "frames is 2147483648, must be at most 2147483631"),
    "a huge frame": (dict(bins=2**40 + 1, n_fft=2**41), "n_fft is 2199023255552, must be at most"),
    "memory beyond reason": (dict(frames=2**30, n_fft=2**20, bins=2**19 + 1), "frames x n_fft is 1125899906842624, "),
}


@pytest.mark.parametrize("case", STAGED)
def test_staged_refuses(case):
    changes, kind, words = STAGED[case]
    good = dict(Z=np.ones((1, 3, 9), np.complex64), window="hamming", n_fft=16, hop=4, center=True)
    before = pools_in_use()
    with pytest.raises(kind, match=words):
        kevra.istft_staged(**{**good, **changes})
    assert pools_in_use() == before
    kevra.istft_staged(**good)


@pytest.mark.parametrize("case", RESIDENT)
def test_resident_refuses_before_anything_is_queued(case):
    changes, words = RESIDENT[case]
    good = dict(z_ptr=0, y_ptr=0, batch=1, bins=9, frames=3, stride_batch=27, stride_bin=1, stride_frame=9, n_fft=16,
                hop=4, center=True, length=-1, window="hamming", prec=FLOAT)
    with pytest.raises(ValueError, match=words):
        kevra.istft_resident(**{**good, **changes})


def test_more_rows_than_a_grid_has():
    z = np.resize(complex_of(spectra(7, 3, 8, FLOAT)), (65535 + 70, 3, 5))
    for deterministic in 0, 1:
        kevra.set_deterministic(deterministic)
        y = kevra.istft_staged(z, "hamming", 8, 4, True)
        assert_signal(y[:7], z[:7], window_of(8), 8, 4, True, FLOAT, f"{deterministic=}")
        np.testing.assert_allclose(y, np.resize(y[:7], y.shape), rtol=0, atol=1e-6 * abs(y).max())


def test_hints_change_the_threads_alone():
    z = complex_of(spectra(2, 6, 400, FLOAT))
    for tpf in 25, 5000:
        kevra.set_shape_hint("istft", 400, 100, True, 32, "", 0, 0, 0, 0, tpf, 0)
        got = kevra.istft_staged(z, "hamming", 400, 100, True)
        assert_signal(got, z, window_of(400), 400, 100, True, FLOAT, f"{tpf=}")


SMALL = ((512, 128, FLOAT), (400, 100, FLOAT), (512, 128, DOUBLE), (441, 110, FLOAT))


def signals_and_routes(sizes):
    kevra.set_deterministic(1)
    return [(kevra.istft_staged(complex_of(spectra(2, 5, n, prec)), "hann", n, hop, True),
             kevra.route_explain("istft", n, prec)["staged"]) for n, hop, prec in sizes]


def test_the_staged_route_gives_the_fused_ones_signal():
    fused = fresh(signals_and_routes, SMALL)
    staged = fresh(signals_and_routes, SMALL, env={"KEVRA_CPU_SHARED_LIMIT": "1536"})
    for (n, _, prec), (here, small), (there, large) in zip(SMALL, fused, staged):
        assert (small, large) == (False, True), n
        off = abs(here - there).max() / abs(here).max()
        assert off <= 32 * UNIT[prec][1], f"{n=}: {off}"


def digests():
    signals = signals_and_routes((*SMALL, (255, 9, FLOAT), (2018, 99, FLOAT)))
    return [hashlib.sha256(y.tobytes()).hexdigest() for y, _ in signals]


def test_deterministic_sums_do_not_know_the_order_of_threads():
    want = fresh(digests, env={"KEVRA_CPU_ORDER": "forward"})  # compiles for those that follow
    runs = [Fresh(digests, env={"KEVRA_CPU_ORDER": f"shuffle:{seed}"}) for seed in range(20)]
    assert [run.result()[0] for run in runs] == [want] * 20


def checked_signals():
    with Device() as device:
        for n, hop, prec in ((64, 16, FLOAT), (64, 16, DOUBLE), (34, 9, DOUBLE), (15, 4, HALF), (254, 60, FLOAT),
                             (41, 9, DOUBLE)):
            for deterministic in 0, 1:
                kevra.set_deterministic(deterministic)
                parts = spectra(2, 3, n, prec)
                got = resident(device, parts, "hamming", n, hop, True, prec, layout="gaps")
                what = f"{n=} {prec=} {deterministic=}"
                assert_signal(got, complex_of(parts), window_of(n), n, hop, True, prec, what)


def test_check_mode_finds_nothing():
    fresh(checked_signals, env={"KEVRA_CPU_CHECK": "1"})


def blocks_after_two_calls():
    z = complex_of(spectra(2, 9, 512, FLOAT))
    kevra.istft_staged(z, "hann", 512, 128, True)
    first = _diagnostics.read()["pools"]["device"]
    kevra.istft_staged(z, "hann", 512, 128, True)
    return first, _diagnostics.read()["pools"]["device"]


def test_scratch_serves_again():
    first, second = fresh(blocks_after_two_calls)
    assert first == second
