"""Objects of VTK, in and out, over the same memory where that is possible.

VTK is imported when it is first used: Debian's python3-vtk9, or whatever `vtkmodules` there is. Objects of pyvista are
objects of VTK, and are taken and given likewise; where pyvista is, `mesh.vantle` is a data set of a mesh.
"""

import logging
import os
import sys
from typing import Any, Dict, Iterator, List, NamedTuple, Optional, Set, Tuple, Union

import numpy as np

from ._vantle import Block, Curves, DataSet, Surface

__all__ = ["Entry", "Report", "from_vtk", "own_points", "read", "register_accessor", "to_vtk"]

_log = logging.getLogger("vantle.vtk")
_GHOSTS = "vtkGhostType"
_HIDDEN_POINT, _HIDDEN_CELL = 2, 32  # of vtkDataSetAttributes
_DUPLICATE_CELL = 1


def _vtk(module: str) -> Any:
    """A module of VTK."""
    from importlib import import_module

    try:
        return import_module("vtkmodules." + module)
    except ImportError as missing:
        raise ImportError("vantle.vtk needs VTK, which is not installed (Debian: python3-vtk9)") from missing


# ---- What becomes of what -------------------------------------------------------------------------------------------


class Entry(NamedTuple):
    """What became of one thing: "shared", "copied" or "left out", and why unless it is shared."""

    what: str
    fate: str
    reason: str = ""

    def __str__(self) -> str:
        return f"{self.what}: {self.fate}" + (f" ({self.reason})" if self.reason else "")


class Report(List[Entry]):
    """What became of the parts of an object of VTK, as lines of text by `str`."""

    def add(self, what: str, fate: str, reason: str = "") -> None:
        self.append(Entry(what, fate, reason))
        if fate == "left out":
            _log.warning("%s", self[-1])

    def of(self, fate: str) -> List[Entry]:
        """Those with this fate."""
        return [entry for entry in self if entry.fate == fate]

    def __str__(self) -> str:
        return "\n".join(map(str, self))


# ---- In -------------------------------------------------------------------------------------------------------------


def _numpy_of(array: Any) -> Any:
    """An array of VTK as one of NumPy, which keeps it alive; a copy unless its tuples lie one after the other."""
    support = _vtk("util.numpy_support")
    if array.IsA("vtkBitArray"):
        return np.array([array.GetValue(n) for n in range(array.GetNumberOfValues())], dtype=np.uint8)
    if not array.HasStandardMemoryLayout():  # of which VTK makes a copy that lasts until it makes the next one
        kept, array = array, _vtk("vtkCommonCore").vtkDataArray.CreateDataArray(array.GetDataType())
        array.DeepCopy(kept)
    return support.vtk_to_numpy(array)


def _ghosts(data: Any, shape: Tuple[int, ...]) -> Any:
    """What VTK takes for the ghosts among points or cells; None if that is nothing."""
    ghosts = data.GetArray(_GHOSTS)
    if ghosts is None or not ghosts.IsA("vtkUnsignedCharArray") or ghosts.GetNumberOfTuples() != np.prod(shape):
        return None
    return _numpy_of(ghosts).reshape(shape)


def _leaves(thing: Any, name: str, report: Report) -> Iterator[Tuple[str, Any]]:
    """The grids of an object, however deep, and their names."""
    if thing is None:
        return
    for kind, part in (
        ("vtkMultiBlockDataSet", "Block"),
        ("vtkMultiPieceDataSet", "Piece"),
        ("vtkPartitionedDataSetCollection", "PartitionedDataSet"),
        ("vtkPartitionedDataSet", "Partition"),
    ):
        if thing.IsA(kind):
            count, get = getattr(thing, f"GetNumberOf{part}s")(), getattr(thing, f"Get{part}")
            parts = [(thing.GetMetaData(n) if thing.HasMetaData(n) else None, get(n)) for n in range(count)]
            break
    else:
        if not thing.IsA("vtkCompositeDataSet"):
            yield name, thing
            return
        iterator = thing.NewIterator()  # others, such as those of adaptive refinement: whatever can be walked over
        parts = []
        while not iterator.IsDoneWithTraversal():
            parts.append((None, iterator.GetCurrentDataObject()))
            iterator.GoToNextItem()
    key = _vtk("vtkCommonDataModel").vtkCompositeDataSet.NAME()
    for n, (data, part) in enumerate(parts):
        own = data.Get(key) if data is not None and data.Has(key) else None
        own = own or (str(n) if len(parts) > 1 or not name else "")
        yield from _leaves(part, "/".join(filter(None, (name, own))), report)


