"""Which transform lengths are measured."""

import math
from itertools import count

import kevra
import numpy as np

SMALL_PRIMES = (2, 3, 5, 7, 11, 13)
FLOAT, DOUBLE = 1, 2
BYTES = {FLOAT: 8, DOUBLE: 16}  # of a complex value in shared memory
LEAST_LIMIT = 49152  # bytes of shared memory that every GPU has; some routes count with no more

# Some of every route: what a busy machine measures in minutes.
THIN = [
    # fmt: off
    *range(1, 17),
    17, 25, 29, 31, 34, 41, 45, 53, 64, 81, 96, 97, 100, 121, 127, 128, 144, 169, 202, 243, 255, 256, 289, 323, 343,
    360, 384, 409, 500, 509, 510, 511, 512, 578, 625, 720, 1000, 1009, 1024, 1147, 1331, 1352, 1811, 1823, 1924,
    2039, 2048, 2057, 3125, 3643, 3863, 4093, 4096, 4097, 4114, 4352, 6144, 6160, 7203, 7906, 8192, 8193, 8209,
    9000, 16384, 32768, 37570, 65536, 65537, 131071, 262144, 1048576,
    # fmt: on
]


def smooth(largest: int) -> list[int]:
    """Every length without a prime factor above 13."""
    return [n for n in range(2, largest + 1) if has_small_factors(n)]


def sweep(seed: int, randoms: int) -> list[int]:
    """Every length to 512, the neighbours of each route's edges, random ones to 2^17, large powers of two."""
    random = np.random.default_rng(seed)
    uniform = random.integers(513, 2**17, randoms // 2, endpoint=True)
    by_octave = np.exp2(random.uniform(9, 17, randoms - randoms // 2)).astype(int)
    chosen = {*range(1, 513), *edges(), *uniform.tolist(), *by_octave.tolist(), 2**18, 2**19, 2**20}
    return sorted(chosen)


def edges() -> list[int]:
    """Lengths around which a route ends: the next of each kind on both sides, and the powers of two themselves."""
    limit = kevra.route_explain("fft", 2, FLOAT)["smem_cap"]
    rows = [limit // BYTES[FLOAT], limit // BYTES[DOUBLE], LEAST_LIMIT // BYTES[DOUBLE]]
    lengths = set()
    for row in rows:
        for padded in (1, 16 / 17, 8 / 9):  # one free slot behind 16 values, or behind 8
            for share in (0.5, 1, 2):  # a chirp's convolution or a prime's scratch; a complex row; a real row
                lengths |= neighbours(int(row * padded * share))
    return sorted(lengths.union(*({2**k - 1, 2**k, 2**k + 1} for k in range(9, 18))))


def neighbours(edge: int) -> set[int]:
    kinds = (is_prime, has_small_factors, has_prime_stage)
    return {next(n for n in steps if kind(n)) for kind in kinds for steps in (count(edge, -1), count(edge + 1))}


def is_prime(n: int) -> bool:
    return n > 1 and all(n % divisor for divisor in range(2, math.isqrt(n) + 1))


def has_small_factors(n: int) -> bool:
    for prime in SMALL_PRIMES:
        while n % prime == 0:
            n //= prime
    return n == 1


def has_prime_stage(n: int) -> bool:
    route = kevra.route_explain("fft", n, FLOAT)
    return route["rader_prime"] > 0 and not route["bluestein"]
