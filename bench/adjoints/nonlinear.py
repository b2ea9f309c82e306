"""Adjoints of what is not linear, in double, against central differences of the forward pass."""

import kevra
import numpy as np
from adjoints.device import On, Out, run

STEP = 5e-5  # rounding costs 1e-10; decibels of the faintest bins err by 2.5e-9 here, by 1.5e-7 at four times it
GAP = 0.02  # between magnitudes
N_FFT, HOP, LENGTH = 32, 12, 96
BINS, FRAMES = N_FFT // 2 + 1, LENGTH // HOP + 1
BANK = kevra.mel_filter_bank(8000, N_FFT, 6, scale="htk", norm=None)
MATRIX = np.linalg.pinv(BANK)
EDGES, COUNTS = [0, 2, 7, 17], [1, 2, 4]
FLOOR = 7.0  # dB below the peak, so that some values are raised and some are not


def differences(forward, x: np.ndarray, weights: np.ndarray) -> np.ndarray:
    """The gradient of E = sum of weights times forward(x), x being one row (1, ...): all steps of all elements are rows
    of one batch. Four points each, whose error falls with the fourth power of the step."""
    steps = STEP * np.eye(x.size).reshape(x.size, *x.shape[1:])
    batch = np.concatenate([x + k * steps for k in (-2, -1, 1, 2)])
    energies = (forward(batch) * weights).reshape(4, x.size, -1).sum(axis=2)
    return ((energies[0] - energies[3]) + 8 * (energies[2] - energies[1])).reshape(x.shape) / (12 * STEP)


def signal(random):
    return random.standard_normal((1, LENGTH))


def spaced(random, shape):
    """Magnitudes of which no two come within reach of a step: kinks lie where their order changes."""
    count = int(np.prod(shape))
    values = 0.1 + GAP * (np.arange(count) + 0.01 * random.random(count))
    return random.permutation(values).reshape(shape)


def _framed(name, forward, *form):
    """A gradient with frames last in its values, and last but one in memory."""
    def gradient(x, g):
        _, bins, frames = g.shape
        lying = np.ascontiguousarray(g.swapaxes(1, 2))
        shape = (1, bins, frames, bins * frames, 1, bins)
        return run(name, On(lying), On(x), Out(x.shape, float), *shape, *form)
    return signal, forward, gradient


def stft(output):
    return _framed("stft_adjoint_mode_resident", lambda y: kevra.stft_staged(y, "hann", N_FFT, HOP, True, output),
                   N_FFT, HOP, True, LENGTH, output, 1e-10, "hann")


def mel(power, output):
    return _framed("mel_adjoint_resident", lambda y: kevra.mel_staged(y, "hann", BANK, N_FFT, HOP, True, power, output),
                   BANK, N_FFT, HOP, True, LENGTH, power, output, 1e-10, "hann")


def cepstra(top_db):
    setting = N_FFT, HOP, True, 5, 4.0, top_db, 1e-10, "hann"
    return (signal, lambda y: kevra.cepstra_staged(y, "hann", BANK, N_FFT, HOP, True, 5, 4.0, top_db),
            lambda x, g: run("cepstra_adjoint_resident", On(g), On(x), Out(x.shape, float), *x.shape, BANK, *setting))


def _rows(reduce, count, setting, gradient):
    """A resident function of rows, (rows, bins) to (rows, count)."""
    return (lambda random: spaced(random, (1, BINS)),
            lambda x: run(reduce, On(x), Out((len(x), count), float), *x.shape, *setting), gradient)


def spectral(stat, p=2.0):
    setting = stat, 0.25, p, 0.21**2  # amin: between two values
    return _rows("spectral_reduce_resident", 1, (*setting, 0.85),
                 lambda x, g: run("spectral_adjoint_resident", On(x), On(g), Out(x.shape, float), *x.shape, *setting))


def contrast(linear):
    setting = np.int32(EDGES), np.int32(COUNTS), 1e-10, linear
    return _rows("contrast_reduce_resident", len(COUNTS), setting,
                 lambda x, g: run("contrast_adjoint_resident", On(x), On(g), Out(x.shape, float), *x.shape, *setting))


def db(has_top):
    return _rows("db_resident", BINS, (20.0, 0.15, 0.0, FLOOR, has_top),
                 lambda x, g: run("db_adjoint_resident", On(x), On(g), Out(x.shape, float), *x.shape, 20.0, 0.15, FLOOR,
                                  has_top))


