"""Transforms of rows too long for one block's shared memory, by two passes through device memory."""

import json

import kevra
import numpy as np
import pytest
import scipy.fft
from kevra import _diagnostics
from support import DOUBLE, FLOAT, HALF, Device, assert_fft, fft_reference, fresh, too_many_blocks_to_check
from test_fft import DIRECTIONS, PARTS, check, complex_of, resident, signal

SIZES = {
    "powers of two": (16384, 32768, 131072),
    "smooth": (10000, 48000, 100000),
    "columns of odd length": (3**9, 44100),
    "columns of prime length": (10403, 11449),
}
LARGE = 2**20
# Under this limit the route begins at a few hundred values: its kernels compile at once, and rows are cheap.
SMALL = {"KEVRA_CPU_SHARED_LIMIT": "1024"}


@pytest.mark.parametrize("direction", DIRECTIONS)
@pytest.mark.parametrize("n", [pytest.param(n, id=f"{n} {label}") for label, sizes in SIZES.items() for n in sizes])
def test_transforms_in_every_precision(n, direction):
    inverse = DIRECTIONS[direction]
    with Device() as device:
        for prec, stream in (FLOAT, device.stream()), (DOUBLE, 0), (HALF, device.stream()):
            parts, got = check(device, 3, n, prec, inverse, stream)
            np.testing.assert_array_equal(resident(device, parts, inverse, prec, stream, in_place=True), got)


@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
def test_a_million_values_and_back(prec):
    x = complex_of(signal(1, LARGE, prec))
    forward = kevra.fft_staged(x, False)
    assert_fft(forward, fft_reference(x, False), prec, "forward")
    assert_fft(kevra.fft_staged(forward, True), x.astype(np.clongdouble), prec, "and back", times=2)


# Halves of 2^16, 3 2^14 and 10^5 end in the second pass; of 39366 and 44100 they are split behind it.
@pytest.mark.parametrize("n", [2**16, 49152, 100000, 39366, 44100])
@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
def test_real_rows_and_back(n, prec):
    x = signal(3, n, prec)[..., 0].copy()
    forward = kevra.rfft_staged(x)
    assert_fft(forward, scipy.fft.rfft(x.astype(np.longdouble)), prec, f"{n=} {prec=}", op="rfft", n=n)
    forward[:, [0, -1]] += 5j  # to be ignored
    assert_fft(kevra.irfft_staged(forward, n), x.astype(np.longdouble), prec, f"{n=} {prec=}, back", times=2,
               op="rfft", n=n)


