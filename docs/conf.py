"""The site: these pages and a reference made of the module's docstrings. docs/build runs it."""

import ast
import re
from importlib.util import find_spec
from pathlib import Path

import kevra

here = Path(__file__).parent
project = "kevra"
author = "The kevra authors"
release = kevra.__version__
extensions = ["myst_parser", "sphinx.ext.autodoc"]
source_suffix = [".md"]
exclude_patterns = ["requirements.txt"]
myst_enable_extensions = ["colon_fence"]
myst_heading_anchors = 3
autodoc_mock_imports = [] if find_spec("torch") else ["torch"]
html_theme = "furo"
html_title = f"kevra {release}"
html_copy_source = False
# Links into the source tree are for readers of the repository; of folders there is no page to show.
suppress_warnings = ["myst.xref_missing", "download.not_readable"]

PYTHON_FUNCTIONS = ["use_cpu_device", "use_cuda_device", "cpu_device_path", "cuda_device_path", "mel_filter_bank",
                    "constant_q_plan", "half_band_taps", "dual_octaves", "constant_q_inverse", "tune", "load_tuned",
                    "tuned_file"]


stub = Path(kevra.__file__).with_name("_rocm.pyi").read_text()
declared = {node.name: node for node in ast.parse(stub).body if isinstance(node, ast.FunctionDef)}


def groups():
    """The functions of the module under the headings of its stub."""
    lines = stub.split("\n")
    found = {}
    for name, node in declared.items():
        above = (line for line in reversed(lines[:node.lineno]) if line.startswith("# "))
        found.setdefault(next(above)[2:].rstrip("."), []).append(name)
    return found


def write_reference():
    parts = ["# Functions", "What each function takes, returns and raises, as `help()` shows it too. "
             "[Concepts](concepts.md) says what they have in common."]
    for heading, names in {**groups(), "Devices, filter banks and plans": PYTHON_FUNCTIONS}.items():
        parts += [f"## {heading}", "```{eval-rst}", ".. currentmodule:: kevra"]
        parts += [f".. autofunction:: {name}" for name in names] + ["```"]
    parts += ["## PyTorch tensors", "```{eval-rst}", ".. automodule:: kevra.torch\n   :members:\n   :imported-members:",
              "```"]
    (here / "reference.md").write_text("\n\n".join(parts) + "\n")


def plain_docstring(app, what, name, thing, options, lines):
    """The docstrings are plain text, whose line breaks mean something."""
    lines[:] = ["| " + re.sub(r"([\\*`|_])", r"\\\1", line) if line else "" for line in lines]


def plain_signature(app, what, name, thing, options, signature, returned):
    """Names and defaults: the stub's types are all numbers, strings and arrays."""
    node = declared.get(name.rpartition(".")[2])
    if node is None:
        return None
    for argument in node.args.posonlyargs + node.args.args:
        argument.annotation = None
    return f"({ast.unparse(node.args)})", ast.unparse(node.returns)


write_reference()


def setup(app):
    app.connect("autodoc-process-docstring", plain_docstring, priority=900)
    app.connect("autodoc-process-signature", plain_signature)