def _sizes(grid: Any) -> Optional[Tuple[int, int, int]]:
    for kind in ("vtkImageData", "vtkRectilinearGrid", "vtkStructuredGrid"):
        if grid.IsA(kind):
            extent = grid.GetExtent()
            return extent[1] - extent[0] + 1, extent[3] - extent[2] + 1, extent[5] - extent[4] + 1
    return None


def _axes(grid: Any) -> List[Any]:
    return [_numpy_of(getattr(grid, f"Get{axis}Coordinates")()).astype(float) for axis in "XYZ"]


def _why_not(grid: Any, size: Tuple[int, int, int]) -> str:
    """Why a grid cannot be taken; nothing if it can."""
    if min(size) < 1:
        return "no vertices"
    points = grid.GetNumberOfPoints()
    if grid.IsA("vtkRectilinearGrid"):
        axes = _axes(grid)
        points = int(np.prod([len(axis) for axis in axes]))
        steps = [np.diff(axis) for axis in axes]
        if not all((step > 0).all() or (step < 0).all() for step in steps):
            return "coordinates that neither ascend nor descend"
    return "" if points == np.prod(size) else f"{points} points for the extents {size}"


def own_points(grid: Any) -> Tuple[slice, slice, slice]:
    """Where, by k, j, i, a grid with three indices has points that are not in ghost layers only: its part without the
    layers of duplicated cells around it, which is all that `from_vtk` takes. Slices are empty if it has nothing else.
    """
    size = _sizes(grid)
    if size is None:
        raise TypeError(f"own_points: {grid.GetClassName()} has no three indices")
    cells = tuple(max(n - 1, 1) for n in size[::-1])
    ghosts = _ghosts(grid.GetCellData(), cells)
    if ghosts is None:
        return slice(0, size[2]), slice(0, size[1]), slice(0, size[0])
    own = ghosts & _DUPLICATE_CELL == 0
    if not own.any():
        return slice(0, 0), slice(0, 0), slice(0, 0)
    there = [np.flatnonzero(own.any(axis=tuple(a for a in range(3) if a != axis))) for axis in range(3)]
    k, j, i = (slice(int(n[0]), int(n[-1]) + (1 if of == 1 else 2)) for n, of in zip(there, size[::-1]))
    return k, j, i


