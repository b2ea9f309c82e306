"""Every entry point with a small valid call: arguments in their order, the memory behind its addresses, the result."""

import itertools
from dataclasses import dataclass, field

import kevra
import numpy as np

EPS = 1e-10
AMIN = 1e-6
_keys = itertools.count()


@dataclass(frozen=True)
class Memory:
    """What an argument is the device address of: the numbers there before the call. Fresh ones are all written and not
    read."""

    array: np.ndarray
    written: bool = False
    fresh: bool = False


@dataclass(frozen=True)
class Call:
    """`gives` is the shape of a staged result, else the value itself or, of a query, its type. Where a failure below a
    query is no error, `at_worst` is its answer then."""

    name: str
    arguments: dict = field(default_factory=dict)
    gives: object = None
    at_worst: object = None

    @property
    def present(self) -> bool:
        return hasattr(kevra, self.name)

    @property
    def staged(self) -> bool:
        return self.name.endswith("_staged")


@dataclass(frozen=True)
class Shape:
    """What a table of calls is made for. A hop divides the length, and n_fft is no longer than it."""

    batch: int = 2
    length: int = 480
    n_fft: int = 64
    hop: int = 16
    double: bool = False

    @property
    def real(self):
        return np.float64 if self.double else np.float32

    @property
    def complex(self):
        return np.complex128 if self.double else np.complex64

    @property
    def prec(self) -> int:
        return 2 if self.double else 1

    @property
    def bins(self) -> int:
        return self.n_fft // 2 + 1

    @property
    def fused(self):
        """What the forms answer that have a kernel for some lengths only: True where they surely have one."""
        return True if self.n_fft & (self.n_fft - 1) == 0 else bool

    @property
    def frames(self) -> int:
        return (self.length - self.n_fft % 2) // self.hop + 1


class Numbers:
    """Random arrays of a shape's precision, and addresses of them."""

    def __init__(self, shape: Shape):
        self.shape, self.rng = shape, np.random.default_rng(shape.n_fft)

    def real(self, *extents):
        return self.rng.standard_normal(extents).astype(self.shape.real)

    def positive(self, *extents):
        return abs(self.real(*extents)) + self.shape.real(0.1)

    def complex(self, *extents):
        return (self.rng.standard_normal(extents) + 1j * self.rng.standard_normal(extents)).astype(self.shape.complex)

    def out(self, *extents, kind="real"):
        return Memory(np.full(extents, 7, getattr(self.shape, kind)), written=True, fresh=True)


def calls(shape: Shape = Shape()) -> dict[str, Call]:
    """The table, in the order of the documentation, landed or not."""
    return {call.name: call for call in each_call(shape)}


def call_of(name: str, shape: Shape) -> Call:
    """One of the table; what comes behind it is not made."""
    return next(call for call in each_call(shape) if call.name == name)


def each_call(shape: Shape):
    numbers = Numbers(shape)
    families = (queries, transforms, spectrograms, bands, statistics, frame_features, constant_q, filters, routing,
                tuners)
    return (call for family in families for call in family(shape, numbers))


def new_key() -> str:
    """Tables are kept by the caller's key: other numbers need another one."""
    return f"campaign {next(_keys)}"


def queries(_, __):
    yield Call("abi_version", gives=int)
    yield Call("available", gives=bool, at_worst=False)
    yield Call("hiprtc_available", gives=bool, at_worst=False)
    yield Call("hiprtc_version", gives=tuple, at_worst=(0, 0))
    yield Call("device_arch", {"dev": 0}, str, "")
    yield Call("device_count", gives=int, at_worst=0)
    yield Call("device_name", {"dev": 0}, str, "")
    yield Call("set_deterministic", {"on": 0})
    yield Call("drain_pool")
    yield Call("clear_tables")


