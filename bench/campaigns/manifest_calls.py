"""Calls that launch the kernels of tools/families: entry point, sizes and hint from a kernel's parameters."""

from dataclasses import dataclass, replace
from functools import partial

import numpy as np

from campaigns.calls import Call, Memory, Numbers, Shape, call_of, new_key

BITS = {0: 16, 1: 32, 2: 64, 3: 8}  # of a hint, by precision
FORMS = ["complex", "magnitude", "power", "db"]
QUIET = 1 / 16  # of inputs of half storage: powers of long frames stay below its largest value
NO_FLOOR = -1.0
MANY = 4480  # samples whose frames are more than two blocks of 256 threads, one each
LONGEST = 16384  # frame of a fused kernel
SORTED = 20_000  # bins of a band that no block has room to sort

# One call of the table reaches all kernels of these, a precision each.
PLAIN = {
    "rms": "rms_resident", "rms_adjoint": "rms_adjoint_resident", "onset": "onset_strength_resident",
    "onset_adjoint": "onset_strength_adjoint_resident", "tonnetz": "tonnetz_resident",
    "tonnetz_adjoint": "tonnetz_adjoint_resident", "db": "db_resident", "db_inverse": "db_inv_resident",
    "db_adjoint": "db_adjoint_resident", "cepstra_peak": "cepstra_resident",
    "cepstra_first_peak": "cepstra_adjoint_resident", "cepstra_floor_sum": "cepstra_adjoint_resident",
    "conv_pad": "conv_fft_resident", "conv_multiply": "conv_fft_resident", "conv_slice": "conv_fft_resident",
    "conv_direct": "conv_direct_resident", "gl_mul": "griffinlim_resident", "gl_step": "griffinlim_resident",
    "cqt_half_band": "cqt_resident", "cqt_pad": "cqt_resident", "cqt_spectrum_gradient": "cqt_adjoint_resident",
    "cqt_half_band_adjoint": "cqt_adjoint_resident", "cqt_add_level": "cqt_adjoint_resident",
    "icqt_dual": "icqt_direct_resident", "icqt_overlap": "icqt_direct_resident", "vector_dot": "icqt_cg_resident",
    "vector_update": "icqt_cg_resident", "cg_alpha": "icqt_cg_resident", "cg_beta": "icqt_cg_resident",
}


@dataclass(frozen=True)
class Launch:
    """A call of the table for a shape, with `changes` of its arguments, pairs of name and value; a function of the
    shape's Numbers makes its value."""

    entry: str
    shape: Shape
    prec: int
    changes: tuple = ()
    hint: tuple = ()
    slots: bool = False

    def call(self) -> Call:
        call, numbers = call_of(self.entry, self.shape), Numbers(self.shape)
        changes = {name: value(numbers) if callable(value) else value for name, value in self.changes}
        arguments = {**call.arguments, **changes, "prec": self.prec}
        return replace(call, arguments={name: stored(value, self.prec) for name, value in arguments.items()})

    def __str__(self):
        changes = "".join(f", {name}={value}" for name, value in self.changes if not callable(value))
        hint = f" under hint {self.hint}" if self.hint else ""
        return f"{self.entry}({self.shape}, prec={self.prec}{changes}){hint}{', deterministic' if self.slots else ''}"


def launch_of(kernel: dict) -> Launch | None:
    """The call that launches an entry of the manifest; None of a family that is not known here."""
    family, p = kernel["family"], kernel["parameters"]
    if family in PLAIN:
        return launch(PLAIN[family], Shape(length=MANY, double=p["prec"] == 2), p)
    return FAMILIES[family](p, kernel["block"]) if family in FAMILIES else None


def launch(entry: str, shape: Shape, p: dict, hint: tuple = (), slots: bool = False, /, **changes) -> Launch:
    return Launch(entry, shape, p["prec"], tuple(changes.items()), hint, slots)


def stored(value, prec: int):
    """Memory as a precision has it, NaNs where the call writes."""
    if not isinstance(value, Memory):
        return value
    array = value.array
    if prec in (0, 3):
        array = (array.view(array.real.dtype) * QUIET).astype(np.float16)
    return replace(value, array=np.full_like(array, np.nan) if value.fresh else array)


