"""Linear filters over rows, against scipy in extended precision."""

import json
from fractions import Fraction

import kevra
import numpy as np
import pytest
import scipy.signal
from support import DOUBLE, FLOAT, STORAGE, Device, fresh, too_many_blocks_to_check

# Against the largest output. In float the one rounding at the end is all; in double what the recursion rounds too.
BOUND = {FLOAT: 2**-24, DOUBLE: 1e-11}
TILE = 256 * 16


def random_filter(order, taps, radius, seed):
    """Pairs of poles within `radius`, one real pole for odd orders; no leading 1 in a."""
    rng = np.random.default_rng(seed)
    pairs = radius * np.sqrt(rng.uniform(size=order // 2)) * np.exp(1j * rng.uniform(0, np.pi, order // 2))
    poles = [*pairs, *pairs.conj(), *rng.uniform(-radius, radius, order % 2)]
    return rng.standard_normal(taps), np.poly(poles).real[1:] if order else np.zeros(0)


def block(b, a, seq=16):
    """The coefficient block, by numpy."""
    p = len(a)
    step = np.zeros((p, p))
    step[:1], step[np.arange(1, p), np.arange(p - 1)] = -a, 1
    with np.errstate(over="ignore", invalid="ignore"):  # powers of a filter that is not stable
        powers = [np.linalg.matrix_power(step, seq << level).ravel() for level in range(8)] if p else []
    return np.concatenate([b, a, *powers]).astype(b.dtype)


def history(rows, b, a, dtype):
    rng = np.random.default_rng(5)
    return (rng.standard_normal((rows, len(b) - 1)).astype(dtype), rng.standard_normal((rows, len(a))).astype(dtype))


def reference(b, a, x, xh=None, zy=None):
    b, a, x = b.astype(np.longdouble), np.append(np.longdouble(1), a), x.astype(np.longdouble)
    if xh is None:
        return scipy.signal.lfilter(b, a, x)
    order = max(len(a), len(b)) - 1
    state = [scipy.signal.lfiltic(b, a, outputs, inputs[::-1]) for inputs, outputs in zip(xh, zy)]
    return scipy.signal.lfilter(b, a, x, zi=np.reshape(state, (len(x), order)).astype(np.longdouble))[0]


def error(got, want):
    return abs(got - want).max() / abs(want).max()


def assert_filtered(got, want, prec, what="", bound=0):
    assert got.shape == want.shape and got.dtype == STORAGE[prec]
    off = error(got, want)
    assert off <= max(BOUND[prec], bound), f"{what}: off by {off:.2g} of the peak"


def put(device, array):
    return device.upload(array) or 0  # there is no address of nothing


def resident(b, a, x, prec, xh=None, zy=None, cf=None, **options):
    """Packs on the device unless a block is given."""
    with Device() as device:
        size = len(b) + len(a) + 8 * len(a) ** 2
        stream = device.stream()
        if cf is None:
            cf = device.empty(size, x.dtype)
            kevra.lfilter_pack_resident(device.upload(b), put(device, a), cf, len(a), len(b), prec, stream=stream)
        else:
            cf = device.upload(cf)
        if xh is not None:
            options |= {"xh_ptr": put(device, xh), "zy_ptr": put(device, zy)}
        y = device.upload(np.full(x.size + 64, 7, x.dtype))  # what stands behind the rows has to stay
        kevra.lfilter_resident(device.upload(x), y, cf, *x.shape, len(a), len(b), prec, stream=stream, **options)
        device.synchronize(stream)
        flat = device.download(y, x.size + 64, x.dtype)
        np.testing.assert_array_equal(flat[x.size:], 7)
        return flat[:x.size].reshape(x.shape)


def run_case(prec, order, taps, rows, n, radius=0.95):
    b, a = (part.astype(STORAGE[prec]) for part in random_filter(order, taps, radius, seed=order * 97 + taps))
    x = np.random.default_rng(n).standard_normal((rows, n)).astype(STORAGE[prec])
    xh, zy = history(rows, b, a, x.dtype)
    what = f"{prec=} {order=} {taps=} {rows=} {n=}"
    for past in (), (xh, zy):
        want = reference(b, a, x, *past)
        assert_filtered(resident(b, a, x, prec, *past), want, prec, what)
        staged = kevra.lfilter_staged(x, block(b, a), order, taps, *past)
        assert_filtered(staged, want, prec, what)


@pytest.mark.parametrize("n", [1, 15, 17, 513, TILE - 1, TILE, TILE + 1, 3 * TILE + 5])
def test_rows_of_every_length_with_and_without_history(n):
    # Fewer taps than poles and more, none of either but the one that must be, a head longer than a stretch.
    for order, taps in (1, 1), (2, 3), (0, 1), (0, 4), (3, 40), (5, 2), (8, 9):
        for prec in FLOAT, DOUBLE:
            run_case(prec, order, taps, 2, n)


DESIGNS = {f"butter {order} {cut}": scipy.signal.butter(order, cut)
           for order, cut in [(1, 0.01), (2, 0.01), (4, 0.05), (6, 0.1), (8, 0.1), (8, 0.25), (8, 0.7)]}
DESIGNS["elliptic band"] = scipy.signal.ellip(4, 1, 60, [0.2, 0.3], "bandpass")
DESIGNS["DC blocker"] = np.array([1.0, -1]), np.array([1, -0.9999])
DESIGNS["resonator"] = np.array([1.0]), np.poly(0.9999 * np.exp([2j, -2j])).real


@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
@pytest.mark.parametrize("name", DESIGNS)
def test_a_million_samples(name, prec):
    b, a = (part.astype(STORAGE[prec]) for part in (DESIGNS[name][0], DESIGNS[name][1][1:]))
    x = np.random.default_rng(3).standard_normal((1, 1 << 20)).astype(STORAGE[prec])
    want = reference(b, a, x)
    # Where the recursion in double, sample after sample, misses the bound: no worse than that.
    serial = error(scipy.signal.lfilter(b, np.append(1, a), x), want) if prec == DOUBLE else 0
    assert_filtered(resident(b, a, x, prec), want, prec, bound=serial)
    # Cut off from one run, so that the filter goes on and the peak is the signal's.
    past = max(len(a), len(b))
    xh, zy = x[:, past - len(b) + 1:past], want[:, past - len(a):past][:, ::-1].astype(x.dtype)
    rest = reference(b, a, x[:, past:], xh, zy)
    assert_filtered(resident(b, a, x[:, past:], prec, xh, zy), rest, prec, "history", bound=serial)


def test_history_continues_a_row():
    b, a = random_filter(4, 6, 0.9, seed=1)
    x = np.random.default_rng(1).standard_normal((3, 5000))
    whole = kevra.lfilter_staged(x, block(b, a), 4, 6)
    for cut in 6, 4096, 4999:
        rest = kevra.lfilter_staged(x[:, cut:], block(b, a), 4, 6, x[:, cut - 5:cut], whole[:, cut - 4:cut][:, ::-1])
        np.testing.assert_allclose(rest, whole[:, cut:], rtol=0, atol=1e-13 * abs(whole).max())


def exact_powers(a):
    """A^16, A^32 and A^64 in rational numbers, rounded to doubles."""
    step = np.array([[Fraction(int(row == column + 1)) for column in range(len(a))] for row in range(len(a))])
    step[0] = [-Fraction(float(tap)) for tap in a]
    powers = []
    for level in range(7):
        if level >= 4:
            powers.append(step.astype(np.float64))
        step = step @ step
    return np.array(powers)


@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
def test_pack_writes_the_powers_of_the_companion_matrix_to_the_last_digit(prec):
    for name in "butter 1 0.01", "butter 2 0.01", "butter 8 0.25":
        b, a = (part.astype(STORAGE[prec]) for part in (DESIGNS[name][0], DESIGNS[name][1][1:]))
        order, taps = len(a), len(b)
        with Device() as device:
            size = taps + order + 8 * order**2
            cf = device.upload(np.full(size + 8, 7, b.dtype))
            kevra.lfilter_pack_resident(device.upload(b), device.upload(a), cf, order, taps, prec)
            got = device.download(cf, size + 8, b.dtype)
        np.testing.assert_array_equal(got[size:], 7)
        np.testing.assert_array_equal(got[:taps + order], [*b, *a])
        table = got[taps + order:size].reshape(8, order, order)
        np.testing.assert_allclose(table[:3], exact_powers(a), rtol=np.finfo(b.dtype).eps, atol=0, err_msg=name)


@too_many_blocks_to_check
def test_many_short_rows_go_in_several_launches():
    b, a = random_filter(2, 3, 0.9, seed=2)
    rows = 65536 + 3
    x = np.random.default_rng(2).standard_normal((rows, 5))
    xh, zy = history(rows, b, a, x.dtype)
    assert_filtered(kevra.lfilter_staged(x, block(b, a), 2, 3, xh, zy), reference_rows(b, a, x, xh, zy), DOUBLE)
    assert_filtered(kevra.lfilter_staged(x[:, :1], block(b, a), 2, 3), x[:, :1] * b[0], DOUBLE)


def reference_rows(b, a, x, xh, zy):
    """All rows at once, sample by sample."""
    inputs, outputs = np.hstack([xh, x]), [*zy.T[::-1]]
    for n in range(x.shape[1]):
        forward = inputs[:, n:n + len(b)] @ b[::-1]
        outputs.append(forward - sum(tap * outputs[-1 - j] for j, tap in enumerate(a)))
    return np.stack(outputs[len(a):], axis=1)


@pytest.mark.parametrize("threads, seq", [(1, 16), (2, 16), (64, 16), (256, 8), (128, 20), (32, 1), (16, 48)])
def test_threads_and_seq_of_the_callers_choice(threads, seq):
    b, a = random_filter(3, 4, 0.9, seed=4)
    x = np.random.default_rng(4).standard_normal((2, 9001))
    got = resident(b, a, x, DOUBLE, cf=block(b, a, seq), threads=threads, seq=seq)
    assert_filtered(got, reference(b, a, x), DOUBLE)


def test_high_orders_and_many_taps_fit_into_shared_memory():
    for order, taps, prec in (20, 3, DOUBLE), (32, 2, FLOAT), (2, 5000, FLOAT), (0, 3000, DOUBLE):
        run_case(prec, order, taps, 1, 10000, radius=0.6)
    with pytest.raises(ValueError, match="^lfilter: m1 exceeds the device shared-memory limit$"):
        kevra.lfilter_staged(np.zeros((1, 9)), np.zeros(9000), 0, 9000)
    with pytest.raises(ValueError, match="^lfilter: p exceeds the device shared-memory limit$"):
        kevra.lfilter_pack_resident(0, 0, 0, 1000, 1, DOUBLE)


def test_a_filter_that_is_not_stable_grows_as_it_should():
    x = np.zeros((1, 900))
    x[0, 2] = 1
    for b, a in ((np.ones(1), np.array([-2.0])), (np.ones(2), np.array([-2.5, 1.0])), (np.ones(1), np.array([-1.0]))):
        np.testing.assert_allclose(kevra.lfilter_staged(x, block(b, a), len(a), len(b)), reference(b, a, x), rtol=1e-13)
    steps = kevra.lfilter_staged(np.ones((1, 20000)), block(np.ones(1), np.array([-1.0])), 1, 1)
    np.testing.assert_array_equal(steps[0], np.arange(1, 20001))


def test_history_of_a_filter_with_one_tap_has_no_inputs():
    b, a = np.array([0.5]), np.array([-0.5])
    x, zy = np.ones((2, 3)), np.array([[2.0], [4.0]])
    for width in 0, 1:
        got = kevra.lfilter_staged(x, block(b, a), 1, 1, np.full((2, width), np.nan), zy)
        np.testing.assert_array_equal(got, [[1.5, 1.25, 1.125], [2.5, 1.75, 1.375]])
    np.testing.assert_array_equal(kevra.lfilter_staged(x, block(b, a), 1, 1, None, zy), [[0.5, 0.75, 0.875]] * 2)


def test_guards():
    sizes = {"rows": 1, "n": 8, "p": 1, "m1": 2, "prec": DOUBLE}
    for change, text in [
        ({"threads": 0}, "threads is 0, must be a power of two from 1 to 256"), ({"threads": 96}, "threads is 96"),
        ({"threads": 512}, "threads is 512"), ({"seq": 0}, "seq is 0, must be at least 1"),
        ({"p": -1}, "p is -1, must be at least 0"), ({"m1": 0}, "m1 is 0, must be at least 1"),
        ({"rows": -1}, "rows is -1"), ({"n": -1}, "n is -1"), ({"zy_ptr": 1}, "zy_ptr is given without xh_ptr"),
        ({"xh_ptr": 1}, "xh_ptr is given without zy_ptr"),
    ]:
        with pytest.raises(ValueError, match=f"^lfilter: {text}"):
            kevra.lfilter_resident(0, 0, 0, **(sizes | change))
    kevra.lfilter_resident(0, 0, 0, **(sizes | {"rows": 0}))
    kevra.lfilter_resident(0, 0, 0, **(sizes | {"n": 0}))
    b, a = random_filter(1, 2, 0.5, seed=1)
    for prec, cf in (DOUBLE, None), (FLOAT, None), (DOUBLE, block(b, a)):
        typed = [part.astype(STORAGE[prec]) for part in (b, a, np.zeros((1, 4)))]
        with pytest.raises(ValueError, match="^lfilter: seq is 8, must be 16 with a packed block; the first matrix of"):
            resident(*typed, prec, cf=cf, seq=8)
    with pytest.raises(ValueError, match="^lfilter_pack: m1 is 0, must be at least 1$"):
        kevra.lfilter_pack_resident(0, 0, 0, 1, 0, FLOAT)


def test_guards_of_arrays():
    x, cf = np.zeros((2, 5)), np.zeros(11)  # one pole, two taps
    wrong = r"cf must be 1-D of m1 \+ p \+ 8 p\^2 values"
    for arguments, text in [
        ((x[0], cf, 1, 2), r"lfilter: expected a 2-D \(rows, samples\) array$"),
        ((x, np.zeros(()), 1, 2), "invalid axis$"),
        ((x, cf[1:], 1, 2), f"lfilter: {wrong}"), ((x, np.append(cf, 0), 1, 2), f"lfilter: {wrong}"),
        ((x, cf[None], 1, 2), f"lfilter: {wrong}"), ((x, cf, 0, 2), f"lfilter: {wrong}"),
        ((x, cf, 1, 2, np.zeros((2, 1))), "lfilter: xh is given without zy"),
        ((x, cf, 1, 2, np.zeros((2, 2)), np.zeros((2, 1))), r"lfilter: xh must be \(rows, samples\) = \(2, 1\)"),
        ((x, cf, 1, 2, np.zeros((2, 1)), np.zeros((1, 1))), r"lfilter: zy must be \(rows, samples\) = \(2, 1\)"),
    ]:
        with pytest.raises(ValueError, match=f"^{text}"):
            kevra.lfilter_staged(*arguments)
    with pytest.raises(TypeError, match="float16"):
        kevra.lfilter_staged(x.astype(np.float16), cf, 1, 2)
    for empty in np.zeros((0, 5)), np.zeros((2, 0)):
        assert kevra.lfilter_staged(empty, cf, 1, 2).shape == empty.shape


def some_cases():
    for prec in FLOAT, DOUBLE:
        for order, taps, n in (0, 3, 700), (2, 3, TILE + 9), (8, 20, 9000):
            run_case(prec, order, taps, 2, n)


@pytest.mark.parametrize("switch", [{"KEVRA_CPU_CHECK": "1"}, {"KEVRA_CPU_ORDER": "shuffle:1"}], ids=str)
def test_no_race_and_no_order(switch):
    fresh(some_cases, env=switch)


def one_long_row(prec):
    # Without feedback no coefficient is read beside the taps.
    b, a = (part.astype(STORAGE[prec]) for part in random_filter(0, 3, 0, seed=2))
    resident(b, a, np.zeros((1, 8 * TILE), STORAGE[prec]), prec)


def test_neighbouring_threads_touch_neighbouring_samples(tmp_path):
    for prec in FLOAT, DOUBLE:
        profile = tmp_path / f"profile{prec}"
        fresh(one_long_row, prec, env={"KEVRA_CPU_CHECK": "1", "KEVRA_CPU_PROFILE": profile})
        launch = json.loads(profile.read_text().splitlines()[-1])
        row = 8 * TILE * np.dtype(STORAGE[prec]).itemsize
        assert launch["bytes_written"] == row
        # Each sample once in and once out; a tile's two before it and, for every 32 threads, three taps.
        assert launch["segment_bytes"] == 2 * row + 64 * 8 * (256 // 32 * 3 + 1) - 64, launch
