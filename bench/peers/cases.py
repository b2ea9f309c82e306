"""The shapes that are compared, their input, the exact result, and how far from it a result may be."""

import math
from dataclasses import asdict, dataclass

import numpy as np
import scipy.fft
from peers import constant_q, features, filters, spectrograms

POWERS = [16, 32, 64, 128, 256, 512, 1024, 2048]
AWKWARD = [100, 240, 360, 480, 600, 720, 960, 1000, 1200, 1536, 3125]
REAL = [400, 512, 2048]
BATCHES = [1, 16, 256, 4096]
SIGNALS = [(1, 16384), (1, 1440000), (16, 160000), (256, 16384)]  # (batch, samples)
FRAMES = [(2048, 512), (400, 160)]  # (frame length, hop): of music at 44.1 kHz, of speech at 16 kHz
TRANSFORMS = ["fft", "rfft", "irfft"]
LOGMEL_BOUND = 1e-4  # of decibels: some thousandths, where others round the bank's corners
EPS = {"float": 2.0**-23, "double": 2.0**-52}


@dataclass(frozen=True)
class Case:
    # fft: rows of n complex values; rfft and irfft: of n reals; all others: of n samples, frames centred
    operation: str
    precision: str  # float or double
    n: int
    batch: int
    frame_length: int = 0
    hop: int = 0
    rate: int = 0  # samples a second
    bands: int = 0
    bins: int = 0  # of a constant-Q transform
    order: int = 0  # of a linear filter
    taps: int = 0  # of what is convolved with

    @property
    def real(self) -> np.dtype:
        return np.dtype(np.float64 if self.precision == "double" else np.float32)

    @property
    def complex(self) -> np.dtype:
        return np.dtype(np.complex128 if self.precision == "double" else np.complex64)

    @property
    def frames(self) -> int:
        return self.n // self.hop + 1

    @property
    def input(self) -> tuple[tuple[int, ...], np.dtype]:
        """Shape and type of what is given."""
        if self.operation == "istft":
            return (self.batch, self.frames, self.frame_length // 2 + 1), self.complex
        if self.operation == "irfft":
            return (self.batch, self.n // 2 + 1), self.complex
        if self.operation in features.OPERATIONS:
            return features.input_shape(self), self.real
        return (self.batch, self.n), self.complex if self.operation == "fft" else self.real

    @property
    def output(self) -> tuple[tuple[int, ...], np.dtype]:
        """Shape and type of the result."""
        if self.operation in ("stft", "magnitude", "logmel"):
            shape = (self.batch, spectrograms.output_columns(self), self.frames)
            return shape, self.complex if self.operation == "stft" else self.real
        if self.operation == "rfft":
            return (self.batch, self.n // 2 + 1), self.complex
        if self.operation == "rms":
            return (self.batch, self.frames), self.real
        if self.operation in features.OPERATIONS:
            return features.output_shape(self), self.real
        if self.operation in constant_q.OPERATIONS:
            return (self.batch, constant_q.output_rows(self), self.frames), self.real
        if self.operation in filters.OPERATIONS:
            return (self.batch, filters.output_length(self)), self.real
        return (self.batch, self.n), self.complex if self.operation == "fft" else self.real

    @property
    def bytes_moved(self) -> int:
        """The input once in and the result once out: what no kernel can do without."""
        return sum(math.prod(shape) * dtype.itemsize for shape, dtype in (self.input, self.output))

    def record(self) -> dict:
        return {name: value for name, value in asdict(self).items() if value}

    def __str__(self) -> str:
        frame = f", frame {self.frame_length}" if self.frame_length else ""
        hop = f", hop {self.hop}" if self.hop else ""
        bands = f", {self.bands} bands" if self.bands else ""
        bins = f", {self.bins} bins" if self.bins else ""
        order = f", order {self.order}" if self.order else ""
        taps = f", {self.taps} taps" if self.taps else ""
        parts = f"{frame}{hop}{bands}{bins}{order}{taps}"
        return f"{self.operation} of {self.batch} x {self.n} {self.precision}{parts}"


def grid(sizes: dict[str, list[int]], batches: list[int], signals: dict[str, list]) -> list[Case]:
    """`sizes` has the lengths of each transform; all else is measured where it stands in it, on its signals,
    spectrograms, their features and constant-Q transforms in float."""
    cases = []
    for precision in EPS:
        for operation in TRANSFORMS:
            cases += [Case(operation, precision, n, batch) for n in sizes.get(operation, []) for batch in batches]
        if "rms" in sizes:
            cases += [Case("rms", precision, n, batch, *frame) for batch, n in signals["rms"] for frame in FRAMES]
    for operation in spectrograms.OPERATIONS:
        if operation in sizes:
            fields = spectrograms.sizes(operation, signals["recordings"])
            cases += [Case(operation, "float", **of_one) for of_one in fields]
    for operation in features.OPERATIONS:
        if operation in sizes:
            fields = features.sizes(operation, signals["features"])
            cases += [Case(operation, "float", **of_one) for of_one in fields]
    for operation in constant_q.OPERATIONS:
        if operation in sizes:
            fields = constant_q.sizes(operation, signals["seconds"])
            cases += [Case(operation, "float", **of_one) for of_one in fields]
    for operation in filters.OPERATIONS:
        if operation in sizes:
            fields = filters.sizes(operation, signals[operation])
            cases += [Case(operation, precision, **of_one) for precision in EPS for of_one in fields]
    return cases


def make_input(case: Case) -> np.ndarray:
    random = np.random.default_rng([case.n, case.batch])
    if case.operation == "istft":
        signal = random.standard_normal((case.batch, case.n), dtype=case.real)
        return spectrograms.spectrum(case, signal, workers=-1)
    if case.operation in features.OPERATIONS:
        return features.make_input(case, random)
    (rows, columns), dtype = case.input
    if dtype == case.real:
        return random.standard_normal((rows, columns), dtype=case.real)
    x = random.standard_normal((rows, 2 * columns), dtype=case.real).view(case.complex)
    if case.operation == "irfft":
        x.imag[:, 0] = 0  # as in every real row's spectrum
        if case.n % 2 == 0:
            x.imag[:, -1] = 0
    return x


def exact(case: Case, x: np.ndarray) -> np.ndarray:
    """The result in double precision."""
    if case.operation in spectrograms.OPERATIONS:
        return spectrograms.exact(case, x)
    if case.operation in constant_q.OPERATIONS:
        return constant_q.exact(case, x)
    if case.operation in features.OPERATIONS:
        return features.exact(case, x)
    if case.operation in filters.OPERATIONS:
        return filters.exact(case, x)
    wide = x.astype(np.result_type(x.dtype, np.float64))
    return framed_rms(np, wide, case) if case.operation == "rms" else transformed(scipy.fft, wide, case, workers=-1)


def transformed(fft, x, case: Case, **options):
    """By a module with the functions of numpy.fft."""
    return getattr(fft, case.operation)(x, case.n, **options)


def framed_rms(arrays, x, case: Case):
    """What a user of numpy writes, or of a library with numpy's functions."""
    pad = case.frame_length // 2
    padded = arrays.pad(x, ((0, 0), (pad, pad)), mode="reflect")
    row, sample = padded.strides
    shape = (case.batch, case.frames, case.frame_length)
    frames = arrays.lib.stride_tricks.as_strided(padded, shape, (row, case.hop * sample, sample))
    return arrays.sqrt(arrays.mean(frames**2, axis=2))


def bound(case: Case, name: str) -> float:
    """Largest relative L2 error. A fast transform's grows with its depth; sums of a frame may be taken one by one."""
    if case.operation in constant_q.OPERATIONS:
        return constant_q.BOUND if name.startswith("kevra") else constant_q.PEER_BOUND
    if case.operation in features.OPERATIONS:
        return features.BOUND[case.precision]
    if case.operation in filters.OPERATIONS:
        return filters.BOUND[case.precision]
    if case.operation in TRANSFORMS or case.operation in spectrograms.OPERATIONS:
        if case.operation == "logmel":
            return LOGMEL_BOUND
        return 3 * EPS[case.precision] * math.sqrt(math.log2(case.frame_length or case.n))
    return EPS[case.precision] * math.sqrt(case.frame_length)


def disagreement(case: Case, name: str, result: np.ndarray, wanted: np.ndarray, x: np.ndarray) -> str | None:
    """Why a result of `x` must not be timed, or None for one that agrees."""
    shape, dtype = case.output
    if result.shape != shape or result.dtype != dtype:
        return f"{case}: {name} gives {result.dtype} of {result.shape}, must be {dtype} of {shape}; not timed"
    if case.operation == "griffinlim":
        refused = features.disagreement(case, result, wanted, x)
        return f"{case}: {name} {refused}; not timed" if refused else None
    error = float(np.linalg.norm((result - wanted).ravel()) / np.linalg.norm(wanted.ravel()))
    if not error <= bound(case, name):  # a NaN is no agreement either
        return f"{case}: {name} is off by {error:.2g} (relative L2), must be at most {bound(case, name):.2g}; not timed"
    return None
