"""Cases worked in forked processes that are watched: one that dies or hangs costs its case alone."""

import os
import signal
import time
import traceback
from collections import deque
from dataclasses import dataclass, field
from multiprocessing import Pipe
from multiprocessing.connection import Connection, wait


@dataclass
class Lost:
    """A case without an answer, and why."""

    why: str


@dataclass
class Child:
    pid: int
    answers: Connection
    cases: list
    limit: float
    done: int = 0
    status: int | None = None
    until: float = field(init=False)

    def __post_init__(self):
        self.wind()

    def wind(self):
        self.until = time.monotonic() + self.limit


def each(work, cases: list, jobs: int, limit: float):
    """`work(case)` for every case, `jobs` processes side by side; gives pairs (case, answer) as they come. A list among
    the cases is worked in one process. An answer is Lost where `work` raised, the process died, or `limit` seconds went
    by; another process then goes on with its list."""
    waiting = deque(case if isinstance(case, list) else [case] for case in cases)
    running: dict[Connection, Child] = {}
    try:
        while waiting or running:
            while waiting and len(running) < jobs:
                child = start(work, waiting.popleft(), limit)
                running[child.answers] = child
            soonest = min(child.until for child in running.values())
            ready = wait(list(running), max(0, soonest - time.monotonic()))
            late = [answers for answers, child in running.items() if child.until < time.monotonic()]
            for answers in {*ready, *late}:
                child = running[answers]
                try:
                    answer = answers.recv() if answers.poll() else None
                except EOFError:
                    answer = None
                if answer is None:
                    answer = Lost(end(child, f"no answer within {limit:g} s" if answers in late else ""))
                yield child.cases[child.done], answer
                child.done += 1
                child.wind()
                left = child.cases[child.done:]
                if isinstance(answer, Lost) or not left:
                    end(running.pop(answers))
                    if left:
                        waiting.appendleft(left)
    finally:
        for child in running.values():
            end(child)


def start(work, cases: list, limit: float) -> Child:
    answers, out = Pipe(duplex=False)
    pid = os.fork()
    if pid == 0:
        try:
            answers.close()
            os.dup2(os.open(os.devnull, os.O_WRONLY), 2)  # the device tells of every failure that was asked for
            for case in cases:
                try:
                    out.send(work(case))
                except Exception as error:
                    at = traceback.extract_tb(error.__traceback__)[-1]
                    out.send(Lost(f"{error!r}, {os.path.basename(at.filename)}:{at.lineno}"))
                    break
        finally:
            os._exit(0)
    out.close()
    return Child(pid, answers, cases, limit)


def end(child: Child, why: str = "") -> str:
    """Ends the process, if it has not ended; how it did, or `why` it had to."""
    if child.status is None:
        os.kill(child.pid, signal.SIGKILL)  # changes nothing where it has died by itself
        child.status = os.waitstatus_to_exitcode(os.waitpid(child.pid, 0)[1])
    died = f"killed by {signal.Signals(-child.status).name}" if child.status < 0 else f"exit status {child.status}"
    return why or died
