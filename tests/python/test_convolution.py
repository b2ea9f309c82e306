"""Convolution of rows through transforms and as a direct sum, against scipy in extended precision."""

import kevra
import numpy as np
import pytest
import scipy.signal
from support import DOUBLE, FLOAT, HALF, STORAGE, Device, fresh, too_many_blocks_to_check

# Root mean square against that of a convolution of such signals. Half storage rounds the result once more.
BOUND = {HALF: 2**-11, FLOAT: 1e-6, DOUBLE: 1e-14}
COMPLEX = {FLOAT: np.complex64, DOUBLE: np.complex128}


def signals(rows, rows_b, n, m, dtype):
    rng = np.random.default_rng(n * 31 + m)
    shapes = (rows, n), (rows_b, m)
    if np.dtype(dtype).kind == "c":
        return [(rng.standard_normal(shape) + 1j * rng.standard_normal(shape)).astype(dtype) for shape in shapes]
    return [rng.standard_normal(shape).astype(dtype) for shape in shapes]


def reference(a, b, start, outlen):
    """The window of the linear convolution; 0 beyond its end."""
    wide = np.clongdouble if a.dtype.kind == "c" else np.longdouble
    convolve = scipy.signal.fftconvolve if a.shape[1] * b.shape[1] > 1 << 22 else scipy.signal.convolve
    how = {} if convolve is scipy.signal.fftconvolve else {"method": "direct"}
    b = np.broadcast_to(b, (len(a), b.shape[1]))
    whole = np.array([convolve(x, h, **how) for x, h in zip(a.astype(wide), b.astype(wide))])
    behind = max(0, start + outlen - whole.shape[1])
    return np.pad(whole, ((0, 0), (0, behind)))[:, start:start + outlen]


def assert_close(got, want, prec, what, size=None):
    """`size` is the root mean square to measure by where a window has too few samples to tell."""
    assert got.shape == want.shape, what
    off = np.sqrt((abs(got - want) ** 2).mean()) / (size or np.sqrt((abs(want) ** 2).mean()))
    assert off <= BOUND[prec], f"{what}: off by {off:.2g}"


def resident(a, b, prec, start, outlen, nf=None, name="fft"):
    with Device() as device:
        count = len(a) * outlen
        y = device.upload(np.full(count + 64, 7, a.dtype))  # what stands behind the rows has to stay
        stream = device.stream()
        transform = () if nf is None else (nf,)
        function = getattr(kevra, f"conv_{'direct' if nf is None else name}_resident")
        sizes = len(a), len(b), a.shape[1], b.shape[1]
        function(device.upload(a), device.upload(b), y, *sizes, *transform, start, outlen, prec, stream=stream)
        device.synchronize(stream)
        flat = device.download(y, count + 64, a.dtype)
    np.testing.assert_array_equal(flat[count:], 7)
    return flat[:count].reshape(len(a), outlen)


# rows, rows of b, n, m, beyond n + m - 1 in nf. Kernels longer than the signal, one sample, odd and even lengths.
SHAPES = [(1, 1, 1, 1, 0), (3, 1, 5, 2, 0), (2, 2, 2, 5, 1), (4, 4, 100, 29, 0), (5, 1, 255, 2, 0), (2, 1, 257, 256, 7),
          (1, 1, 1000, 25, 0), (3, 3, 4000, 97, 0)]


