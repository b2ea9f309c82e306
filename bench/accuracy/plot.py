"""The picture of a run: n against the relative L2 error, a colour a route, each below its bar."""

import math

import numpy as np
from accuracy.transforms import CHIRP, FOUR_STEP, PRIME, ROUTES, SMOOTH, Error

COLOURS = {SMOOTH: "#1f6f8b", PRIME: "#b5651d", CHIRP: "#5b3a8c", FOUR_STEP: "#3f7d3a"}
TITLES = {"half": "half storage, beyond one rounding", "float": "float", "double": "double"}
KINDS = {False: "complex", True: "real"}


def draw(file: str, errors: list[Error], bar) -> None:
    """bar(precision, route, n) is the largest error allowed."""
    import matplotlib

    matplotlib.use("agg")
    import matplotlib.pyplot as plt

    plt.rcParams.update({"svg.hashsalt": "fft_accuracy", "svg.fonttype": "none", "font.family": "sans-serif"})
    precisions = [p for p in TITLES if any(e.transform.precision == p for e in errors)]
    kinds = sorted({e.transform.real for e in errors})
    size = (5.5 * len(kinds), 2.6 * len(precisions) + 0.6)
    figure, grid = plt.subplots(
        len(precisions), len(kinds), sharex=True, sharey="row", squeeze=False, figsize=size, layout="constrained"
    )
    for row, precision in zip(grid, precisions):
        for axes, real in zip(row, kinds):
            own = [e for e in errors if e.transform.precision == precision and e.transform.real == real]
            draw_panel(axes, own, lambda route, n, precision=precision: bar(precision, route, n))
            axes.set_title(f"{TITLES[precision]}, {KINDS[real]}", loc="left", fontsize=10, fontweight="bold")
    for axes in grid[-1]:
        axes.set_xscale("log", base=2)
        axes.set_xlabel("transform length n")
    handles = {route: None for route in ROUTES}
    for axes in grid.flat:
        handles.update({line.get_label(): line for line in axes.lines if line.get_label() in handles})
    shown = {route: line for route, line in handles.items() if line is not None}
    figure.legend(shown.values(), shown, loc="outside lower center", ncols=4, frameon=False, fontsize=9)
    figure.supylabel("relative L2 error, the larger of forward and inverse (dashed: at most)", fontsize=10)
    figure.savefig(file, facecolor="white", metadata={"Date": None, "Creator": None} if file.endswith(".svg") else None)


def draw_panel(axes, errors: list[Error], bar) -> None:
    for route in ROUTES:
        worst: dict[int, float] = {}
        for e in errors:
            if e.route == route and e.l2 > 0:  # on a logarithmic axis
                worst[e.n] = max(e.l2, worst.get(e.n, 0.0))
        if not worst:
            continue
        lengths = np.array(sorted(worst))
        axes.plot(lengths, [worst[n] for n in lengths], ".", color=COLOURS[route], markersize=3, label=route)
        ends = np.exp2(np.linspace(math.log2(max(lengths[0], 2)), math.log2(max(lengths[-1], 2)), 40))
        axes.plot(ends, [bar(route, n) for n in ends], color=COLOURS[route], linewidth=0.9, linestyle=(0, (5, 3)))
    axes.set_yscale("log")
    axes.spines[["top", "right"]].set_visible(False)
    axes.grid(color="#e4e4e4", linewidth=0.6)
