"""The table on the terminal, the JSON, the plot, and the table for documentation."""

import json
import re
from pathlib import Path

import harness
import kevra
from peers.cases import TRANSFORMS

COLOURS = ["#1f6f8b", "#b5651d", "#5b3a8c", "#3f7d3a", "#a03050", "#555555"]


def write(record: dict, target: str, folder: Path) -> list[Path]:
    """Named by device and date: a second run of a day replaces the first. The JSON has a line a case."""
    name = harness.processor() if target == "cpu" else kevra.device_name()
    slug = re.sub(r"[^a-z0-9]+", "-", re.sub(r"\((R|TM)\)", "", name).lower()).strip("-")
    folder.mkdir(parents=True, exist_ok=True)
    base = folder / f"peers-{target}-{slug}-{record['date']}"
    written = [base.with_suffix(".json")]
    *others, cases = rounded(record).items()
    lines = [f'"{name}": {json.dumps(value)}' for name, value in others]
    lines.append(f'"{cases[0]}": [\n' + ",\n".join(json.dumps(case) for case in cases[1]) + "\n]")
    written[0].write_text("{\n" + ",\n".join(lines) + "\n}\n")
    transforms = [r for r in compared(record["cases"]) if r["operation"] == "fft"]
    if transforms:
        written.append(base.with_suffix(".svg"))
        draw(written[1], transforms, f"{name}, {record['date']}")
    return written


def rounded(value):
    if isinstance(value, float):
        return float(f"{value:.4g}")
    if isinstance(value, dict):
        return {key: rounded(part) for key, part in value.items()}
    return [rounded(part) for part in value] if isinstance(value, list) else value


def has_peers(result: dict) -> bool:
    return any(result["speed_against"].values())


def compared(results: list[dict]) -> list[dict]:
    return [result for result in results if "times" in result and has_peers(result)]


def against_fastest(result: dict, own: str) -> float:
    """The time of the fastest peer over kevra's."""
    return min(result["speed_against"][own].values())


def show(record: dict, figures: list[harness.Figure], written: list[Path]) -> None:
    for name in ("command", "machine", "device", "measured"):
        print(f"{name:<16}  {record[name]}")
    for name, reason in record["left out"].items():
        print(f"{name:<16}  {reason}")
    print(f"{'device copy':<16}  {record['copy_bytes_per_second'] * 1e-9:.1f} GB/s, read and written bytes together")
    for script, others in record["other_figures"].items():
        print(f"{script:<16}  {', '.join(f'{name} {value}' for name, value in others.items())}")
    for operation in dict.fromkeys(result["operation"] for result in record["cases"]):
        rows = [result for result in record["cases"] if result["operation"] == operation]
        if rows:
            print(f"\n{operation}: us a call; kevra's speed is against the fastest peer, above 1 kevra is faster")
            print_aligned(table(rows))
    for result in record["cases"]:
        if "refused" in result:
            print(f"DISAGREES  {result['refused']}")
    for figure in figures:
        print(f"\n{figure.name}  {figure.told}")
    print("\nwritten:", *written)


def table(results: list[dict]) -> list[list[str]]:
    """Head and rows; the columns are whoever was timed in any of the cases."""
    timed = [result for result in results if "times" in result]
    names = list(dict.fromkeys(name for result in timed for name in result["times"]))
    ours = [name for name in names if name.startswith("kevra")]
    lines = [["batch x n", *names, *(f"{name.split()[1]} speed" for name in ours), "of copy rate"]]
    for result in timed:
        cells = [f"{result['times'][name]['median_us']:.4g}" if name in result["times"] else "-" for name in names]
        speeds = [f"{against_fastest(result, own):.2f}" if result["speed_against"].get(own) else "-" for own in ours]
        lines.append([label(result), *cells, *speeds, f"{result['share_of_copy_rate']:.0%}"])
    return lines


def label(result: dict) -> str:
    frame = f" frame {result['frame_length']}" if "frame_length" in result else ""
    hop = f" hop {result['hop']}" if "hop" in result else ""
    bands = f" bands {result['bands']}" if "bands" in result else ""
    bins = f" bins {result['bins']}" if "bins" in result else ""
    order = f" order {result['order']}" if "order" in result else ""
    taps = f" taps {result['taps']}" if "taps" in result else ""
    return f"{result['batch']} x {result['n']} {result['precision']}{frame}{hop}{bands}{bins}{order}{taps}"


