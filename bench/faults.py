"""Each HIP and hipRTC function that an entry point reaches fails at each call: what is told, what is lost, the next."""

import os
import re
import sys
import tempfile
from dataclasses import dataclass
from pathlib import Path

import harness
import kevra
from campaigns import SELECTION, children, report, selected
from campaigns.calls import calls
from campaigns.device import NEVER, Device, DeviceFailure, Prepared, differ, in_use, misfit, pools

LIMIT = 120  # seconds for a case; one that compiles waits for other processes too
AT_ONCE = 200  # cases of a call with its kernels in place, to a process
OUT_OF_MEMORY = 2
NO_DEVICE = "no HIP device available"
HIPRTC_FAILS, HIP_FAILS = 6, 1
# Their failures leave a caller with a right result: what they tell has a default, they are tried again, or they end
# something.
MADE_GOOD = {"hipGetDevice", "hipGetDevicePropertiesR0600", "hipDeviceGetAttribute", "hipFree", "hipHostFree",
             "hipHostMalloc", "hipEventDestroy", "hipStreamDestroy", "hipGraphDestroy", "hipGraphExecDestroy",
             "hiprtcDestroyProgram"}
LOADING = {"hipModuleLoadData", "hipModuleGetFunction"}  # a cached object that does not load is compiled again
SOLVER = "icqt_cg"  # falls back from a captured graph to launching, whatever fails in it
MADE_AND_ENDED = [("hipStreamCreateWithFlags", "hipStreamDestroy"), ("hipEventCreate", "hipEventDestroy"),
                  ("hipGraphInstantiate", "hipGraphExecDestroy"), ("hipStreamEndCapture", "hipGraphDestroy"),
                  ("hiprtcCreateProgram", "hiprtcDestroyProgram")]
TEXTS = {
    "hipInit": NO_DEVICE,
    "hipGetDeviceCount": NO_DEVICE,
    "hipMalloc": r"src/rocm/device_pool\.cpp:\d+: r \[memAlloc\] failed: WORDS",
    "hipHostMalloc": r"src/rocm/pinned_pool\.cpp:\d+: r \[hipHostMalloc\] failed: WORDS",
    "hipMemcpyParam2DAsync": r"src/\S+:\d+: memcpy2DAsync\(.*\) failed: WORDS",
    "hipModuleLoadData": r"hipModuleLoadData failed for \w+ \(\d+-byte code object compiled for \S+\): WORDS",
    "hiprtcCompileProgram": r"kevra kernel compile failed:\n(?s:.*)",
}
CACHE = "4K"  # of the device, which tuners fill a hundred times for each candidate
NOT_REACHED = "not reached"
TABLE = calls()


@dataclass(frozen=True)
class Case:
    """One failure: the `index`-th call of `function` by `entry` in a process that has called nothing before. With
    `twice` the next one fails too. Of the code objects on disk the one of the name `missing` is not there."""

    entry: str
    function: str
    index: int
    code: int
    twice: bool = False
    missing: str = ""

    @property
    def plan(self) -> str:
        again = f",{self.function}:{self.index + 1}:{self.code}" if self.twice else ""
        return f"{self.function}:{self.index}:{self.code}{again}"

    def failed(self, count: int) -> int:
        """How many of so many calls failed."""
        return sum(count >= self.index + k for k in range(1 + self.twice))

    def __str__(self):
        return f"{self.entry}, {self.plan}{f', {self.missing} missing' if self.missing else ''}"


@dataclass(frozen=True)
class Good:
    """A call that nothing fails in: its results, how often it calls each function at first and with its kernels,
    tables and plans in place, what the pools have handed out once it is over, and the names of its code objects in
    the order of their compiles."""

    results: list
    first: dict
    warm: dict
    kept: tuple
    objects: list


class Ledger:
    """Objects of the runtime made and ended since the process began, by the calls of the functions that do."""

    def __init__(self, device: Device, names: list[str]):
        self.device, self.names = device, names
        self.sums = dict.fromkeys(names, 0)

    def ask(self, plan: str = "") -> None:
        """Failures for the next calls; all are counted."""
        failing = {item.split(":")[0] for item in plan.split(",") if plan}
        counted = [f"{name}:{NEVER}" for name in self.names if name not in failing]
        self.device.ask_failures(",".join([plan] * bool(plan) + counted))

    def take(self, case: Case | None = None) -> dict[str, int]:
        """How often each was called since failures were asked for; nothing is counted or fails from here on."""
        counts = self.device.counted(self.names)
        self.device.ask_failures("")
        for name, count in counts.items():
            failed = case.failed(count) if case and case.function == name and name not in ENDING else 0
            self.sums[name] += count - failed
        return counts

    def lost(self) -> str:
        held = {kind: pool["in_use_blocks"] + pool["cached_blocks"] for kind, pool in pools().items()}
        balance = {made: self.sums[made] - self.sums[ended] for made, ended in MADE_AND_ENDED if made in self.sums}
        balance["hipMalloc"] = self.sums["hipMalloc"] - self.sums["hipFree"] - held["device"]
        balance["hipHostMalloc"] = self.sums["hipHostMalloc"] - self.sums["hipHostFree"] - held["pinned"]
        off = {name: count for name, count in balance.items() if count}
        return f"made and not ended: {off}" if off else ""


