"""What is declared is what there is: functions, their parameters, and which of these have defaults."""

import ast
import pathlib
import re
import subprocess
import sys

import vantle._vantle as binding

STUB = pathlib.Path(binding.__file__).with_name("_vantle.pyi")
CLASSES = "|".join(name for name in vars(binding) if isinstance(getattr(binding, name), type))


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


def test_functions_have_the_parameters_that_are_declared():
    checked = 0
    for node in ast.parse(STUB.read_text()).body:
        owner = getattr(binding, node.name) if isinstance(node, ast.ClassDef) and hasattr(binding, node.name) else binding
        for function in node.body if isinstance(node, ast.ClassDef) else [node]:
            if not isinstance(function, ast.FunctionDef) or function.decorator_list and owner is not binding.Motion:
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
    assert checked > 40


def test_everything_is_declared_and_there(tmp_path):
    config = pathlib.Path(__file__).with_name("mypy.ini")
    allowed = tmp_path / "allowed"  # what comes with every class of pybind11
    allowed.write_text(rf"vantle\._vantle\.({CLASSES})" + "\n" + rf"vantle\._vantle\.({CLASSES})\.__init__" + "\n")
    for command in (
        ["mypy.stubtest", "--mypy-config-file", str(config), "--allowlist", str(allowed), "--ignore-unused-allowlist", "vantle._vantle"],
        ["mypy", "--config-file", str(config), "--cache-dir", str(tmp_path / "cache"), "-p", "vantle"],
    ):
        done = subprocess.run([sys.executable, "-m", *command], cwd=tmp_path, capture_output=True, text=True)
        assert done.returncode == 0, done.stdout + done.stderr