class _Reader:
    """Puts grids into a data set."""

    def __init__(self, cell_data: str, copy: bool, report: Report) -> None:
        self.flow, self.cell_data, self.copy, self.report = DataSet(), cell_data, copy, report
        self.names: Set[str] = set()
        self.fields: Set[str] = set()  # of the block at hand
        self.part = slice(0), slice(0), slice(0)  # of the grid at hand that is no ghost layer

    def add(self, name: str, grid: Any) -> None:
        where = f'block "{name}"'
        size = _sizes(grid)
        if size is None:
            self.report.add(where, "left out", f"{grid.GetClassName()} has no three indices")
            return
        if why_not := _why_not(grid, size):
            self.report.add(where, "left out", why_not)
            return
        if name in self.names:
            name = next(other for n in range(2, 10**9) if (other := f"{name} ({n})") not in self.names)
        self.part, shape = own_points(grid), size[::-1]
        if self.part[0].stop == 0:
            self.report.add(where, "left out", "nothing but ghost cells")
            return
        self.names.add(name)
        self.fields = set()
        masks = self.masks(name, grid, shape)
        block = self.block(name, grid, size, masks)
        kept = self.cells_of(name, grid, shape)
        data = grid.GetPointData()
        for n in range(data.GetNumberOfArrays()):
            self.field(block, data.GetAbstractArray(n), shape, f"array {n}")
        for title, values in kept:
            self.give(block, title, values[self.part], "averaged to vertices")

    def masks(self, name: str, grid: Any, shape: Tuple[int, ...]) -> Dict[str, Any]:
        cells = tuple(max(n - 1, 1) for n in shape)
        masks = {}
        for key, data, of, blanked in (
            ("valid", grid.GetPointData(), shape, _HIDDEN_POINT),
            ("valid_cells", grid.GetCellData(), cells, _HIDDEN_CELL | _DUPLICATE_CELL),
        ):
            ghosts = _ghosts(data, of)
            if ghosts is None:
                continue
            # Points that another part has, too, are valid here and there; duplicated cells are that other part's.
            part: Tuple[slice, ...] = self.part
            if key == "valid_cells":
                part = tuple(slice(p.start, max(p.stop - 1, p.start + 1)) for p in part)
            valid = (ghosts[part] & blanked) == 0
            if not valid.all():
                masks[key] = np.ascontiguousarray(valid)
                whose = "cells" if key == "valid_cells" else "points"
                self.report.add(f'block "{name}", {_GHOSTS} of {whose}', "copied", "made a mask")
        return masks

    def block(self, name: str, grid: Any, size: Tuple[int, int, int], masks: Dict[str, Any]) -> Block:
        what = f'block "{name}", positions'
        if grid.IsA("vtkImageData"):
            turned = [grid.GetDirectionMatrix().GetElement(r, c) for r in range(3) for c in range(3)]
            extent, spacing, own = grid.GetExtent(), grid.GetSpacing(), self.part[::-1]
            counts = (own[0].stop - own[0].start, own[1].stop - own[1].start, own[2].stop - own[2].start)
            ends = [(extent[2 * d] + own[d].start, extent[2 * d] + own[d].stop - 1) for d in range(3)]
            # The last ones of a part are the first ones of the next, to the last bit.
            low, high = ([grid.GetOrigin()[d] + spacing[d] * ends[d][side] for d in range(3)] for side in (0, 1))
            if turned == [1, 0, 0, 0, 1, 0, 0, 0, 1] and all(n == 1 or a < b for n, a, b in zip(counts, low, high)):
                self.report.add(what, "shared", "a box")
                return self.flow.add_uniform_block(name, counts, (low, high), **masks)
            points = np.array([grid.GetPoint(n) for n in range(grid.GetNumberOfPoints())])
            points = np.ascontiguousarray(points.reshape(size[::-1] + (3,))[self.part])
            self.report.add(what, "copied", "a turned or mirrored image")
            return self.flow.add_block(name, points, **masks)
        if grid.IsA("vtkRectilinearGrid"):
            axes = [axis[own] for axis, own in zip(_axes(grid), self.part[::-1])]
            self.report.add(what, "copied", "three lists of coordinates")
            return self.flow.add_rectilinear_block(name, axes[0], axes[1], axes[2], **masks)
        points = _numpy_of(grid.GetPoints().GetData()).reshape(size[::-1] + (3,))[self.part]
        copied = self.why_copied(points)
        self.report.add(what, "copied" if copied else "shared", copied)
        return self.flow.add_block(name, points, copy=bool(copied), **masks)

    def field(self, block: Block, array: Any, shape: Tuple[int, ...], number: str) -> None:
        name = array.GetName() or number
        what = f'block "{block.name}", field "{name}"'
        if name == _GHOSTS:
            return
        if not array.IsA("vtkDataArray"):
            self.report.add(what, "left out", "no numbers")
        elif array.GetNumberOfComponents() not in (1, 3, 9):
            self.report.add(what, "left out", f"{array.GetNumberOfComponents()} components")
        elif array.GetNumberOfTuples() != np.prod(shape):
            self.report.add(what, "left out", f"{array.GetNumberOfTuples()} values for {np.prod(shape)} vertices")
        else:
            values = _numpy_of(array)
            tail = {1: (), 3: (3,), 9: (3, 3)}[array.GetNumberOfComponents()]
            copied = "of bits" if array.IsA("vtkBitArray") else ""
            copied = copied if array.HasStandardMemoryLayout() else _class_of(array)
            self.give(block, name, values.reshape(shape + tail)[self.part], copied)

    def give(self, block: Block, name: str, values: Any, made: str) -> None:
        what = f'block "{block.name}", field "{name}"'
        copied = self.why_copied(values)
        if name in self.fields:
            self.report.add(what, "left out", "there is a field of this name")
            return
        try:
            block.set(name, values, copy=bool(copied))
        except ValueError as reason:
            self.report.add(what, "left out", str(reason))
        else:
            self.fields.add(name)
            self.report.add(what, "copied" if copied or made else "shared", made or copied)

    def why_copied(self, values: Any) -> str:
        """Nothing where the library takes an array as it is: numbers of types that it knows, in C order."""
        known = values.dtype.kind == "f" and values.dtype.itemsize in (4, 8)
        known = known or values.ndim == 3 and values.dtype.name in _NUMBERS
        if not known or values.ndim == 5 and values.dtype != np.float64:
            return f"of {values.dtype.name}"
        if not values.flags.c_contiguous or not values.flags.aligned:
            return "without ghost layers"
        return "on request" if self.copy else ""

    def cells_of(self, name: str, grid: Any, shape: Tuple[int, ...]) -> List[Tuple[str, Any]]:
        """Cell data, averaged to the vertices if that is wanted."""
        data, cells = grid.GetCellData(), tuple(max(m - 1, 1) for m in shape)
        kept = []
        for n in range(data.GetNumberOfArrays()):
            array = data.GetAbstractArray(n)
            title = array.GetName() or f"cell array {n}"
            what = f'block "{name}", cell data "{title}"'
            if title == _GHOSTS:
                continue
            if self.cell_data != "average":
                self.report.add(what, "left out", 'fields are of vertices; cell_data="average" takes their averages')
            elif not array.IsA("vtkDataArray") or array.GetNumberOfComponents() not in (1, 3, 9):
                self.report.add(what, "left out", "neither numbers nor vectors")
            elif array.GetNumberOfTuples() != np.prod(cells):
                self.report.add(what, "left out", f"{array.GetNumberOfTuples()} values for {np.prod(cells)} cells")
            elif grid.GetPointData().HasArray(title):
                self.report.add(what, "left out", "there is a field of this name")
            else:
                tail = {1: (), 3: (3,), 9: (3, 3)}[array.GetNumberOfComponents()]
                kept.append((title, _to_vertices(_numpy_of(array).reshape(cells + tail), shape)))
        return kept


