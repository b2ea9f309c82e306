"""Transforms of lengths with a large prime factor, in shared memory and through device memory."""

import json

import kevra
import numpy as np
import pytest
from kevra import _diagnostics
from support import DOUBLE, FLOAT, HALF, Device, assert_fft, fft_reference, fresh, too_many_blocks_to_check
from test_fft import DIRECTIONS, PARTS, check, complex_of, resident, signal

SIZES = {
    "the least": (41,),
    "padded with 3, 5 and 7": (53, 101),
    "padded to a power of two": (127, 509),
    "twice and four times a prime": (254,),
    "long": (1031, 1801),
    "through device memory in double": (1823, 2039),
}
HALF_SIZES = (41, 127, 254, 1801)


@pytest.mark.parametrize("direction", DIRECTIONS)
@pytest.mark.parametrize("n", [pytest.param(n, id=f"{n} {label}") for label, sizes in SIZES.items() for n in sizes])
def test_transforms_in_every_precision(n, direction):
    assert kevra.route_explain("fft", n, FLOAT)["bluestein"]
    inverse = DIRECTIONS[direction]
    with Device() as device:
        streams = {HALF: 0, FLOAT: device.stream(), DOUBLE: device.stream(1)}
        for prec, stream in streams.items():
            if prec == HALF and n not in HALF_SIZES:
                continue
            parts, got = check(device, 5, n, prec, inverse, stream)
            np.testing.assert_array_equal(resident(device, parts, inverse, prec, stream, in_place=True), got)
            if prec != HALF:
                np.testing.assert_array_equal(kevra.fft_staged(complex_of(parts), inverse), complex_of(got))


@pytest.mark.parametrize("direction", DIRECTIONS)
@pytest.mark.parametrize("n", [
    pytest.param(3833, id="3833 the longest of a block"),
    pytest.param(3847, id="3847 through device memory"),
    *[pytest.param(n, id=f"{n} in four steps") for n in (4099, 2 * 8191, 65537, 131071)]])
def test_long_rows(n, direction):
    with Device() as device:
        for prec in FLOAT, DOUBLE, *([HALF] if n < 8192 else []):  # longer spectra leave the range of halves
            check(device, 3, n, prec, DIRECTIONS[direction])


@pytest.mark.parametrize("n", [127, 2039])
@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
def test_the_inverse_undoes_the_forward(n, prec):
    x = complex_of(signal(3, n, prec))
    back = kevra.fft_staged(kevra.fft_staged(x, False), True)
    assert_fft(back, x.astype(np.clongdouble), prec, "the inverse of the forward", times=2)


@too_many_blocks_to_check
@pytest.mark.parametrize("rows", [65535, 65536, 131075])
def test_rows_past_one_launch_of_the_grid(rows):
    distinct = complex_of(signal(5, 41, HALF))
    x = np.resize(distinct, (rows, 41))
    x[-1] *= 2
    with Device() as device:
        parts = x.view(np.float32).reshape(rows, 41, 2).astype(np.float16)
        got = complex_of(resident(device, parts, False, HALF))
    few = np.r_[0:7, rows // 2, 65530:65535, rows - 70:rows]
    assert_fft(got[few], fft_reference(x[few], False), HALF, f"{rows=}")
    np.testing.assert_array_equal(got[:-1], np.resize(got[:5], (rows - 1, 41)))


def memory_of_one_call(rows, n):
    with Device() as device:
        parts = signal(rows, n, HALF)
        resident(device, parts, False, HALF)
        first = _diagnostics.read()["pools"]["device"]
        resident(device, parts, False, HALF)
        return first, _diagnostics.read()["pools"]["device"]


@pytest.mark.parametrize("rows, n", [(1500, 127), pytest.param(40, 8191, id="40-8191 in four steps")])
def test_device_memory_holds_one_intermediate(rows, n):
    first, second = fresh(memory_of_one_call, rows, n)
    assert second == first, "tables and intermediate serve again"
    assert first["cached_blocks"] == 1
    padded = kevra.route_explain("fft", n, HALF)["bluestein_m"]
    assert rows * padded * 8 <= first["cached_bytes"] < 1.5 * rows * padded * 8


def bits_of_results():
    with Device() as device:
        return [resident(device, signal(3, n, prec), inverse, prec).tobytes()
                for n, prec in ((41, FLOAT), (53, DOUBLE), (254, HALF)) for inverse in (False, True)]


def test_the_order_of_threads_and_blocks_changes_no_bit():
    want = fresh(bits_of_results, env={"KEVRA_CPU_ORDER": "forward"})
    for order in "reverse", "shuffle:5":
        assert fresh(bits_of_results, env={"KEVRA_CPU_ORDER": order}) == want, order


def checked_transforms(cases):
    with Device() as device:
        for n, prec, inverse in cases:
            parts = signal(4, n, prec)
            got = resident(device, parts, inverse, prec, in_place=inverse)
            assert_fft(complex_of(got), fft_reference(complex_of(parts), inverse), prec, f"{n=} {prec=} {inverse=}")


def test_check_mode_finds_nothing_and_a_row_in_shared_memory_moves_once(tmp_path):
    cases = [(n, prec, inverse) for n, prec in ((127, FLOAT), (82, DOUBLE), (53, HALF), (1823, DOUBLE), (8191, FLOAT))
             for inverse in (False, True)]
    profile = tmp_path / "profile"
    fresh(checked_transforms, cases, env={"KEVRA_CPU_CHECK": "1", "KEVRA_CPU_PROFILE": profile})
    launches = [json.loads(line) for line in profile.read_text().splitlines()]
    assert len(launches) == 4 + 4 * 5 + 2 * 7
    for case, launch in zip(cases[:4], launches):
        n, prec, _ = case
        row = 2 * n * np.dtype(PARTS[prec]).itemsize
        assert launch["bytes_written"] == 4 * row, case


def on_two_devices():
    results = {0: set(), 1: set()}
    for index in 1, 0, 1, 0:
        with Device(index) as device:
            for prec in FLOAT, HALF:  # one form each
                results[index].add(check(device, 3, 41, prec, False, device.stream())[1].tobytes())
    assert results[0] == results[1]


def test_devices_have_tables_and_plans_of_their_own():
    fresh(on_two_devices, env={"KEVRA_CPU_DEVICES": "2"})
