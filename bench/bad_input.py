"""Generated calls of every entry point with what cannot be served: no crash, no hang, no wrong silent result."""

import functools
import os
import random
import resource
import sys
from collections import Counter
from dataclasses import dataclass, replace

import harness
import numpy as np
from campaigns import SELECTION, children, report, selected
from campaigns.calls import Call, Memory, Shape, calls, new_key
from campaigns.device import Device, DeviceFailure, Prepared, differ, in_use, misfit, outcome

LIMIT = 60  # seconds for a call; one may compile a dozen kernels in check mode
AT_ONCE = 250  # calls of one entry point to a process
ROOM = 1 << 20  # bytes that every address has where a size is changed: small ones then stay inside
SMALL = 4096  # sizes beyond need more
ADDRESS_SPACE = 64 << 30  # of a process; a size that numpy cannot serve is a MemoryError, not the machine's end
DEVICE_MEMORY = "64M"  # scratch for great sizes is refused before anything fills it
DEVICE_CACHE = "4K"  # which tuners fill a hundred times for each candidate
REFUSALS = (TypeError, ValueError, RuntimeError, MemoryError, BufferError)
EARLY = (TypeError, ValueError)  # nothing has been queued
ROUNDS = {"n_iter", "iters", "warmup"}  # any number of them is right, and takes its time
TAKEN_AS_THEY_ARE = {"fft_staged", "rfft_staged", "irfft_staged", "griffinlim_staged", "conv_direct_staged"}
STRANGE_STRINGS = ["", "hann\0", "HANN", "complex ", "\N{GREEK SMALL LETTER PI}", "\ud800", "x" * 100_000, "%s%n"]
STRANGE_FLOATS = [float("nan"), float("inf"), float("-inf"), -1.0, 0.0, -0.0, 1e308, -1e308, 5e-324, 1e-46, 0.3, 2.5]
STRANGE_INTEGERS = [0, -1, -2, 2**31 - 1, 2**31, 2**32, 2**32 + 1, 2**62, 2**63 - 1, -(2**31), -(2**63)]
BEYOND_64_BITS = [2**63, 2**64, -(2**63) - 1, 10**30]
NO_NUMBERS = ["7", None, [7], {}, object(), 1.5, 7 + 0j, b"7", float("nan")]
STRANGE_ADDRESSES = [0, 1, 8, 2**48, 2**63, 2**64 - 16]
RIGHT = "right"
SURE, SAME, ANY = "refused", "the same result", "no crash"


@dataclass(frozen=True)
class Change:
    """One argument put otherwise. `promise` is what has to come of it; `strays` says that the call may reach memory
    that it was not given."""

    argument: str
    value: object
    promise: str = ANY
    strays: bool = False

    def __str__(self):
        if isinstance(self.value, np.ndarray):
            return f"{self.argument}={self.value.dtype}{self.value.shape}"
        return f"{self.argument}={self.value!r:.60}"


class Integer:
    """An integer by its __index__ alone."""

    def __init__(self, value):
        self.value = value

    def __index__(self):
        return self.value


def changed(name: str, argument: str, value, rng: random.Random) -> Change:
    """A change of an argument, after its kind."""
    if isinstance(value, Memory):
        return address(argument, value, rng)
    if isinstance(value, bool):
        return Change(argument, rng.choice(["yes", None, 2.0, np.True_, 1, [], object()]))
    if isinstance(value, int):
        return integer(argument, value, rng)
    if isinstance(value, float):
        strange, wrong = rng.choice(STRANGE_FLOATS), rng.choice(["1", None, [], object()])
        same = Change(argument, np.float64(value), SAME)
        return rng.choice([Change(argument, strange), Change(argument, wrong, SURE), same])
    if isinstance(value, str):
        strange, wrong = rng.choice(STRANGE_STRINGS), rng.choice([None, 3, object(), ["hann"]])
        promise = ANY if argument == "window" else SURE
        return rng.choice([Change(argument, strange), Change(argument, wrong, promise)])
    if isinstance(value, list):
        return octaves(argument, value, rng)
    return array(name, argument, value, rng)


