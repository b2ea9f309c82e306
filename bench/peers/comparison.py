"""One run: every case checked, timed and recorded; figures of other benchmarks beside them; the exit status."""

import dataclasses
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
from peers import cases, constant_q, features, filters, output, spectrograms, timing
from peers.contenders import Resident

ON_SIGNALS = [*spectrograms.OPERATIONS, *constant_q.OPERATIONS, *features.OPERATIONS, *filters.OPERATIONS]
OPERATIONS = [*cases.TRANSFORMS, "rms", *ON_SIGNALS]
PACKAGES = ["numpy", "scipy", "librosa", "torch", "torchaudio", "nnAudio", "cupy"]


def options(description: str, counts: dict[str, int]) -> Namespace:
    more = {
        "sizes": {"type": numbers, "default": cases.POWERS + cases.AWKWARD, "help": "lengths of fft, as 256,1000"},
        "real-sizes": {"type": numbers, "default": cases.REAL, "help": "lengths of rfft and irfft"},
        "batches": {"type": numbers, "default": cases.BATCHES, "help": "rows of the transforms, as 1,256"},
        "signals": {"type": shapes, "default": cases.SIGNALS, "help": "batch and samples for rms, as 1x16384,4x9000"},
        "recordings": {
            "type": recordings,
            "default": spectrograms.RECORDINGS,
            "help": "kind, rows and seconds for spectrograms, as speech:16x30,music:1x10",
        },
        "features": {
            "type": recordings,
            "default": features.RECORDINGS,
            "help": "the same for features of spectra and Griffin-Lim",
        },
        "filtered": {"type": shapes, "default": filters.SIGNALS["lfilter"], "help": "rows and samples for lfilter"},
        "convolved": {"type": shapes, "default": filters.SIGNALS["convolve"], "help": "rows and samples for convolve"},
        "seconds": {"type": numbers, "default": constant_q.SECONDS, "help": "of signals for cqt and chroma, as 10,300"},
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


def recordings(text: str) -> list[tuple[str, int, int]]:
    kinds = [part.partition(":") for part in text.split(",")]
    if any(kind not in spectrograms.FRAMES for kind, _, _ in kinds):
        raise ValueError(text)
    return [(kind, *pair) for kind, _, size in kinds for pair in shapes(size)]


def compare(
    chosen: Namespace, target: str, contenders_of, libraries: dict, absent: dict, scripts: dict, counted: tuple = ()
) -> int:
    """contenders_of(case, x, resident, libraries) gives who is timed; `scripts` are other benchmarks with their
    options, run at the end. The bars of those that are `counted` decide about the exit status too."""
    record = head(target, absent, chosen)
    hip, results = harness.Hip(), []
    with harness.cache_folder():
        record["copy_bytes_per_second"] = timing.copy_rate(hip, chosen.copy)
        lengths = {"fft": chosen.sizes, "rfft": chosen.real_sizes, "irfft": chosen.real_sizes}
        wanted = {operation: lengths.get(operation, []) for operation in chosen.operations}
        signals = {"rms": chosen.signals, "recordings": chosen.recordings, "features": chosen.features}
        signals |= {"seconds": chosen.seconds, "lfilter": chosen.filtered, "convolve": chosen.convolved}
        grid = cases.grid(wanted, chosen.batches, signals)
        for case in harness.progress(grid, "cases"):
            x = cases.make_input(case)
            with Resident(hip, case, x) as resident:
                contenders = contenders_of(case, x, resident, libraries)
                result = measure(case, x, contenders, chosen.rounds, record["copy_bytes_per_second"])
            results.append({**case.record(), "load": os.getloadavg()[0], **result})
    if chosen.only_peers:
        scripts = {}
    others = {script: figures_of(script, arguments) for script, arguments in scripts.items()}
    record["other_figures"] = {name: {"measured": measured, **told(own)} for name, (measured, own) in others.items()}
    record["load_at_end"] = os.getloadavg()[0]
    figures = long_music_figures(results) + features.figures(results) + filters.figures(results)
    figures += constant_q.figures(results)
    figures += [figure for script in counted if script in others for figure in others[script][1]]
    record["figures"] = [{**dataclasses.asdict(figure), "passed": figure.passed} for figure in figures]
    record["cases"] = results
    written = output.write(record, target, Path(chosen.folder))
    output.show(record, figures, written)
    if chosen.markdown:
        Path(chosen.markdown).write_text(output.markdown(results))
    met = all(figure.passed for figure in figures)
    return 1 if not met or any("refused" in result for result in results) else 0


def long_music_figures(results: list[dict]) -> list[harness.Figure]:
    """Log-mel of five minutes of music against librosa's, array in and array out; nothing where it was not timed."""
    kind, batch, seconds = spectrograms.LONG_MUSIC
    rate = spectrograms.FRAMES[kind][0]
    figures = []
    for result in results:
        long = (result["operation"], result["n"], result["batch"]) == ("logmel", rate * seconds, batch)
        speed = result.get("speed_against", {}).get("kevra staged", {}).get("librosa")
        if long and speed is not None:
            name = f"log-mel of {seconds} s at {rate} Hz, staged, speed over librosa"
            figures.append(harness.Figure(name, speed, "", 1.0, at_least=True))
    return figures


def measure(case: cases.Case, x, contenders: list, rounds: int, copied: float) -> dict:
    """Times the contenders of a case, unless one of them gives another result."""
    wanted, told = cases.exact(case, x), {}
    for contender in contenders:
        result = contender.result(contender.call())
        refused = cases.disagreement(case, contender.name, result, wanted, x)
        if refused:
            return {"refused": refused}
        if case.operation == "griffinlim":
            told.setdefault("convergence", {})[contender.name] = features.convergence(case, x, result)
    taken = timing.alternate(contenders, rounds)
    times = {name: summary(timings) for name, timings in taken.items()}
    ours = [contender.name for contender in contenders if contender.ours]
    peers = [contender.name for contender in contenders if not contender.ours]
    speed = {own: {peer: ratio(taken[peer], taken[own]) for peer in peers} for own in ours}
    share = case.bytes_moved / (times["kevra resident"]["median_us"] * 1e-6) / copied
    return {"times": times, "speed_against": speed, "share_of_copy_rate": share, **told}


def summary(timings: list[tuple[float, float]]) -> dict:
    seconds, host = zip(*timings)
    times = {"median_us": statistics.median(seconds), "least_us": min(seconds), "most_us": max(seconds)}
    if host != seconds:
        times["host_median_us"] = statistics.median(host)
    return {name: value * 1e6 for name, value in times.items()}


def ratio(peer: list[tuple[float, float]], own: list[tuple[float, float]]) -> float:
    """Within each round, so that what disturbs both cancels; above 1 kevra is faster."""
    return statistics.median(p / o for (p, _), (o, _) in zip(peer, own))


def figures_of(script: str, arguments: list[str]) -> tuple[str, list[harness.Figure]]:
    """How another benchmark measures, and its figures, in a process of its own."""
    with tempfile.TemporaryDirectory(prefix="kevra-bench-") as folder:
        file = Path(folder) / "figures.json"
        command = [sys.executable, str(harness.HERE / f"{script}.py"), "--json", str(file), *arguments]
        child = subprocess.run(command, capture_output=True, text=True, check=False)
        if not file.exists():
            raise SystemExit(f"The benchmark {script} failed:\n{child.stdout}{child.stderr}")
        answer = json.loads(file.read_text())
    fields = [field.name for field in dataclasses.fields(harness.Figure)]
    return answer["measured"], [harness.Figure(**{name: own[name] for name in fields}) for own in answer["figures"]]


def told(figures: list[harness.Figure]) -> dict[str, str]:
    return {figure.name: f"{figure.value:.3g} {figure.unit}".rstrip() for figure in figures}


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
        "measured": f"{chosen.rounds} rounds, of long cases fewer, alternating, median of each; ratios within a round, "
        "their median",
    }