def run_case(rows, rows_b, n, m, beyond):
    length = n + m - 1
    nf = length + beyond
    windows = {(0, length), (0, nf), (min(n, m) - 1, abs(n - m) + 1), (length // 2, length - length // 2), (nf - 1, 1)}
    for start, outlen in sorted(windows):
        for prec in HALF, FLOAT, DOUBLE:
            what = f"{rows=} {rows_b=} {n=} {m=} {nf=} {start=} {outlen=} {prec=}"
            a, b = signals(rows, rows_b, n, m, STORAGE[prec])
            want = reference(a, b, start, outlen)
            size = np.sqrt(n * m / length)  # of normal samples
            assert_close(resident(a, b, prec, start, outlen, nf), want, prec, "fft " + what, size)
            assert_close(resident(a, b, prec, start, outlen), want, prec, "direct " + what, size)
            if prec == HALF:
                continue
            assert_close(kevra.conv_fft_staged(a, b, nf, start, outlen), want, prec, "staged fft " + what, size)
            assert_close(kevra.conv_direct_staged(a, b, start, outlen), want, prec, "staged direct " + what, size)
            a, b = signals(rows, rows_b, n, m, COMPLEX[prec])
            want = reference(a, b, start, outlen)
            size *= 2
            assert_close(resident(a, b, prec, start, outlen, nf, "cplx"), want, prec, "complex " + what, size)
            assert_close(kevra.conv_cplx_staged(a, b, nf, start, outlen), want, prec, "staged complex " + what, size)


@pytest.mark.parametrize("shape", SHAPES, ids=str)
def test_every_route_in_every_window(shape):
    run_case(*shape)


@pytest.mark.parametrize("n, m, nf", [(48000, 1024, 50000), (70000, 65536, 1 << 18), (9001, 64, 9064 + 3)])
def test_long_rows(n, m, nf):
    for prec in FLOAT, DOUBLE:
        a, b = signals(2, 1, n, m, STORAGE[prec])
        want = reference(a, b, 0, n + m - 1)
        assert_close(kevra.conv_fft_staged(a, b, nf, 0, n + m - 1), want, prec, f"{n=} {m=} {prec=}")
        if m <= 1024:
            got = kevra.conv_direct_staged(a, b, 0, n + m - 1)
            assert_close(got, want, prec, f"direct {n=} {m=} {prec=}")


def test_a_transform_shorter_than_the_convolution_wraps_around():
    a, b = signals(2, 2, 60, 30, np.float64)
    whole = reference(a, b, 0, 89)
    wrapped = whole[:, :64].copy()
    wrapped[:, :25] += whole[:, 64:]
    np.testing.assert_allclose(kevra.conv_fft_staged(a, b, 64, 0, 64), wrapped, rtol=0, atol=1e-13)
    np.testing.assert_allclose(kevra.conv_cplx_staged(a, b, 64, 10, 54), wrapped[:, 10:], rtol=0, atol=1e-13)


def test_beyond_the_convolution_the_direct_sum_is_zero():
    a, b = signals(2, 1, 10, 4, np.float32)
    got = kevra.conv_direct_staged(a, b, 9, 600)
    np.testing.assert_allclose(got[:, :4], reference(a, b, 9, 4), rtol=0, atol=1e-6)
    assert not got[:, 4:].any() and not kevra.conv_direct_staged(a, b, 1 << 40, 3).any()


@too_many_blocks_to_check
@pytest.mark.parametrize("shared", [True, False])
def test_more_rows_than_a_grid(shared):
    rows = 65536 + 2
    for dtype in np.float32, np.float16:
        a, b = signals(rows, 1 if shared else rows, 3, 2, dtype)
        wide_a, wide_b = a.astype(np.float64), b.astype(np.float64)
        want = np.pad(wide_a, ((0, 0), (0, 1))) * wide_b[:, :1] + np.pad(wide_a, ((0, 0), (1, 0))) * wide_b[:, 1:]
        prec = FLOAT if dtype == np.float32 else HALF
        assert_close(resident(a, b, prec, 0, 4), want, prec, "direct")
        assert_close(resident(a, b, prec, 0, 4, 4), want, prec, "fft")
    both = (wide_a + 1j).astype(np.complex64), (wide_b - 2j).astype(np.complex64)
    first, second = (both[0][:, i:i + 1].astype(np.complex128) for i in (0, 1))
    head = np.hstack([first * both[1][:, :1], second * both[1][:, :1] + first * both[1][:, 1:]])
    assert_close(resident(*both, FLOAT, 0, 2, 4, "cplx"), head, FLOAT, "complex")


def test_halves_are_summed_in_float():
    # The products overflow half storage, their sum does not.
    a, b = np.array([[300, 300]], np.float16), np.array([[300, -299]], np.float16)
    for nf in None, 3:
        np.testing.assert_allclose(resident(a, b, HALF, 1, 1, nf), [[300]], rtol=1e-3)


def test_types_and_layouts():
    a, b = signals(2, 1, 40, 5, np.float64)
    want = reference(a, b, 0, 44)
    for convert in np.asfortranarray, lambda x: np.repeat(x, 2, axis=1)[:, ::2], lambda x: x.astype(">f8"):
        np.testing.assert_allclose(kevra.conv_fft_staged(convert(a), convert(b), 44, 0, 44), want, rtol=0, atol=1e-13)
    assert kevra.conv_fft_staged((a * 9).astype(int), b, 44, 0, 44).dtype == np.float32
    assert kevra.conv_cplx_staged(a.tolist(), b, 44, 0, 44).dtype == np.complex128
    assert kevra.conv_cplx_staged(a.astype(np.float32), b, 44, 0, 44).dtype == np.complex64
    assert kevra.conv_direct_staged(a.astype(np.float16), b, 0, 44).dtype == np.float32
    with pytest.raises(TypeError, match="float16"):
        kevra.conv_fft_staged(a.astype(np.float16), b, 44, 0, 44)
    with pytest.raises(TypeError):
        kevra.conv_direct_staged(a.tolist(), b, 0, 44)


def test_guards():
    good = {"rows": 2, "rows_b": 1, "n": 8, "m": 3, "nf": 10, "start": 0, "outlen": 10, "prec": FLOAT}
    for name in "fft", "cplx":
        function = getattr(kevra, f"conv_{name}_resident")
        for change, text in [
            ({"nf": 7}, "nf is 7, must be at least n and m, 8 and 3; a linear convolution needs n"),
            ({"n": 2, "m": 11}, "nf is 10, must be at least n and m, 2 and 11"), ({"nf": 1 << 40}, "nf is .* at most"),
            ({"start": 1}, r"start \+ outlen is 1 \+ 10, must be at most nf = 10"),
            ({"start": 11, "outlen": 0}, "start"),
            ({"start": 2**63 - 1, "outlen": 2**63 - 1}, "start"), ({"start": -1}, "start is -1, must be at least 0"),
            ({"outlen": -1}, "outlen is -1, must be at least 0"), ({"rows": -1}, "rows is -1"), ({"n": 0}, "n is 0"),
            ({"m": 0}, "m is 0, must be at least 1"), ({"nf": 0}, "nf is 0, must be at least 1"),
        ]:
            with pytest.raises(ValueError, match=f"^conv_{name}: {text}"):
                function(0, 0, 0, **(good | change))
        function(0, 0, 0, **(good | {"rows": 0}))
        function(0, 0, 0, **(good | {"outlen": 0}))
    del good["nf"]
    for change in {"n": 0}, {"m": 0}, {"start": -1}, {"outlen": -1}, {"rows": -1}:
        with pytest.raises(ValueError, match=f"^conv_direct: {next(iter(change))} is"):
            kevra.conv_direct_resident(0, 0, 0, **(good | change))
    kevra.conv_direct_resident(0, 0, 0, **(good | {"rows": 0}))


def test_guards_of_arrays():
    a, b = np.zeros((3, 8)), np.zeros((2, 3))
    for convolve in (kevra.conv_fft_staged, kevra.conv_cplx_staged):
        with pytest.raises(ValueError, match=r"^expected 2-D \(rows, samples\) arrays$"):
            convolve(a, b[0], 10, 0, 10)
        with pytest.raises(ValueError, match="^conv: b rows must be 1 or match a$"):
            convolve(a, b, 10, 0, 10)
        assert convolve(a[:0], b[:1], 10, 0, 10).shape == (0, 10)
        assert convolve(a, b[:1], 10, 10, 0).shape == (3, 0)
    with pytest.raises(ValueError, match=r"^conv_direct: expected 2-D \(rows, samples\) arrays$"):
        kevra.conv_direct_staged(a[0], b, 0, 10)
    with pytest.raises(ValueError, match="^conv_direct: kernel rows must be 1 or match the signal rows$"):
        kevra.conv_direct_staged(a, b, 0, 10)
    assert kevra.conv_direct_staged(a[:0], b[:1], 0, 10).shape == (0, 10)


@pytest.mark.parametrize("switch", [{"KEVRA_CPU_CHECK": "1"}, {"KEVRA_CPU_ORDER": "shuffle:1"}], ids=str)
def test_no_race_and_no_order(switch):
    fresh(run_case, 3, 3, 300, 29, 2, env=switch)
