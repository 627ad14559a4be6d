"""Every ```python block of the README and the guide pages is a whole program, which is run here."""

import pathlib
import re
import subprocess
import sys

import pytest

import vantle

ROOT = pathlib.Path(__file__).resolve().parents[2]
WITHOUT = [] if list(pathlib.Path(vantle.__file__).parent.glob("_parallel.*.so")) else ["Parallel"]
SAMPLES = [
    pytest.param(code, id=f"{page.stem}{number}")
    for page in [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]
    if page.stem not in WITHOUT
    for number, code in enumerate(re.findall(r"^```python\n(.*?)^```", page.read_text(), re.M | re.S), 1)
]


@pytest.mark.parametrize("code", SAMPLES)
def test_sample_runs(code, tmp_path):
    done = subprocess.run([sys.executable, "-c", code], cwd=tmp_path, capture_output=True, text=True, timeout=100)
    assert done.returncode == 0 and done.stdout and not done.stderr, done.stderr


def test_there_are_samples():
    assert {sample.id for sample in SAMPLES} >= {"README1", "Python1", "VTK1"}