def transforms(s, numbers):
    x, y = numbers.complex(s.batch, s.n_fft), numbers.real(s.batch, s.n_fft)
    half = numbers.complex(s.batch, s.bins)
    rows, where = {"B": s.batch}, {"prec": s.prec, "dev": 0, "stream": 0}
    yield Call("fft_staged", {"x": x, "inverse": False}, x.shape)
    yield Call("rfft_staged", {"x": y}, half.shape)
    yield Call("irfft_staged", {"X": half, "n": s.n_fft}, y.shape)
    out = numbers.out(*x.shape, kind="complex")
    yield Call("fft_resident", {"x": Memory(x), "out": out, **rows, "N": s.n_fft, "inverse": True, **where})
    out = numbers.out(*half.shape, kind="complex")
    yield Call("rfft_resident", {"x": Memory(y), "out": out, **rows, "N": s.n_fft, **where})
    yield Call("irfft_resident", {"X": Memory(half), "out": numbers.out(*y.shape), **rows, "n": s.n_fft, **where})


def spectrograms(s, numbers):
    y = numbers.real(s.batch, s.length)
    plane = s.batch, s.frames, s.bins
    z, window = numbers.complex(*plane), np.hanning(s.n_fft) + 0.1
    frame = {"n_fft": s.n_fft, "hop": s.hop, "center": True}
    signal, spectra = {"batch": s.batch, "length": s.length}, {"batch": s.batch, "bins": s.bins, "frames": s.frames}
    strides = {"stride_batch": s.frames * s.bins, "stride_bin": 1, "stride_frame": s.bins}
    where = {"prec": s.prec, "device": 0, "stream": 0}
    length, name = {"length": s.length}, {"window": "hann"}
    yield Call("stft_staged", {"y": y, "window": window, **frame, "output": "db", "eps": EPS},
               (s.batch, s.bins, s.frames))
    yield Call("stft_resident", {"x_ptr": Memory(y), "out_ptr": numbers.out(*plane, kind="complex"), **signal, **frame,
                                 "output": "complex", "eps": EPS, **name, **where})
    yield Call("stft_adjoint_resident", {"g_ptr": Memory(z), "gx_ptr": numbers.out(*y.shape), **spectra, **strides,
                                         **frame, **length, **name, **where})
    yield Call("stft_adjoint_mode_resident", {
        "g_ptr": Memory(numbers.real(*plane)), "x_ptr": Memory(y), "gx_ptr": numbers.out(*y.shape), **spectra,
        **strides, **frame, **length, "output": "power", "eps": EPS, "window": window, **where})
    yield Call("istft_staged", {"Z": z, **name, **frame, "length": -1}, y.shape)
    yield Call("istft_resident", {"z_ptr": Memory(z), "y_ptr": numbers.out(*y.shape), **spectra, **strides, **frame,
                                  **length, "window": window, **where})
    yield Call("istft_adjoint_resident", {
        "gy_ptr": Memory(y), "gz_ptr": numbers.out(*plane, kind="complex"), **signal, **frame, "frames": s.frames,
        **name, **where})
    angles, rounds = np.exp(1j * np.angle(z)).astype(s.complex), {"n_iter": 2, "momentum": 0.5}
    loud = numbers.positive(*plane)
    yield Call("griffinlim_staged", {"S": loud, "ang": angles, **name, **frame, **rounds, "length": -1}, y.shape)
    yield Call("griffinlim_resident", {
        "s_ptr": Memory(loud), "ang_ptr": Memory(angles, written=True), "y_ptr": numbers.out(*y.shape),
        "batch": s.batch, "frames": s.frames, "bins": s.bins, **frame, **rounds, **length, **name, **where})


