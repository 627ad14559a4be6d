"""What is declared is what there is: functions, their parameters, and which of these have defaults."""

import ast
import importlib
import pathlib
import re
import subprocess
import sys

import pytest

import vantle

FOLDER = pathlib.Path(vantle.__file__).parent
NAMES = [name for name in ("_vantle", "_parallel") if list(FOLDER.glob(f"{name}.*.so"))]


def declared(function):
    given = function.args
    optional = [None] * (len(given.args) - len(given.defaults)) + list(given.defaults)
    names = [(arg.arg, default is not None) for arg, default in zip(given.args, optional)]
    names += [("*args", False)] if given.vararg else []
    return names + [(arg.arg, default is not None) for arg, default in zip(given.kwonlyargs, given.kw_defaults)]


def documented(function):
    """The same of the first line of a docstring, where pybind11 has put it."""
    line = re.search(r"\((.*)\)( ->.*)?$", function.__doc__.splitlines()[0])[1]
    while re.search(r"\[[^\[\]]*\]|<[^<>]*>", line):  # types have commas, too
        line = re.sub(r"\[[^\[\]]*\]|<[^<>]*>", "", line)
    parts = [part.strip() for part in line.split(",") if part.strip() not in ("", "*") and "**" not in part]
    return [(re.match(r"\*?\w+", part)[0], "=" in part) for part in parts]


@pytest.mark.parametrize("name", NAMES)
def test_functions_have_the_parameters_that_are_declared(name):
    binding, checked = importlib.import_module(f"vantle.{name}"), 0
    for node in ast.parse((FOLDER / f"{name}.pyi").read_text()).body:
        owner = getattr(binding, node.name) if isinstance(node, ast.ClassDef) and hasattr(binding, node.name) else binding
        for function in node.body if isinstance(node, ast.ClassDef) else [node]:
            if not isinstance(function, ast.FunctionDef) or [ast.unparse(decorator) for decorator in function.decorator_list] not in ([], ["staticmethod"]):
                continue
            made = getattr(owner, function.name, None)
            doc = getattr(made, "__doc__", None) or ""
            if owner is binding and isinstance(node, ast.ClassDef) or "(" not in doc.split("\n")[0] or " -> " not in doc.split("\n")[0]:
                continue  # written in Python, where mypy looks itself
            if function.name.startswith("__"):
                assert len(declared(function)) == len(documented(made)), f"{node.name}.{function.name}"
            else:
                assert declared(function) == documented(made), f"{node.name}.{function.name}"
            checked += 1
    assert checked > 15


def test_everything_is_declared_and_there(tmp_path):
    modules = [importlib.import_module(f"vantle.{name}") for name in NAMES]
    classes = "|".join(name for module in modules for name in vars(module) if isinstance(getattr(module, name), type))
    config = pathlib.Path(__file__).with_name("mypy.ini")
    allowed = tmp_path / "allowed"  # what comes with every class of pybind11
    allowed.write_text(rf"vantle\._\w+\.({classes})" + "\n" + rf"vantle\._\w+\.({classes})\.__init__" + "\n")
    for command in (
        ["mypy.stubtest", "--mypy-config-file", str(config), "--allowlist", str(allowed), "--ignore-unused-allowlist", *(module.__name__ for module in modules)],
        ["mypy", "--config-file", str(config), "--cache-dir", str(tmp_path / "cache"), "-p", "vantle"],
    ):
        done = subprocess.run([sys.executable, "-m", *command], cwd=tmp_path, capture_output=True, text=True)
        assert done.returncode == 0, done.stdout + done.stderr