ENDING = {ended for _, ended in MADE_AND_ENDED} | {"hipFree", "hipHostFree"}


def attempt(prepared: Prepared, ledger: Ledger, plan: str = "", case: Case | None = None) -> tuple:
    """Makes the call while failures are asked for: its value, its error, the calls counted."""
    prepared.reset()
    ledger.ask(plan)
    value, error = None, None
    try:
        value = prepared.make()
    except RuntimeError as raised:
        error = str(raised)
    return value, error, ledger.take(case)


def good(entry: str) -> Good:
    """What a call comes to, in a process of its own, which compiles into a folder of its own."""
    folder = os.environ["KEVRA_CACHE_DIR"] = str(folder_of(entry))
    device = Device()
    ledger, call = Ledger(device, device.names()), TABLE[entry]
    prepared = Prepared(call, device)
    value, error, first = attempt(prepared, ledger)
    if error is not None or misfit(call, value):
        raise AssertionError(error or misfit(call, value))
    results = prepared.results(value)
    del value
    kept = in_use()
    drain(ledger)
    *_, warm = attempt(prepared, ledger)
    objects = sorted(Path(folder).rglob("*.hsaco"), key=lambda file: file.stat().st_mtime_ns)
    return Good(results, *({name: n for name, n in counts.items() if n} for counts in (first, warm)), kept,
                [file.name for file in objects])


def drain(ledger: Ledger) -> None:
    ledger.ask()
    kevra.drain_pool()
    ledger.take()


def wrong_text(case: Case, error: str, device: Device) -> str:
    name = re.sub("^hip(rtc)?", "", case.function)
    call = rf"src/\S+:\d+: (?s:.*)(?i:{name[0]}){name[1:]}\((?s:.*)\)( \[\w+\])? failed: WORDS"
    pattern = TEXTS.get(case.function, call)
    words = re.escape(device.words_of(case.function, case.code))
    return "" if re.fullmatch(pattern.replace("WORDS", words), error) else f"said {error!r}"


def may_succeed(case: Case) -> bool:
    return (case.function in MADE_GOOD or case.entry.startswith(SOLVER) or case.code == OUT_OF_MEMORY
            or case.function in LOADING or TABLE[case.entry].at_worst is not None)


def must_succeed(case: Case) -> bool:
    if case.function in LOADING:
        return not case.missing
    return not case.twice and (case.function in MADE_GOOD or case.code == OUT_OF_MEMORY)


def judge(case: Case, call, value, error, prepared: Prepared, want: Good) -> str:
    """What is wrong with the way one failure came out; empty where nothing is."""
    if error is not None:
        return f"failed: {error}" if must_succeed(case) else wrong_text(case, error, prepared.device)
    if call.at_worst is not None and value == call.at_worst:
        return ""
    if not may_succeed(case):
        return "no exception"
    return misfit(call, value) or differ(call, prepared.results(value), want.results)


def one_failure(case: Case, want: Good, prepared: Prepared, ledger: Ledger) -> str:
    """Fails once, then calls again: what is wrong with either; empty where nothing is."""
    device, call = prepared.device, TABLE[case.entry]
    before = in_use()
    value, error, counts = attempt(prepared, ledger, case.plan, case)
    if counts[case.function] < case.index + case.twice:
        return NOT_REACHED
    wrong = judge(case, call, value, error, prepared, want)
    del value
    now = in_use()
    if not wrong and any(b > max(a, k) for (a, _), (b, _), (k, _) in zip(before, now, want.kept)):
        wrong = f"{now} in use after it, {before} before"
    if wrong:
        return wrong
    value, again, _ = attempt(prepared, ledger)
    if NO_DEVICE in (error, again) or case.function in ("hipInit", "hipGetDeviceCount"):
        remembered = again in (None, NO_DEVICE)
        return ledger.lost() if remembered else f"the next call: {again}"
    wrong = again or misfit(call, value) or differ(call, prepared.results(value), want.results)
    del value
    if not wrong and in_use() != want.kept:
        wrong = f"{in_use()} in use, {want.kept} without the failure"
    return f"the next call: {wrong}" if wrong else ledger.lost()


def first_call(case: Case, want: Good) -> str:
    """With the code objects that the call asks for, hard links to those of its folder."""
    with tempfile.TemporaryDirectory(prefix="faults-", dir=os.environ["KEVRA_CACHE_DIR"]) as folder:
        objects = Path(folder) / "kernels"
        objects.mkdir()
        for name in want.objects:
            if name != case.missing:
                (objects / name).hardlink_to(folder_of(case.entry) / "kernels" / name)
        os.environ["KEVRA_CACHE_DIR"] = folder
        device = Device()
        ledger = Ledger(device, device.names())
        wrong = one_failure(case, want, Prepared(TABLE[case.entry], device), ledger)
        left = list(objects.glob("*.tmp*"))
        return wrong or (f"left {left[0].name}" if left else "")


