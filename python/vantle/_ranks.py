"""Loads what works over the ranks of MPI when it is needed."""

from typing import Any

from . import _display

NAMES = ("ParallelBlock", "ParallelDataSet", "ParallelImage", "ParallelLocated", "ParallelSurface")


def find(name: str) -> Any:
    """A class over ranks. ImportError says what is missing; AttributeError for other names."""
    if name not in NAMES:
        raise AttributeError(f"module 'vantle' has no attribute '{name}'")
    try:
        import mpi4py  # noqa: F401
    except ImportError as missing:
        raise ImportError(f"vantle.{name} needs mpi4py, which is not installed (Debian: python3-mpi4py)") from missing
    try:
        from . import _parallel
    except ModuleNotFoundError as missing:
        raise ImportError(
            f"vantle.{name} is not installed: it is in the package python3-vantle-parallel, or in a build that has found MPI "
            "and mpi4py (Debian: libopenmpi-dev, python3-mpi4py; -DVANTLE_BUILD_PARALLEL=ON)"
        ) from missing
    setattr(_parallel.ParallelDataSet, "_repr_html_", _display.parallel_data_set)
    return getattr(_parallel, name)
