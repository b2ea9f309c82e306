"""Signals from magnitudes alone, against the same iteration in numpy's double precision."""

import re

import kevra
import numpy as np
import pytest
from kevra import _diagnostics
from spectrograms import overlap_add, stft_reference, window_values
from support import DOUBLE, FLOAT, STORAGE, Device, Fresh, fresh, pools_in_use, too_many_blocks_to_check

COMPLEX = {FLOAT: np.complex64, DOUBLE: np.complex128}
# Relative, in the Euclidean norm, after one round; a further one hands every error on, larger where a bin is small.
ERROR = {FLOAT: 1e-4, DOUBLE: 1e-12}

CASES = [  # window, n_fft, hop, center, frames
    ("hann", 512, 128, True, 9),
    ("hann", 400, 100, True, 8),
    ("hamming", 255, 60, True, 7),
    ("blackman", 64, 16, False, 12),
    ("hamming", 34, 34, False, 5),
    ("hann", 2, 1, True, 4),
    ("boxcar", 3, 2, True, 6),
    ("hann", 2018, 500, True, 5),  # through device memory both ways
    (0.2 + np.hanning(96), 96, 31, True, 6),
]


def planes(batch, frames, n_fft, prec, seed=0):
    rng = np.random.default_rng(n_fft + seed)
    shape = batch, frames, n_fft // 2 + 1
    s = rng.exponential(size=shape) * np.logspace(-1, 1, batch)[:, None, None]
    return s.astype(STORAGE[prec]), np.exp(2j * np.pi * rng.random(shape)).astype(COMPLEX[prec])


def reference(s, ang, window, n_fft, hop, center, n_iter, momentum, length=-1):
    """The signal, and the phases that it is made of."""
    values = window_values(window, n_fft)
    alpha = momentum / (1 + momentum)
    s, before = s.astype(np.float64), 0
    for _ in range(n_iter):
        y = overlap_add(s * ang, values, n_fft, hop, center)[0]
        z = stft_reference(y, window, n_fft, hop, center).swapaxes(1, 2)
        turned = z - alpha * before
        before, ang = z, turned / (abs(turned) + 1e-16)
    return overlap_add(s * ang, values, n_fft, hop, center, length)[0], ang


def resident(s, ang, window, n_fft, hop, center, n_iter, momentum, length, prec, samples):
    """The signal and the phases left behind."""
    with Device() as device:
        angles = device.upload(ang)
        y = device.upload(np.full(len(s) * samples + 64, 7, s.dtype))  # what stands behind the rows has to stay
        stream = device.stream()
        kevra.griffinlim_resident(device.upload(s), angles, y, *s.shape, n_fft, hop, center, n_iter, momentum, length,
                                  window, prec, stream=stream)
        device.synchronize(stream)
        flat = device.download(y, len(s) * samples + 64, s.dtype)
        np.testing.assert_array_equal(flat[len(s) * samples:], 7)
        return flat[:len(s) * samples].reshape(len(s), samples), device.download(angles, ang.shape, ang.dtype)


def assert_near(got, want, bound, what):
    assert got.shape == want.shape, what
    off = np.linalg.norm(got - want) / np.linalg.norm(want)
    assert off <= bound, f"{what}: {off:.2g}"


def check(window, n_fft, hop, center, frames, prec, n_iter, momentum, length=-1):
    s, ang = planes(3, frames, n_fft, prec)
    settings = window, n_fft, hop, center, n_iter, momentum, length
    want, phases = reference(s, ang, *settings)
    what = f"{n_fft=} {hop=} {center=} {prec=} {n_iter=} {momentum=} {length=}"
    bound = ERROR[prec] * max(n_iter, 1) ** 2
    given = ang.copy()
    got = kevra.griffinlim_staged(s, ang, *settings)
    assert got.dtype == s.dtype
    np.testing.assert_array_equal(ang, given)
    assert_near(got, want, bound, what)
    on_device, left = resident(s, ang, *settings, prec, want.shape[1])
    assert_near(on_device, want, bound, f"resident {what}")
    assert_near(left, phases, bound * 10, f"phases {what}")  # a small bin's is as uncertain as it counts little


@pytest.mark.parametrize("prec", [FLOAT, DOUBLE], ids=["float", "double"])
@pytest.mark.parametrize("case", CASES, ids=lambda case: f"{case[1]}")
def test_both_forms_on_every_route(case, prec):
    check(*case, prec, 1, 0.99)
    check(*case, prec, 4, 0.99)
    check(*case, prec, 3, 0.0)


def test_every_length():
    full = 8 * 4 + 16
    for center in True, False:
        for length in -5, 0, 1, 30, full - 8, full, 2**62:
            check("hamming", 16, 4, center, 9, DOUBLE, 1, 0.5, length)
            check("hamming", 16, 4, center, 9, DOUBLE, 0, 0.5, length)


