"""Random settings of the operations on samples: onset strength, convolution, linear filters."""

import kevra
import numpy as np
import scipy.signal
from accuracy import trials
from accuracy.transforms import REFERENCE
from accuracy.trials import CODES, STORAGE, Trial, log_uniform

LONG_ROW = 1 << 20
PACKED_SEQ, PACKED_LEVELS = 16, 8
# A length for each route of a transform, real and complex; lengths of their own would be kernels of their own.
TRANSFORM_LENGTHS = [60, 578, 1000, 2018, 2048, 5003, 8000, 16384, 20000, 32768]
LARGEST_DIRECT = 1 << 22  # products; beyond, extended precision takes transforms too
STEEPEST_POLE = 0.999


def onset(random: np.random.Generator, number: int, precision: str) -> list[Trial]:
    batch, bins, frames = int(random.integers(1, 5)), log_uniform(random, 1, 3000), log_uniform(random, 2, 300)
    s = random.exponential(size=(batch, bins, frames)).astype(STORAGE[precision])
    rises = np.maximum(np.diff(s.astype(REFERENCE[precision]), axis=2), 0).mean(axis=1)
    frames_first = s.transpose(0, 2, 1)

    def queue(m, out):
        kevra.onset_strength_resident(m, out, batch, frames, bins, CODES[precision], 0, 0)

    calls = {
        "staged": trials.staged(kevra.onset_strength_staged, s),
        "resident": trials.resident([frames_first], (batch, frames), s.dtype, queue),
    }
    return [Trial("onset strength", f"{batch} x {bins} x {frames}", np.pad(rises, ((0, 0), (1, 0))), calls)]


