"""Threads that mix operations and hints, processes on one cache, forks, many calls in flat memory, two devices."""

import os
import random
import sys
import threading
import time
from collections import Counter
from dataclasses import replace
from functools import cache, partial
from pathlib import Path

import harness
import kevra
from campaigns import SELECTION, children, report, selected
from campaigns.calls import Call, Shape, calls
from campaigns.device import Device, Prepared, differ, misfit, outcome, pools

LIMIT = 300  # seconds for one step of a part
SLICE = 5.0  # seconds that threads live
THREADS = 8
PROCESSES = 4
FORKS = 12
TOO_LATE = "kevra: this process was forked from one that had used the GPU already"
FORKED = ["stft_staged", "fft_resident"]
CALLS_OF_A_STEP = 1000
FLAT = 4 << 20  # bytes: what the allocators and the interpreter keep of one kind of call or another
SHAPES = [Shape(), Shape(double=True), Shape(3, 1000, 250, 125), Shape(1, 740, 148, 20, double=True)]
HINTED = ["stft", "istft", "mel", "fft", "rfft", "cqt"]
# Made between the others. What a tuner measures beside other work says nothing.
ASIDE = {"drain_pool", "clear_tables", "set_shape_hint", "shape_hint_clear", "set_deterministic"}


@cache
def mixed(entries: tuple) -> list[tuple[Call, list]]:
    """Calls of all shapes, and their results by this process alone."""
    chosen = [calls(shape)[name] for shape in SHAPES for name in entries]
    device = Device()
    return [(call, outcome(call, device)) for call in chosen]


def change_something(rng: random.Random) -> None:
    """What any thread may do to all: another wish, none, other sums, empty pools."""
    what = rng.randrange(8)
    if what == 0:
        kevra.shape_hint_clear()
    elif what == 1:
        kevra.drain_pool()
    elif what == 2:
        kevra.set_deterministic(rng.randrange(2))
    else:
        shape = rng.choice(SHAPES)
        op = rng.choice(HINTED)
        kevra.set_shape_hint(op, shape.n_fft, 0 if "fft" in op and op != "stft" else shape.hop, rng.random() < 0.5,
                             64 if shape.double else 32, rng.choice(["complex", "power", "magnitude", "db"]), 0, 0,
                             rng.choice([0, 4, 8, 16]), rng.choice([0, 1, 2, 4]), rng.choice([0, 64, 128]),
                             rng.choice([0, 1, 2]), rng.choice([0, 1, 4, 8, 48]))


class Worker:
    """One thread's calls: resident ones on memory and a stream of its own."""

    def __init__(self, entries: tuple, seed, device: int = 0):
        self.calls = mixed(entries)
        self.rng, self.device, self.prepared = random.Random(seed), Device(device), {}
        self.stream = self.device.stream()
        self.done, self.failures = 0, []

    def call_one(self) -> None:
        place = self.rng.randrange(len(self.calls))
        call, want = self.calls[place]
        if place not in self.prepared:
            on = {name: value for name, value in (("stream", self.stream), ("device", self.device.index),
                                                  ("dev", self.device.index)) if name in call.arguments}
            self.prepared[place] = Prepared(replace(call, arguments={**call.arguments, **on}), self.device)
        prepared = self.prepared[place]
        value = prepared.make()
        self.device.synchronize(self.stream)
        wrong = misfit(call, value) or differ(call, prepared.results(value), want)
        prepared.reset()
        self.done += 1
        if wrong:
            self.failures.append(wrong)

    def run(self, until: float, changes: bool) -> None:
        while time.monotonic() < until and not self.failures:
            try:
                if changes and self.rng.randrange(20) == 0:
                    change_something(self.rng)
                self.call_one()
            except Exception as error:
                self.failures.append(repr(error))

    def close(self) -> None:
        for prepared in self.prepared.values():
            prepared.free()
        self.device.destroy_stream(self.stream)


def at_once(workers: list[Worker], seconds: float, changes: bool) -> tuple[int, list[str]]:
    until = time.monotonic() + seconds
    threads = [threading.Thread(target=worker.run, args=(until, changes)) for worker in workers]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    for worker in workers:
        worker.close()
    return sum(worker.done for worker in workers), [text for worker in workers for text in worker.failures]


def crowd(entries: tuple, seed: int, seconds: float):
    return at_once([Worker(entries, f"{seed} {thread}") for thread in range(THREADS)], seconds, changes=True)


def one_cache(entries: tuple):
    """One call of each, by one process of several that start on an empty folder."""
    device = Device()
    return {name: outcome(calls()[name], device) for name in entries}


def forked(_, entry: str, used: bool):
    """Calls in children of a process that has used the device, and whose work goes on, or that has not."""
    device, call = Device(), calls()[entry]
    prepared = worker = busy = None
    if used:
        prepared, worker = Prepared(call, device), Worker((entry,), entry)
        prepared.make()
        busy = threading.Thread(target=worker.run, args=(time.monotonic() + 1, False))
        busy.start()

    def in_child(_):
        try:
            prepared.make() if used else outcome(call, device)
        except RuntimeError as error:
            return str(error)
        return "served"

    told = [getattr(answer, "why", answer) for _, answer in children.each(in_child, list(range(FORKS)), 2, 60)]
    failures = []
    if used:
        busy.join()
        failures += worker.failures
    wanted = TOO_LATE if used else "served"
    failures += [f"{entry}, {used=}: {text}" for text in told if not text.startswith(wanted)]
    return FORKS, failures