def _to_vertices(cells: Any, shape: Tuple[int, ...]) -> Any:
    """At each vertex the mean of the cells around it."""
    total = np.zeros(shape + cells.shape[3:])
    count = np.zeros(shape)
    for corner in np.ndindex(2, 2, 2):
        part = tuple(slice(c, c + n) if size > 1 else slice(None) for c, n, size in zip(corner, cells.shape, shape))
        if any(c and size == 1 for c, size in zip(corner, shape)):
            continue
        total[part] += cells
        count[part] += 1
    return total / count.reshape(shape + (1,) * (cells.ndim - 3))


_NUMBERS = ("int16", "int32", "uint8", "uint16", "uint32", "uint64")


def _class_of(array: Any) -> str:
    return f"{array.GetClassName()} keeps its components apart"


def from_vtk(thing: Any, *, cell_data: str = "leave", copy: bool = False, report: Optional[Report] = None) -> DataSet:
    """A data set of an object of VTK: image data, rectilinear and structured grids, and whatever has such as its parts.

    cell_data  "leave" leaves data of cells out, "average" takes their averages at the vertices.
    copy       copies arrays that could be shared.
    report     is told what was shared, copied or left out, and why; the logger "vantle.vtk" hears what is left out.

    Blocks are called as they are there, parts of parts "outer/inner", nameless ones by their numbers. Layers of
    duplicated cells around a grid are another part's: they are cut off, so that parts meet at their faces. Points that
    are hidden and other cells that are hidden or duplicated are not valid. Whoever changes a shared array sets the field
    again; nobody changes its size, for which VTK frees its memory.

    TypeError for what is no object of VTK; ValueError, which says why, if nothing can be taken.
    """
    if cell_data not in ("leave", "average"):
        raise ValueError(f'from_vtk: cell_data: expected "leave" or "average", got {cell_data!r}')
    if not hasattr(thing, "IsA") or not thing.IsA("vtkDataObject"):
        raise TypeError(f"from_vtk: expected a data object of VTK, got {type(thing).__name__}")
    lines = report if report is not None else Report()
    reader = _Reader(cell_data, copy, lines)
    for name, grid in _leaves(thing, "", lines):
        reader.add(name or "block", grid)
    if not reader.names:
        reasons = "; ".join(map(str, lines)) or "it has no parts"
        raise ValueError(f"from_vtk: nothing that can be taken in {thing.GetClassName()}: {reasons}")
    return reader.flow


_READERS = {
    ".vti": "vtkXMLImageDataReader", ".vtr": "vtkXMLRectilinearGridReader", ".vts": "vtkXMLStructuredGridReader",
    ".vtm": "vtkXMLMultiBlockDataReader", ".vtpd": "vtkXMLPartitionedDataSetReader",
    ".vtpc": "vtkXMLPartitionedDataSetCollectionReader",
    ".pvti": "vtkXMLPImageDataReader", ".pvtr": "vtkXMLPRectilinearGridReader", ".pvts": "vtkXMLPStructuredGridReader",
}  # fmt: skip


