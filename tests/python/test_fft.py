"""Complex transforms against a reference in extended precision; hints, plans and route reports."""

import json

import kevra
import numpy as np
import pytest
from support import DOUBLE, FLOAT, HALF, Device, assert_fft, fft_reference, fresh, pools_in_use

PACKED = 3
PARTS = {HALF: np.float16, FLOAT: np.float32, DOUBLE: np.float64, PACKED: np.float16}
WIDTH = {HALF: 16, FLOAT: 32, DOUBLE: 64, PACKED: 8}  # what set_shape_hint calls prec
DIRECTIONS = {"forward": False, "inverse": True}
SIZES = {
    "one butterfly": range(1, 17),
    "powers of two": (32, 64, 128, 512, 1024, 4096),
    "powers of an odd radix": (25, 81, 121, 343, 2187, 2197),
    "8 after the odd radices": (24, 40, 360, 600),
    "odd, mixed": (45, 1001, 3003),
    "even, mixed": (22, 96, 98, 130, 182, 720, 1250, 4000),
    "a prime stage": (17, 29, 34, 57, 272, 1128),
}
HALF_SIZES = (17, 34, 1, 2, 3, 4, 6, 8, 13, 16, 25, 40, 45, 98, 360, 512, 1001, 4096)


@pytest.fixture(autouse=True)
def no_hints():
    yield
    kevra.shape_hint_clear()


def hint(n, prec, inverse, device=0, ept=0, fpb=0, tpf=0, core=0, var=0):
    kevra.set_shape_hint("fft", n, 0, inverse, WIDTH[prec], "", 0, device, ept, fpb, tpf, core, var)


def signal(rows, n, prec, seed=1):
    """Real and imaginary parts in the precision's storage; rows of very different sizes."""
    values = np.random.default_rng(seed).standard_normal((rows, n, 2))
    return (values * np.logspace(-2, 1, rows)[:, None, None]).astype(PARTS[prec])


def complex_of(parts):
    if parts.dtype == np.float16:
        parts = parts.astype(np.float32)
    return parts.view(np.result_type(parts.dtype, np.complex64))[..., 0]


def resident(device, parts, inverse, prec, stream=0, in_place=False):
    x = device.upload(parts)
    # What stands behind the rows has to stay.
    out = x if in_place else device.upload(np.full(parts.size + 64, 7, parts.dtype))
    kevra.fft_resident(x, out, *parts.shape[:2], inverse, prec, device.index, stream)
    device.synchronize(stream)
    if not in_place:
        flat = device.download(out, parts.size + 64, parts.dtype)
        np.testing.assert_array_equal(flat[parts.size:], 7)
        return flat[:parts.size].reshape(parts.shape)
    return device.download(out, parts.shape, parts.dtype)


def check(device, rows, n, prec, inverse, stream=0):
    parts = signal(rows, n, prec, seed=n)
    got = resident(device, parts, inverse, prec, stream)
    what = f"{n=} {rows=} {prec=} {inverse=}"
    assert_fft(complex_of(got), fft_reference(complex_of(parts), inverse), prec, what)
    return parts, got


@pytest.mark.parametrize("direction", DIRECTIONS)
@pytest.mark.parametrize("n", [pytest.param(n, id=f"{n} {label}") for label, sizes in SIZES.items() for n in sizes])
def test_transforms_in_every_precision(n, direction):
    inverse = DIRECTIONS[direction]
    rows = 11  # of no rows-per-block a multiple
    with Device() as device:
        streams = {HALF: 0, FLOAT: device.stream(), DOUBLE: device.stream(1), PACKED: device.stream()}
        for prec, stream in streams.items():
            if PARTS[prec] == np.float16 and n not in HALF_SIZES:
                continue
            hint(n, prec, inverse, core=1)  # the shared-memory kernel where another one is the default
            parts, got = check(device, rows, n, prec, inverse, stream)
            np.testing.assert_array_equal(resident(device, parts, inverse, prec, stream, in_place=True), got)
            if prec in (FLOAT, DOUBLE):
                staged = kevra.fft_staged(complex_of(parts), inverse)
                np.testing.assert_array_equal(staged, complex_of(got))


