"""Gradients of the way from bands to bins: against numpy in extended precision, and as the transpose of the forward."""

import itertools

import kevra
import numpy as np
import pytest
from support import DOUBLE, FLOAT, HALF, STORAGE, UNIT, Device, fresh, pools_in_use

# Rows, bands, bins: single values, a block's worth of results and one to either side, sums of fewer than four terms.
SHAPES = [(1, 1, 1), (3, 2, 5), (5, 51, 3), (1, 256, 4), (257, 1, 5), (7, 40, 201), (60, 128, 513)]
new_key = (f"test adjoint {i}" for i in itertools.count()).__next__


def case(rows, n_in, n_out):
    """Bands and a matrix of small whole numbers: both precisions know exactly which bins are negative, and which 0."""
    rng = np.random.default_rng(n_out)
    m, matrix = rng.integers(-3, 4, (rows, n_in)), rng.integers(-3, 4, (n_out, n_in))
    m[:1] = 0
    return m.astype(np.float64), matrix.astype(np.float64), rng.standard_normal((rows, n_out))


def resident(m, g, matrix, key, clamp, prec, repeats=1):
    dtype = STORAGE[prec]
    count = m.size
    with Device() as at:
        # What stands behind the bands has to stay.
        out = at.upload(np.full(count + 64, 7, dtype))
        bands, gradient, stream = at.upload(m.astype(dtype)), at.upload(g.astype(dtype)), at.stream()
        results = []
        for _ in range(repeats):
            kevra.inverse_mel_scale_adjoint_resident(bands if clamp else 0, gradient, out, len(m), matrix, key, clamp,
                                                     prec, 0, stream)
            at.synchronize(stream)
            flat = at.download(out, count + 64, dtype)
            results.append(flat[:count].reshape(m.shape))
            np.testing.assert_array_equal(flat[count:], 7)
    assert all(r.tobytes() == results[0].tobytes() for r in results)
    return results[0]


@pytest.mark.parametrize("shape", SHAPES, ids=str)
def test_gradients(shape):
    m, matrix, g = case(*shape)
    for prec, clamp in itertools.product((FLOAT, DOUBLE), (False, True)):
        given = g.astype(STORAGE[prec]).astype(np.longdouble)
        passed = np.where(m @ matrix.T < 0, 0, given) if clamp else given
        got = resident(m, g, matrix, new_key(), clamp, prec, repeats=3)
        tolerance = UNIT[prec][1] * (shape[2] / 4 + 5) * (abs(passed) @ abs(matrix))
        assert (abs(got - passed @ matrix) <= tolerance).all(), (prec, clamp)


def test_transpose_of_the_forward():
    """A matrix that is no whole numbers, under one key with the forward pass: <Pm, g> is <m, P'g>."""
    rng = np.random.default_rng(5)
    for rows, n_in, n_out in SHAPES:
        m, g = rng.standard_normal((rows, n_in)), rng.standard_normal((rows, n_out))
        matrix, key = rng.standard_normal((n_out, n_in)), new_key()
        for prec, bound in (FLOAT, 1e-6), (DOUBLE, 1e-13):
            bins = kevra.inverse_mel_scale_staged(m.astype(STORAGE[prec]), matrix, key, False).astype(np.float64)
            back = resident(m, g, matrix, key, False, prec).astype(np.float64)
            off = abs((bins * g).sum() - (m * back).sum()) / (np.linalg.norm(bins) * np.linalg.norm(g))
            assert off <= bound, (rows, n_in, n_out, prec)


def every_shape():
    return [resident(*case(*shape)[::2], case(*shape)[1], str(shape), clamp, prec).tobytes()
            for shape in SHAPES for clamp in (False, True) for prec in (FLOAT, DOUBLE)]


def test_check_mode_finds_nothing_and_no_order_changes_a_bit():
    want = fresh(every_shape, env={"KEVRA_CPU_ORDER": "forward"})
    assert fresh(every_shape, env={"KEVRA_CPU_ORDER": "shuffle:1"}) == want
    fresh(every_shape, env={"KEVRA_CPU_CHECK": "1"})


def test_refusals_and_nothing_for_no_rows():
    matrix = np.ones((9, 6))
    before = pools_in_use()
    call = kevra.inverse_mel_scale_adjoint_resident
    call(0, 0, 0, 0, matrix, new_key(), True, FLOAT)
    for prec in HALF, 3:
        with pytest.raises(ValueError, match="^inverse_mel_scale: half gradients compute in f32 - upcast$"):
            call(0, 0, 0, 1, matrix, new_key(), True, prec)
    for given in matrix[0], 1.0:
        with pytest.raises(ValueError, match="^invalid axis"):
            call(0, 0, 0, 1, given, new_key(), True, FLOAT)
    # Six bands and one bin: more results here than in the forward pass.
    for frames, given in (-1, matrix), (2**38, matrix[:1]):
        with pytest.raises(ValueError, match=f"^inverse_mel_scale: frames is {frames}, must be at"):
            call(0, 0, 0, frames, given, new_key(), True, FLOAT)
    assert pools_in_use() == before
