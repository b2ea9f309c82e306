# One process's first call, timed, as a line of JSON. It tells that it is ready and waits for the end of its input,
# so that many can start at one instant.
import json
import sys
import time

import kevra
import numpy as np

y = np.random.default_rng(1).standard_normal((1, 16384)).astype(np.float32)
print("ready", flush=True)
sys.stdin.read()

started = time.perf_counter()
if not kevra.available():
    raise SystemExit("no device")
ready = time.perf_counter()
result = kevra.rms_staged(y, 2048, 512, False)
done = time.perf_counter()

frames = np.lib.stride_tricks.sliding_window_view(y[0].astype(np.float64), 2048)[::512]
exact = np.sqrt(np.mean(frames**2, axis=1))
if not np.allclose(result[0], exact, rtol=2e-6, atol=0):
    raise SystemExit("the result is wrong")
print(json.dumps({"start": ready - started, "call": done - ready}))
