"""Arguments that cannot be served: a plainly worded exception, nothing queued, and the next call works."""

import kevra
import numpy as np
import pytest
from support import Device, pools_in_use

Y = np.ones((2, 10), np.float32)
HUGE = 2**31
STAGED = {
    "no dimension": ((np.float32(1), 4, 2, True), ValueError, r"^rms expects \(batch, samples\)$"),
    "1-D": ((Y[0], 4, 2, True), ValueError, r"^rms expects \(batch, samples\)$"),
    "3-D": ((Y[None], 4, 2, True), ValueError, r"^rms expects \(batch, samples\)$"),
    "None": ((None, 4, 2, True), ValueError, r"^rms expects \(batch, samples\)$"),
    "no rows": ((Y[:0], 4, 2, True), ValueError, "batch is 0, must be at least 1"),
    "no samples": ((Y[:, :0], 4, 2, True), ValueError, "length is 0, must be at least 1"),
    "no samples, no frame": ((Y[:, :0], 4, 2, False), ValueError, "input of 0 samples is shorter than n_fft"),
    "float16": ((Y.astype(np.float16), 4, 2, True), TypeError,
                "^float16 input is not supported here; cast to float32$"),
    "objects": ((np.array([[object()]]), 4, 2, True), TypeError, "float"),
    "text": ((np.array([["a", "b"]]), 4, 2, True), ValueError, "could not convert string to float"),
    "ragged": (([[1.0], [1.0, 2.0]], 4, 2, True), ValueError, "inhomogeneous"),
    "hop 0": ((Y, 4, 0, True), ValueError, "^rms: hop is 0, must be at least 1"),
    "hop -1": ((Y, 4, -1, True), ValueError, "^rms: hop is -1, must be at least 1"),
    "huge hop": ((Y, 4, HUGE, True), ValueError, f"hop is {HUGE}, must be at most {HUGE - 1}"),
    "frame_length 0": ((Y, 0, 2, True), ValueError, "^rms: frame_length is 0, must be at least 1"),
    "huge frame_length": ((Y, HUGE, 2, True), ValueError, f"frame_length is {HUGE}, must be at most {HUGE - 1}"),
    "frame_length beyond 64 bits": ((Y, 2**64, 2, True), TypeError, "incompatible function arguments"),
    "frame longer than the signal": ((Y, 11, 2, False), ValueError,
                                     "^input of 10 samples is shorter than n_fft with center=False$"),
    "one sample to reflect": ((Y[:, :1], 2, 1, True), ValueError, "length is 1, must be at least 2"),
    "fractional hop": ((Y, 4, 1.5, True), TypeError, "incompatible function arguments"),
    "text for center": ((Y, 4, 2, "yes"), TypeError, "incompatible function arguments"),
    "an argument short": ((Y, 4, 2), TypeError, "incompatible function arguments"),
}
# batch, length, frames, frame_length, hop, center, prec, device, stream
GOOD = {"batch": 2, "length": 10, "frames": 6, "frame_length": 4, "hop": 2, "center": True, "prec": 1, "device": 0,
        "stream": 0}
RESIDENT = [
    ({"batch": 0}, ValueError, "^rms: batch is 0, must be at least 1"),
    ({"length": 0}, ValueError, "^rms: length is 0, must be at least 1"),
    ({"frames": -3}, ValueError, "^rms: frames is -3, must be at least 1"),
    ({"frame_length": -(2**63)}, ValueError, "frame_length is -9223372036854775808, must be at least 1"),
    ({"hop": 2**63 - 1}, ValueError, "hop is 9223372036854775807, must be at most 2147483647"),
    ({"batch": HUGE}, ValueError, "batch is 2147483648, must be at most 2147483647"),
    ({"frames": 2**63 - 1}, ValueError, "frames is 9223372036854775807, must be at most 2147483647"),
    ({"batch": 65536, "frames": 32768}, ValueError, "batch x frames is 2147483648, must be at most 2147483647"),
    ({"length": 1}, ValueError, "length is 1, must be at least 2"),
    ({"device": -1}, RuntimeError, r"SetDevice\(dev_id\) failed: "),
    ({"device": 99}, RuntimeError, r"SetDevice\(dev_id\) failed: "),
    ({"device": 2**31}, TypeError, "incompatible function arguments"),
    ({"stream": -1}, TypeError, "incompatible function arguments"),
    ({"stream": None}, TypeError, "incompatible function arguments"),
    ({"length": "10"}, TypeError, "incompatible function arguments"),
]


@pytest.mark.parametrize("case", STAGED)
def test_staged_refuses(case):
    arguments, kind, words = STAGED[case]
    before = pools_in_use()
    with pytest.raises(kind, match=words):
        kevra.rms_staged(*arguments)
    assert pools_in_use() == before
    np.testing.assert_array_equal(kevra.rms_staged(Y, 4, 2, True), np.ones((2, 6)))


@pytest.mark.parametrize("changes, kind, words", RESIDENT, ids=[str(row[0]) for row in RESIDENT])
def test_resident_refuses_and_queues_nothing(changes, kind, words):
    with Device() as device:
        x, out = device.upload(Y), device.upload(np.full((2, 6), 7, np.float32))
        with pytest.raises(kind, match=words):
            kevra.rms_resident(x, out, *{**GOOD, **changes}.values())
        np.testing.assert_array_equal(device.download(out, (2, 6), np.float32), 7)
        kevra.rms_resident(x, out, *GOOD.values())
        np.testing.assert_array_equal(device.download(out, (2, 6), np.float32), 1)


def test_resident_takes_no_keywords():
    with pytest.raises(TypeError, match="incompatible function arguments"):
        kevra.rms_resident(0, 0, **GOOD)
