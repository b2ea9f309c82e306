"""A thin cut through all lengths and wishes: complex and real, both directions, on every route and around its ends."""

import kevra
import numpy as np
import pytest
import test_fft
import test_rfft
from support import DOUBLE, FLOAT, HALF, Device, assert_fft

NAMES = {HALF: "half", FLOAT: "float", DOUBLE: "double"}
# Where a route ends: in double, in float and in half storage, for blocks of 65536 bytes of shared memory.
EDGES = {
    "a complex row fits": (4096, 8192, 8192),
    "a complex row is one too long": (4097, 8193, 8193),
    "a prime's scratch fits": (1924, 3850, 3850),
    "a prime's scratch is too long": (2057, 4114, 4114),
    "a chirp fits": (1811, 3643, 3643),
    "a chirp goes through device memory": (1823, 3863, 41),
    "odd rows two by two": (3645, 7203, 7203),
    "the longest real row of a block": (6144, 16384, 8192),
    "a real row is one too long": (6160, 16400, 16400),
    "four steps": (16384, 32768, 16384),
    "four steps with a prime above 13": (11 * 17 * 64, 19 * 23 * 41, 9 * 17 * 64),
    "four steps of a chirp": (4111, 8209, 8209),
    "products of large primes": (289, 1147, 578),
}
CASES = [pytest.param([(n, (HALF, FLOAT, DOUBLE)[n % 3]) for n in range(first, 513, 128)], id=f"each 128th from {first}")
         for first in range(1, 128, 18)]
CASES += [pytest.param([(n, prec)], id=f"{n} {NAMES[prec]}, {label}") for label, lengths in EDGES.items()
          for n, prec in zip(lengths, (DOUBLE, FLOAT, HALF))]


def check_real(device, n, prec, inverse):
    """Rows of one size: those that share a transform round into each other."""
    stored = np.concatenate([test_rfft.signal(1, n, prec, inverse, seed) for seed in (n, n + 1, n + 2)])
    got = test_rfft.as_numbers(test_rfft.resident(device, stored, n, inverse, prec), not inverse)
    want = test_rfft.reference(stored, n, inverse)
    assert_fft(got + 0j, want + 0j, prec, f"real {n=} {prec=} {inverse=}", op="rfft", n=n)


def check_complex(device, n, prec, inverse):
    test_fft.check(device, 3, n, prec, inverse)


@pytest.mark.parametrize("case", CASES)
def test_lengths(case):
    with Device() as device:
        for n, prec in case:
            check_complex(device, n, prec, inverse=n % 2 == 0)
            check_real(device, n, prec, inverse=n % 2 == 1)
            if len(case) > 1:  # short ones compile quickly
                check_complex(device, n, prec, inverse=n % 2 == 1)
                check_real(device, n, prec, inverse=n % 2 == 0)


ROUTES = {
    "one butterfly": 7, "two passes": 64, "three passes": 343, "uniform radices": 96, "windows": 512,
    "shared memory": 360, "radix 25": 600, "a prime stage": 34, "large primes": 289, "a chirp": 127,
    "a chirp through device memory": 2039, "four steps": 16384,
}
USEFUL = {"core": (0, 1, 2), "ept": (0, 4, 5, 8, 16), "fpb": (0, 1, 2, 4), "tpf": (0, 32, 64, 256),
          "var": (0, 1, 2, 4, 8)}
ABSURD = {"core": (3, 99, -1), "ept": (1, 3, 10**9, -7), "fpb": (1000, 2**31 - 1, -1), "tpf": (1, 7, 1025, 2**31 - 1),
          "var": (15, 16, 2**31 - 1, -2**31)}


def wishes(n):
    """One that helps and one that cannot; others for each length, the same in each run."""
    random = np.random.default_rng(n)
    for values in USEFUL, ABSURD:
        yield {name: int(random.choice(choices)) for name, choices in values.items()}


@pytest.fixture
def no_hints():
    yield
    kevra.shape_hint_clear()


@pytest.mark.parametrize("transform", ["complex", "real"])
@pytest.mark.parametrize("n", [pytest.param(n, id=f"{n} {label}") for label, n in ROUTES.items()])
def test_no_wish_breaks_a_transform(n, transform, no_hints):
    real = transform == "real"
    hint, check = (test_rfft.hint, check_real) if real else (test_fft.hint, check_complex)
    length = 2 * n if real and n % 2 == 0 else n  # an even row is packed into half as many complex values
    with Device() as device:
        for wish, (prec, inverse) in zip(wishes(n), ((FLOAT, n % 2 == 0), (DOUBLE, n % 2 == 1))):
            hint(length, prec, inverse, **wish)
            try:
                check(device, length, prec, inverse)
            except Exception as failure:
                raise AssertionError(f"{transform} n={length} {NAMES[prec]} {inverse=} under {wish}") from failure
