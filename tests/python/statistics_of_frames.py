"""What the tests of spectral features and of contrast share: resident calls whose output is watched."""

import numpy as np
from support import FLOAT, Device

# Core, n_fft, hop, center, hint. The magnitudes of a frame follow any power-of-two core.
CORES = [
    ("ct", 2, 1, True, {}),
    ("ct", 4, 3, False, {}),
    ("ct", 64, 16, True, {}),
    ("ct", 256, 100, True, {"tpf": 48, "core": 1}),
    ("ct", 2048, 512, False, {"core": 1, "var": 15 << 4, "fpb": 2}),
    ("warp", 256, 64, True, {"tpf": 40}),
    ("warp", 512, 128, True, {}),
    ("ept16", 1024, 300, True, {"core": 3, "fpb": 3}),
    ("ept16", 2048, 512, True, {"core": 3}),
    ("ept16", 4096, 1000, False, {"core": 3}),
]
UNTOUCHED = 7


def noise(n_fft, hop, dtype, batch=2, frames=7):
    """Rows of different size and colour; the frames are no multiple of what a block takes."""
    y = np.random.default_rng(n_fft).standard_normal((batch, n_fft + frames * hop + 3))
    y[1:] = np.cumsum(y[1:], axis=1) / 10
    return y.astype(dtype)


def resident(call, x, shape, dtype=None):
    """What ``call(x_ptr, out_ptr)`` returns and writes; what stands behind the result has to stay."""
    dtype = dtype or x.dtype
    count = int(np.prod(shape))
    with Device() as device:
        out = device.upload(np.full(count + 64, UNTOUCHED, dtype))
        told = call(device.upload(x), out)
        flat = device.download(out, count + 64, dtype)
    np.testing.assert_array_equal(flat[0 if told is False else count:], UNTOUCHED)
    return told, flat[:count].reshape(shape)


def hint(kevra, n_fft, hop, center, prec, ept=0, fpb=0, tpf=0, core=0, var=0):
    """The signal forms follow the hints of the short-time transform's magnitudes."""
    kevra.set_shape_hint("stft", n_fft, hop, center, 32 if prec == FLOAT else 64, "magnitude", 0, 0, ept, fpb, tpf,
                         core, var)