def address(argument: str, value: Memory, rng: random.Random) -> Change:
    nowhere, wrong = rng.choice(STRANGE_ADDRESSES), rng.choice([-1, 2**64, "0", None, 1.5, value.array])
    content = replace(value, array=special(value.array, rng))
    stray = Change(argument, nowhere, strays=True)
    return rng.choice([stray, Change(argument, wrong, SURE), Change(argument, content)])


def special(a: np.ndarray, rng: random.Random) -> np.ndarray:
    """The same numbers with a few that are none among them."""
    a = a.copy()
    a.flat[:: rng.choice([1, 7, a.size])] = rng.choice([np.nan, np.inf, -np.inf, 1e38, 0.0, -1.0])
    return a


def integer(argument: str, value: int, rng: random.Random) -> Change:
    kind = rng.randrange(6)
    if kind == 0:
        return Change(argument, rng.choice([-1, 2**64, 10**30] if argument == "stream" else BEYOND_64_BITS), SURE)
    if kind == 1:
        return Change(argument, rng.choice(NO_NUMBERS), SURE)
    if kind == 2:
        return Change(argument, rng.choice([np.int64, np.int32, Integer])(value), SAME)
    if kind == 3:
        wild = [n for n in STRANGE_INTEGERS if argument not in ROUNDS or n <= 0]
        return Change(argument, rng.choice(wild), strays=True)
    if argument == "stream":
        return Change(argument, rng.choice([1, 16, 2**47]), strays=True)
    return Change(argument, rng.choice([1, 2, 3, 7, value - 1, value + 1, value // 2, 2 * value]))


def octaves(argument: str, value: list, rng: random.Random) -> Change:
    """A plan that does not hold together: an octave short of items, or one of its items put otherwise."""
    if rng.randrange(4) == 0:
        short = [octave[:-1] for octave in value]
        others = [short, [], None, tuple(value), value * 3, value[::-1], [None], [()], "octaves", [value]]
        return Change(argument, rng.choice(others))
    plan = [list(octave) for octave in value]
    octave = rng.choice(plan)
    item = rng.randrange(len(octave))
    strange = changed("", argument, octave[item], rng)
    octave[item] = strange.value
    promise = SURE if strange.promise == SURE else ANY
    return Change(argument, [tuple(octave) for octave in plan], promise, strange.strays)


def array(name: str, argument: str, a: np.ndarray, rng: random.Random) -> Change:
    """Another type, layout, extent or content."""
    ruled = a.dtype.kind == "f" and name not in TAKEN_AS_THEY_ARE and argument in ("y", "S", "C", "M", "a", "x")
    rows = np.broadcast_to(a[..., :1], (*a.shape[:-1], 2**40)) if a.ndim else a
    swapped, half = a.astype(a.dtype.newbyteorder()), a.real.astype(np.float16)
    types = [(1000 * a.real).astype(kind) for kind in (np.int8, np.uint64, bool, np.int32)]
    objects = [a.astype(object), a.astype(str), a.astype("V8")[:0], np.full(a.shape, None)]
    no_arrays = [None, 3.5, "noise", [], [[]], [[1, 2], [3]], {}, object(), np.array(2.0)]
    content = special(a, rng) if a.dtype.kind in "fc" else a + rng.choice([-1, 1, 1000])
    return rng.choice([
        Change(argument, same_numbers(a, rng), SAME),
        Change(argument, swapped, ANY if name in TAKEN_AS_THEY_ARE else SAME),
        Change(argument, half, SURE if ruled else ANY),
        Change(argument, resized(a, rng)),
        *(Change(argument, rng.choice(group)) for group in (types, objects, no_arrays, [content, rows]))])


def same_numbers(a: np.ndarray, rng: random.Random) -> np.ndarray:
    """The array in another layout."""
    padded = np.repeat(a, 2, axis=-1)[..., ::2]
    bytes_off = np.frombuffer(b"\0" + a.tobytes(), a.dtype.newbyteorder("="), a.size, 1).reshape(a.shape)
    fixed = a.copy()
    fixed.setflags(write=False)
    return rng.choice([padded, np.asfortranarray(a), a[::-1].copy()[::-1], bytes_off, fixed])


def resized(a: np.ndarray, rng: random.Random) -> np.ndarray:
    axis = rng.randrange(a.ndim)
    return rng.choice([
        a[..., :0], a[:0], np.zeros((2**40, *[0] * max(a.ndim - 1, 1)), a.dtype), a[None], a[..., None], a.ravel(),
        np.delete(a, 0, axis), np.repeat(a, 2, axis), a.take([0], axis), np.swapaxes(a, 0, -1), a.reshape(-1)[0]])


@functools.cache
def table(double: bool) -> dict[str, Call]:
    return calls(Shape(double=double))


def case_of(entry: str, seed: int) -> tuple[Call, Call, list[Change]]:
    """The `seed`-th call of an entry point, the right one that it was made of, and what was changed: mostly one
    argument, at times up to three."""
    rng = random.Random(f"{entry} {seed}")
    right = call = table(rng.random() < 0.5)[entry]
    names = rng.sample(list(call.arguments), min(rng.choice([1, 1, 1, 2, 3]), len(call.arguments)))
    changes = [changed(entry, name, call.arguments[name], rng) for name in names]
    if any(change.strays and isinstance(call.arguments[change.argument], Memory) for change in changes):
        changes = changes[:1]  # what works in pieces would meet an address that leads nowhere in each of them
    arguments = {**call.arguments, **{change.argument: change.value for change in changes}}
    if not {"plan_key", "key"} & set(names):  # the tables of a plan that is no longer the same
        arguments.update({name: new_key() for name in ("plan_key", "key") if name in arguments})
    if rng.randrange(25) == 0:
        arguments.update({"one more": 1, "and another": 1})
        changes.append(Change("two arguments too many", 1, SURE))
    return replace(call, arguments=arguments), right, changes


def of_great_size(entry: str, seed: int) -> bool:
    """Whether a size is changed to one whose work would take forever, were it served, and no address is."""
    call, right, changes = case_of(entry, seed)
    numbers = {c.argument: c.value for c in changes if isinstance(c.value, int)}
    addresses = [name for name in numbers if name == "stream" or isinstance(right.arguments.get(name), Memory)]
    return not addresses and any(value > SMALL for value in numbers.values())


def one_call(entry: str, seed: int) -> str:
    """What came of it: a word for the table, or after "wrong: " what should not have."""
    call, right, changes = case_of(entry, seed)
    device = Device()
    resource.setrlimit(resource.RLIMIT_AS, (ADDRESS_SPACE, ADDRESS_SPACE))
    sized = any(change.promise == ANY and not isinstance(change.value, (Memory, float)) for change in changes)
    prepared = Prepared(call, device, room=0, least=ROOM if sized else 0)
    told = f"{', '.join(map(str, changes))}: "
    try:
        try:
            value = prepared.make()
        except REFUSALS as refused:
            device_went_wrong(device)
            early = isinstance(refused, EARLY)
            wrong = "" if not early or prepared.untouched() else f"wrote before it was refused by {refused!r}"
            wrong = wrong or ("no words" if not str(refused) else "")
            wrong = wrong or (f"refused by {refused!r}" if all(c.promise == SAME for c in changes) else "")
            return f"wrong: {told}{wrong}" if wrong else f"refused, {type(refused).__name__}"
        fault = device_went_wrong(device)
        wrong = judge(right, changes, value, prepared, fault)
        return f"wrong: {told}{wrong}" if wrong else ("stopped by the device" if fault else "served")
    finally:
        prepared.free()


def device_went_wrong(device: Device) -> str:
    """Waits for what is queued; what the device then tells of it."""
    try:
        device.synchronize()
    except DeviceFailure as failure:
        return str(failure)
    return ""


def judge(right: Call, changes: list[Change], value, prepared: Prepared, fault: str) -> str:
    for change in changes:
        if change.promise == SURE:
            return f"not refused, gave {value!r:.60}"
    strays = any(change.strays or (isinstance(change.value, int) and change.value > SMALL) for change in changes)
    if fault:
        return "" if strays else fault
    if all(change.promise == SAME for change in changes):
        return misfit(right, value) or differ(right, prepared.results(value), outcome(right, prepared.device))
    if isinstance(value, np.ndarray):
        float(abs(value).sum())  # all of it can be read
    return ""


def after_all(entry: str, want: list[np.ndarray]) -> str:
    """In a process that has made wrong calls: the right one comes out right, and no result is still held."""
    call = table(False)[entry]
    wrong = differ(call, outcome(call, Device()), want)
    (pinned, _) = in_use()[1]
    return f"wrong: the right call after them: {wrong or f'{pinned} results held'}" if wrong or pinned else RIGHT


def launch_nothing() -> str:
    """For the rest of a process: what queues its work in pieces is through with any number of them."""
    os.environ.update({"KEVRA_CPU_CHECK": "0", "KEVRA_CPU_NULL": "1"})
    return RIGHT


def work(case: tuple):
    kind, *arguments = case
    kinds = {"right": lambda entry: outcome(table(False)[entry], Device()), "wrong": one_call, "after": after_all,
             "launch nothing": launch_nothing}
    return kinds[kind](*arguments)


def main() -> int:
    jobs = max(1, (os.cpu_count() or 2) // 2)
    chosen = harness.options(__doc__, SELECTION, calls=20_000, seed=1, jobs=jobs, every=1)
    harness.cpu_device_only(chosen, "Addresses that lead nowhere are told by the CPU device")
    os.environ.update({"KEVRA_CPU_CHECK": "1", "KEVRA_CPU_MEMORY": DEVICE_MEMORY, "KEVRA_CPU_THREADS": "2",
                       "KEVRA_CPU_CACHE": DEVICE_CACHE})
    taking = [name for name in selected(table(False), chosen) if table(False)[name].arguments]
    each, failures, tally = -(-chosen.calls // len(taking)), [], Counter()
    with harness.cache_folder():
        right = [("right", name) for name in taking]
        wanted = {case[1]: answer for case, answer in children.each(work, right, chosen.jobs, LIMIT)}
        failures += [f"{name}: {a.why}" for name, a in wanted.items() if isinstance(a, children.Lost)]
        chunks = []
        for name in taking:
            cases = [("wrong", name, chosen.seed * 10**6 + k) for k in range(each)]
            great = [case for case in cases if of_great_size(*case[1:])]
            chunks += [[("launch nothing",), *great]] if great else []
            cases = [case for case in cases if case not in great]
            chunks += [[*cases[k:k + AT_ONCE], ("after", name, wanted[name])] for k in range(0, len(cases), AT_ONCE)]
        shown = harness.progress(range(sum(map(len, chunks))), "calls")
        for case, answer in children.each(work, chunks, chosen.jobs, LIMIT):
            next(shown, None)
            told = f"wrong: {answer.why}" if isinstance(answer, children.Lost) else answer
            tally[told.split(":")[0]] += 1
            if told.startswith("wrong"):
                where = " ".join(map(str, case[1:3])) if case[0] == "wrong" else case[0]
                failures.append(f"{where}: {told.removeprefix('wrong: ')}")
    notes = {"entry points": f"{len(taking)} that take arguments, {each} calls each", "seed": chosen.seed,
             **{word: count for word, count in sorted(tally.items()) if word != RIGHT},
             "right calls after wrong ones": sum(chunk[-1][0] == "after" for chunk in chunks)}
    return report(chosen, "wrong calls in check mode", failures, notes)


if __name__ == "__main__":
    sys.exit(main())