def convolution(random: np.random.Generator, number: int, precision: str) -> list[Trial]:
    """All three ways, of the same sizes."""
    rows, nf = int(random.integers(1, 6)), int(random.choice(TRANSFORM_LENGTHS))
    rows_b = rows if random.integers(2) else 1
    m = log_uniform(random, 1, nf)
    n = nf + 1 - m - int(random.integers(0, min(nf + 1 - m, 50)))
    length = n + m - 1
    start = int(random.integers(0, length // 2 + 1))
    outlen = int(random.integers((length - start + 1) // 2, length - start + 1))
    setting = f"{rows} x {n} by {rows_b} x {m}, nf {nf}, samples {start} to {start + outlen}"
    found = []
    for name, ways in ("convolution", ("fft", "direct")), ("complex convolution", ("cplx",)):
        a, b = (noise(random, shape, precision, "complex" in name) for shape in ((rows, n), (rows_b, m)))
        wanted = convolved(a, b, REFERENCE[precision])[:, start : start + outlen]
        for way in ways:
            length_of_transform = () if way == "direct" else (nf,)
            calls = convolution_calls(way, a, b, (*length_of_transform, start, outlen), precision)
            found.append(Trial(f"{name}, {'direct' if way == 'direct' else 'fft'}", setting, wanted, calls))
    return found


def convolution_calls(way: str, a: np.ndarray, b: np.ndarray, window: tuple[int, ...], precision: str) -> dict:
    sizes = (len(a), len(b), a.shape[1], b.shape[1], *window, CODES[precision])

    def queue(*addresses):
        getattr(kevra, f"conv_{way}_resident")(*addresses, *sizes)

    return {
        "staged": trials.staged(getattr(kevra, f"conv_{way}_staged"), a, b, *window),
        "resident": trials.resident([a, b], (len(a), window[-1]), a.dtype, queue),
    }


def noise(random: np.random.Generator, shape: tuple[int, int], precision: str, is_complex: bool) -> np.ndarray:
    rows, columns = shape
    values = random.standard_normal((rows, columns * (2 if is_complex else 1))).astype(STORAGE[precision])
    return values.view(np.result_type(values.dtype, np.complex64)) if is_complex else values


def convolved(a: np.ndarray, b: np.ndarray, wide) -> np.ndarray:
    a, b = (values.astype(np.result_type(wide, values.dtype)) for values in (a, b))
    b = np.broadcast_to(b, (len(a), b.shape[1]))
    method = "direct" if a.shape[1] * b.shape[1] <= LARGEST_DIRECT else "fft"
    return np.array([scipy.signal.convolve(x, h, method=method) for x, h in zip(a, b)])


def linear_filter(random: np.random.Generator, number: int, precision: str) -> list[Trial]:
    """A stable filter over one long row, from rest and cut off from a longer one."""
    order, taps = int(random.integers(0, 9)), int(random.integers(1, 10))
    b, a = (part.astype(STORAGE[precision]) for part in stable_filter(random, order, taps))
    past = max(order, taps)
    x = random.standard_normal((1, past + LONG_ROW)).astype(STORAGE[precision])
    wide = REFERENCE[precision]
    recursion = np.append(wide(1), a.astype(wide))
    whole = scipy.signal.lfilter(b.astype(wide), recursion, x.astype(wide))
    before = x[:, past - taps + 1 : past], whole[:, past - order : past][:, ::-1].astype(x.dtype)
    state = scipy.signal.lfiltic(b.astype(wide), recursion, before[1][0], before[0][0, ::-1]).astype(wide)
    rest = x[:, past:]
    wanted = {
        "from rest": scipy.signal.lfilter(b.astype(wide), recursion, rest.astype(wide)),
        "with history": scipy.signal.lfilter(b.astype(wide), recursion, rest.astype(wide), zi=state[None])[0],
    }
    poles = f"poles within {abs(np.roots(recursion.astype(np.float64))).max():.4f}" if order else "no pole"
    setting = f"order {order}, {taps} taps, {poles}"
    return [
        Trial(
            f"linear filter {start}, of the peak", setting, answer,
            filter_calls(b, a, rest, before if "history" in start else (), precision), trials.of_the_peak,
        )
        for start, answer in wanted.items()
    ]  # fmt: skip


def filter_calls(b: np.ndarray, a: np.ndarray, x: np.ndarray, history: tuple, precision: str) -> dict:
    order, taps, code = len(a), len(b), CODES[precision]
    packed = np.zeros(taps + order + PACKED_LEVELS * order**2, x.dtype)

    def queue(b_there, a_there, cf, x_there, *others):
        *past, y = others
        kevra.lfilter_pack_resident(b_there, a_there, cf, order, taps, code)
        named = dict(zip(("xh_ptr", "zy_ptr"), past))
        kevra.lfilter_resident(x_there, y, cf, *x.shape, order, taps, code, **named)

    inputs = [b, a, packed, x, *history]
    return {
        "staged": trials.staged(kevra.lfilter_staged, x, block(b, a), order, taps, *history),
        "resident": trials.resident(inputs, x.shape, x.dtype, queue),
    }


def block(b: np.ndarray, a: np.ndarray) -> np.ndarray:
    """The coefficient block: b, a, powers of the companion matrix."""
    order = len(a)
    step = np.zeros((order, order))
    step[:1], step[np.arange(1, order), np.arange(order - 1)] = -a, 1
    powers = [np.linalg.matrix_power(step, PACKED_SEQ << level).ravel() for level in range(PACKED_LEVELS) if order]
    return np.concatenate([b, a, *powers]).astype(b.dtype)


def stable_filter(random: np.random.Generator, order: int, taps: int) -> tuple[np.ndarray, np.ndarray]:
    """Poles in pairs, a real one more for odd orders, up to near the circle; a without its leading 1."""
    radius = random.uniform(0.5, STEEPEST_POLE)
    pairs = radius * np.sqrt(random.uniform(size=order // 2)) * np.exp(1j * random.uniform(0, np.pi, order // 2))
    poles = [*pairs, *pairs.conj(), *random.uniform(-radius, radius, order % 2)]
    return random.standard_normal(taps), np.poly(poles).real[1:] if order else np.zeros(0)