def folder_of(entry: str) -> Path:
    return Path(os.environ["KEVRA_CACHE_DIR"]) / entry


def warm_calls(entry: str, cases: list[Case], want: Good) -> list[tuple[Case, str]]:
    """Cases of a call whose kernels, tables and plans are in place, on empty pools, in one process."""
    device = Device()
    ledger = Ledger(device, device.names())
    prepared = Prepared(TABLE[entry], device)
    attempt(prepared, ledger)
    found = []
    for case in cases:
        drain(ledger)
        try:
            found.append((case, one_failure(case, want, prepared, ledger)))
        except (DeviceFailure, AssertionError) as error:
            found.append((case, str(error)))
    return found


def cases_of(entry: str, counts: dict[str, int], most: int = 0) -> list[Case]:
    """Every call of every function, or `most` of each from first to last."""
    cases = []
    for function, count in counts.items():
        for index in spread(range(1, count + 1), most):
            cases.append(Case(entry, function, index, HIPRTC_FAILS if function.startswith("hiprtc") else HIP_FAILS))
            if function in ("hipMalloc", "hipHostMalloc"):
                cases += [Case(entry, function, index, OUT_OF_MEMORY, twice) for twice in (False, True)]
    return cases


def compiling_cases(entry: str, want: Good, most: int) -> list[Case]:
    """Each object in turn is not on disk, and each function on the way from its text to its kernel fails."""
    cases = []
    for place, name in spread(list(enumerate(want.objects, 1)), most):
        cases += [Case(entry, function, 1, HIPRTC_FAILS, missing=name)
                  for function in want.first if function.startswith("hiprtc")]
        cases += [Case(entry, function, place, HIP_FAILS, missing=name) for function in sorted(LOADING)]
    return cases


def spread(items, most: int):
    """All items, or `most` of them from first to last; the last alone where that is one."""
    if not most or len(items) <= most:
        return items
    return [items[(k + 1) * len(items) // most - 1] for k in range(most)]


def on_disk(want: Good) -> dict[str, int]:
    """What a first call calls that finds its objects on disk."""
    return {name: n for name, n in want.first.items() if not name.startswith("hiprtc")}


def work(task: tuple):
    kind, *arguments = task
    return {"good": good, "first": first_call, "warm": warm_calls}[kind](*arguments)


class Campaign:
    def __init__(self, jobs: int):
        self.jobs, self.failures, self.tried, self.functions = jobs, [], 0, set()

    def run(self, tasks: list, label: str):
        steps = harness.progress(range(len(tasks)), label)
        for task, answer in children.each(work, tasks, self.jobs, LIMIT):
            next(steps, None)
            if isinstance(answer, children.Lost):
                self.failures.append(f"{' '.join(map(str, task[:2]))}: {answer.why}")
            else:
                yield task, answer

    def tell(self, case: Case, wrong: str) -> None:
        if wrong == NOT_REACHED:
            return
        self.tried += 1
        self.functions.add(case.function)
        if wrong:
            self.failures.append(f"{case}: {wrong}")


def main() -> int:
    chosen = harness.options(__doc__, SELECTION, jobs=max(1, (os.cpu_count() or 2) // 2), most=100, every=1)
    harness.cpu_device_only(chosen, "Failures are asked of the CPU device")
    os.environ.update({"KEVRA_CPU_THREADS": "2", "KEVRA_CPU_CACHE": CACHE})
    entries = selected(TABLE, chosen)
    campaign = Campaign(chosen.jobs)
    with harness.cache_folder():
        goods = {task[1]: answer for task, answer in campaign.run([("good", name) for name in entries], "calls")}
        warm = []
        for name, g in goods.items():
            cases = cases_of(name, g.warm)
            warm += [("warm", name, cases[k:k + AT_ONCE], g) for k in range(0, len(cases), AT_ONCE)]
        for _, found in campaign.run(warm, "in place"):
            for case, wrong in found:
                campaign.tell(case, wrong)
        first = [case for name, g in goods.items() for case in cases_of(name, on_disk(g), chosen.most)]
        compiling = [case for name, g in goods.items() for case in compiling_cases(name, g, chosen.most)]
        for label, cases in ("first calls", first), ("compiling", compiling):
            tasks = [("first", case, goods[case.entry]) for case in cases]
            for task, wrong in campaign.run(tasks, label):
                campaign.tell(task[1], wrong)
    missing = [name for name, call in TABLE.items() if not call.present]
    notes = {"entry points": len(entries), "not there": ", ".join(missing) or "none",
             "functions made to fail": len(campaign.functions), "failures asked for": campaign.tried,
             "of first calls": len(first), "of compiles": len(compiling)}
    return report(chosen, "each call of each function, once; out of memory once and twice", campaign.failures, notes)


if __name__ == "__main__":
    sys.exit(main())
