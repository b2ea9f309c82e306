"""The command: compiles the kernels of a manifest for every architecture and reports their figures.

Exit status 1 when a kernel of a default route does not compile, uses scratch memory or cannot be launched.
"""

import argparse
import os
import re
import sys
from concurrent.futures import ThreadPoolExecutor, as_completed
from pathlib import Path

from machine_code import report
from machine_code.architectures import ARCHITECTURES
from machine_code.compiler import FLAGS, CompileError, Compiler, read_manifest


def options() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="tools/machine_code/run", description=__doc__.splitlines()[0])
    parser.add_argument("manifest", type=Path, help="folder that kevra_kernels manifest wrote")
    parser.add_argument("--cache", type=Path, required=True, metavar="FOLDER", help="where figures are kept")
    parser.add_argument("--arch", nargs="+", default=list(ARCHITECTURES), choices=ARCHITECTURES, metavar="ARCH",
                        help=f"default: {' '.join(ARCHITECTURES)}")
    parser.add_argument("--only", default="", metavar="REGEX", help="kernels whose whole key matches")
    parser.add_argument("--json", type=Path, metavar="FILE", help="write the figures to a file too")
    parser.add_argument("--markdown", action="store_true", help="tables for the documentation")
    parser.add_argument("--assembly", type=Path, metavar="FOLDER", help="keep the assembly; compiles everything anew")
    return parser.parse_args()


def row_of(compiler: Compiler, kernel, arch: str) -> report.Row:
    try:
        return report.Row(kernel, arch, compiler.figures(kernel, arch))
    except (CompileError, ValueError) as error:
        return report.Row(kernel, arch, None, str(error))


def progress(done: int, total: int) -> None:
    if sys.stderr.isatty():
        filled = 30 * done // total
        end = "\r\033[K" if done == total else ""
        print(f"\r[{'#' * filled}{'.' * (30 - filled)}] {done}/{total}{end}", end="", file=sys.stderr)


def main() -> int:
    chosen = options()
    kernels = [k for k in read_manifest(chosen.manifest) if not chosen.only or re.fullmatch(chosen.only, k.key)]
    if not kernels:
        print(f"No kernel of {chosen.manifest} has a key that matches {chosen.only}.", file=sys.stderr)
        return 2
    compiler = Compiler(chosen.cache, chosen.assembly)
    compiler.require(chosen.arch)
    wanted = [(kernel, arch) for kernel in kernels for arch in chosen.arch]
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        futures = [pool.submit(row_of, compiler, *one) for one in wanted]
        for done, _ in enumerate(as_completed(futures), 1):
            progress(done, len(futures))
        rows = [future.result() for future in futures]

    print(report.markdown(rows) if chosen.markdown else report.table(rows), report.summary(rows), sep="\n\n")
    if chosen.json:
        chosen.json.write_text(report.as_json(rows, f"{compiler.version} {' '.join(FLAGS)}"))
    return conclude(rows, compiler)


def conclude(rows: list, compiler: Compiler) -> int:
    failures, others = report.faults(rows, True), report.faults(rows, False)
    for heading, lines in (("Beside the default routes:", others), ("FAILED, on a default route:", failures)):
        if lines:
            print(f"\n{heading}", *lines, sep="\n  ", file=sys.stderr)
    print(f"\n{len(rows)} kernels and architectures, {compiler.compiled} of them compiled now with {compiler.version}: "
          f"{len(failures)} failed, {len(others)} others at fault", file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
