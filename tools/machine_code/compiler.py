"""Compiles kernels to assembly with clang's HIP mode, and keeps what was read out of it by content."""

import hashlib
import json
import os
import shutil
import subprocess
from dataclasses import asdict, dataclass
from pathlib import Path

from machine_code.assembly import Figures, parse

HERE = Path(__file__).parent
OLDEST_CLANG, NEWEST_CLANG = 16, 40  # what is looked for beside a plain clang++
FLAGS = ("-x", "hip", "--offload-device-only", "-nogpuinc", "-nogpulib", "-O3", "-S")


class CompileError(Exception):
    """The compiler's own words on a kernel that it refuses."""


@dataclass(frozen=True)
class Kernel:
    """A kernel of a manifest."""

    name: str
    key: str
    family: str
    source: str
    block: int
    shared_bytes: int  # dynamic
    default_route: bool


def read_manifest(folder: Path) -> list[Kernel]:
    entries = json.loads((folder / "manifest.json").read_text())
    return [
        Kernel(e["name"], e["key"], e["family"], (folder / e["file"]).read_text(), e["block"], e["shared_bytes"],
               e["default_route"])
        for e in entries
    ]


def find_clang() -> str:
    # 19 first: what the published figures were made with.
    names = ["clang++-19", *(f"clang++-{v}" for v in range(NEWEST_CLANG, OLDEST_CLANG - 1, -1)), "clang++"]
    for name in names:
        if path := shutil.which(name):
            return path
    raise SystemExit("machine_code: no clang++ was found; install clang-19 (or any from 16 on).")


class Compiler:
    """Safe for use from several threads."""

    def __init__(self, cache: Path, assembly: Path | None = None):
        """`assembly`: a folder that receives every text; kept figures are not used then."""
        self.clang = find_clang()
        version = subprocess.run([self.clang, "--version"], capture_output=True, text=True, check=True)
        self.version = version.stdout.splitlines()[0]
        self.cache = cache
        self.assembly = assembly
        self.compiled = 0
        # Whatever the figures depend on besides kernel and architecture.
        self._base = hashlib.sha256(" ".join((version.stdout, *FLAGS)).encode())
        for name in ("device.h", "device_math.h", "assembly.py"):
            self._base.update((HERE / name).read_bytes())
        for folder in filter(None, (cache, assembly)):
            folder.mkdir(parents=True, exist_ok=True)

    def require(self, archs: list[str]) -> None:
        """Older compilers know fewer architectures: said once, not of every kernel."""
        if unknown := [arch for arch in archs if self._run("", arch).returncode != 0]:
            raise SystemExit(f"machine_code: {self.version} knows no {', '.join(unknown)}; install clang-19 or name "
                             "the architectures that it knows with --arch.")

    def figures(self, kernel: Kernel, arch: str) -> Figures:
        kept = self._base.copy()
        kept.update(f"{arch} {kernel.name}\n{kernel.source}".encode())
        path = self.cache / f"{kept.hexdigest()[:32]}.json"
        if self.assembly is None and path.exists():
            return Figures(**json.loads(path.read_text()))
        text = self._compile(kernel, arch)
        figures = parse(text, kernel.name)
        if self.assembly is not None:
            (self.assembly / f"{kernel.key}_{arch}.s").write_text(text)
        # Under its name only when whole: another process may read at the same moment.
        part = path.with_suffix(f".{os.getpid()}")
        part.write_text(json.dumps(asdict(figures)))
        part.replace(path)
        return figures

    def _compile(self, kernel: Kernel, arch: str) -> str:
        child = self._run(kernel.source, arch)
        self.compiled += 1
        if child.returncode != 0:
            raise CompileError(child.stderr.strip())
        return child.stdout

    def _run(self, source: str, arch: str) -> subprocess.CompletedProcess:
        command = [self.clang, *FLAGS, "-include", str(HERE / "device.h"), f"--offload-arch={arch}", "-", "-o", "-"]
        return subprocess.run(command, input=source, capture_output=True, text=True, check=False)
