"""The files in which tuned shapes outlive a process: one for each device architecture and version of kevra."""

from __future__ import annotations

import fcntl
import json
import os
import re
import warnings
from dataclasses import asdict, dataclass, fields
from pathlib import Path

from . import _rocm

_OPERATIONS = ("stft", "istft", "mel", "fft", "rfft", "cqt")
_JSON_TYPES = {"str": str, "int": int, "bool": bool, "float": float}


@dataclass(frozen=True)
class TunedShape:
    """The fastest kernel that a tuner found for one shape.

    What ``set_shape_hint`` knows the shape by: ``op``, ``n_fft``, ``hop``, ``center`` (of fft and rfft: the inverse),
    ``bits``, ``output``, ``extra``. What it is told: ``ept``, ``fpb``, ``tpf``, ``core``, ``var``; all 0 where nothing
    beats the default. ``ms``: how long a call took, with cold caches, at the measured ``batch`` of ``length`` samples
    each (of istft: frames).
    """

    op: str
    n_fft: int
    hop: int
    center: bool
    bits: int
    output: str
    extra: int
    ept: int
    fpb: int
    tpf: int
    core: int
    var: int
    ms: float
    batch: int
    length: int

    @property
    def shape(self) -> tuple:
        return self.op, self.n_fft, self.hop, self.center, self.bits, self.output, self.extra

    @property
    def hint(self) -> tuple:
        return self.ept, self.fpb, self.tpf, self.core, self.var

    def apply(self, device: int = 0) -> None:
        """Sets the hint: calls of this shape take the kernel from here on."""
        _rocm.set_shape_hint(*self.shape, device, *self.hint)


def tuned_file(device: int = 0) -> Path:
    """Where ``tune`` keeps what it finds on this device.

    The file is ``tuned/ARCHITECTURE-VERSION.json`` in the folder that ``KEVRA_CACHE_DIR`` names, else in the user's
    cache folder: ``kevra`` in ``XDG_CACHE_HOME`` or ``~/.cache``. It may be copied to another machine or deleted.
    """
    folder = os.environ.get("KEVRA_CACHE_DIR")
    if folder is None:
        users = os.environ.get("XDG_CACHE_HOME", "")
        folder = Path(users if os.path.isabs(users) else Path.home() / ".cache") / "kevra"
    name = "-".join(_owner(device).values())
    return Path(folder) / "tuned" / f"{re.sub(r'[^A-Za-z0-9_.-]', '_', name)}.json"


def _owner(device: int) -> dict[str, str]:
    """What a file's winners hold for; a file says it itself, so that one under a wrong name is found out."""
    from . import __version__

    if not _rocm.available():
        raise RuntimeError("no HIP device available")
    return {"architecture": _rocm.device_arch(device) or "unknown", "version": __version__}


def read(device: int) -> dict[tuple, TunedShape]:
    """What is kept for this device, by shape. A file that cannot be used counts as empty, with a warning."""
    path = tuned_file(device)
    try:
        content = json.loads(path.read_text(encoding="utf-8"))
        if {name: content.get(name) for name in _owner(device)} != _owner(device):
            raise ValueError("it is of another device or version")
        return {tuned.shape: tuned for tuned in map(_tuned_shape, content["shapes"])}
    except (FileNotFoundError, NotADirectoryError):
        return {}
    except (OSError, ValueError, LookupError, TypeError, AttributeError, RecursionError) as error:
        reason = error if isinstance(error, (OSError, ValueError)) else "it holds no tuned shapes"
        warnings.warn(f"{path} is passed over: {reason}; delete it, the next tune writes a new one", RuntimeWarning, 3)
        return {}


def _tuned_shape(row: dict) -> TunedShape:
    for field in fields(TunedShape):
        value = row[field.name]
        if type(value) is not _JSON_TYPES[field.type]:
            raise ValueError(f"{field.name} is {value!r}, must be of type {field.type}")
        if field.type == "int" and not -(2**31) <= value < 2**31:
            raise ValueError(f"{field.name} is {value}, must be a whole number of 32 bits")
    if row["op"] not in _OPERATIONS:
        raise ValueError(f"op is {row['op']!r}, must be one of {', '.join(_OPERATIONS)}")
    return TunedShape(**row)


def keep(found: list[TunedShape], device: int) -> None:
    """Adds to the file, in place of what it has for the same shapes. Processes that do so at once wait for each other,
    and a reader sees the file before or after. Where it cannot be written, a warning tells."""
    path = tuned_file(device)
    try:
        path.parent.mkdir(parents=True, exist_ok=True)
        with open(path.with_suffix(".lock"), "w", encoding="utf-8") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            shapes = read(device) | {tuned.shape: tuned for tuned in found}
            _replace(path, {**_owner(device), "shapes": [asdict(tuned) for tuned in shapes.values()]})
    except OSError as error:
        warnings.warn(f"tune: what was found holds for this process alone, {path} cannot be written: {error}",
                      RuntimeWarning, 3)


def _replace(path: Path, content: dict) -> None:
    """Whole or not at all. The caller has the lock, so the name of the new file is its own."""
    fresh = path.with_suffix(".tmp")
    try:
        with open(fresh, "w", encoding="utf-8") as file:
            json.dump(content, file, indent=1)
            file.flush()
            os.fsync(file.fileno())
        os.replace(fresh, path)
    except BaseException:
        fresh.unlink(missing_ok=True)
        raise