def read(file: Union[str, "os.PathLike[str]"], **options: Any) -> DataSet:
    """A data set of a file of VTK, by VTK's reader for its extension; `options` are those of `from_vtk`.

    OSError for a file that is not there, or cannot be read; ValueError for an extension without reader.
    """
    path = os.fspath(file)
    extension = os.path.splitext(path)[1].lower()
    if not os.path.exists(path):
        raise FileNotFoundError(2, "no such file", path)
    if extension == ".vtk":
        reader = _vtk("vtkIOLegacy").vtkDataSetReader()
        reader.ReadAllScalarsOn()
        reader.ReadAllVectorsOn()
        reader.ReadAllTensorsOn()
        reader.ReadAllFieldsOn()
    elif extension in _READERS:
        reader = getattr(_vtk("vtkIOXML"), _READERS[extension])()
    else:
        raise ValueError(f"vtk.read: no reader for {path}; there are: .vtk, {', '.join(_READERS)}")
    problems: List[str] = []
    reader.AddObserver("ErrorEvent", _Listener(problems))
    reader.SetFileName(path)
    reader.Update()
    if problems or reader.GetOutputDataObject(0) is None:
        raise OSError(22, problems[0].strip() if problems else "cannot be read", path)
    return from_vtk(reader.GetOutputDataObject(0), **options)


class _Listener:
    """Takes what an object of VTK complains of, which would go to standard error."""

    CallDataType = "string0"

    def __init__(self, texts: List[str]) -> None:
        self.texts = texts

    def __call__(self, _: Any, __: str, text: str = "") -> None:
        self.texts.append(text)


# ---- Out ------------------------------------------------------------------------------------------------------------


def _array(values: Any, name: str) -> Any:
    """An array of VTK over the memory of one of NumPy, of one axis, or two with components; it keeps that alive."""
    made = _vtk("util.numpy_support").numpy_to_vtk(values)
    made.SetName(name)
    return made


def _points(values: Any) -> Any:
    points = _vtk("vtkCommonCore").vtkPoints()
    points.SetData(_array(values.reshape(-1, 3), "Points"))
    return points


def _of_points(given: Union[Curves, Surface]) -> Any:
    """Points and their values as vtkPolyData that has no cells yet."""
    made = _vtk("vtkCommonDataModel").vtkPolyData()
    made.SetPoints(_points(given.points))
    for name in given.names:
        values = given[name]
        flat = (len(values), int(np.prod(values.shape[1:])))  # -1 would not do without points
        made.GetPointData().AddArray(_array(values if values.ndim == 1 else values.reshape(flat), name))
    return made


def _cells(ends: Any, numbers: Any) -> Any:
    """Cells over the memory of two arrays of NumPy, both int32 or both int64: where each cell begins and the last one ends among
    the numbers of their points, and these."""
    core = _vtk("vtkCommonCore")
    made, given = _vtk("vtkCommonDataModel").vtkCellArray(), (ends, numbers)
    # Arrays of just these classes are not copied.
    arrays = [core.vtkTypeInt32Array() if array.dtype == np.int32 else core.vtkTypeInt64Array() for array in given]
    for array, values in zip(arrays, given):
        array.SetVoidArray(values, values.size, 1)
    made.SetData(*arrays)
    # Cells have arrays of their own over the same memory. These keep it alive.
    for array, values in zip((made.GetOffsetsArray(), made.GetConnectivityArray()), given):
        array._numpy_reference = values
    return made


def _of_curves(curves: Curves) -> Any:
    made = _of_points(curves)
    lines = [curves.curve(n) for n in range(len(curves))]
    numbers = np.concatenate(lines).astype(np.int64) if lines else np.empty(0, dtype=np.int64)
    made.SetLines(_cells(np.cumsum([0, *map(len, lines)], dtype=np.int64), numbers))
    return made


def _of_surface(surface: Surface) -> Any:
    made = _of_points(surface)
    numbers = surface.triangles.reshape(-1).view(np.int32)
    made.SetPolys(_cells(np.arange(0, numbers.size + 1, 3, dtype=np.int32), numbers))
    if "normals" in surface:
        made.GetPointData().SetActiveNormals("normals")
    return made


