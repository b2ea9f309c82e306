"""What the package costs: its import beyond numpy's, and the size of its wheel."""

import statistics
import subprocess
import sys
import tempfile
from pathlib import Path

import harness

IMPORT = "import time, numpy; begin = time.perf_counter(); import kevra; print(time.perf_counter() - begin)"


def main() -> int:
    chosen = harness.options(__doc__, runs=20)
    seconds = [float(subprocess.run([sys.executable, "-c", IMPORT], check=True, capture_output=True, text=True).stdout)
               for _ in harness.progress(range(chosen.runs), "imports")]
    with tempfile.TemporaryDirectory() as folder:
        print("Building a wheel ...", flush=True)
        subprocess.run([sys.executable, "-m", "pip", "wheel", "-q", "--no-deps", "-w", folder, harness.HERE.parent],
                       check=True)
        [wheel] = Path(folder).glob("kevra-*.whl")
        size, name = wheel.stat().st_size, wheel.name
    figures = [
        harness.Figure("import of kevra behind numpy's", statistics.median(seconds) * 1e3, "ms", 60),
        harness.Figure("wheel", size / 2**20, "MiB", 6),
    ]
    return harness.report(chosen, f"{chosen.runs} interpreters, with the files in the system's cache", figures,
                          {"least import": f"{min(seconds) * 1e3:.1f} ms", "wheel": name})


if __name__ == "__main__":
    sys.exit(main())
