"""Clocks, the rounds in which contenders alternate, and the device's copy rate."""

import ctypes
import statistics
import time
from collections.abc import Callable
from itertools import repeat

import harness

# clock(call, times): seconds a call takes, and seconds of them that the caller cannot go on.
Clock = Callable[[Callable[[], object], int], tuple[float, float]]

LEAST = 1e-3  # seconds a timing lasts at least, so that reading the clock and the first call's cold caches fade
MOST_CALLS = 1000

# Calls this long wake every thread and pass over every cache themselves, and take fewer rounds: as many as fit into
# a case's time, but not below the least.
LONG_CALL = 0.2  # seconds
LONG_CASE = 6.0
LEAST_ROUNDS = 3

# Seconds before each timing. Thread pools look out for more work for a while after a call, some for milliseconds:
# without the pause the CPU device's 256 float rows of 512 took three times as long behind PyTorch as they do alone.
REST = 10e-3


def wall_clock(call, times: int, now=time.perf_counter) -> tuple[float, float]:
    started = now()
    for _ in repeat(None, times):
        call()
    seconds = (now() - started) / times
    return seconds, seconds


def processor_clock(call, times: int) -> tuple[float, float]:
    """Time that the process spends on its processors: what else the machine does changes it little."""
    return wall_clock(call, times, time.process_time)


def event_clock(start, stop, record, microseconds) -> Clock:
    """Between two events; microseconds(start, stop) waits for the second."""

    def clock(call, times: int) -> tuple[float, float]:
        record(start)
        _, host = wall_clock(call, times)
        record(stop)
        return microseconds(start, stop) * 1e-6 / times, host

    return clock


def hip_clock(hip: harness.Hip) -> Clock:
    def microseconds(start, stop):
        hip.synchronize()
        return hip.microseconds(start, stop)

    return event_clock(hip.event(), hip.event(), hip.record, microseconds)


def torch_clock(torch) -> Clock:
    def microseconds(start, stop):
        stop.synchronize()
        return start.elapsed_time(stop) * 1e3

    start, stop = (torch.cuda.Event(enable_timing=True) for _ in range(2))
    return event_clock(start, stop, lambda event: event.record(), microseconds)


def cupy_clock(cupy) -> Clock:
    def microseconds(start, stop):
        stop.synchronize()
        return cupy.cuda.get_elapsed_time(start, stop) * 1e3

    return event_clock(cupy.cuda.Event(), cupy.cuda.Event(), lambda event: event.record(), microseconds)


def alternate(contenders, rounds: int) -> dict[str, list[tuple[float, float]]]:
    """Times everybody once a round, so that a disturbance or a change of clock rate meets all of them."""
    lasts = {contender.name: settled(contender) for contender in contenders}
    rounds = min(rounds, max(LEAST_ROUNDS, int(LONG_CASE / sum(lasts.values()))))
    calls = {name: max(1, min(MOST_CALLS, round(LEAST / last))) for name, last in lasts.items()}
    taken = {contender.name: [] for contender in contenders}
    for _ in range(rounds):
        for contender in contenders:
            time.sleep(REST)
            if lasts[contender.name] < LONG_CALL:
                contender.call()  # wakes threads, fetches what the others' data displaced
            taken[contender.name].append(contender.clock(contender.call, calls[contender.name]))
    return taken


def settled(contender) -> float:
    """Seconds of a call that is not the first."""
    last = max(contender.clock(contender.call, 1))
    return last if last >= LONG_CALL else max(contender.clock(contender.call, 1))


def copy_rate(hip: harness.Hip, mebibytes: int) -> float:
    """Bytes a second that hipMemcpyDtoDAsync moves, each byte counted when read and when written."""
    size = mebibytes << 20
    source, target = hip.malloc(size), hip.malloc(size)
    arguments = (ctypes.c_void_p(target), ctypes.c_void_p(source), ctypes.c_size_t(size), None)
    clock = hip_clock(hip)
    times = [clock(lambda: hip.call("hipMemcpyDtoDAsync", *arguments), 1)[0] for _ in range(12)]
    hip.free(source, target)
    return 2 * size / statistics.median(times[2:])  # the first touch the memory
