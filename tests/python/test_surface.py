"""The module's functions against the typed stub: names, arguments in order, types, defaults, keywords."""

import ast
import inspect
from pathlib import Path

import kevra
import pytest
from kevra import _rocm

STUB = Path(kevra.__file__).with_name("_rocm.pyi")
DECLARED = {node.name: node for node in ast.parse(STUB.read_text()).body if isinstance(node, ast.FunctionDef)}
TYPES = {"typing.SupportsInt | typing.SupportsIndex": "Int", "typing.SupportsFloat | typing.SupportsIndex": "Real"}


def running(name):
    """Name, type and default of each argument, and the result, as the binding itself prints them."""
    text = getattr(_rocm, name).__doc__.split("\n")[0]
    for long, short in TYPES.items():
        text = text.replace(long, short)
    node = ast.parse(f"def {text}: ...").body[0]
    return arguments_of(node), ast.unparse(node.returns).replace("numpy.typing.NDArray[numpy.float64]", "numpy.ndarray")


def arguments_of(node):
    names = node.args.posonlyargs + node.args.args
    defaults = [inspect.Parameter.empty] * (len(names) - len(node.args.defaults))
    defaults += [ast.literal_eval(value) for value in node.args.defaults]
    return [(a.arg, ast.unparse(a.annotation), d) for a, d in zip(names, defaults, strict=True)]


def test_the_stub_declares_every_function_and_no_other():
    assert len(DECLARED) == 84
    assert {name for name in vars(_rocm) if not name.startswith("_")} == set(DECLARED)
    assert all(callable(getattr(kevra, name)) for name in DECLARED)


@pytest.mark.parametrize("name", DECLARED)
def test_arguments_and_result(name):
    declared = DECLARED[name]
    arguments, result = running(name)
    assert result == ast.unparse(declared.returns)
    if declared.args.posonlyargs:
        arguments = [(want[0], *got[1:]) for got, want in zip(arguments, arguments_of(declared), strict=True)]
        with pytest.raises(TypeError, match="incompatible function arguments"):
            getattr(_rocm, name)(**{argument: 1 for argument, _, _ in arguments})
    assert arguments == arguments_of(declared)


@pytest.mark.parametrize("name", [name for name in DECLARED if name.endswith(("_staged", "_resident"))])
def test_the_docstring_tells_errors_shapes_and_source(name):
    text = " ".join(getattr(_rocm, name).__doc__.split())
    assert "Raises ValueError" in text
    assert "Source:" in text or name.replace("_resident", "_staged") + " on device memory" in text
    assert name.endswith("_resident") or "Returns" in text
