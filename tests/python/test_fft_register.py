"""Complex transforms on the kernels that keep their rows in registers, by default and by hint."""

import numpy as np
import pytest
from support import DOUBLE, FLOAT, HALF, Device, assert_fft, fft_reference, fresh
from test_fft import DIRECTIONS, PACKED, check, complex_of, hint, resident, signal

NAMES = {HALF: "half", FLOAT: "float", DOUBLE: "double", PACKED: "packed"}
# Route, size, precision, hint.
ROUTES = [
    *[("two-pass", n, prec, {}) for n in (64, 121, 256) for prec in (HALF, FLOAT, DOUBLE, PACKED)],
    ("two-pass", 169, DOUBLE, {}),
    ("three-pass", 343, DOUBLE, {}),
    ("three-pass", 1331, DOUBLE, {"fpb": 1}),
    *[("uniform radices", n, prec, {}) for n in (96, 384, 625, 1000) for prec in (HALF, FLOAT, DOUBLE)],
    *[("windows", n, prec, {}) for n, prec in
      ((512, FLOAT), (4096, FLOAT), (8192, FLOAT), (512, HALF), (1024, HALF), (2048, HALF), (2048, DOUBLE))],
    *[("in order", n, prec, {"core": 2, "var": var}) for n, prec, var in
      ((8, FLOAT, 0), (32, HALF, 0), (128, DOUBLE, 0), (1024, FLOAT, 0), (512, FLOAT, 8), (2048, DOUBLE, 8),
       (96, FLOAT, 8), (1000, DOUBLE, 8))],
    *[("wished windows", n, prec, {"core": 2, "var": 8}) for n, prec in ((8, FLOAT), (32, DOUBLE), (1024, FLOAT))],
    *[("wished radices", n, prec, {"core": 2}) for n, prec in ((72, FLOAT), (216, DOUBLE), (200, HALF), (22, FLOAT))],
    ("wished radices", 1000, FLOAT, {"ept": 20}),
    ("packed inverse in float", 512, PACKED, {"core": 2}),
]


def label(value):
    route, n, prec, wish = value
    return f"{route} {n} {NAMES[prec]} {wish or ''}"


def assert_in_halves(got, want, what):
    """Half arithmetic, or values that pass through halves between stages: every stage rounds to eleven bits."""
    n = want.shape[-1]
    error = np.linalg.norm(got - want, axis=-1) / np.linalg.norm(want, axis=-1)
    assert (error < 2**-11 * np.sqrt(np.log2(n))).all(), f"{what}: {error}"


@pytest.mark.parametrize("direction", DIRECTIONS)
@pytest.mark.parametrize("route", ROUTES, ids=map(label, ROUTES))
def test_register_routes(route, direction):
    _, n, prec, wish = route
    inverse = DIRECTIONS[direction]
    hint(n, prec, inverse, **wish)
    with Device() as device:
        parts, got = check(device, 11, n, prec, inverse, device.stream())
        np.testing.assert_array_equal(resident(device, parts, inverse, prec, in_place=True), got)
        # A row alone runs in another compile of the kernel than rows side by side may.
        alone = resident(device, parts[:1], inverse, prec).astype(float)
        assert np.abs(alone - got[:1]).max() <= 4 * np.finfo(got.dtype).eps * np.abs(got[:1]).max()
        hint(n, prec, inverse, core=1)
        shared = resident(device, parts, inverse, prec)
    if prec in (FLOAT, DOUBLE):  # the kernels round differently: the route was taken
        assert (shared != got).any() or n < 16


@pytest.mark.parametrize("n", [512, 1024, 2048, 4096])
def test_packed_rows(n):
    with Device() as device:
        for rows in 1, 2, 7:
            parts = signal(rows, n, PACKED)
            want = fft_reference(complex_of(parts), False)
            got = resident(device, parts, False, PACKED)
            assert_in_halves(complex_of(got), want, f"{n=} {rows=}")
            np.testing.assert_array_equal(resident(device, parts, False, PACKED, in_place=True), got)


@pytest.mark.parametrize("n", [512, 1024, 2048])
def test_exchange_through_halves(n):
    with Device() as device:
        for inverse in False, True:
            hint(n, HALF, inverse, var=2)
            parts = signal(5, n, HALF)
            if inverse:  # so that 1 / n leaves no subnormal results
                parts = (parts * np.float16(16)).astype(np.float16)
            got = resident(device, parts, inverse, HALF)
            assert_in_halves(complex_of(got), fft_reference(complex_of(parts), inverse), f"{n=} {inverse=}")


@pytest.mark.parametrize("wish", [
    {"fpb": 1}, {"fpb": 3}, {"fpb": 10**9}, {"ept": 1}, {"ept": 3, "core": 2}, {"ept": 4, "core": 2},
    {"ept": 10**9, "core": 2}, {"ept": 32, "core": 2, "fpb": 2, "var": 8}, {"core": 99}, {"var": 2**31 - 1},
    {"ept": -5, "fpb": -1, "tpf": -1, "core": -1, "var": -1}], ids=str)
def test_wishes_never_break_a_transform(wish):
    with Device() as device:
        for n, prec in (64, FLOAT), (343, DOUBLE), (96, FLOAT), (512, DOUBLE), (40, HALF):
            hint(n, prec, False, **wish)
            check(device, 5, n, prec, False)


def checked_routes(cases):
    with Device() as device:
        for n, prec, inverse, wish in cases:
            hint(n, prec, inverse, **wish)
            parts = signal(7, n, prec)
            got = complex_of(resident(device, parts, inverse, prec, in_place=inverse))
            want = fft_reference(complex_of(parts), inverse)
            if prec == PACKED or "var" in wish:
                assert_in_halves(got, want, f"{n=}")
            else:
                assert_fft(got, want, prec, f"{n=} {prec=} {inverse=}")


def test_check_mode_finds_nothing():
    cases = [(n, prec, inverse, wish) for inverse in (False, True) for n, prec, wish in (
        (64, FLOAT, {}), (343, DOUBLE, {}), (96, FLOAT, {}), (512, FLOAT, {"fpb": 2}), (512, DOUBLE, {}),
        (32, FLOAT, {"core": 2}))]
    cases += [(512, PACKED, False, {}), (512, HALF, False, {"var": 2})]
    fresh(checked_routes, cases, env={"KEVRA_CPU_CHECK": "1"})
