"""Which spectrograms are measured: settings drawn at random, each way that a frame takes equally often."""

from dataclasses import dataclass, field

import numpy as np
from accuracy import sizes

WINDOWS = ["hann", "hamming", "blackman", "blackmanharris", "nuttall", "bartlett", "boxcar", "array"]
FORMS = ["complex", "magnitude", "power", "db"]
BANDS = [(2, "power"), (1, "magnitude"), (1, "power"), (2, "db")]  # power of the spectrum, form of a band
WAYS = [
    "tree", "shuffles", "registers", "mixed radices", "pairs of odd frames", "a prime stage", "chirp", "four-step",
]  # fmt: skip
LOOSE_HOPS = 0.5  # share of hops that are any number up to twice the frame
LONGEST_SMOOTH = 3000


@dataclass(frozen=True)
class Setting:
    number: int
    way: str  # what the size and the hint aim at; what ran is read from the debug output
    n_fft: int
    hop: int
    center: bool
    batch: int
    length: int
    window: str  # "array" stands for random weights
    output: str
    power: int  # of the spectrum in a band
    band_output: str
    bands: int
    hint: dict[str, int] = field(default_factory=dict)

    def __str__(self) -> str:
        hint = "".join(f", {name} {value}" for name, value in self.hint.items())
        return (
            f"setting {self.number}: {self.batch} x {self.length}, n_fft {self.n_fft}, hop {self.hop}, {self.window}"
            f"{', centred' * self.center}, {self.output}, {self.bands} bands {self.band_output}{hint}"
        )


def draw(seed: int, count: int) -> list[Setting]:
    return [setting(seed, number) for number in range(count)]


def setting(seed: int, number: int) -> Setting:
    """The number goes through the ways first, then through the forms; all else is random."""
    random = np.random.default_rng([seed, number])
    way = WAYS[number % len(WAYS)]
    n_fft, hint = size_and_hint(way, random)
    center = bool(random.integers(2))
    any_hop = random.random() < LOOSE_HOPS
    hop = int(random.integers(1, 2 * n_fft + 1)) if any_hop else max(n_fft // int(random.integers(2, 6)), 1)
    least = n_fft // 2 + 1 if center else n_fft
    length = least + int(random.integers(0, max(8 * min(hop, n_fft), 40)))
    power, band_output = BANDS[number // len(WAYS) % len(BANDS)]
    return Setting(
        number=number, way=way, n_fft=n_fft, hop=hop, center=center, batch=int(random.integers(1, 4)), length=length,
        window=str(random.choice(WINDOWS)), output=FORMS[number // len(WAYS) % len(FORMS)], power=power,
        band_output=band_output, bands=int(random.integers(1, 130)), hint=hint,
    )  # fmt: skip


def size_and_hint(way: str, random: np.random.Generator) -> tuple[int, dict[str, int]]:
    def pick(values):
        return int(random.choice(values))

    def smooth(odd: bool) -> int:
        lengths = [n for n in sizes.smooth(LONGEST_SMOOTH) if n % 2 == odd and n & (n - 1)]
        return pick(lengths)

    if way == "tree":
        hints = [{}, {"var": pick(range(1, 16)) << 4}, {"ept": 4, "fpb": 3}, {"fpb": pick([1, 2, 5])}]
        return 2 ** pick(range(1, 12)), {"core": 1, **hints[pick(range(4))]}
    if way == "shuffles":
        n_fft = pick([256, 512, 1024])
        return n_fft, {"tpf": 32, "fpb": pick([1, 2, 3, 8])} if n_fft != 512 else {}
    if way == "registers":
        n_fft = 2 ** pick(range(9, 14))
        return n_fft, {"core": 3} if n_fft < 2048 else {}
    if way == "mixed radices":
        return smooth(odd=False), [{}, {"var": 4}, {"tpf": pick([32, 48, 100, 256])}][pick(range(3))]
    if way == "pairs of odd frames":
        return smooth(odd=True), [{}, {"var": 4}, {"tpf": pick([32, 64, 100])}][pick(range(3))]
    if way == "a prime stage":
        return pick([17, 34, 51, 68, 74, 82, 146, 170, 272, 323, 328, 511, 578, 598, 1022, 1139]), {}
    if way == "chirp":
        return pick([127, 254, 508, 1009, 1018, 2018, 2039, 4093, 5003, 10007]), {}
    return pick([16384, 20000, 24000, 25088, 32768]), {}
