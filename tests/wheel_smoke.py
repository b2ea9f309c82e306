"""Tries an installed kevra on the CPU device: run with the interpreter of an environment that has nothing else."""

import importlib.util
import subprocess
import sys
from pathlib import Path

import kevra
import numpy as np

installed = Path(kevra.__file__)
assert installed.is_relative_to(sys.prefix), f"kevra comes from {installed}, not from the environment {sys.prefix}"
assert not kevra.__file__.startswith(str(Path(__file__).parents[1])), "kevra comes from the source tree"

assert Path(kevra.cuda_device_path()).is_file() and Path(kevra.cuda_device_path()).with_name("libhiprtc.so").is_file()
assert importlib.util.find_spec("kevra.torch"), "kevra.torch is not in the wheel"
kevra.use_cpu_device()
signal = np.random.default_rng(1).standard_normal((2, 5000))
frames = np.lib.stride_tricks.sliding_window_view(signal, 512, axis=1)[:, ::128]
exact = np.sqrt(np.mean(frames**2, axis=2))
for values, tolerance in ((signal, 1e-14), (signal.astype(np.float32), 1e-6)):
    energy = kevra.rms_staged(values, 512, 128, False)
    assert energy.dtype == values.dtype
    np.testing.assert_allclose(energy, exact, rtol=tolerance)

report = subprocess.run([sys.executable, "-m", "kevra"], check=True, capture_output=True, text=True).stdout
assert kevra.cpu_device_path() in report, report
print(report)