def rms(center):
    frame, hop = 20, 7

    def gradient(x, g):
        energy = kevra.rms_staged(x, frame, hop, center)
        return run("rms_adjoint_resident", On(x), On(energy), On(g), Out(x.shape, float), *x.shape, g.shape[1], frame,
                   hop, center)
    return signal, lambda y: kevra.rms_staged(y, frame, hop, center), gradient


def onset():
    def gradient(x, g):  # x as the resident functions have it, (batch, frames, bins)
        return run("onset_strength_adjoint_resident", On(x), On(g), Out(x.shape, float), *x.shape)
    return (lambda random: spaced(random, (1, FRAMES, BINS)),
            lambda m: kevra.onset_strength_staged(m.swapaxes(1, 2)), gradient)


def tonnetz():
    return (lambda random: spaced(random, (1, 12)), lambda c: kevra.tonnetz_staged(c[:, :, None])[:, :, 0],
            lambda x, g: run("tonnetz_adjoint_resident", On(x), On(g), Out(x.shape, float), len(x)))


def inverse_mel():
    """Clamped; most bins are above 0 and some below, none within reach of a step."""
    return (lambda random: spaced(random, (1, len(BANK))),
            lambda m: kevra.inverse_mel_scale_staged(m, MATRIX, "adjoint of a bench", True),
            lambda x, g: run("inverse_mel_scale_adjoint_resident", On(x), On(g), Out(x.shape, float), len(x), MATRIX,
                             "adjoint of a bench", True))


PLAN = kevra.constant_q_plan(4000, 16, n_bins=14, bins_per_octave=6, f_min=220)
DESIGN, CHROMA = PLAN.arguments(LENGTH), PLAN.chroma_arguments(LENGTH)


def cqt(output):
    return (signal, lambda y: kevra.cqt_staged(y, *DESIGN, output),
            lambda x, g: run("cqt_adjoint_resident", On(x), On(g), Out(x.shape, float), *x.shape, *DESIGN, output,
                             1e-10))


def chroma():
    """The adjoint takes the peak of a frame for a constant, so the differences are those of the sums over it."""
    peaks = []

    def sums(y):
        magnitudes = kevra.cqt_staged(y, *DESIGN, "magnitude")
        of_class = PLAN.classes[None] == np.arange(PLAN.n_chroma)[:, None]
        return np.einsum("ck,bkt->bct", of_class.astype(float), magnitudes)

    def forward(y):
        values = sums(y)
        if not peaks:
            peaks.append(values.max(axis=1, keepdims=True))
        return values / peaks[0]

    return (signal, forward,
            lambda x, g: run("chroma_adjoint_resident", On(x), On(g), Out(x.shape, float), *x.shape, *CHROMA))


OPERATIONS = {
    **{f"stft, {output}": (stft, output) for output in ("magnitude", "power", "db")},
    **{f"mel of {of}, {output}": (mel, power, output)
       for power, of in ((1, "magnitudes"), (2, "powers")) for output in ("power", "magnitude", "db")},
    "cepstra": (cepstra, -1.0), "cepstra with a floor": (cepstra, FLOOR),
    "centroid": (spectral, 0), "bandwidth": (spectral, 1), "bandwidth, p 1.5": (spectral, 1, 1.5),
    "flatness": (spectral, 2), "contrast": (contrast, False), "contrast, linear": (contrast, True),
    "decibels": (db, False), "decibels with a floor": (db, True),
    "rms": (rms, False), "rms, centred": (rms, True), "onset strength": (onset,), "tonnetz": (tonnetz,),
    **{f"cqt, {output}": (cqt, output) for output in ("magnitude", "power", "db")}, "chroma": (chroma,),
    "inverse mel scale, clamped": (inverse_mel,),
}


def error(name: str, number: int, seed: int) -> float:
    """Of one point: the distance of the two gradients over the length of the differences'."""
    make, *setting = OPERATIONS[name]
    random = np.random.default_rng([seed, number, list(OPERATIONS).index(name)])
    draw, forward, gradient = make(*setting)
    x = draw(random)
    weights = random.standard_normal(forward(x).shape)
    wanted = differences(forward, x, weights)
    got = gradient(x, weights)
    return float(np.linalg.norm(got - wanted) / np.linalg.norm(wanted))
