"""Rows of figures: as a table, as Markdown, as JSON, and what is wrong with them."""

import json
from collections.abc import Iterable
from dataclasses import dataclass

from machine_code.architectures import ARCHITECTURES, BLOCK_SHARED_BYTES, Occupancy, occupancy
from machine_code.assembly import Figures
from machine_code.compiler import Kernel

COLUMNS = ("vgprs", "agprs", "sgprs", "scratch", "waves", "bound", "loads", "stores", "atomics", "shared", "arithmetic",
           "barriers", "bytes")


@dataclass(frozen=True)
class Row:
    """One kernel on one architecture; `error` holds the compiler's words when there are no figures."""

    kernel: Kernel
    arch: str
    figures: Figures | None
    error: str = ""

    @property
    def occupancy(self) -> Occupancy:
        f = self.figures
        shared = self.kernel.shared_bytes + f.static_shared_bytes
        return occupancy(ARCHITECTURES[self.arch], f.vgprs, f.sgprs, shared, self.kernel.block)

    def cells(self) -> list:
        f, o = self.figures, self.occupancy
        return [f.vgprs, f.agprs, f.sgprs, f.scratch_bytes, round(o.waves, 2), o.bound, f.global_loads, f.global_stores,
                f.global_atomics, f.shared_accesses, f.vector_arithmetic, f.barriers, f.code_bytes]

    def fault(self) -> str:
        """What is wrong, in words; empty for a sound kernel."""
        if self.figures is None:
            return f"does not compile:\n{self.error}"
        f, block = self.figures, self.kernel.block
        if f.scratch_bytes > 0:
            cause = f"{f.vgpr_spills} vector registers spilled" if f.vgpr_spills else "an array indexed at run time"
            return f"{f.scratch_bytes} bytes of scratch a thread: {cause} ({f.vgprs} of them in use, block {block})"
        if block > f.largest_block:
            return f"block {block} is above the launch bound {f.largest_block}"
        if self.occupancy.waves == 0:
            return f"not one block fits: {self.occupancy.bound} (at most {BLOCK_SHARED_BYTES} bytes shared)"
        return ""


def faults(rows: Iterable[Row], default_route: bool) -> list[str]:
    return [f"{row.kernel.key} on {row.arch}: {row.fault()}" for row in rows
            if row.kernel.default_route == default_route and row.fault()]


def table(rows: Iterable[Row]) -> str:
    """Aligned text; the waves are of a SIMD, of the most that it keeps."""
    lines = [["kernel", "arch", "block", "dyn.shared", *COLUMNS]]
    for row in rows:
        if row.figures is not None:
            lines.append([row.kernel.key, row.arch, row.kernel.block, row.kernel.shared_bytes, *row.cells()])
    widths = [max(len(str(cell)) for cell in column) for column in zip(*lines)]
    return "\n".join(
        "  ".join(str(cell).ljust(width) if i < 2 else str(cell).rjust(width)
                  for i, (cell, width) in enumerate(zip(line, widths)))
        for line in lines
    )


def summary(rows: Iterable[Row]) -> str:
    """Markdown, a line an architecture: what bounds the default routes' waves, and the heaviest of them."""
    heads = ["architecture", "default routes", "bound by waves", "by shared memory", "by registers",
             "a wave a SIMD or less", "most vector registers", "longest code"]
    lines = [f"| {' | '.join(heads)} |", "|---|---:|---:|---:|---:|---:|---|---|"]
    by_arch = {}
    for row in rows:
        if row.kernel.default_route and row.figures is not None:
            by_arch.setdefault(row.arch, []).append(row)
    for arch, own in by_arch.items():
        bounds = [row.occupancy.bound for row in own]
        lonely = sum(row.occupancy.waves <= 1 for row in own)
        wide = max(own, key=lambda row: row.figures.vgprs)
        long = max(own, key=lambda row: row.figures.code_bytes)
        cells = [arch, len(own), *(bounds.count(bound) for bound in ("waves", "shared", "registers")), lonely,
                 f"{wide.figures.vgprs}, `{wide.kernel.key}`", f"{long.figures.code_bytes} bytes, `{long.kernel.key}`"]
        lines.append(f"| {' | '.join(map(str, cells))} |")
    return "\n".join(lines)


def markdown(rows: Iterable[Row]) -> str:
    """One table a kernel."""
    heads = ["architecture", "vector registers", "waves of a SIMD", "bound by", "global loads, stores",
             "shared accesses", "vector arithmetic", "barriers", "code bytes"]
    lines, kernel = [], None
    for row in rows:
        if row.figures is None:
            continue
        if row.kernel != kernel:
            kernel = row.kernel
            taken = "" if kernel.default_route else ", by a hint only"
            lines += ["", f"`{kernel.key}`: block {kernel.block}, {kernel.shared_bytes} bytes shared{taken}", "",
                      f"| {' | '.join(heads)} |", "|---|" + "---:|---:|---|" + "---:|" * (len(heads) - 4)]
        f, o = row.figures, row.occupancy
        waves = f"{o.waves:g} of {o.most}"
        cells = [row.arch, f.vgprs, waves, o.bound, f"{f.global_loads}, {f.global_stores}", f.shared_accesses,
                 f.vector_arithmetic, f.barriers, f.code_bytes]
        lines.append(f"| {' | '.join(map(str, cells))} |")
    return "\n".join(lines[1:])


def as_json(rows: Iterable[Row], compiler: str) -> str:
    """A line a kernel; its architectures map to lists in the order of the columns, null where it does not compile."""
    kernels = {}
    for row in rows:
        k = row.kernel
        entry = kernels.setdefault(k.key, {"key": k.key, "family": k.family, "default_route": k.default_route,
                                           "block": k.block, "shared_bytes": k.shared_bytes})
        entry[row.arch] = None if row.figures is None else row.cells()
    head = {"figures": "static, from the compiler's assembly; nothing was run", "compiler": compiler,
            "columns": COLUMNS}
    lines = ",\n".join(json.dumps(entry, separators=(",", ":")) for entry in kernels.values())
    return json.dumps(head, indent=1)[:-2] + ',\n "kernels": [\n' + lines + "\n]}\n"
