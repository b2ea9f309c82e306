"""Every kernel of the manifest in check mode, blocks and threads shuffled: stray accesses, races, NaNs handed on.

The manifest is what `kevra_kernels manifest` writes: all kernel families at the sizes that users take and at those that
reach each branch. Calls of resident entry points launch them, in more than one block; which kernels ran is read from
the launches that KEVRA_DEBUG tells. Outputs and fresh device memory hold NaNs before, so that a result that is not
finite has been left out or made from what nothing wrote.
"""

import json
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

import harness
import kevra
import numpy as np
from campaigns import children
from campaigns.device import Device, Prepared, misfit
from campaigns.manifest_calls import Launch, launch_of

LIMIT = 300  # seconds for a call; the longest rows take 20 where nothing else runs
AT_ONCE = 8  # calls to a process
SHOWN = 50
LAUNCHED = re.compile(r"^kevra: launch \S+ \((\S+)\) grid (\d+)x(\d+)", re.MULTILINE)
DEVICE_SAYS = re.compile(r"^kevra CPU device: (.*)", re.MULTILINE)
ONLY = {"only": {"nargs": "+", "metavar": "FAMILY", "default": [], "help": "of these families"}}


def manifest(families: list[str]) -> list[dict]:
    tool = Path(kevra._rocm.__file__).parents[2] / "tools" / "kevra_kernels"
    with tempfile.TemporaryDirectory(prefix="kevra-bench-") as folder:
        subprocess.run([tool, "manifest", folder], check=True)
        kernels = json.loads((Path(folder) / "manifest.json").read_text())
    unknown = set(families) - {kernel["family"] for kernel in kernels}
    if unknown:
        raise SystemExit(f"--only: no family {', '.join(sorted(unknown))}; kevra_kernels list shows them.")
    return [kernel for kernel in kernels if not families or kernel["family"] in families]


def work(task: tuple[Path, Launch]) -> str:
    """Makes the call, what is told of it going to the file: what is wrong with its results, empty where nothing is."""
    told, launch = task
    os.dup2(os.open(told, os.O_CREAT | os.O_WRONLY), 2)
    kevra.shape_hint_clear()
    if launch.hint:
        kevra.set_shape_hint(*launch.hint)
    kevra.set_deterministic(launch.slots)
    call = launch.call()
    prepared = Prepared(call, Device())
    value = prepared.make()
    wrong = misfit(call, value)
    odd = sum(np.count_nonzero(~np.isfinite(result)) for result in prepared.results(value))
    prepared.free()
    return wrong or (f"{odd} values are not finite" if odd else "")


def run(launches: list[Launch], jobs: int) -> tuple[dict[str, int], list[str]]:
    """The most blocks of each key that was launched, and the faults."""
    blocks, faults = {}, []
    steps = harness.progress(range(len(launches)), "calls")
    with harness.cache_folder(), tempfile.TemporaryDirectory(prefix="kevra-bench-") as folder:
        tasks = [(Path(folder) / str(number), launch) for number, launch in enumerate(launches)]
        lists = [tasks[k:k + AT_ONCE] for k in range(0, len(tasks), AT_ONCE)]
        for (told, launch), answer in children.each(work, lists, jobs, LIMIT):
            next(steps, None)
            text = told.read_text() if told.exists() else ""
            for key, x, y in LAUNCHED.findall(text):
                blocks[key] = max(blocks.get(key, 0), int(x) * int(y))
            wrong = answer.why if isinstance(answer, children.Lost) else answer
            if wrong:
                faults.append(f"{launch}: {'; '.join(DEVICE_SAYS.findall(text)) or wrong}")
        next(steps, None)
    return blocks, faults


def listed(heading: str, lines: list[str]) -> None:
    for line in lines[:SHOWN]:
        print(f"{heading}: {line}")
    if len(lines) > SHOWN:
        print(f"{heading}: and {len(lines) - SHOWN} more")


def main() -> int:
    chosen = harness.options(__doc__, ONLY, jobs=os.cpu_count() or 1, seed=1)
    harness.cpu_device_only(chosen, "Only the CPU device has a check mode")
    os.environ.update({"KEVRA_CPU_CHECK": "1", "KEVRA_CPU_ORDER": f"shuffle:{chosen.seed}", "KEVRA_DEBUG": "1",
                       "KEVRA_CPU_THREADS": "4"})
    kernels = manifest(chosen.only)
    keys = {kernel["key"]: kernel["family"] for kernel in kernels}
    launches = list(dict.fromkeys(filter(None, map(launch_of, kernels))))
    blocks, faults = run(launches, chosen.jobs)
    never = [f"{key} of {family}" for key, family in keys.items() if key not in blocks]
    listed("never launched", never)
    listed("fault", faults)
    reached = [key for key in keys if key in blocks]
    notes = {"kernels of the manifest": len(keys), "launched in check mode": len(reached),
             "of these in one block alone": sum(blocks[key] == 1 for key in reached),
             "others beside them": len(set(blocks) - set(keys)), "calls": len(launches)}
    figures = [harness.Figure("never launched", len(never), "", 0), harness.Figure("faults", len(faults), "", 0)]
    measured = f"order shuffle:{chosen.seed}, fresh memory and outputs full of NaNs"
    return harness.report(chosen, measured, figures, {name: str(told) for name, told in notes.items()})


if __name__ == "__main__":
    sys.exit(main())