@pytest.mark.parametrize("n", [32768, 39366])
def test_real_rows_in_half_storage(n):
    with Device() as device:
        x = signal(3, n, HALF)[..., 0].copy()
        bins = device.empty(3 * (n + 2), np.float16)
        back = device.empty(x.size, np.float16)
        kevra.rfft_resident(device.upload(x), bins, 3, n, HALF, device.index, 0)
        kevra.irfft_resident(bins, back, 3, n, HALF, device.index, 0)
        device.synchronize(0)
        got = device.download(bins, (3, n // 2 + 1, 2), np.float16)
        want = scipy.fft.rfft(x.astype(np.longdouble))
        assert_fft(complex_of(got), want, HALF, f"{n=}", op="rfft", n=n)
        want = scipy.fft.irfft(complex_of(got).astype(np.clongdouble), n)
        got = device.download(back, x.shape, np.float16).astype(np.complex64)
        assert_fft(got, want.astype(np.clongdouble), HALF, f"{n=}, back", op="rfft", n=n)


def many_rows(rows, n):
    with Device() as device:
        for prec, inverse in (FLOAT, False), (DOUBLE, True):
            check(device, rows, n, prec, inverse)


@too_many_blocks_to_check
def test_rows_past_one_launch_of_the_grid():
    fresh(many_rows, 65537, 20, env={"KEVRA_CPU_SHARED_LIMIT": "96"})


def memory_of_calls(calls, n, rows):
    """Blocks and bytes of device memory that each call has taken from an empty pool."""
    taken = []
    with Device() as device:
        x, out = (device.upload(np.zeros(rows * (n + 2) * 2, np.float32)) for _ in range(2))
        for name, *arguments in calls:
            kevra.drain_pool()
            getattr(kevra, name)(x, out, rows, *arguments, device.index, 0)
            device.synchronize(0)
            pool = _diagnostics.read()["pools"]["device"]
            taken.append((pool["cached_blocks"], pool["cached_bytes"]))
    return taken


def test_device_memory_holds_one_intermediate():
    n, rows = 2**16, 20
    odd = 2 * 3**9  # no middle column
    calls = [("fft_resident", n, False, FLOAT), ("fft_resident", n, True, HALF), ("rfft_resident", n, HALF),
             ("irfft_resident", n, FLOAT), ("irfft_resident", n, HALF), ("rfft_resident", odd, FLOAT)]
    values = [n, n, n // 2, n // 2, n // 2, odd // 2]
    for call, count, (blocks, size) in zip(calls, values, fresh(memory_of_calls, calls, n, rows)):
        assert blocks == 1, call
        assert rows * count * 8 <= size < 1.5 * rows * count * 8, call


def short_rows():
    """Bits of complex and real rows, all checked against the reference, under SMALL."""
    bits = []
    with Device() as device:
        for n, prec, inverse in (480, FLOAT, False), (525, DOUBLE, True), (512, HALF, True), (289, FLOAT, True):
            bits.append(check(device, 3, n, prec, inverse)[1].tobytes())
            resident(device, signal(3, n, prec), inverse, prec, in_place=True)
    for n, prec in (960, FLOAT), (480, DOUBLE), (1000, FLOAT):  # 500 = 20 25 has no middle column
        x = signal(3, n, prec)[..., 0].copy()
        forward = kevra.rfft_staged(x)
        back = kevra.irfft_staged(forward, n)
        assert_fft(forward, scipy.fft.rfft(x.astype(np.longdouble)), prec, f"{n=}", op="rfft", n=n)
        assert_fft(back, x.astype(np.longdouble), prec, f"{n=}, back", times=2, op="rfft", n=n)
        # A compiler may contract the way back otherwise in another order of threads.
        bits += [forward.tobytes()] + [back.tobytes()] * (prec == FLOAT)
    return bits


def test_the_order_of_threads_and_blocks_changes_no_bit():
    want = fresh(short_rows, env={**SMALL, "KEVRA_CPU_ORDER": "forward"})
    for order in "reverse", "shuffle:7":
        assert fresh(short_rows, env={**SMALL, "KEVRA_CPU_ORDER": order}) == want, order


def test_check_mode_finds_nothing_and_each_pass_moves_its_rows_once(tmp_path):
    profile = tmp_path / "profile"
    fresh(short_rows, env={**SMALL, "KEVRA_CPU_CHECK": "1", "KEVRA_CPU_PROFILE": profile})
    launches = [json.loads(line) for line in profile.read_text().splitlines()]
    first, second = launches[:2]  # complex floats, 480 to a row
    for launch in first, second:
        assert launch["bytes_read"] == launch["bytes_written"] == 3 * 480 * 8
    split = [launch for launch in launches if launch["kernel"] == "kevra_rfft2"]
    assert [launch["bytes_written"] for launch in split] == [3 * 481 * 8, 3 * 241 * 16], "every bin is stored once"


def convolved(n):
    with Device() as device:
        check(device, 2, n, DOUBLE, False)


def test_a_length_of_large_primes_without_a_split_is_a_convolution():
    # 29 and 1147, 31 and 1073, 37 and 899: the longer column never fits.
    fresh(convolved, 29 * 31 * 37, env={"KEVRA_CPU_SHARED_LIMIT": "6144"})


def refused():
    with Device() as device, pytest.raises(ValueError, match="^fft: n exceeds the device shared-memory limit$"):
        kevra.fft_resident(0, 0, 1, 2**14, False, DOUBLE, device.index, 0)


def test_refuses_lengths_of_small_primes_without_a_split():
    fresh(refused, env=SMALL)