def _of_block(block: Block, fields: Dict[str, Any]) -> Any:
    data = _vtk("vtkCommonDataModel")
    size = block.size
    made: Any
    axes = block.axes if block.kind in ("uniform", "rectilinear") else ()
    if block.kind == "uniform":
        made = data.vtkImageData()
        made.SetOrigin([axis[0] for axis in axes])
        made.SetSpacing([(axis[-1] - axis[0]) / (len(axis) - 1) if len(axis) > 1 else 1.0 for axis in axes])
        made.SetDimensions(size)
    elif block.kind == "rectilinear":
        made = data.vtkRectilinearGrid()
        made.SetDimensions(size)
        for axis, values in zip("XYZ", axes):
            getattr(made, f"Set{axis}Coordinates")(_array(values, axis))
    else:
        made = data.vtkStructuredGrid()
        made.SetDimensions(size)
        made.SetPoints(_points(block.points))
    for name, values in fields.items():
        flat = (size[0] * size[1] * size[2],) + ((-1,) if values.ndim > 3 else ())
        made.GetPointData().AddArray(_array(values.reshape(flat), name))
    for valid, hidden, target in (
        (block.valid, _HIDDEN_POINT, made.GetPointData()),
        (block.valid_cells, _HIDDEN_CELL, made.GetCellData()),
    ):
        if valid is not None:
            target.AddArray(_array(np.where(valid, 0, hidden).astype(np.uint8).reshape(-1), _GHOSTS))
    return made


def _fields_of(flow: DataSet, block: Block, wanted: Optional[List[str]]) -> Dict[str, Any]:
    found: Dict[str, Any] = {}
    for name in list(flow.fields) if wanted is None else wanted:
        if name in block:
            found[name] = block[name]
        elif wanted is not None and name not in flow.fields:
            flow.range(name)  # an unknown name: the error lists those that there are
    return found


def to_vtk(self: Union[Block, Curves, DataSet, Surface], fields: Optional[List[str]] = None) -> Any:
    """An object of VTK over the same memory: VTK must not write into it where it is a data set's.

    Surfaces and curves are vtkPolyData; blocks vtkImageData, vtkRectilinearGrid or vtkStructuredGrid; data sets the same of their
    only block, or a vtkMultiBlockDataSet of several. Masks become arrays vtkGhostType.

    fields  of a data set or block: which, derived ones, too; by default all that were set. KeyError for unknown names.
    """
    if isinstance(self, Surface):
        return _of_surface(self)
    if isinstance(self, Curves):
        return _of_curves(self)
    if isinstance(self, Block):
        return _of_block(self, _fields_of(self.data_set, self, fields))
    blocks = list(self.blocks.values())
    if len(blocks) == 1:
        return to_vtk(blocks[0], fields)
    data = _vtk("vtkCommonDataModel")
    made = data.vtkMultiBlockDataSet()
    for n, block in enumerate(blocks):
        made.SetBlock(n, to_vtk(block, fields))
        made.GetMetaData(n).Set(data.vtkCompositeDataSet.NAME(), block.name)
    return made


# ---- pyvista --------------------------------------------------------------------------------------------------------


class _Accessor:
    """What `mesh.vantle` is: the data set of a mesh of pyvista, by `from_vtk`, made when it is first asked for, and anew
    once the mesh was modified."""

    def __init__(self, mesh: Any) -> None:
        self._mesh = mesh
        self._flow: Optional[DataSet] = None
        self._time = 0

    def data_set(self, **options: Any) -> DataSet:
        """As `from_vtk` of the mesh."""
        return from_vtk(self._mesh, **options)

    def __getattr__(self, name: str) -> Any:
        if name.startswith("_"):
            raise AttributeError(name)
        time = max(part.GetMTime() for part in (self._mesh, *(grid for _, grid in _leaves(self._mesh, "", Report()))))
        if self._flow is None or self._time != time:
            self._flow, self._time = self.data_set(), time
        return getattr(self._flow, name)


def register_accessor(library: Any = None) -> bool:
    """Registers `mesh.vantle` for the data sets of pyvista, where that was imported and has a registry of accessors.

    Called when `vantle` is imported; to be called again if pyvista was imported later. Says whether it is registered.
    """
    library = library if library is not None else sys.modules.get("pyvista")
    register = getattr(library, "register_dataset_accessor", None)
    if register is None:
        return False
    for kind in ("DataSet", "MultiBlock"):
        if hasattr(library, kind):
            register("vantle", getattr(library, kind))(_Accessor)
    return True


try:
    register_accessor()
except Exception as _problem:  # another library's registry is no reason to fail
    _log.debug("pyvista takes no accessor: %s", _problem)
