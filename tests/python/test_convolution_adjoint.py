"""Gradients of convolutions: the transpose of the forward functions, against sums in extended precision."""

import kevra
import numpy as np
import pytest
from support import DOUBLE, FLOAT, HALF, STORAGE, Device, fresh, pools_in_use

BOUND = {HALF: 2**-11, FLOAT: 1e-6, DOUBLE: 1e-13}  # of the largest value that the sizes make likely
DOT = {FLOAT: 1e-6, DOUBLE: 1e-13}
COMPLEX = {HALF: np.complex64, FLOAT: np.complex64, DOUBLE: np.complex128}


def noise(rng, shape, dtype):
    x = rng.standard_normal(shape)
    return (x + 1j * rng.standard_normal(shape) if np.dtype(dtype).kind == "c" else x).astype(dtype)


def correlate(device, gy, w, nf, off, sl_start, sl_len, sum_rows, prec):
    rows = 1 if sum_rows else len(gy)
    count = rows * sl_len
    out, stream = device.upload(np.full(count + 64, 7, gy.dtype)), device.stream()
    addresses = [device.upload(array) or 0 for array in (gy, w)]
    sizes = len(gy), len(w), gy.shape[1], w.shape[1], nf, off, sl_start, sl_len
    kevra.conv_adjoint_resident(*addresses, out, *sizes, sum_rows, gy.dtype.kind == "c", prec, stream=stream)
    device.synchronize(stream)
    flat = device.download(out, count + 64, gy.dtype)
    np.testing.assert_array_equal(flat[count:], 7)
    return flat[:count].reshape(rows, sl_len)


def reference(gy, w, nf, off, sl_start, sl_len, sum_rows):
    """The circular sum over i of p[i] conj(w[i - t]), t counted from where the reversed w ends."""
    wide = np.clongdouble if gy.dtype.kind == "c" else np.longdouble
    w = np.broadcast_to(w[:1] if len(w) != len(gy) else w, (len(gy), w.shape[1])).astype(wide)
    p = np.zeros((len(gy), nf), wide)
    p[:, off:off + gy.shape[1]] = gy
    t = np.arange(sl_start, sl_start + sl_len) - (w.shape[1] - 1)
    taken = p[:, (t[:, None] + np.arange(w.shape[1])) % nf]
    c = np.einsum("rtk,rk->rt", taken, w.conj())
    return c.sum(axis=0, keepdims=True) if sum_rows else c


