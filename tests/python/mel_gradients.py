"""What the tests of gradients through mel bands share: banks, and the gradients by numpy."""

import itertools

import numpy as np
from signal_gradients import stft_transposed
from spectrograms import stft_reference
from support import DOUBLE, FLOAT

RESULTS = list(itertools.product((1, 2), ("power", "magnitude", "db")))
# Relative error of a row in the Euclidean norm, from two transforms and two passes of the bank.
BOUND = {FLOAT: 4e-6, DOUBLE: 3e-14}


def banks_of(n, n_mels=9):
    """Triangles, two to a bin and fewer; bands of any width and place, dense ones and an empty one: up to all to a bin."""
    bins = n // 2 + 1
    rng = np.random.default_rng(n)
    centers = np.linspace(-0.5, bins - 0.2, n_mels + 2)
    slopes = np.arange(bins)[None] - centers[:, None]
    triangles = np.minimum(slopes[:-2] / np.diff(centers)[:-1, None], -slopes[2:] / np.diff(centers)[1:, None])
    triangles = np.maximum(triangles, 0) + 0.01 * (triangles > 0)
    assert (np.count_nonzero(triangles, axis=0) <= 2).all()
    crowded = rng.uniform(0.1, 1, (n_mels, bins))
    for row in crowded[:-2]:
        low, high = sorted(rng.integers(0, bins + 1, 2))
        row[:low] = row[high:] = 0
        row[low + 1:high:3] = 0
    crowded[1] = 0
    return {"triangles": triangles, "crowded": crowded}


def mel_transposed(y, fb, n, hop, center, power, output, g, eps=1e-10, window="hann"):
    """Of sum(g S), g being (batch, frames, bands): dense products, in double."""
    spectrum = stft_reference(y, window, n, hop, center).swapaxes(1, 2)
    bands = abs(spectrum) ** power @ fb.T
    root = np.sqrt(bands)
    slope = {"power": np.ones(bands.shape), "magnitude": np.divide(0.5, root, out=0 * root, where=root > 1e-12),
             "db": 10 / np.log(10) / np.maximum(bands + eps, 1e-300)}[output]
    size = abs(spectrum)
    of_bin = (2 * spectrum if power == 2 else np.divide(spectrum, size, out=0 * spectrum, where=size > 1e-12))
    return stft_transposed((g * slope) @ fb * of_bin, window, n, hop, center, y.shape[1])


def assert_rows(got, want, bound, what):
    error = np.linalg.norm(got - want, axis=1) / np.linalg.norm(want, axis=1)
    assert error.max() <= bound, f"{what}: {error.max()}"