@cache
def steady(entries: tuple) -> Worker:
    return Worker(entries, 0)


def many(entries: tuple, count: int):
    """So many calls; the process's memory and the pools' afterwards."""
    worker = steady(entries)
    for _ in range(count):
        worker.call_one()
    pages = int(Path("/proc/self/statm").read_text().split()[1])
    held = sum(pool["in_use_bytes"] + pool["cached_bytes"] for pool in pools().values())
    return count, worker.failures, pages * os.sysconf("SC_PAGE_SIZE"), held


def two_devices(entries: tuple, seed: int, together: bool, seconds: float):
    workers = [Worker(entries, f"{seed} {device}", device) for device in (0, 1)]
    if together:
        return at_once(workers, seconds, changes=False)
    until = time.monotonic() + seconds
    while time.monotonic() < until and not any(worker.failures for worker in workers):
        for worker in workers:
            worker.call_one()
    return at_once(workers, 0, changes=False)


def work(entries: tuple, case: tuple):
    part, *arguments = case
    parts = {"threads": crowd, "processes": one_cache, "forks": forked, "memory": many, "devices": two_devices}
    if part == "devices":
        os.environ["KEVRA_CPU_DEVICES"] = "2"
    return parts[part](entries, *arguments)


class Campaign:
    def __init__(self, entries: tuple):
        self.entries, self.done, self.failures = entries, Counter(), []

    def run(self, cases: list, jobs: int = 1):
        """The cases of one part: an answer begins with how many calls were made and what went wrong in them."""
        flat = [case for group in cases for case in (group if isinstance(group, list) else [group])]
        shown = harness.progress(range(len(flat)), flat[0][0])
        for case, answer in children.each(partial(work, self.entries), cases, jobs, LIMIT):
            next(shown, None)
            if isinstance(answer, children.Lost):
                self.failures.append(f"{case[0]}: {answer.why}")
                continue
            if isinstance(answer, tuple):
                self.done[case[0]] += answer[0]
                self.failures += [f"{case[0]}: {text}" for text in answer[1]]
            yield case, answer

    def processes(self, folder: Path) -> str:
        answers = [answer for _, answer in self.run([("processes",)] * PROCESSES, PROCESSES)]
        table = calls()
        for other in answers[1:]:
            wrong = [differ(table[name], other[name], results) for name, results in answers[0].items()]
            self.failures += [f"processes: {text}" for text in wrong if text]
        self.done["processes"] += sum(map(len, answers))
        left = [file.name for file in folder.rglob("*.tmp*")]
        self.failures += [f"processes: left {left}"] if left else []
        return f"{PROCESSES} on one empty cache, {len(list(folder.glob('*.hsaco')))} objects"

    def memory(self, count: int) -> str:
        steps = max(count // CALLS_OF_A_STEP, 4)
        answers = [answer for _, answer in self.run([[("memory", count // steps)] * steps])]
        early, late = answers[len(answers) // 2], answers[-1]
        grown, pooled = late[2] - early[2], late[3] - early[3]
        if grown > FLAT or pooled > 0:
            self.failures.append(f"memory: {grown} bytes more in its second half, {pooled} of them in the pools")
        return f"{late[2] / 2**20:.0f} MiB after {count} calls, {grown / 2**20:+.2f} MiB in their second half"


def main() -> int:
    more = {"minutes": {"type": float, "default": 0.5, "help": "that threads mix operations; default: 0.5"}}
    chosen = harness.options(__doc__, SELECTION | more, calls=20_000, seed=1, every=1)
    harness.cpu_device_only(chosen, "Two devices are the CPU device's")
    entries = [name for name in selected(calls(), chosen) if name not in ASIDE and "autotune" not in name]
    campaign = Campaign(tuple(entries))
    seconds = min(SLICE, 60 * chosen.minutes)
    with harness.cache_folder() as folder:
        notes = {"processes": campaign.processes(folder)}
        forks = [("forks", entry, used) for entry in FORKED for used in (False, True)]
        list(campaign.run(forks))
        list(campaign.run([("devices", chosen.seed, together, seconds) for together in (False, True)]))
        notes["memory"] = campaign.memory(chosen.calls)
        slices = max(round(60 * chosen.minutes / seconds), 1)
        list(campaign.run([[("threads", chosen.seed * 1000 + k, seconds) for k in range(slices)]]))
    notes |= {f"calls, {part}": count for part, count in campaign.done.items()}
    notes["forks"] = f"{FORKS} before and {FORKS} after first use, for each of {', '.join(FORKED)}"
    return report(chosen, f"{THREADS} threads for {chosen.minutes:g} minutes, and the rest", campaign.failures, notes)


if __name__ == "__main__":
    sys.exit(main())