def bands(s, numbers):
    n_mels, n_out, db = 10, 5, 10.0
    y, fb = numbers.real(s.batch, s.length), abs(np.random.default_rng(3).standard_normal((n_mels, s.bins)))
    mel, cepstra = (s.batch, s.frames, n_mels), (s.batch, s.frames, n_out)
    frame = {"n_fft": s.n_fft, "hop": s.hop, "center": True}
    form, ends = {"power": 2.0, "output": "power", "eps": EPS}, {"n_out": n_out, "lifter": 22.0, "top_db": 80.0}
    signal, where = {"batch": s.batch, "length": s.length}, {"prec": s.prec, "device": 0, "stream": 0}
    bank, name, strides = {"fb": fb}, {"window": "hann"}, {
        "stride_batch": s.frames * n_mels, "stride_bin": 1, "stride_frame": n_mels}
    yield Call("mel_staged", {"y": y, **name, **bank, **frame, **form}, (s.batch, n_mels, s.frames))
    yield Call("mel_resident", {"x_ptr": Memory(y), "mel_ptr": numbers.out(*mel), **signal, **bank, **frame, **form,
                                **name, **where})
    yield Call("mel_adjoint_resident", {
        "g_ptr": Memory(numbers.real(*mel)), "x_ptr": Memory(y), "gx_ptr": numbers.out(*y.shape), "batch": s.batch,
        "n_mels": n_mels, "frames": s.frames, **strides, **bank, **frame, "length": s.length, **form, **name, **where})
    m = numbers.positive(*mel)
    rows = {"items": s.batch, "n": s.frames * n_mels}
    floor = {"topdb": 80.0, "hastop": True}
    yield Call("db_resident", {"s_ptr": Memory(m), "out_ptr": numbers.out(*mel), **rows, "mul": db, "amin": EPS,
                               "cref": 0.0, **floor, **where})
    yield Call("db_inv_resident", {"d_ptr": Memory(m), "out_ptr": numbers.out(*mel), "total": m.size, "mul": db,
                                   "ref": 1.0, **where})
    yield Call("db_adjoint_resident", {
        "s_ptr": Memory(m), "g_ptr": Memory(numbers.real(*mel)), "gs_ptr": numbers.out(*mel), **rows, "mul": db,
        "amin": EPS, **floor, **where})
    flat = m.reshape(-1, n_mels)
    back = {"P": np.random.default_rng(4).standard_normal((s.bins, n_mels)), "key": f"campaign {s.bins}", "clamp": True}
    linear = len(flat), s.bins
    yield Call("inverse_mel_scale_staged", {"M": flat, **back}, linear)
    yield Call("inverse_mel_scale_resident", {"m_ptr": Memory(flat), "out_ptr": numbers.out(*linear),
                                              "frames": len(flat), **back, **where})
    yield Call("inverse_mel_scale_adjoint_resident", {
        "m_ptr": Memory(flat), "g_ptr": Memory(numbers.real(*linear)), "gm_ptr": numbers.out(*flat.shape),
        "frames": len(flat), **back, **where})
    yield Call("cepstra_staged", {"y": y, **name, **bank, **frame, **ends, "eps": EPS}, (s.batch, n_out, s.frames))
    yield Call("cepstra_resident", {"y_ptr": Memory(y), "out_ptr": numbers.out(*cepstra), **signal, **bank, **frame,
                                    **ends, "eps": EPS, **name, **where})
    yield Call("cepstra_adjoint_resident", {
        "gc_ptr": Memory(numbers.real(*cepstra)), "x_ptr": Memory(y), "gx_ptr": numbers.out(*y.shape), **signal, **bank,
        **frame, **ends, "eps": EPS, **name, **where})


