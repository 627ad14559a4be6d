"""What tests of the module share: curved blocks, whose fields are known, and real data."""

import os
import pathlib

import numpy as np
import pytest

import vantle as vt


def quarter(number, size=(17, 9, 5), radius=(1.0, 2.0)):
    """Vertices of a quarter of a ring around z, from z = 0 to 1."""
    ni, nj, nk = size
    k, j, i = np.meshgrid(np.arange(nk), np.arange(nj), np.arange(ni), indexing="ij")
    angle = np.pi / 2 * ((number * (ni - 1) + i) % (4 * (ni - 1))) / (ni - 1)
    r = radius[0] + (radius[1] - radius[0]) * j / (nj - 1)
    return np.ascontiguousarray(np.stack([r * np.cos(angle), r * np.sin(angle), k / (nk - 1)], axis=-1))


def plane(p):
    return 1.0 + 2.0 * p[..., 0] - 3.0 * p[..., 1] + 0.5 * p[..., 2]


def swirl(p):
    """A rotation about z with 1.5 radians a second, and a strain along z."""
    return np.stack([-1.5 * p[..., 1], 1.5 * p[..., 0], 0.25 * p[..., 2]], axis=-1)


@pytest.fixture
def ring():
    return make_ring()


def make_ring(size=(17, 9, 5)):
    flow = vt.DataSet()
    for number in range(4):
        points = quarter(number, size)
        block = flow.add_block(f"quarter {number}", points)
        block["plane"] = plane(points)
        block["radius"] = np.hypot(points[..., 0], points[..., 1])
        block["velocity"] = swirl(points)
    return flow


@pytest.fixture(scope="session")
def fin():
    """Grid and solution of the blunt fin."""
    folder = os.environ.get("VANTLE_TEST_DATA", "")
    if not folder:
        pytest.skip("no real data")
    files = [pathlib.Path(folder) / name for name in ("bluntfinxyz.bin", "bluntfinq.bin")]
    assert all(file.exists() for file in files), f"no blunt fin in {folder}"
    return [str(file) for file in files]