def count(n: int, block: int) -> int:
    """Transforms of n values that are more than one block of so many threads, the last one partly filled: a thread has
    at most 32 values, and a transform at least a thread."""
    return 2 * max(1, min(block, 32 * block // n)) + 1


def framed(p: dict, block: int, hop: int = 0) -> Shape:
    """Two signals of so many frames."""
    n = p.get("n_fft") or p["n"]
    hop = hop or p.get("hop") or max(n // 4, 1)
    frames = max(count(n, block), -(-n // hop) + 1) | 1
    return Shape(2, hop * (frames - 1) + n % 2, n, hop, p["prec"] == 2)


def transform(entry: str, p: dict, block: int, n: int = 0) -> Launch:
    """Rows of n values, under the family's wishes as a hint."""
    n, prec, inverse = n or p["n"], p["prec"], bool(p.get("inverse", 0))
    shape = Shape(batch=count(n, block), n_fft=n, double=prec == 2)
    variant = sum(bit * p.get(name, 0) for name, bit in
                  (("radix25", 1), ("half_exchange", 2), ("padded", 4), ("flip", 8)))
    wishes = p.get("ept", 0), p.get("rows", 0), p.get("tpf", 0), p.get("core", 0), variant
    op = "fft" if entry == "fft_resident" else "rfft"
    hint = (op, n, 0, inverse, BITS[prec], "complex", 0, 0, *wishes) if any(wishes) else ()
    return launch(entry, shape, p, hint, **({"inverse": inverse} if op == "fft" else {}))


def rfft(p: dict, block: int) -> Launch:
    return transform("irfft_resident" if p["inverse"] else "rfft_resident", p, block)


def bluestein(p: dict, block: int) -> Launch:
    return transform(("fft_resident", "rfft_resident", "irfft_resident")[p["mode"]], p, block)


def four_step(p: dict, block: int) -> Launch:
    """Columns of complex rows, of real ones twice as long, and of the convolution that pads to n."""
    real_second, split, pack = 2, 3, 4  # of the family's steps
    kept, transposed = 1, 2  # of its places
    if p["step"] in (real_second, split):
        return transform("rfft_resident", p, block, n=2 * p["n"])
    if p["step"] == pack or p["places"] == kept:
        return transform("irfft_resident", p, block, n=2 * p["n"])
    if p["places"] == transposed:
        return transform("fft_resident", {**p, "inverse": 0}, block, n=padded_to(p["n"]))
    return transform("fft_resident", p, block)


def padded_to(m: int) -> int:
    """The longest prime row whose convolution fits m values."""
    return next(n for n in range((m + 1) // 2, 1, -1) if all(n % d for d in range(2, int(n**0.5) + 1)))


def frame_hint(op: str, p: dict, shape: Shape, output: str, extra: int = 0) -> tuple:
    variant = 16 * p.get("shift", 0) + 4 * p.get("padded", 0)
    wishes = *(p.get(name, 0) for name in ("ept", "fpb", "tpf", "core")), variant
    return (op, shape.n_fft, shape.hop, True, BITS[p["prec"]], output, extra, 0, *wishes) if any(wishes) else ()


def stft(p: dict, block: int) -> Launch:
    shape, output = framed(p, block), FORMS[p["form"]]
    return launch("stft_resident", shape, p, frame_hint("stft", p, shape, output), output=output,
                  out_ptr=lambda numbers: numbers.out(shape.batch, shape.frames, shape.bins, kind=kind(p)))


def kind(p: dict) -> str:
    return "real" if p["form"] else "complex"


def istft(p: dict, block: int) -> Launch:
    shape = staged_or_not(p, block)
    return launch("istft_resident", shape, p, frame_hint("istft", p, shape, "complex"), bool(p["deterministic"]))


def staged_or_not(p: dict, block: int) -> Shape:
    """Frames that no block holds are few: their kernels know no hop."""
    return framed(p, block, p["n"] // 4 if p["n"] > LONGEST else 0)


def stft_adjoint(p: dict, block: int) -> Launch:
    shape, slots = staged_or_not(p, block), bool(p["deterministic"])
    if p["form"] == 0:
        return launch("stft_adjoint_resident", shape, p, (), slots)
    return launch("stft_adjoint_mode_resident", shape, p, (), slots, output=FORMS[p["form"]])


def istft_adjoint(p: dict, block: int) -> Launch:
    return launch("istft_adjoint_resident", staged_or_not(p, block), p)


def bank(numbers: Numbers, bands: int, crowded: int = 0) -> np.ndarray:
    """Bands of which a bin has two, or where it is crowded four."""
    at = np.arange(numbers.shape.bins) * bands / numbers.shape.bins
    near = abs(at - np.arange(bands)[:, None]) < 1 + crowded
    return near * np.random.default_rng(bands).uniform(0.5, 1, near.shape)


def mel(p: dict, block: int) -> Launch:
    if p.get("n_cepstra"):
        return cepstra({**p, "n_out": p["n_cepstra"], "floored": 0}, block)
    p = {"n_fft": 2 * p.get("bins", 0) - 2, "power": 2, **p}
    shape, output = framed(p, block), FORMS[p["form"]]
    return launch("mel_resident", shape, p, frame_hint("mel", p, shape, output, p["n_mels"]),
                  fb=lambda numbers: bank(numbers, p["n_mels"]), power=float(p["power"]), output=output,
                  mel_ptr=lambda numbers: numbers.out(shape.batch, shape.frames, p["n_mels"]))


def mel_adjoint(p: dict, block: int) -> Launch:
    """Of the fused kernel and of the staged ones: what a family does not ask is a default of another."""
    p = {"form": 3, "crowded": 0, "slots": 0, **p}
    shape, bands = framed(p, block), p["n_mels"]
    return launch("mel_adjoint_resident", shape, p, (), bool(p["slots"]), n_mels=bands,
                  g_ptr=lambda numbers: Memory(numbers.real(shape.batch, shape.frames, bands)),
                  stride_batch=shape.frames * bands, stride_frame=bands, power=float(p["power"]),
                  fb=lambda numbers: bank(numbers, bands, p["crowded"]), output=FORMS[p["form"]])


def cepstra(p: dict, block: int) -> Launch:
    """Without a floor frames of a power of two take one kernel."""
    shape = framed(p, block) if "n_fft" in p else framed({**p, "n_fft": 400}, block)
    return launch("cepstra_resident", shape, p, n_out=p["n_out"], top_db=80.0 if p["floored"] else NO_FLOOR,
                  fb=lambda numbers: bank(numbers, p["n_mels"]),
                  out_ptr=lambda numbers: numbers.out(shape.batch, shape.frames, p["n_out"]))


def cepstra_adjoint(p: dict, _) -> Launch:
    shape = Shape(double=p["prec"] == 2)
    return launch("cepstra_adjoint_resident", shape, p, n_out=p["n_out"],
                  fb=lambda numbers: bank(numbers, p["n_mels"]),
                  gc_ptr=lambda numbers: Memory(numbers.real(shape.batch, shape.frames, p["n_out"])))


def inverse_mel(p: dict, _) -> Launch:
    plain, gradient = 0, 2  # of the family's modes
    shape, bands, bins = Shape(double=p["prec"] == 2), p["n_in"], p["n_out"]
    rows = shape.batch * shape.frames
    own = {"P": lambda numbers: numbers.rng.standard_normal((bins, bands)), "key": new_key(),
           "m_ptr": lambda numbers: Memory(numbers.real(rows, bands)), "clamp": p["mode"] != plain}
    if p["mode"] == gradient:
        return launch("inverse_mel_scale_adjoint_resident", shape, p, **own,
                      g_ptr=lambda numbers: Memory(numbers.real(rows, bins)),
                      gm_ptr=lambda numbers: numbers.out(rows, bands))
    return launch("inverse_mel_scale_resident", shape, p, **own, out_ptr=lambda numbers: numbers.out(rows, bins))


def statistic(entry: str, p: dict, block: int) -> Launch:
    shape = framed(p, block) if "n_fft" in p else Shape(double=p["prec"] == 2)
    return launch(entry, shape, p, frame_hint("stft", p, shape, "magnitude"), stat=p["stat"])


def contrast(entry: str, p: dict, block: int) -> Launch:
    """Bands of one bin and a wide one."""
    bands, wide = p.get("n_bands", 7), min(p["widest"], SORTED)
    n_fft = 2 * (bands + wide)
    shape = framed(p, block) if "n_fft" in p else Shape(2, n_fft, n_fft, n_fft, p["prec"] == 2)
    edges = np.append(np.arange(bands), bands - 1 + wide).astype(np.int32)
    rows = (shape.batch * shape.frames, bands)
    values = ({"gy_ptr": lambda numbers: Memory(numbers.real(*rows))} if "adjoint" in entry else
              {"out_ptr": lambda numbers: numbers.out(*rows)})
    return launch(entry, shape, p, frame_hint("stft", p, shape, "magnitude"), **values, bt=lambda _: edges,
                  bq=lambda _: np.maximum(np.diff(edges) // 4, 1).astype(np.int32))


def lfilter(entry: str, p: dict, _) -> Launch:
    """Rows that every thread of a block has two stretches of."""
    order, taps, threads = p["p"], p["m1"], p.get("threads", 256)
    shape = Shape(batch=3, length=32 * threads - 5, double=p["prec"] == 2)
    size = taps + order + 8 * order * order
    sizes = {"p": order, "m1": taps}
    a = np.atleast_1d(np.poly(np.linspace(-0.6, 0.5, order)))[1:]
    if entry == "lfilter_pack_resident":
        return launch(entry, shape, p, **sizes, b_ptr=lambda numbers: Memory(numbers.real(taps)),
                      a_ptr=lambda _: Memory(a.astype(shape.real)), cf_ptr=lambda numbers: numbers.out(size))
    return launch(entry, shape, p, **sizes, threads=threads, cf_ptr=lambda numbers: Memory(block_of(numbers, a, taps)),
                  xh_ptr=lambda numbers: Memory(numbers.real(shape.batch, taps - 1)),
                  zy_ptr=lambda numbers: Memory(numbers.real(shape.batch, order)))


def block_of(numbers: Numbers, a: np.ndarray, taps: int) -> np.ndarray:
    companion = np.eye(len(a), k=-1)
    companion[:1] = -a
    powers = [np.linalg.matrix_power(companion, 16 << level).ravel() for level in range(8)]
    return np.concatenate([numbers.real(taps), a, *powers]).astype(numbers.shape.real)


def conv_adjoint(p: dict, _) -> Launch:
    """`reversed` is the factor, which every call has."""
    shape, values = Shape(double=p["prec"] == 2), "complex" if p["complex"] else "real"
    sum_rows = "reversed" not in p
    return launch("conv_adjoint_resident", shape, p, cplx=p["complex"], sum_rows=int(sum_rows),
                  gy_ptr=lambda numbers: Memory(getattr(numbers, values)(shape.batch, shape.length + 19)),
                  w_ptr=lambda numbers: Memory(getattr(numbers, values)(shape.batch, 20)), rows_w=shape.batch,
                  out_ptr=lambda numbers: numbers.out(1 if sum_rows else shape.batch, shape.length, kind=values))


def cqt(p: dict, block: int, n_fft: int = 0) -> Launch:
    shape = framed({"n_fft": n_fft, **p}, block)
    return launch("cqt_resident", shape, p, output=FORMS[p["form"]], plan_key=new_key(),
                  out_ptr=lambda numbers: numbers.out(shape.batch, 12, shape.frames, kind=kind(p)))


def cqt_bin_gradient(p: dict, _) -> Launch:
    shape = Shape(double=p["prec"] == 2)
    return launch("cqt_adjoint_resident", shape, p, output=FORMS[p["form"]],
                  g_ptr=lambda numbers: Memory(getattr(numbers, kind(p))(shape.batch, 12, shape.frames)))


def chroma(entry: str, p: dict, _) -> Launch:
    shape, classes = Shape(double=p["prec"] == 2), p["n_chroma"]
    values = ({"g_ptr": lambda numbers: Memory(numbers.real(shape.batch, classes, shape.frames))}
              if "adjoint" in entry else
              {"out_ptr": lambda numbers: numbers.out(shape.batch, classes, shape.frames)})
    return launch(entry, shape, p, **values, n_chroma=classes, classes=lambda _: np.arange(12) % classes,
                  plan_key=new_key())


FAMILIES = {
    "fft": lambda p, block: transform("fft_resident", {**p, "core": 1}, block),
    "fft_register": partial(transform, "fft_resident"),
    "rfft": rfft, "bluestein": bluestein, "four_step": four_step, "stft": stft, "istft": istft,
    "stft_adjoint": stft_adjoint, "istft_adjoint": istft_adjoint, "mel": mel, "mel_bands": mel,
    "mel_adjoint": mel_adjoint, "mel_adjoint_sums": mel_adjoint, "mel_adjoint_pack": mel_adjoint,
    "cepstra": cepstra, "cepstra_adjoint": cepstra_adjoint, "inverse_mel": inverse_mel,
    "frame_spectral": partial(statistic, "spectral_signal_resident"),
    "spectral": partial(statistic, "spectral_reduce_resident"),
    "spectral_adjoint": partial(statistic, "spectral_adjoint_resident"),
    "frame_contrast": partial(contrast, "contrast_signal_resident"),
    "contrast": partial(contrast, "contrast_reduce_resident"),
    "contrast_adjoint": partial(contrast, "contrast_adjoint_resident"),
    "lfilter": partial(lfilter, "lfilter_resident"), "lfilter_basis": partial(lfilter, "lfilter_resident"),
    "lfilter_pack": partial(lfilter, "lfilter_pack_resident"),
    "conv_stage": conv_adjoint, "conv_row_sum": conv_adjoint,
    "cqt": cqt, "cqt_reduce": partial(cqt, n_fft=60), "cqt_bin_gradient": cqt_bin_gradient,
    "chroma": partial(chroma, "chroma_resident"), "chroma_adjoint": partial(chroma, "chroma_adjoint_resident"),
}