def print_aligned(lines: list[list[str]]) -> None:
    widths = [max(map(len, column)) for column in zip(*lines)]
    for first, *rest in lines:
        print(first.ljust(widths[0]), *(cell.rjust(width) for cell, width in zip(rest, widths[1:])), sep="  ")


def markdown(results: list[dict]) -> str:
    """One table for each transform and precision, rows n and columns batches, and one for each other operation."""
    lines = []
    timed = compared(results)
    for kind in dict.fromkeys((r["operation"], r["precision"]) for r in timed if r["operation"] in TRANSFORMS):
        own = {(r["n"], r["batch"]): r for r in timed if (r["operation"], r["precision"]) == kind}
        batches = sorted({batch for _, batch in own})
        lines += ["", f"| {' '.join(kind)}, n | " + " | ".join(f"batch {batch}" for batch in batches) + " |"]
        lines.append("|---:|" + "---:|" * len(batches))
        for n in dict.fromkeys(n for n, _ in own):
            cells = [speeds(own[n, batch]) if (n, batch) in own else "" for batch in batches]
            lines.append(f"| {n} | " + " | ".join(cells) + " |")
    for operation in dict.fromkeys(r["operation"] for r in timed if r["operation"] not in TRANSFORMS):
        head, *rows = table([r for r in timed if r["operation"] == operation])
        head[0] = f"{operation}, {head[0]}"
        lines += ["", "| " + " | ".join(head) + " |", "|---|" + "---:|" * (len(head) - 1)]
        lines += ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join(lines[1:]) + "\n"


def speeds(result: dict) -> str:
    return " / ".join(f"{against_fastest(result, own):.2f}" for own in result["speed_against"])


def draw(file: Path, results: list[dict], title: str) -> None:
    """A panel for each precision and each of kevra's calls: n against the speed, a colour a batch."""
    import matplotlib

    matplotlib.use("agg")
    import matplotlib.pyplot as plt

    plt.rcParams.update({"svg.hashsalt": "peers", "svg.fonttype": "none", "font.family": "sans-serif"})
    precisions = list(dict.fromkeys(r["precision"] for r in results))
    ours = list(results[0]["speed_against"])
    size = (5 * len(ours) + 1.2, 3.2 * len(precisions) + 0.6)
    figure, grid = plt.subplots(
        len(precisions), len(ours), sharex=True, sharey=True, squeeze=False, figsize=size, layout="constrained"
    )
    batches = sorted({r["batch"] for r in results})
    for row, precision in zip(grid, precisions):
        alike = [r for r in results if r["precision"] == precision]
        for axes, own in zip(row, ours):
            for batch, colour in zip(batches, COLOURS):
                speed = {r["n"]: against_fastest(r, own) for r in alike if r["batch"] == batch}
                draw_batch(axes, speed, f"batch {batch}", colour)
            axes.axhline(1, color="#444444", linewidth=1, linestyle=(0, (5, 3)))
            axes.set_title(f"{own}, {precision}", loc="left", fontsize=10, fontweight="bold")
            axes.set_xscale("log", base=2)
            axes.set_yscale("log")
            axes.yaxis.set_major_formatter("{x:g}")
            axes.grid(color="#e4e4e4", linewidth=0.6)
            axes.spines[["top", "right"]].set_visible(False)
            axes.xaxis.set_major_formatter("{x:g}")
    figure.legend(
        *grid[0, 0].get_legend_handles_labels(), loc="outside lower right", ncols=4, frameon=False, fontsize=9
    )
    figure.suptitle(f"Complex FFT on {title}: dots powers of two, rings other sizes", fontsize=10)
    for axes in grid[-1]:
        axes.set_xlabel("transform length n")
    figure.supylabel("speed against the fastest peer (dashed: as fast)", fontsize=10)
    figure.savefig(file, facecolor="white", metadata={"Date": None})
    plt.close(figure)


def draw_batch(axes, speed: dict[int, float], name: str, colour: str) -> None:
    powers = sorted(n for n in speed if n & (n - 1) == 0)
    others = sorted(set(speed) - set(powers))
    axes.plot(powers, [speed[n] for n in powers], "o-", color=colour, markersize=4, linewidth=1, label=name)
    axes.plot(others, [speed[n] for n in others], "o", color=colour, markersize=5, markerfacecolor="none")
