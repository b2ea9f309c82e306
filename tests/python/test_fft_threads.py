"""Many threads transform at once while another moves the hints under them."""

import threading

import kevra
import numpy as np
import pytest
import scipy.fft
from support import DOUBLE, FLOAT, assert_fft, pools_in_use

# Between them complex and real rows of these lengths take every route.
LENGTHS = [5, 34, 45, 64, 96, 127, 289, 343, 512, 2039, 16384]
THREADS = 8
WISHES = [{"core": 1}, {"core": 2}, {"core": 2, "fpb": 2}, {"core": 1, "tpf": 32, "fpb": 3}]


def transforms():
    """Name, call, reference and what assert_fft needs to know, for every length, precision and direction."""
    random = np.random.default_rng(1)
    for n in LENGTHS:
        for prec, real in (FLOAT, np.float32), (DOUBLE, np.float64):
            wide = np.longdouble
            x = random.standard_normal((3, 2 * n)).astype(real).view(np.result_type(real, np.complex64))
            bins = scipy.fft.rfft(x.real.astype(wide)).astype(x.dtype)
            exact = x.astype(np.clongdouble)
            yield f"fft {n}", lambda x=x: kevra.fft_staged(x, False), scipy.fft.fft(exact), prec, "fft", n
            yield f"ifft {n}", lambda x=x: kevra.fft_staged(x, True), scipy.fft.ifft(exact), prec, "fft", n
            yield f"rfft {n}", lambda x=x: kevra.rfft_staged(x.real), scipy.fft.rfft(exact.real), prec, "rfft", n
            back = scipy.fft.irfft(bins.astype(np.clongdouble), n)
            yield f"irfft {n}", lambda b=bins, n=n: kevra.irfft_staged(b, n), back, prec, "rfft", n


@pytest.fixture
def no_hints():
    yield
    kevra.shape_hint_clear()


def test_threads_and_moving_hints_change_no_result(no_hints):
    work = list(transforms())
    for _, call, *_ in work:
        call()  # compiled, tables on the device
    before = pools_in_use()
    failures, running = [], threading.Event()
    running.set()

    def transform(seed):
        for index in np.random.default_rng(seed).permutation(len(work)):
            name, call, want, prec, op, n = work[index]
            try:
                assert_fft(call() + 0j, want + 0j, prec, name, op=op, n=n)
            except Exception as failure:
                failures.append(failure)
                return

    def wish():
        random = np.random.default_rng(THREADS)
        while running.is_set():
            n, bits, inverse = int(random.choice(LENGTHS)), int(random.choice([32, 64])), bool(random.integers(2))
            hint = {"ept": 0, "fpb": 0, "tpf": 0, **WISHES[random.integers(len(WISHES))]}
            kevra.set_shape_hint(str(random.choice(["fft", "rfft"])), n, 0, inverse, bits, "", 0, 0, **hint)
            if random.integers(4) == 0:
                kevra.shape_hint_clear()

    threads = [threading.Thread(target=transform, args=(seed,)) for seed in range(THREADS)]
    wisher = threading.Thread(target=wish)
    for thread in [wisher, *threads]:
        thread.start()
    for thread in threads:
        thread.join()
    running.clear()
    wisher.join()
    assert not failures, failures[0]
    assert pools_in_use() == before