@pytest.mark.parametrize("n", [15, 16, 360, 1024])
@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
def test_keeps_what_every_transform_keeps(n, prec):
    for inverse in False, True:
        hint(n, prec, inverse, core=1)
    x, y = complex_of(signal(2, n, prec))[:, None] * 3
    forward = kevra.fft_staged(x, False)
    assert_fft(kevra.fft_staged(forward, True), x.astype(np.clongdouble), prec, "the inverse of the forward", times=2)
    energy = np.square(abs(forward.astype(np.clongdouble))).sum() / np.square(abs(x.astype(np.clongdouble))).sum()
    assert abs(energy / n - 1) < 100 * np.finfo(x.dtype).eps
    mixed = (x - 2j * y).astype(x.dtype)
    assert_fft(kevra.fft_staged(mixed, False), forward.astype(np.clongdouble) - 2j * kevra.fft_staged(y, False), prec,
               "linearity", times=4)
    places = np.arange(0, n, max(n // 7, 1))
    turns = places[:, None] * np.arange(n) % n
    roots = np.exp(-2j * np.arctan(np.longdouble(1)) * 4 * turns / n)
    assert_fft(kevra.fft_staged(np.eye(n, dtype=x.dtype)[places], False), roots, prec, "shifted impulses")


@pytest.mark.parametrize("fpb", [1, 2, 3, 7, 64])
def test_surplus_rows_of_a_block_change_nothing(fpb):
    hint(20, FLOAT, False, fpb=fpb)
    with Device() as device:
        for rows in {1, max(fpb - 1, 1), fpb, fpb + 1, 3 * fpb + 1}:
            check(device, rows, 20, FLOAT, False)


@pytest.mark.parametrize("rows, n, prec", [(70001, 8, FLOAT), (1501, 1001, DOUBLE), (20001, 98, HALF)])
def test_large_batches(rows, n, prec):
    hint(n, prec, False, fpb=1)  # a block for each row
    with Device() as device:
        check(device, rows, n, prec, False)


@pytest.mark.parametrize("wish", [
    {"tpf": 7, "fpb": 5}, {"tpf": 1000}, {"fpb": 10**9}, {"var": 4}, {"var": 5, "tpf": 33, "fpb": 2},
    {"ept": -5, "fpb": -1, "tpf": -1, "core": -1, "var": -1}], ids=str)
def test_wishes_change_the_kernel_and_not_the_result(wish):
    with Device() as device:
        for n in 75, 200:
            for prec, inverse in (DOUBLE, False), (FLOAT, True), (HALF, False):
                hint(n, prec, inverse, **wish)
                check(device, 5, n, prec, inverse)


def test_a_hint_counts_at_once_and_for_its_own_shape_alone():
    x = complex_of(signal(3, 40, FLOAT))
    calls = [(x, False), (x, True), (x.astype(complex), False), (x[:, :39], False)]
    want = [kevra.fft_staged(*call) for call in calls]
    for _ in range(2):
        hint(40, FLOAT, False, core=2)  # the register kernel has other radices and rounds differently
        assert (kevra.fft_staged(x, False) != want[0]).any()
        for call, unhinted in zip(calls[1:], want[1:]):
            np.testing.assert_array_equal(kevra.fft_staged(*call), unhinted)
        kevra.shape_hint_clear()
        np.testing.assert_array_equal(kevra.fft_staged(x, False), want[0])


def on_two_devices():
    hint(40, FLOAT, False, device=1, core=2)
    results = {0: set(), 1: set()}
    for index in 1, 0, 1, 0:
        with Device(index) as device:
            for prec in DOUBLE, HALF:  # double reads a table: one for each device
                check(device, 5, 40, prec, True, device.stream())
            results[index].add(check(device, 5, 40, FLOAT, False)[1].tobytes())
    assert len(results[0]) == len(results[1]) == 1 and results[0] != results[1]


def test_devices_have_tables_plans_and_hints_of_their_own():
    fresh(on_two_devices, env={"KEVRA_CPU_DEVICES": "2"})


LAYOUTS = {
    "complex": lambda x: x,
    "complex64": lambda x: x.astype(np.complex64),
    "reals": lambda x: x.real,
    "integers": lambda x: (10 * x.real).astype(np.int16),
    "booleans": lambda x: x.real > 0,
    "float16": lambda x: x.real.astype(np.float16),
    "extended": lambda x: x.astype(np.clongdouble),
    "Fortran order": np.asfortranarray,
    "strides": lambda x: np.repeat(x, 3, axis=1)[::1, ::3],
    "negative strides": lambda x: x[::-1, ::-1],
    "broadcast": lambda x: np.broadcast_to(x[:1], x.shape),
    "unaligned": lambda x: np.frombuffer(b"\0" + x.tobytes(), np.uint8)[1:].view(x.dtype).reshape(x.shape),
}


@pytest.mark.parametrize("layout", LAYOUTS)
def test_takes_arrays_of_every_layout(layout):
    x = LAYOUTS[layout](complex_of(signal(3, 45, DOUBLE)))
    x.flags.writeable = False
    computed = x.astype(np.complex128 if x.dtype == np.complex128 else np.complex64)
    got = kevra.fft_staged(x, False)
    assert got.shape == x.shape and got.dtype == computed.dtype and got.flags.c_contiguous
    assert_fft(got, fft_reference(computed, False), DOUBLE if got.itemsize == 16 else FLOAT, layout)


def test_refuses_what_is_no_batch_of_rows():
    x = np.ones((2, 20), np.complex64)
    before = pools_in_use()
    for bad in x[0], x[None], np.complex64(1):
        with pytest.raises(ValueError, match=r"^fft: x must be \[B, N\] complex$"):
            kevra.fft_staged(np.asarray(bad), False)
    for bad, words in (x[:0], "batch is 0"), (x[:, :0], "n is 0"):
        with pytest.raises(ValueError, match=f"^fft: {words}, must be at least 1"):
            kevra.fft_staged(bad, False)
    for bad, kind in (x.tolist(), TypeError), (None, TypeError), (np.array([["a"]]), ValueError):
        with pytest.raises(kind):
            kevra.fft_staged(bad, False)
    for rows, n, words in (0, 8, "batch is 0"), (2**31, 8, "batch is 2147483648"), (1, -1, "n is -1"):
        with pytest.raises(ValueError, match=f"^fft: {words}"):
            kevra.fft_resident(0, 0, rows, n, False, FLOAT, 0, 0)
    with pytest.raises(ValueError, match="^fft: n exceeds the device shared-memory limit"):
        kevra.fft_resident(0, 0, 1, 2**23, False, DOUBLE, 0, 0)
    with pytest.raises(RuntimeError, match="SetDevice"):
        kevra.fft_resident(0, 0, 1, 8, False, FLOAT, 99, 0)
    assert pools_in_use() == before
    np.testing.assert_array_equal(kevra.fft_staged(x, False)[:, 0], 20)


def bits_of_results():
    with Device() as device:
        return [resident(device, signal(5, n, prec), inverse, prec).tobytes() for n in (7, 40, 98, 600)
                for prec, inverse in ((FLOAT, False), (DOUBLE, True), (HALF, False))]


def test_the_order_of_threads_and_blocks_changes_no_bit():
    want = fresh(bits_of_results, env={"KEVRA_CPU_ORDER": "forward"})
    for order in "reverse", "shuffle:11":
        assert fresh(bits_of_results, env={"KEVRA_CPU_ORDER": order}) == want, order


def checked_transforms(cases):
    with Device() as device:
        for n, prec, inverse, in_place, rows in cases:
            hint(n, prec, inverse, core=1)
            parts = signal(rows, n, prec)
            got = resident(device, parts, inverse, prec, in_place=in_place)
            assert_fft(complex_of(got), fft_reference(complex_of(parts), inverse), prec, f"{n=} {prec=} {inverse=}")


def test_check_mode_finds_nothing_and_every_row_moves_once(tmp_path):
    cases = [(n, prec, inverse, in_place, 24 - in_place)
             for n in (1, 12, 34, 45, 98, 360) for prec in (HALF, FLOAT, DOUBLE)
             for inverse, in_place in ((False, False), (True, True))]
    profile = tmp_path / "profile"
    fresh(checked_transforms, cases, env={"KEVRA_CPU_CHECK": "1", "KEVRA_CPU_PROFILE": profile})
    launches = [json.loads(line) for line in profile.read_text().splitlines()]
    assert len(launches) == len(cases)
    for case, launch in zip(cases, launches):
        n, prec, _, in_place, rows = case
        row = 2 * n * np.dtype(PARTS[prec]).itemsize
        assert launch["bytes_written"] == rows * row, case
        surplus = -rows % -(-rows // launch["grid"][0])  # rows in which the last block repeats the last one
        assert launch["bytes_read"] >= (rows + surplus) * row, case
        # Segments count once, however often they are read: data, table, and three round-ups.
        table = 16 * (n + (48 if n == 34 else 0)) if prec == DOUBLE else 0
        data = (1 if in_place else 2) * rows * row
        assert data <= launch["touched_bytes"] <= data + table + 3 * 64, case
        if prec != DOUBLE:
            assert launch["bytes_read"] == (rows + surplus) * row, case


COMMON = "op n_fft odd pow2 frame_len schedule rader_prime bluestein bluestein_m smem smem_cap core".split()
FRAME = [*COMMON, "staged", "two_for_one", "n1", "n2"]
REPORTS = [
    (("fft", 1000, FLOAT), [*COMMON, "staged"],
     [False, False, 1000, [8, 5, 5, 5], 0, False, 0, 8000, 65536, "mixed", False]),
    (("fft", 0, FLOAT), [*COMMON, "staged"], [False, False, 1, [], 0, False, 0, 8, 65536, "mixed", False]),
    (("fft", 34, DOUBLE), [*COMMON, "staged"], [False, False, 34, [2, 17], 17, False, 0, 1120, 65536, "mixed", False]),
    (("fft", 127, HALF), [*COMMON, "staged"],
     [True, False, 127, [127], 127, True, 256, 2040, 65536, "bluestein", False]),
    (("fft", 16384, FLOAT), [*COMMON, "n1", "n2", "staged"],
     [False, True, 16384, [16, 16, 8, 8], 0, False, 0, 131072, 65536, "four_step", 128, 128, True]),
    (("rfft", 9, FLOAT), [*COMMON, "staged"], [True, False, 9, [9], 0, False, 0, 72, 65536, "mixed", False]),
    (("rfft", 1, FLOAT), [*COMMON, "staged"], [True, False, 1, [], 0, False, 0, 8, 65536, "cooley_tukey", False]),
    (("rfft", 64, DOUBLE), [*COMMON, "staged"],
     [False, True, 32, [8, 4], 0, False, 0, 512, 65536, "cooley_tukey", False]),
    (("stft", 512, FLOAT), FRAME,
     [False, True, 256, [16, 16], 0, False, 0, 2048, 65536, "warp", False, False, 0, 0]),
    (("mel", 77, DOUBLE), FRAME, [True, False, 77, [11, 7], 0, False, 0, 1232, 65536, "mixed", False, True, 0, 0]),
    (("stft", 65536, HALF), FRAME,
     [False, True, 32768, [16, 16, 16, 8], 0, False, 0, 262144, 65536, "four_step", True, False, 128, 256]),
    (("istft", 2048, FLOAT), [*COMMON, "staged", "two_for_one"],
     [False, True, 1024, [16, 8, 8], 0, False, 0, 8192, 65536, "cooley_tukey", False, False]),
    (("istft", 127, FLOAT), [*COMMON, "staged", "two_for_one"],
     [True, False, 127, [127], 127, True, 256, 2040, 65536, "four_step", True, True]),
]


@pytest.mark.parametrize("arguments, keys, values", REPORTS, ids=[str(row[0]) for row in REPORTS])
def test_route_explain(arguments, keys, values):
    report = kevra.route_explain(*arguments)
    assert list(report) == keys
    assert repr(list(report.values())) == repr([*arguments[:2], *values])  # with their types: 0 is not False
    assert kevra.route_explain(*arguments, device=0) == report


def test_routes_and_hints_refuse():
    with pytest.raises(ValueError, match="^route_explain: unknown op cqt$"):
        kevra.route_explain("cqt", 64, FLOAT)
    with pytest.raises(ValueError, match="^route_explain: n_fft is -1, must be at least 0"):
        kevra.route_explain("fft", -1, FLOAT)
    with pytest.raises(ValueError, match="must be at most"):
        kevra.route_explain("stft", 2**40, FLOAT)
    with pytest.raises(RuntimeError, match="SetDevice"):
        kevra.route_explain("fft", 64, FLOAT, 99)
    epoch = kevra.shape_epoch()
    good = {"op": "fft", "n_fft": 64, "hop": 0, "center": False, "prec": 32, "output": "", "extra": 0, "device": 0,
            "ept": 0, "fpb": 0, "tpf": 0, "core": 0}
    with pytest.raises(ValueError, match="^set_shape_hint: op must be stft/istft/mel/fft/rfft/cqt$"):
        kevra.set_shape_hint(**{**good, "op": "ifft"})
    for name, value in ("n_fft", 2**31), ("ept", 1.5), ("core", None), ("op", 4), ("op", None):
        with pytest.raises(TypeError, match="incompatible function arguments"):
            kevra.set_shape_hint(**{**good, name: value})
    assert kevra.shape_epoch() == epoch
    assert kevra.set_shape_hint(**good, var=8) is None and kevra.shape_hint_clear() is None
    assert kevra.shape_epoch() == epoch + 2
