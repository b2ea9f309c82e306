"""What the tests of gradients share: resident adjoints whose output is watched, and central differences."""

import numpy as np
from support import DOUBLE, FLOAT, STORAGE, Device

UNTOUCHED = 7
DIFFERENCES = 1e-6  # what central differences of a double function leave, at steps of 1e-4 some 1e-8
SINGLE = 1e-4  # of a float gradient against the double one, in the Euclidean norm


def run(call, inputs, shape, prec, repeats=1):
    """What ``call(*inputs, out, stream)`` writes, given addresses; every repeat must give the same bits."""
    dtype, count = STORAGE[prec], int(np.prod(shape))
    results = []
    with Device() as device:
        addresses = [device.upload(np.asarray(x).astype(dtype)) or 0 for x in inputs]
        stream = device.stream()
        out = device.upload(np.full(count + 64, UNTOUCHED, dtype))
        for _ in range(repeats):
            call(*addresses, out, stream)
            device.synchronize(stream)
            flat = device.download(out, count + 64, dtype)
            np.testing.assert_array_equal(flat[count:], UNTOUCHED)
            results.append(flat[:count].reshape(shape))
    assert all(r.tobytes() == results[0].tobytes() for r in results)
    return results[0]


def central_differences(forward, x, gy):
    """Of sum(gy forward(x)), where rows of the first axis do not see each other: one call for all shifted copies."""
    rows, n = len(x), x[0].size
    step = 1e-4 * abs(x).reshape(rows, n)
    moved = np.repeat(x.reshape(1, 1, rows, n), 2 * n, axis=1).reshape(2, n, rows, n)
    each = np.arange(n)
    moved[0, each, :, each] += step.T
    moved[1, each, :, each] -= step.T
    width = moved[0, each, :, each] - moved[1, each, :, each]  # as rounded
    y = forward(moved.reshape(-1, *x.shape[1:])).reshape(2, n, rows, -1)
    return np.einsum("jrk,rk->rj", y[0] - y[1], gy.reshape(rows, -1)).reshape(rows, n) / width.T


def assert_close(got, want, bound, what):
    """Row by row, in the Euclidean norm."""
    got, want = (np.asarray(a, np.float64).reshape(len(got), -1) for a in (got, want))
    error = np.linalg.norm(got - want, axis=1) / np.maximum(np.linalg.norm(want, axis=1), 1e-300)
    assert (error <= bound).all(), f"{what}: {error}"


def assert_gradient(forward, adjoint, x, gy, what):
    """``forward(x)`` in double, ``adjoint(x, gy, prec)`` in both precisions."""
    got = adjoint(x, gy, DOUBLE)
    assert_close(got, central_differences(forward, x, gy), DIFFERENCES, what)
    assert_close(adjoint(x, gy, FLOAT), got, SINGLE, what)