def run_case(rows, rows_w, len_g, len_w, nf):
    rng = np.random.default_rng(nf * 7 + rows)
    windows = {(0, 0, nf), (nf - len_g, len_w - 1, nf - len_w + 1), ((nf - len_g) // 2, nf - 1, 1)}
    with Device() as device:
        for off, sl_start, sl_len in sorted(windows):
            for prec, cplx, sums in np.ndindex(3, 2, 2):
                dtype = COMPLEX[prec] if cplx else STORAGE[prec]
                gy, w = noise(rng, (rows, len_g), dtype), noise(rng, (rows_w, len_w), dtype)
                where = nf, off, sl_start, sl_len, bool(sums)
                want = reference(gy, w, *where)
                got = correlate(device, gy, w, *where, prec)
                size = np.sqrt(min(len_g, len_w) * (rows if sums else 1)) * (1 + cplx)
                error = abs(got - want).max() / (5 * size)
                bound = BOUND[FLOAT if cplx and prec == HALF else prec]
                assert error <= bound, f"{rows=} {rows_w=} {len_g=} {len_w=} {where} {prec=} {cplx=}: {error}"


# rows, rows of w, len_g, len_w, nf: one each, shared, neither one nor as many, w longer, one sample, wrapping around.
CASES = [(1, 1, 1, 1, 1), (3, 1, 40, 7, 50), (4, 4, 100, 29, 128), (4, 2, 300, 31, 331), (2, 2, 5, 60, 64),
         (5, 1, 1, 256, 257), (1, 1, 255, 256, 256)]


@pytest.mark.parametrize("case", CASES, ids=str)
def test_correlations_of_every_shape(case):
    run_case(*case)


@pytest.mark.parametrize("seed", range(25))
def test_the_transpose_of_the_forward_functions(seed):
    """<A(a), g> = <a, A'(g)>, for either operand, with b shared or not, in two precisions, real and complex."""
    rng = np.random.default_rng(seed)
    rows, n, m = rng.integers(1, 6), rng.integers(1, 700), rng.integers(1, 300)
    prec, cplx, shared = (FLOAT, DOUBLE)[seed % 2], seed // 2 % 2, seed // 4 % 2
    dtype = COMPLEX[prec] if cplx else STORAGE[prec]
    nf = int(n + m - 1 + rng.integers(0, 9))
    start = int(rng.integers(0, nf))
    outlen = int(rng.integers(1, nf - start + 1))
    a, b = noise(rng, (rows, n), dtype), noise(rng, (1 if shared else rows, m), dtype)
    g = noise(rng, (rows, outlen), dtype)
    y = (kevra.conv_cplx_staged if cplx else kevra.conv_fft_staged)(a, b, nf, start, outlen)
    with Device() as device:
        ga = correlate(device, g, b, nf, start, m - 1, n, False, prec)
        gb = correlate(device, g, a, nf, start, n - 1, m, bool(shared), prec)
    wide = np.clongdouble
    for x, gx in (a, ga), (b, gb):
        ahead, back = (np.vdot(p.astype(wide), q.astype(wide)).real for p, q in ((g, y), (gx, x)))
        error = abs(ahead - back) / np.linalg.norm(y) / np.linalg.norm(g)
        assert error <= DOT[prec], f"{seed=} {rows=} {n=} {m=} {nf=} {start=} {outlen=} {prec=} {cplx=}: {error}"


def test_more_rows_than_a_launch_has_are_added_in_order():
    """Repeats are bit-identical, and half sums are rounded once."""
    rows = 70000
    gy = np.full((rows, 2), 2**-12, np.float16)
    gy[-1] = 1
    w = np.ones((1, 1), np.float16)
    with Device() as device:
        total = correlate(device, gy, w, 2, 0, 0, 2, True, HALF)
        np.testing.assert_array_equal(total, np.float16((rows - 1) * 2**-12 + 1))
        every = correlate(device, gy, w, 2, 0, 0, 2, False, HALF)
        np.testing.assert_allclose(every.astype(np.float32), gy.astype(np.float32), rtol=2**-10)
        gy, w = noise(np.random.default_rng(0), (900, 40), np.float32), np.ones((900, 3), np.float32)
        first = correlate(device, gy, w, 64, 3, 0, 64, True, FLOAT)
        for _ in range(20):
            np.testing.assert_array_equal(correlate(device, gy, w, 64, 3, 0, 64, True, FLOAT), first)


def test_guards():
    good = {"rows": 2, "rows_w": 1, "len_g": 8, "len_w": 3, "nf": 10, "off": 0, "sl_start": 2, "sl_len": 8,
            "sum_rows": False, "cplx": False, "prec": FLOAT}
    big = 2**63 - 1
    for change, text in [
        ({"off": 3}, r"off \+ len_g is 3 \+ 8, must be at most nf = 10"), ({"off": big, "len_g": big}, "off"),
        ({"sl_start": 3}, r"sl_start \+ sl_len is 3 \+ 8, must be at most nf = 10"), ({"sl_len": big}, "sl_start"),
        ({"len_w": 11}, "len_w is 11, must be at most nf = 10"), ({"nf": 2**31}, "nf is .* at most"),
        ({"nf": 0}, "nf is 0, must be at least 1"), ({"rows": -1}, "rows is -1, must be at least 0"),
        ({"len_g": 0}, "len_g is 0, must be at least 1"), ({"len_w": 0}, "len_w is 0"), ({"off": -1}, "off is -1"),
        ({"sl_start": -1}, "sl_start is -1"), ({"sl_len": -1}, "sl_len is -1"),
    ]:
        with pytest.raises(ValueError, match=f"^conv_adjoint: {text}"):
            kevra.conv_adjoint_resident(0, 0, 0, **(good | change))
    kevra.conv_adjoint_resident(0, 0, 0, **(good | {"rows": 0}))
    kevra.conv_adjoint_resident(0, 0, 0, **(good | {"sl_len": 0}))
    with Device() as device:
        for prec, cplx in (HALF, False), (HALF, True), (DOUBLE, True):
            dtype = COMPLEX[prec] if cplx else STORAGE[prec]
            none = np.zeros((0, 8), dtype)
            assert not correlate(device, none, none[:, :3], 10, 0, 2, 8, True, prec).any()


def after_a_failure():
    gy, w = np.ones((3, 8), np.float32), np.ones((1, 3), np.float32)
    with Device() as device:
        try:
            correlate(device, gy, w, 10, 0, 2, 8, True, FLOAT)
        except RuntimeError as error:
            return str(error), pools_in_use()[0], correlate(device, gy, w, 10, 0, 2, 8, True, FLOAT)[0, 3]


@pytest.mark.parametrize("buffer, nth, rows", [("pg", 1, "R"), ("pw", 2, "Rw")])
def test_a_failure_is_told_and_holds_nothing(buffer, nth, rows):
    message, held, total = fresh(after_a_failure, env={"KEVRA_CPU_FAIL": f"hipMemsetD8Async:{nth}"})
    assert f"memsetD8Async({buffer}.p, 0, (size_t){rows} * nf * es, (stream_t)stream)" in message
    assert held == 0 and total == pytest.approx(9, rel=1e-6)


@pytest.mark.parametrize("switch", [{"KEVRA_CPU_CHECK": "1"}, {"KEVRA_CPU_ORDER": "shuffle:1"}], ids=str)
def test_no_race_and_no_order(switch):
    fresh(run_case, 3, 1, 300, 29, 331, env=switch)
