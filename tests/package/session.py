"""Uses the module that is installed as its users would: session.py [PREFIX], below which it and its libraries are."""

import pathlib
import sys

import numpy as np

import vantle as vt

flow = vt.DataSet()
k, j, i = np.meshgrid(*3 * [np.linspace(-1, 1, 9)], indexing="ij")
block = flow.add_block("cube", np.stack([i, j, k], axis=-1))
block["squares"] = i**2 + j**2 + k**2
ball = flow.contour("squares", 0.64)
assert ball.is_closed and flow.locate([0.5, 0, 0]).sample("squares") == 0.25
overRanks = list(pathlib.Path(vt.__file__).parent.glob("_parallel.*.so"))
if overRanks:
    from mpi4py import MPI

    assert vt.ParallelDataSet(MPI.COMM_WORLD, flow).contour("squares", 0.64).gather().is_closed
if len(sys.argv) > 1:
    with open("/proc/self/maps") as maps:
        files = {line.split()[-1] for line in maps if "antle" in line.split()[-1]}
    assert len(files) == (6 if overRanks else 4) and all(file.startswith(sys.argv[1]) for file in files), files
print(f"vantle {vt.__version__} for Python: {ball!r}")