def statistics(s, numbers):
    y, rows = numbers.real(s.batch, s.length), s.batch * s.frames
    m = numbers.positive(rows, s.bins)
    frame = {"window": "hann", "n_fft": s.n_fft, "hop": s.hop, "center": True}
    signal, where = {"batch": s.batch, "length": s.length}, {"prec": s.prec, "device": 0, "stream": 0}
    matrix = {"rows": rows, "n": s.bins}
    kind = {"stat": 1, "fstep": 15.625, "p": 2.0, "amin": AMIN, "roll": 0.85}
    edges = np.unique([0, 4, s.bins // 2, s.bins]).astype(np.int32)
    split = {"bt": edges, "bq": np.maximum(np.diff(edges) // 4, 1).astype(np.int32), "amin": AMIN, "linear": False}
    many = len(edges) - 1
    yield Call("spectral_staged", {"y": y, **frame, **kind}, (s.batch, s.frames))
    yield Call("spectral_reduce_resident", {"m_ptr": Memory(m), "out_ptr": numbers.out(rows), **matrix, **kind,
                                            **where})
    yield Call("spectral_signal_resident", {"x_ptr": Memory(y), "out_ptr": numbers.out(rows), **signal, **frame, **kind,
                                            **where}, s.fused)
    yield Call("spectral_adjoint_resident", {
        "m_ptr": Memory(m), "gy_ptr": Memory(numbers.real(rows)), "gm_ptr": numbers.out(*m.shape), **matrix,
        **{name: value for name, value in kind.items() if name != "roll"}, **where})
    yield Call("contrast_staged", {"y": y, **frame, **split}, (s.batch, many, s.frames))
    yield Call("contrast_reduce_resident", {"m_ptr": Memory(m), "out_ptr": numbers.out(rows, many), **matrix, **split,
                                            **where})
    yield Call("contrast_signal_resident", {"x_ptr": Memory(y), "out_ptr": numbers.out(rows, many), **signal, **frame,
                                            **split, **where}, s.fused)
    yield Call("contrast_adjoint_resident", {
        "m_ptr": Memory(m), "gy_ptr": Memory(numbers.real(rows, many)), "gm_ptr": numbers.out(*m.shape), **matrix,
        **split, **where})


def frame_features(s, numbers):
    y, rows = numbers.real(s.batch, s.length), s.batch * s.frames
    energy = numbers.positive(s.batch, s.frames)
    m, c = numbers.positive(s.batch, s.frames, s.bins), numbers.positive(rows, 12)
    where = {"prec": s.prec, "device": 0, "stream": 0}
    sizes = {"batch": s.batch, "length": s.length, "frames": s.frames, "frame_length": s.n_fft, "hop": s.hop,
             "center": True}
    planes = {"batch": s.batch, "frames": s.frames, "bins": s.bins}
    yield Call("rms_resident", {"x_ptr": Memory(y), "out_ptr": numbers.out(*energy.shape), **sizes, **where})
    yield Call("rms_adjoint_resident", {
        "x": Memory(y), "rms": Memory(energy), "gy": Memory(numbers.real(*energy.shape)), "gx": numbers.out(*y.shape),
        **sizes, **where})
    yield Call("onset_strength_resident", {"m_ptr": Memory(m), "out_ptr": numbers.out(*energy.shape), **planes,
                                           **where})
    yield Call("onset_strength_adjoint_resident", {
        "m": Memory(m), "gy": Memory(numbers.real(*energy.shape)), "gm": numbers.out(*m.shape), **planes, **where})
    yield Call("tonnetz_resident", {"c_ptr": Memory(c), "out_ptr": numbers.out(rows, 6), "rows": rows, **where})
    yield Call("tonnetz_adjoint_resident", {"c": Memory(c), "gy": Memory(numbers.real(rows, 6)),
                                            "gc": numbers.out(*c.shape), "rows": rows, **where})
    yield Call("rms_staged", {"y": y, "frame_length": s.n_fft, "hop": s.hop, "center": True}, energy.shape)
    yield Call("onset_strength_staged", {"S": np.ascontiguousarray(m.swapaxes(1, 2))}, energy.shape)
    yield Call("tonnetz_staged", {"C": numbers.positive(s.batch, 12, s.frames)}, (s.batch, 6, s.frames))


def octaves_of(s):
    """Seven bins on the signal, five at half its rate, by frames of n_fft and of half as many."""
    rng = np.random.default_rng(s.n_fft)
    return [(level, s.hop >> level, n_fft, row, *rng.standard_normal((2, rows, n_fft // 2 + 1)) / n_fft)
            for level, n_fft, row, rows in ((0, s.n_fft, 0, 7), (1, s.n_fft // 2, 7, 5))]


def design_of(s):
    return {"n_levels": 2, "octaves": octaves_of(s), "taps": kevra.half_band_taps(), "plan_key": f"campaign {s.n_fft}",
            "n_bins": 12, "frames": s.frames}


def constant_q(s, numbers):
    y, design = numbers.real(s.batch, s.length), design_of(s)
    c = numbers.complex(s.batch, 12, s.frames)
    pitches, values = {"classes": np.arange(12) % 6, "n_chroma": 6}, numbers.real(s.batch, 6, s.frames)
    both = {name: {**design, **pitches}[name] for name in
            ("n_levels", "octaves", "taps", "classes", "plan_key", "n_bins", "n_chroma", "frames")}
    signal, where = {"batch": s.batch, "length": s.length}, {"prec": s.prec, "device": 0, "stream": 0}
    form = {"output": "magnitude", "eps": EPS}
    yield Call("cqt_staged", {"y": y, **design, **form}, c.shape)
    yield Call("cqt_resident", {"x_ptr": Memory(y), "out_ptr": numbers.out(*c.shape), **signal, **design, **form,
                                **where})
    yield Call("cqt_adjoint_resident", {"x_ptr": Memory(y), "g_ptr": Memory(c.real.copy()),
                                        "gx_ptr": numbers.out(*y.shape), **signal, **design, **form, **where})
    yield Call("chroma_staged", {"y": y, **both}, values.shape)
    yield Call("chroma_resident", {"x_ptr": Memory(y), "out_ptr": numbers.out(*values.shape), **signal, **both,
                                   **where})
    yield Call("chroma_adjoint_resident", {"x_ptr": Memory(y), "g_ptr": Memory(values),
                                           "gx_ptr": numbers.out(*y.shape), **signal, **both, **where})
    yield Call("icqt_cg_staged", {"C": c, "y0": np.zeros_like(y), **design, "n_iter": 2}, y.shape)
    yield Call("icqt_cg_resident", {"c_ptr": Memory(c), "y_ptr": Memory(np.zeros_like(y), written=True), **signal,
                                    **design, "n_iter": 2, **where})
    duals = [(level, n_fft, row, len(br), br + 1j * bi) for level, _, n_fft, row, br, bi in design["octaves"]]
    direct = {"octaves": duals, "plan_key": f"campaign {s.n_fft} duals"}
    extents = {"n_bins": 12, "frames": s.frames, "hop": s.hop}
    yield Call("icqt_direct_resident", {"c_ptr": Memory(c), "y_ptr": numbers.out(*y.shape), "batch": s.batch,
                                        **extents, "length": s.length, **direct, **where})
    yield Call("icqt_direct_staged", {"C": c, "length": s.length, **extents, **direct}, y.shape)


def filters(s, numbers):
    n, m = s.length, 20
    outlen = n + m - 1
    transform = {"nf": 1 << outlen.bit_length(), "start": 0, "outlen": outlen}
    window = {"start": 0, "outlen": outlen}
    sizes = {"rows": s.batch, "rows_b": 1, "n": n, "m": m}
    where = {"prec": s.prec, "device": 0, "stream": 0}
    for name, kind, extra in (("conv_fft", "real", transform), ("conv_cplx", "complex", transform),
                              ("conv_direct", "real", window)):
        a, b = getattr(numbers, kind)(s.batch, n), getattr(numbers, kind)(1, m)
        yield Call(f"{name}_staged", {"a": a, "b": b, **extra}, (s.batch, outlen))
        yield Call(f"{name}_resident", {"a_ptr": Memory(a), "b_ptr": Memory(b),
                                        "y_ptr": numbers.out(s.batch, outlen, kind=kind), **sizes, **extra, **where})
    yield Call("conv_adjoint_resident", {
        "gy_ptr": Memory(numbers.real(s.batch, outlen)), "w_ptr": Memory(numbers.real(1, m)),
        "out_ptr": numbers.out(s.batch, n), "rows": s.batch, "rows_w": 1, "len_g": outlen, "len_w": m,
        "nf": transform["nf"], "off": 0, "sl_start": m - 1, "sl_len": n, "sum_rows": 0, "cplx": 0, **where})
    b, a = np.array([0.5, 0.2, 0.1], s.real), np.array([-0.6, 0.3], s.real)
    order = {"p": len(a), "m1": len(b)}
    companion = np.array([-a, [1, 0]])
    powers = [np.linalg.matrix_power(companion, 16 << level).ravel() for level in range(8)]
    cf = np.concatenate([b, a, *powers]).astype(s.real)
    x, xh, zy = numbers.real(s.batch, n), numbers.real(s.batch, len(b) - 1), numbers.real(s.batch, len(a))
    yield Call("lfilter_pack_resident", {"b_ptr": Memory(b), "a_ptr": Memory(a), "cf_ptr": numbers.out(cf.size),
                                         **order, **where})
    yield Call("lfilter_staged", {"x": x, "cf": cf, **order, "xh": xh, "zy": zy}, x.shape)
    yield Call("lfilter_resident", {
        "x_ptr": Memory(x), "y_ptr": numbers.out(*x.shape), "cf_ptr": Memory(cf), "rows": s.batch, "n": n, **order,
        **where, "xh_ptr": Memory(xh), "zy_ptr": Memory(zy), "threads": 256, "seq": 16})


def routing(s, _):
    yield Call("set_shape_hint", {
        "op": "stft", "n_fft": s.n_fft, "hop": s.hop, "center": True, "prec": 64 if s.double else 32,
        "output": "complex", "extra": 0, "device": 0, "ept": 0, "fpb": 0, "tpf": 0, "core": 0, "var": 0})
    yield Call("shape_epoch", gives=int)
    yield Call("shape_hint_clear")
    yield Call("route_explain", {"op": "stft", "n_fft": s.n_fft, "prec": s.prec, "device": 0}, dict)


def tuners(s, numbers):
    y, z = Memory(numbers.real(s.batch, s.length)), Memory(numbers.complex(s.batch, s.frames, s.bins))
    frame, name = {"n_fft": s.n_fft, "hop": s.hop, "center": True}, {"window": "hann"}
    signal, form = {"batch": s.batch, "length": s.length}, {"output": "power", "eps": EPS}
    where = {"prec": s.prec, "device": 0, "iters": 1, "warmup": 1}
    spectra = {"batch": s.batch, "bins": s.bins, "frames": s.frames, "stride_batch": s.frames * s.bins, "stride_bin": 1,
               "stride_frame": s.bins}
    fb = {"fb": abs(np.random.default_rng(3).standard_normal((10, s.bins)))}
    rows = {"batch": s.batch, "n": s.n_fft}
    yield Call("stft_autotune_gpu", {"x_ptr": y, **signal, **frame, **form, **name, **where}, dict)
    yield Call("istft_autotune_gpu", {"z_ptr": z, **spectra, **frame, **name, **where}, dict)
    yield Call("mel_autotune_gpu", {"x_ptr": y, **signal, **fb, **frame, "power": 2.0, **form, **name, **where}, dict)
    yield Call("fft_autotune_gpu", {"x_ptr": Memory(numbers.complex(s.batch, s.n_fft)), **rows, **where}, dict)
    yield Call("rfft_autotune_gpu", {"x_ptr": Memory(numbers.real(s.batch, s.n_fft)), **rows, **where}, dict)
    yield Call("cqt_autotune_gpu", {"x_ptr": y, **signal, **design_of(s), **form, **where}, dict)