def test_without_rounds_phases_stay_and_sizes_count():
    s, ang = planes(2, 6, 64, DOUBLE)
    ang *= 3
    for n_iter in 0, -4:
        y, left = resident(s, ang, "hann", 64, 16, True, n_iter, 0.99, -1, DOUBLE, 5 * 16)
        np.testing.assert_array_equal(left, ang)
        assert_near(y, kevra.istft_staged(s * ang, "hann", 64, 16, True), 1e-14, "inverse")


def test_silent_rows_stay_silent_beside_loud_ones():
    s, ang = planes(3, 8, 64, FLOAT)
    s[1] = 0
    y, left = resident(s, ang, "hann", 64, 16, True, 3, 0.99, -1, FLOAT, 7 * 16)
    assert not y[1].any() and not left[1].any()
    want, _ = reference(s, ang, "hann", 64, 16, True, 3, 0.99)
    assert_near(y, want, 1e-3, "loud rows")


def test_rounds_come_nearer_to_the_magnitudes_and_momentum_more_so():
    n_fft, hop = 512, 128
    time = np.arange(16000) / 16000
    x = np.sin(2 * np.pi * (200 + 900 * time) * time)[None] + 0.1 * np.random.default_rng(1).standard_normal((1, 16000))
    s = abs(stft_reference(x, "hann", n_fft, hop, True)).swapaxes(1, 2)
    ang = np.exp(2j * np.pi * np.random.default_rng(2).random(s.shape))

    def distance(n_iter, momentum):
        y = kevra.griffinlim_staged(s, ang, "hann", n_fft, hop, True, n_iter, momentum, x.shape[1])
        got = abs(stft_reference(y, "hann", n_fft, hop, True)).swapaxes(1, 2)
        return np.linalg.norm(got - s) / np.linalg.norm(s)

    first, plain, fast = distance(0, 0.0), distance(30, 0.0), distance(30, 0.99)
    assert fast < 0.85 * plain < 0.85 * 0.5 * first, (first, plain, fast)


def test_element_types_and_layouts():
    s, ang = planes(2, 5, 32, DOUBLE)
    settings = "hann", 32, 8, True, 2, 0.3, -1
    want = kevra.griffinlim_staged(s, ang, *settings)
    assert_near(kevra.griffinlim_staged(np.asfortranarray(s), ang[:, ::-1][:, ::-1], *settings), want, 1e-13, "strides")
    whole = np.round(s)
    want, _ = reference(whole, ang, *settings)
    for kind in np.float16, np.int64, np.float32:
        got = kevra.griffinlim_staged(whole.astype(kind), ang, *settings)
        assert got.dtype == np.float32
        assert_near(got, want, 1e-3, str(kind))
    assert_near(kevra.griffinlim_staged(whole, ang.astype(np.complex64), *settings), want, 1e-5, "single phases")


GOOD = dict(S=np.ones((1, 4, 9), np.float32), ang=np.ones((1, 4, 9), np.complex64), window="hamming", n_fft=16, hop=4,
            center=True, n_iter=2, momentum=0.99, length=-1)
STAGED = {
    "2-D": (dict(S=GOOD["S"][0]), r"^griffinlim: expected \(batch, frames, bins\) planes$"),
    "2-D phases": (dict(ang=GOOD["ang"][0]), r"^griffinlim: expected \(batch, frames, bins\) planes$"),
    "shapes": (dict(ang=np.ones((1, 4, 8), np.complex64)), "^griffinlim: phase plane must match S$"),
    "bins": (dict(n_fft=18), r"^griffinlim: bins must be n_fft/2\+1$"),
    "momentum -1": (dict(momentum=-1.0), "^griffinlim: momentum is -1, must be finite and not -1$"),
    "momentum NaN": (dict(momentum=np.nan), "^griffinlim: momentum is nan, must be finite"),
    "momentum inf": (dict(momentum=np.inf), "^griffinlim: momentum is inf, must be finite"),
    "one centred frame": (dict(S=GOOD["S"][:, :1], ang=GOOD["ang"][:, :1]),
                          "^griffinlim: this frame count does not round-trip: stft: signal length must exceed pad"),
    "no frames": (dict(S=GOOD["S"][:, :0], ang=GOOD["ang"][:, :0]),
                  "^griffinlim: this frame count does not round-trip: frames is 0"),
    "gaps": (dict(window="hann", hop=16), "^istft: window/hop combination violates NOLA$"),
    "hop": (dict(hop=0), r"^istft: hop must be in \[1, n_fft\]$"),
    "window": (dict(window=np.ones(15)), r"win_length \(16\) samples, got 15$"),
}
RESIDENT = {
    "half": (dict(prec=0), "^griffinlim: half planes compute in f32 - upcast the tensors$"),
    "packed": (dict(prec=3), "^griffinlim: half planes compute in f32 - upcast the tensors$"),
    "bins": (dict(bins=8), r"^griffinlim: bins must be n_fft/2\+1$"),
    "batch": (dict(batch=-1), "^griffinlim: batch is -1, must be at least 0"),
    "momentum": (dict(momentum=-1), "^griffinlim: momentum is -1"),
    "frames": (dict(frames=2**62), "^istft: frames is 4611686018427387904, must be at most"),
    "a long signal": (dict(frames=2**29), "does not round-trip: stft: length is .*, must be at most"),
}


