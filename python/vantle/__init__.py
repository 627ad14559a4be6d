"""Blocks of data over space and time, and what scientific visualization asks of them.

    flow = vantle.read("grid.xyz", "solution.q", memory="2 GiB")
    shock = flow.contour("pressure", 0.7, values=["density"])
    rho = flow.locate(points).sample("density")

Arrays are those of NumPy, shared with the library: shape (nk, nj, ni) of scalars, (nk, nj, ni, 3) of positions and
vectors. Numbers of vertices are (ni, nj, nk). See `DataSet`.
"""

import typing as _typing

from . import _display, _plot, _ranks, vtk
from ._errors import Cancelled, UnknownName
from ._joins import Join
from ._messages import messages
from ._vantle import (
    Block,
    Curves,
    DataSet,
    FieldInfo,
    Located,
    Motion,
    Surface,
    __version__,
    read,
    thread_count,
    threads,
)
from .vtk import from_vtk

__all__ = [
    "Block", "Cancelled", "Curves", "DataSet", "FieldInfo", "Join", "Located", "Motion", "Surface", "UnknownName",
    "__version__", "from_vtk", "messages", "read", "thread_count", "threads", "vtk",
]  # fmt: skip

if _typing.TYPE_CHECKING:
    from ._parallel import ParallelBlock as ParallelBlock
    from ._parallel import ParallelDataSet as ParallelDataSet
    from ._parallel import ParallelImage as ParallelImage
    from ._parallel import ParallelLocated as ParallelLocated
    from ._parallel import ParallelSurface as ParallelSurface
else:

    def __getattr__(name):
        """Classes over the ranks of MPI: loaded, and mpi4py with them, when they are first named."""
        return globals().setdefault(name, _ranks.find(name))


# What is written in Python, as methods.
for _class, _name, _method in (
    (Block, "to_vtk", vtk.to_vtk),
    (Curves, "to_vtk", vtk.to_vtk),
    (DataSet, "to_vtk", vtk.to_vtk),
    (DataSet, "plot", _plot.data_set),
    (DataSet, "_repr_html_", _display.data_set),
    (Surface, "to_vtk", vtk.to_vtk),
    (Surface, "plot", _plot.surface),
    (Surface, "_repr_html_", _display.surface),
):
    setattr(_class, _name, _method)
del _class, _name, _method
