"""One run: every case checked, timed and recorded; figures of other benchmarks beside them; the exit status."""

import datetime
import importlib.metadata
import json
import os
import shlex
import statistics
import subprocess
import sys
import tempfile
from argparse import Namespace
from pathlib import Path

import harness
import kevra
from peers import cases, output, timing
from peers.contenders import Resident

OPERATIONS = [*cases.TRANSFORMS, "rms"]
PACKAGES = ["numpy", "scipy", "librosa", "torch", "cupy"]


def options(description: str, counts: dict[str, int]) -> Namespace:
    more = {
        "sizes": {"type": numbers, "default": cases.POWERS + cases.AWKWARD, "help": "lengths of fft, as 256,1000"},
        "real-sizes": {"type": numbers, "default": cases.REAL, "help": "lengths of rfft and irfft"},
        "batches": {"type": numbers, "default": cases.BATCHES, "help": "rows of the transforms, as 1,256"},
        "signals": {"type": shapes, "default": cases.SIGNALS, "help": "batch and samples for rms, as 1x16384,4x9000"},
        "operations": {"choices": OPERATIONS, "nargs": "+", "default": OPERATIONS},
        "only-peers": {"action": "store_true", "help": "leave out host cost and first calls"},
        "folder": {"default": str(harness.HERE / "results"), "help": "where the JSON and the plot go"},
        "markdown": {"metavar": "FILE", "help": "write the table of ratios for documentation"},
    }
    return harness.parser_of(description, more, {"rounds": 9, "starts": 10, "copy": 256, **counts}).parse_args()


def numbers(text: str) -> list[int]:
    return [harness.positive(part) for part in text.split(",")]


def shapes(text: str) -> list[tuple[int, int]]:
    pairs = [tuple(harness.positive(size) for size in part.split("x")) for part in text.split(",")]
    if any(len(pair) != 2 for pair in pairs):
        raise ValueError(text)
    return pairs


def compare(chosen: Namespace, target: str, contenders_of, libraries: dict, absent: dict, scripts: dict) -> int:
    """contenders_of(case, x, resident, libraries) gives who is timed; `scripts` are other benchmarks with their
    options, run at the end."""
    record = head(target, absent, chosen)
    hip, results = harness.Hip(), []
    with harness.cache_folder():
        record["copy_bytes_per_second"] = timing.copy_rate(hip, chosen.copy)
        lengths = {"fft": chosen.sizes, "rfft": chosen.real_sizes, "irfft": chosen.real_sizes, "rms": []}
        wanted = {operation: lengths[operation] for operation in chosen.operations}
        grid = cases.grid(wanted, chosen.batches, chosen.signals)
        for case in harness.progress(grid, "cases"):
            x = cases.make_input(case)
            with Resident(hip, case, x) as resident:
                contenders = contenders_of(case, x, resident, libraries)
                result = measure(case, x, contenders, chosen.rounds, record["copy_bytes_per_second"])
            results.append({**case.record(), "load": os.getloadavg()[0], **result})
    if chosen.only_peers:
        scripts = {}
    record["other_figures"] = {script: figures_of(script, arguments) for script, arguments in scripts.items()}
    record["load_at_end"] = os.getloadavg()[0]
    record["cases"] = results
    written = output.write(record, target, Path(chosen.folder))
    output.show(record, written)
    if chosen.markdown:
        Path(chosen.markdown).write_text(output.markdown(results))
    return 1 if any("refused" in result for result in results) else 0


def measure(case: cases.Case, x, contenders: list, rounds: int, copied: float) -> dict:
    """Times the contenders of a case, unless one of them gives another result."""
    wanted = cases.exact(case, x)
    for contender in contenders:
        refused = cases.disagreement(case, contender.name, contender.result(contender.call()), wanted)
        if refused:
            return {"refused": refused}
    taken = timing.alternate(contenders, rounds)
    times = {name: summary(timings) for name, timings in taken.items()}
    ours = [contender.name for contender in contenders if contender.ours]
    peers = [contender.name for contender in contenders if not contender.ours]
    speed = {own: {peer: ratio(taken[peer], taken[own]) for peer in peers} for own in ours}
    share = case.bytes_moved / (times["kevra resident"]["median_us"] * 1e-6) / copied
    return {"times": times, "speed_against": speed, "share_of_copy_rate": share}


def summary(timings: list[tuple[float, float]]) -> dict:
    seconds, host = zip(*timings)
    times = {"median_us": statistics.median(seconds), "least_us": min(seconds), "most_us": max(seconds)}
    if host != seconds:
        times["host_median_us"] = statistics.median(host)
    return {name: value * 1e6 for name, value in times.items()}


def ratio(peer: list[tuple[float, float]], own: list[tuple[float, float]]) -> float:
    """Within each round, so that what disturbs both cancels; above 1 kevra is faster."""
    return statistics.median(p / o for (p, _), (o, _) in zip(peer, own))


def figures_of(script: str, arguments: list[str]) -> dict:
    """Another benchmark's figures, in a process of its own. Its bars do not count here."""
    with tempfile.TemporaryDirectory(prefix="kevra-bench-") as folder:
        file = Path(folder) / "figures.json"
        command = [sys.executable, str(harness.HERE / f"{script}.py"), "--json", str(file), *arguments]
        child = subprocess.run(command, capture_output=True, text=True, check=False)
        if not file.exists():
            raise SystemExit(f"The benchmark {script} failed:\n{child.stdout}{child.stderr}")
        answer = json.loads(file.read_text())
    figures = {figure["name"]: f"{figure['value']:.3g} {figure['unit']}" for figure in answer["figures"]}
    return {"measured": answer["measured"], **figures}


def head(target: str, absent: dict, chosen: Namespace) -> dict:
    revision = subprocess.run(
        ["git", "-C", str(harness.HERE), "rev-parse", "--short", "HEAD"], capture_output=True, text=True, check=False
    )
    versions = {"python": sys.version.split()[0], "kevra": kevra.__version__}
    for package in PACKAGES:
        try:
            versions[package] = importlib.metadata.version(package)
        except importlib.metadata.PackageNotFoundError:
            pass
    return {
        "command": shlex.join(["bench/run", target, *sys.argv[1:]]),
        "date": datetime.date.today().isoformat(),
        "machine": harness.machine(),
        "device": harness.device(),
        "revision": revision.stdout.strip(),
        "versions": versions,
        "left out": absent,
        "measured": f"{chosen.rounds} rounds, alternating, median of each; ratios within a round, their median",
    }