@pytest.mark.parametrize("case", STAGED)
def test_staged_refuses(case):
    changes, words = STAGED[case]
    before = pools_in_use()
    with pytest.raises(ValueError, match=words):
        kevra.griffinlim_staged(**{**GOOD, **changes})
    assert pools_in_use() == before


@pytest.mark.parametrize("case", RESIDENT)
def test_resident_refuses_before_anything_is_queued(case):
    changes, words = RESIDENT[case]
    good = dict(s_ptr=0, ang_ptr=0, y_ptr=0, batch=1, frames=4, bins=9, n_fft=16, hop=4, center=True, n_iter=2,
                momentum=0.99, length=-1, window="hamming", prec=FLOAT)
    with pytest.raises(ValueError, match=words):
        kevra.griffinlim_resident(**{**good, **changes})


def test_no_rows_give_an_empty_result():
    for n_iter in 0, 2:
        no_rows = dict(S=GOOD["S"][:0], ang=GOOD["ang"][:0], n_iter=n_iter)
        y = kevra.griffinlim_staged(**{**GOOD, **no_rows})
        assert (y.shape, y.dtype) == ((0, 12), np.float32)
    kevra.griffinlim_resident(0, 0, 0, 0, 4, 9, 16, 4, True, 2, 0.99, -1, "hamming", FLOAT)
    with pytest.raises(ValueError, match="NOLA"):
        kevra.griffinlim_resident(0, 0, 0, 0, 4, 9, 16, 16, True, 2, 0.99, -1, "hann", FLOAT)


@too_many_blocks_to_check
def test_more_rows_than_a_grid_has():
    few = [np.resize(plane[:1], (7, *plane.shape[1:])) for plane in planes(1, 3, 8, FLOAT)]
    few[0][:] = np.random.default_rng(3).exponential(size=few[0].shape)
    settings = "hamming", 8, 4, True, 2, 0.99, -1
    want, _ = reference(*few, *settings)
    s, ang = (np.resize(plane, (65535 + 70, *plane.shape[1:])) for plane in few)
    y, left = resident(s, ang, *settings, FLOAT, want.shape[1])
    assert_near(y, np.resize(want, y.shape), 4e-4, "signals")
    np.testing.assert_allclose(abs(left), 1, atol=1e-5)  # the phases of the rows in the second grid too


def small_cases():
    for prec in FLOAT, DOUBLE:
        check("hann", 64, 16, True, 6, prec, 2, 0.99)
        check("hamming", 15, 6, False, 5, prec, 2, 0.5)


@pytest.mark.parametrize("switch", [{"KEVRA_CPU_CHECK": "1"}, {"KEVRA_CPU_ORDER": "shuffle:1"}], ids=str)
def test_no_race_and_no_order(switch):
    fresh(small_cases, env=switch)


def blocks_after_each_call():
    blocks = []
    s, ang = planes(2, 9, 512, FLOAT)
    for n_iter in 3, 3, 8:
        kevra.griffinlim_staged(s, ang, "hann", 512, 128, True, n_iter, 0.99, -1)
        blocks.append(_diagnostics.read()["pools"])
    return blocks


def test_memory_of_a_shape_serves_again():
    first, *others = fresh(blocks_after_each_call)
    assert others == [first, first]


def failure_and_pools():
    """What a first call raised, and the blocks in use after a second one."""
    s, ang = planes(2, 9, 512, FLOAT)
    settings = s, ang, "hann", 512, 128, True, 3, 0.99, -1
    failure = ""
    try:
        kevra.griffinlim_staged(*settings)
    except RuntimeError as error:
        failure = str(error)
    assert_near(kevra.griffinlim_staged(*settings), reference(*settings)[0], 1e-3, "after a failure")
    return failure, pools_in_use()


# The second call of a kind to allocate scratch, the launches of the second round, the overlap-add's zeros there.
@pytest.mark.parametrize("call, words", [
    ("hipMalloc:5", "memAlloc"), ("hipModuleLaunchKernel:6", "kevra_gl_mul"), ("hipModuleLaunchKernel:9", "kevra_stft"),
    ("hipModuleLaunchKernel:10", "kevra_gl_step"), ("hipMemsetD8Async:1", r"memsetD8Async\(previous"),
    ("hipMemsetD8Async:3", r"memsetD8Async\(yraw"), ("hipMemcpyDtoH:1", r"memcpyDtoH\(y\.mutable_data"),
])
def test_a_failure_amid_the_rounds_loses_nothing(call, words):
    _, whole = fresh(failure_and_pools)
    (failure, pools), errors = Fresh(failure_and_pools, env={"KEVRA_CPU_FAIL": call}).result()
    assert "as KEVRA_CPU_FAIL asks" in errors and pools == whole
    assert re.search(words, failure), failure
