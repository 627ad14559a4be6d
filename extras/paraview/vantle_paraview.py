"""A plug-in of ParaView: contours, samples, images, derivatives and joins of multi-block grids, by the module `vantle`.

Load it by Tools > Manage Plugins, `paraview.simple.LoadPlugin(file, ns=globals())`, or PV_PLUGIN_PATH. Blocks that
touch are one grid for all filters, over the ranks of MPI too. What they take of an input is what `vantle.from_vtk`
takes.
"""

import inspect
import logging
from typing import Any, Callable, Dict, Iterable, Iterator, List, NamedTuple, Optional, Tuple

if not hasattr(inspect, "getargspec"):  # ParaView before 5.12 asks for it, Python 3.11 has it no longer
    setattr(inspect, "getargspec", inspect.getfullargspec)

import numpy as np
from paraview.util.vtkAlgorithm import smhint, smproperty, smproxy
from vtkmodules.util.numpy_support import numpy_to_vtk, vtk_to_numpy
from vtkmodules.util.vtkAlgorithm import VTKPythonAlgorithmBase
from vtkmodules.vtkCommonCore import vtkOutputWindow, vtkPoints, vtkStringArray
from vtkmodules.vtkCommonDataModel import (
    vtkCellArray,
    vtkCompositeDataSet,
    vtkDataObject,
    vtkDataSetAttributes,
    vtkMultiBlockDataSet,
    vtkPolyData,
)
from vtkmodules.vtkCommonExecutionModel import vtkAlgorithm, vtkStreamingDemandDrivenPipeline
from vtkmodules.vtkFiltersCore import vtkAppendPolyData
from vtkmodules.vtkParallelCore import vtkMultiProcessController

import vantle as vt

paraview_plugin_name = "Vantle"
paraview_plugin_version = vt.__version__

GHOSTS = vtkDataSetAttributes.GhostArrayName()
GRIDS = ("vtkImageData", "vtkRectilinearGrid", "vtkStructuredGrid")
MASK = "vtkValidPointMask"  # the name that ParaView's own filters give it
CHUNK = 1 << 20  # positions that are located together

# What cannot be used is said as a message of ParaView, for the filter that it concerns.
logging.getLogger("vantle.vtk").addHandler(logging.NullHandler())


class Refused(Exception):
    """An input or an option that a filter cannot work with."""


class Nothing(Exception):
    """An input without points, of which every filter makes nothing."""


# ---- Objects of VTK -------------------------------------------------------------------------------------------------


def leaves(thing: Any) -> Iterator[Any]:
    """The data sets in an object, in order."""
    if thing is None:
        return
    if not thing.IsA("vtkCompositeDataSet"):
        yield thing
        return
    walk = thing.NewIterator()
    walk.InitTraversal()
    while not walk.IsDoneWithTraversal():
        yield walk.GetCurrentDataObject()
        walk.GoToNextItem()


def like(thing: Any, change: Callable[[Any], Any]) -> Any:
    """The same object, with what `change` makes of each of its data sets."""
    if not thing.IsA("vtkCompositeDataSet"):
        return change(thing)
    made = thing.NewInstance()
    made.CopyStructure(thing)
    walk = thing.NewIterator()
    walk.InitTraversal()
    while not walk.IsDoneWithTraversal():
        made.SetDataSet(walk, change(walk.GetCurrentDataObject()))
        walk.GoToNextItem()
    return made


def shallow(thing: Any) -> Any:
    copy = thing.NewInstance()
    copy.ShallowCopy(thing)
    return copy


def stamp(grid: Any) -> Any:
    """What changes when anything of a grid does. The grid itself is a new one at each turn of the pipeline."""
    groups = grid.GetPointData(), grid.GetCellData()
    arrays = [group.GetAbstractArray(n) for group in groups for n in range(group.GetNumberOfArrays())]
    place: Any = ()
    if grid.IsA("vtkImageData"):
        turned = grid.GetDirectionMatrix()
        place = grid.GetOrigin(), grid.GetSpacing(), [turned.GetElement(r, c) for r in range(3) for c in range(3)]
    elif grid.IsA("vtkRectilinearGrid"):
        arrays += [grid.GetXCoordinates(), grid.GetYCoordinates(), grid.GetZCoordinates()]
    elif grid.GetPoints() is not None:
        arrays.append(grid.GetPoints().GetData())
    return grid.GetClassName(), grid.GetExtent(), place, [(array.GetName(), array.GetMTime()) for array in arrays]


def usable(grid: Any) -> bool:
    return any(grid.IsA(kind) for kind in GRIDS) and grid.GetNumberOfPoints() > 0


def named(values: Any, name: str) -> Any:
    """Rows of numbers as an array of VTK over the same memory."""
    made = numpy_to_vtk(np.ascontiguousarray(values))
    made.SetName(name)
    return made


def rows(values: Any, places: int) -> Any:
    """Values whose first axes are places, as one row a point. Derivatives of vectors get the order that ParaView has:
    all of the first component first."""
    if values.shape[places:] == (3, 3):
        values = np.swapaxes(values, -1, -2)
    count = int(np.prod(values.shape[:places]))
    return values.reshape((count, -1) if values.ndim > places else count)


def positions(data: Any) -> Any:
    """Those of the points of a data set, one row each."""
    if data.IsA("vtkPointSet"):
        return vtk_to_numpy(data.GetPoints().GetData()) if data.GetNumberOfPoints() > 0 else np.empty((0, 3))
    if usable(data):
        bare = data.NewInstance()
        bare.CopyStructure(data)
        bare.GetCellData().Initialize()  # those in ghost layers, too
        return next(iter(vt.from_vtk(bare).blocks.values())).points.reshape(-1, 3)
    if data.IsA("vtkDataSet"):
        return np.array([data.GetPoint(n) for n in range(data.GetNumberOfPoints())]).reshape(-1, 3)
    raise Refused(f"{data.GetClassName()} has no points")


def hide(image: Any, found: Any) -> None:
    """Marks the points where nothing was found, and the cells that have such a point, as hidden."""
    cells = found
    for axis in range(3):
        if found.shape[axis] > 1:
            cells = np.moveaxis(cells, axis, 0)
            cells = np.moveaxis(cells[:-1] & cells[1:], 0, axis)
    for valid, data, hidden in (
        (found, image.GetPointData(), vtkDataSetAttributes.HIDDENPOINT),
        (cells, image.GetCellData(), vtkDataSetAttributes.HIDDENCELL),
    ):
        data.AddArray(named(np.where(valid, 0, hidden).astype(np.uint8).reshape(-1), GHOSTS))


def squares(points: Any) -> Any:
    """A face of (m, n, 3) points."""
    made, corners = vtkPolyData(), vtkPoints()
    corners.SetData(named(points.reshape(-1, 3), "Points"))
    number = np.arange(points.shape[0] * points.shape[1], dtype=np.int64).reshape(points.shape[:2])
    around = np.stack([number[:-1, :-1], number[:-1, 1:], number[1:, 1:], number[1:, :-1]], axis=-1).reshape(-1, 4)
    cells = vtkCellArray()
    # Cells have arrays of their own over the same memory, which nothing would keep alive if it were one of NumPy.
    cells.SetData(*(numpy_to_vtk(numbers, deep=True) for numbers in (np.arange(0, around.size + 1, 4), around.reshape(-1))))
    made.SetPoints(corners)
    made.SetPolys(cells)
    return made


def together(parts: Iterable[Any]) -> Any:
    """Faces as one object."""
    given = list(parts)
    if len(given) == 1:
        return given[0]
    append = vtkAppendPolyData()
    for part in given:
        append.AddInputData(part)
    if given:
        append.Update()
    return append.GetOutput()


def marked(faces: Any, number: int, distance: float) -> Any:
    """Faces with what is said of a join."""
    count = faces.GetNumberOfCells()
    faces.GetCellData().AddArray(named(np.full(count, number, dtype=np.int32), "Join"))
    faces.GetCellData().AddArray(named(np.full(count, distance), "Largest distance"))
    return faces


def outside(grid: Any) -> Any:
    """Which points of a grid are in its ghost layers only."""
    extent = grid.GetExtent()
    there = np.ones([extent[2 * d + 1] - extent[2 * d] + 1 for d in (2, 1, 0)], dtype=bool)
    there[vt.vtk.own_points(grid)] = False
    return there.reshape(-1)


def merged(chosen: Any, there: Any, elsewhere: Any) -> Any:
    """Rows from two sources: those that are chosen, and the others."""
    made = np.empty((len(chosen), *elsewhere.shape[1:]))
    made[chosen], made[~chosen] = there, elsewhere
    return made


def texts(name: str, lines: List[str]) -> Any:
    made = vtkStringArray()
    made.SetName(name)
    for line in lines:
        made.InsertNextValue(line)
    return made


# ---- Ranks ----------------------------------------------------------------------------------------------------------


class Ranks:
    """The processes that work on one pipeline."""

    def __init__(self) -> None:
        controller = vtkMultiProcessController.GetGlobalController()
        self.count = controller.GetNumberOfProcesses() if controller is not None else 1
        self.rank = controller.GetLocalProcessId() if self.count > 1 else 0
        self.comm: Any = None
        if self.count == 1:
            return
        vt.ParallelDataSet  # or why there is none
        from vtkmodules.vtkParallelMPI4Py import vtkMPI4PyCommunicator

        self.comm = vtkMPI4PyCommunicator.ConvertToPython(controller.GetCommunicator())

    def all(self, mine: Any) -> List[Any]:
        """What each rank has said."""
        return [mine] if self.comm is None else list(self.comm.allgather(mine))

    def agree(self, problem: str) -> None:
        """Fails on all ranks if one has a problem: none goes on alone, and waits for ever."""
        for rank, reason in enumerate(self.all(problem)):
            if reason:
                raise Refused(reason if self.comm is None else f"rank {rank}: {reason}")


# ---- What filters have in common ------------------------------------------------------------------------------------


class Kept(NamedTuple):
    """What was made of an input, for as long as that does not change."""

    key: Any
    flow: Any  #: of all ranks
    local: vt.DataSet
    left_out: List[str]


class Filter(VTKPythonAlgorithmBase):  # type: ignore[misc]
    """Takes an input as a data set, and says what is wrong as ParaView says it."""

    def __init__(self, output: str, inputs: int = 1) -> None:
        super().__init__(nInputPorts=inputs, inputType="vtkDataObject", outputType=output)
        self._kept: Optional[Kept] = None
        self._arrays: List[str] = []
        self._tolerance = 0.0
        self._average = self._one_piece = False

    # Options of several filters

    def AddArray(self, name: str) -> None:
        self._change(_arrays=[*self._arrays, name])

    def ClearArrays(self) -> None:
        self._change(_arrays=[])

    def SetJoinTolerance(self, tolerance: float) -> None:
        self._change(_tolerance=tolerance)

    def SetAverageCellData(self, average: int) -> None:
        self._change(_average=bool(average))

    def SetOnePiece(self, one: int) -> None:
        self._change(_one_piece=bool(one))

    def _change(self, **options: Any) -> None:
        for option, value in options.items():
            if getattr(self, option) != value:
                setattr(self, option, value)
                self.Modified()

    # What ParaView asks

    #: the inputs of which each rank wants its piece, whatever part of the output it has been asked for
    pieces: Tuple[int, ...] = ()

    def RequestUpdateExtent(self, _: Any, inputs: Any, outputs: Any) -> int:
        key, out = vtkStreamingDemandDrivenPipeline, outputs.GetInformationObject(0)
        for info in (inputs[port].GetInformationObject(0) for port in self.pieces):
            info.Set(key.UPDATE_PIECE_NUMBER(), out.Get(key.UPDATE_PIECE_NUMBER()))
            info.Set(key.UPDATE_NUMBER_OF_PIECES(), out.Get(key.UPDATE_NUMBER_OF_PIECES()))
            info.Set(key.UPDATE_NUMBER_OF_GHOST_LEVELS(), 0)
            if info.Has(key.WHOLE_EXTENT()):
                info.Set(key.UPDATE_EXTENT(), info.Get(key.WHOLE_EXTENT()), 6)  # of which the source makes the piece
        return 1

    def RequestData(self, _: Any, inputs: Any, outputs: Any) -> int:
        try:
            self.ranks = Ranks()
            self.make([vtkDataObject.GetData(port, 0) for port in inputs], vtkDataObject.GetData(outputs, 0))
        except (Nothing, vt.Cancelled):
            return 1
        except Exception as problem:  # without words of its own ParaView shows lines of this file
            worded = Refused, KeyError, ValueError, OSError, MemoryError, ImportError
            said = isinstance(problem, worded) and str(problem)
            self.say(said or f"{type(problem).__name__}: {problem}", error=True)
            return 0
        return 1

    def make(self, inputs: List[Any], output: Any) -> None:
        raise NotImplementedError

    def say(self, text: str, error: bool = False) -> None:
        event, kind = ("ErrorEvent", "ERROR") if error else ("WarningEvent", "Warning")
        line = f"{kind}: {type(self).__name__}: {text}\n"
        window = vtkOutputWindow.GetInstance()
        if self.HasObserver(event):
            self.InvokeEvent(event, line)
        elif error:
            window.DisplayErrorText(line)
        else:
            window.DisplayWarningText(line)

    def progress(self, share: float) -> bool:
        self.UpdateProgress(share)
        return not self.GetAbortExecute()

    # Inputs

    def take(self, thing: Any) -> Kept:
        """The data set of an input, which is that of all ranks; made again only if the input has changed."""
        found = list(leaves(thing))
        key = self._tolerance, self._average, [stamp(grid) for grid in found if usable(grid)]
        if all(self.ranks.all(self._kept is not None and self._kept.key == key)):
            assert self._kept is not None
            return self._kept
        self._kept = None
        local, report, useless, problem = vt.DataSet(), vt.vtk.Report(), "", ""
        try:
            whole = thing if found else None
            if whole is not None and self.ranks.comm is not None:  # no two ranks have blocks of one name
                outer = vtkMultiBlockDataSet()
                outer.SetBlock(0, whole)
                outer.GetMetaData(0).Set(vtkCompositeDataSet.NAME(), f"rank {self.ranks.rank}")
                whole = outer
            if whole is not None:
                local = vt.from_vtk(whole, cell_data="average" if self._average else "leave", report=report)
        except ValueError as reason:  # no harm if another rank has something
            useless = str(reason).removeprefix("from_vtk: ")
        except Exception as reason:
            problem = f"{type(reason).__name__}: {reason}"
        self.ranks.agree(problem)
        empty = all(grid.IsA("vtkDataSet") and grid.GetNumberOfPoints() == 0 for grid in found)
        told = self.ranks.all(("" if empty else useless, bool(local.blocks)))
        if not any(some for _, some in told):
            reasons = [reason for reason, _ in told if reason]
            raise Refused(reasons[0]) if reasons else Nothing()
        left_out = [str(entry) for entry in report.of("left out")]
        expected = "no vertices", "nothing but ghost cells"
        grids = [line for line in left_out if '", ' not in line and not any(reason in line for reason in expected)]
        if grids:
            self.say("not all of the input can be used:\n  " + "\n  ".join(grids))
        local.set_joins(tolerance=self._tolerance)
        flow: Any = local
        if self.ranks.comm is not None:
            flow = vt.ParallelDataSet(self.ranks.comm, local, tolerance=self._tolerance)
        self._kept = Kept(key, flow, local, left_out)
        return self._kept

    def array(self, kept: Kept) -> str:
        """The array that was chosen."""
        chosen = self.GetInputArrayInformation(0)
        name = chosen.Get(vtkDataObject.FIELD_NAME()) if chosen.Has(vtkDataObject.FIELD_NAME()) else ""
        if not name:
            raise Refused("choose an array")
        key = vtkDataObject.FIELD_ASSOCIATION()
        if chosen.Has(key) and chosen.Get(key) == vtkDataObject.FIELD_ASSOCIATION_CELLS and not self._average:
            raise Refused(f'"{name}" was chosen as an array of cells: these are taken only with "Average Cell Data"')
        if name not in kept.flow.fields:
            lines = [line for lines in self.ranks.all(kept.left_out) for line in lines if f'"{name}":' in line]
            if lines:
                raise Refused("\n  ".join([f'"{name}" cannot be used:', *lines[:10]]))
        return str(name)

    def arrays(self, kept: Kept, first: str = "") -> List[str]:
        """Those that were named, or all that are known everywhere; `first` in front."""
        count = len(kept.flow.blocks)
        names = self._arrays or [name for name, field in kept.flow.fields.items() if field.blocks == count]
        return list(dict.fromkeys(filter(None, [first, *names])))

    # Outputs

    def surfaces(self, made: List[Any]) -> Iterator[Any]:
        """Surfaces as objects of VTK: this rank's pieces, or all of them on the first rank."""
        before = 0
        for surface in made:
            if self.ranks.comm is None:
                yield surface.to_vtk()
            elif self._one_piece:
                yield surface.gather(0).to_vtk()
            else:
                piece = surface.piece.to_vtk()
                own = np.where(surface.is_own, 0, vtkDataSetAttributes.DUPLICATEPOINT).astype(np.uint8)
                piece.GetPointData().AddArray(named(own, GHOSTS))
                piece.GetPointData().SetGlobalIds(named(surface.numbers.astype(np.int64) + before, "GlobalPointIds"))
                before += surface.point_count
                yield piece


class LikeInput(Filter):
    """Filters of which the output is of the kind of one of the inputs."""

    pattern = 0  #: the number of that input

    def __init__(self, inputs: int = 1) -> None:
        super().__init__("vtkDataObject", inputs)

    def RequestDataObject(self, _: Any, inputs: Any, outputs: Any) -> int:
        given, made = vtkDataObject.GetData(inputs[self.pattern], 0), vtkDataObject.GetData(outputs, 0)
        if given is not None and (made is None or made.GetClassName() != given.GetClassName()):
            outputs.GetInformationObject(0).Set(vtkDataObject.DATA_OBJECT(), given.NewInstance())
        return 1


# ---- Properties, as ParaView declares them --------------------------------------------------------------------------

MENU = '<ShowInMenu category="Vantle"/>'
KINDS = "".join(
    f'<DataType value="{kind}"/>'
    for kind in (*GRIDS, "vtkMultiBlockDataSet", "vtkPartitionedDataSet", "vtkPartitionedDataSetCollection")
)


def input_of(name: str, port: int, kinds: str, text: str) -> str:
    return f"""
    <InputProperty name="{name}" port_index="{port}" command="SetInputConnection">
      <ProxyGroupDomain name="groups"><Group name="sources"/><Group name="filters"/></ProxyGroupDomain>
      <DataTypeDomain name="input_type" composite_data_supported="1">{kinds}</DataTypeDomain>
      <InputArrayDomain name="point_arrays" attribute_type="point" optional="1"/>
      <Documentation>{text}</Documentation>
    </InputProperty>"""


def switch(name: str, command: str, default: int, text: str, label: str = "") -> str:
    return f"""
    <IntVectorProperty name="{name}" label="{label or name}" command="{command}" number_of_elements="1"
                       default_values="{default}">
      <BooleanDomain name="bool"/>
      <Documentation>{text}</Documentation>
    </IntVectorProperty>"""


FLOW = input_of("Input", 0, KINDS, "Image data, rectilinear and structured grids, and whatever has such as its parts.")
ARRAY = """
    <StringVectorProperty name="Array" command="SetInputArrayToProcess" number_of_elements="5"
                          element_types="0 0 0 0 2">
      <ArrayListDomain name="array_list" attribute_type="Scalars" input_domain_name="point_arrays">
        <RequiredProperties><Property function="Input" name="Input"/></RequiredProperties>
      </ArrayListDomain>
      <Documentation>The array of points to work with.</Documentation>
    </StringVectorProperty>"""
ARRAYS = """
    <StringVectorProperty name="Arrays" command="AddArray" clean_command="ClearArrays" repeat_command="1"
                          number_of_elements_per_command="1" panel_visibility="advanced">
      <Documentation>Arrays that the result has, by default all. Scripts can name derived ones, too, such as
        "magnitude(gradient(pressure))".</Documentation>
    </StringVectorProperty>"""
TOLERANCE = """
    <DoubleVectorProperty name="JoinTolerance" label="Join Tolerance" command="SetJoinTolerance" number_of_elements="1"
                          default_values="0" panel_visibility="advanced">
      <DoubleRangeDomain name="range" min="0" max="0.49"/>
      <Documentation>Points of two blocks are one up to this distance, in units of the shortest edge of the cells
        around them. 0 joins equal points only; 0.01 is for files that were written with fewer digits.</Documentation>
    </DoubleVectorProperty>"""
AVERAGE = switch(
    "AverageCellData", "SetAverageCellData", 0,
    "Takes arrays of cells as well: at each point the mean of the cells around it.", "Average Cell Data",
)  # fmt: skip
ONE_PIECE = switch(
    "OnePiece", "SetOnePiece", 1,
    "On several ranks: the whole surface on the first one, where filters that follow see that it is closed. Otherwise "
    "each rank keeps its piece; points that belong to another rank are marked as duplicates, by global ids.",
    "One Piece",
)  # fmt: skip
COMMON = AVERAGE + TOLERANCE


# ---- The filters ----------------------------------------------------------------------------------------------------


@smproxy.filter(name="VantleClosedContour", label="Closed Contour")
@smhint.xml(MENU)
@smproperty.xml(
    FLOW
    + ARRAY
    + """
    <DoubleVectorProperty name="Levels" command="AddLevel" clean_command="ClearLevels" repeat_command="1"
                          number_of_elements="1" number_of_elements_per_command="1" default_values="0">
      <ArrayRangeDomain name="scalar_range" default_mode="mid">
        <RequiredProperties>
          <Property function="Input" name="Input"/>
          <Property function="ArraySelection" name="Array"/>
        </RequiredProperties>
      </ArrayRangeDomain>
      <Documentation>Where the array has these values.</Documentation>
    </DoubleVectorProperty>"""
    + ARRAYS
    + switch("Normals", "SetNormals", 0, "Normals, towards greater values.")
    + ONE_PIECE
    + COMMON
)
class ClosedContour(Filter):
    """One surface over all blocks and ranks, without cracks or doubled points where they touch."""

    def __init__(self) -> None:
        super().__init__("vtkPolyData")
        self._levels: List[float] = []
        self._normals = False
        self._one_piece = True

    def AddLevel(self, level: float) -> None:
        self._change(_levels=[*self._levels, level])

    def ClearLevels(self) -> None:
        self._change(_levels=[])

    def SetNormals(self, wanted: int) -> None:
        self._change(_normals=bool(wanted))

    def make(self, inputs: List[Any], output: Any) -> None:
        kept = self.take(inputs[0])
        field = self.array(kept)
        values = self.arrays(kept, field)
        made = kept.flow.contours(field, self._levels, values=values, normals=self._normals, progress=self.progress)
        output.ShallowCopy(together(self.surfaces(made)))


@smproxy.filter(name="VantleSampleAtPoints", label="Sample At Points")
@smhint.xml(MENU)
@smproperty.xml(
    FLOW
    + input_of("Points", 1, '<DataType value="vtkDataSet"/>', "Its points are the positions; it may have parts.")
    + ARRAYS
    + COMMON
)
class SampleAtPoints(LikeInput):
    """Values of arrays at the points of another input. NaN, and a mask of 0, where nothing is."""

    pattern = 1
    pieces = (0,)

    def __init__(self) -> None:
        super().__init__(2)

    def RequestInformation(self, _: Any, inputs: Any, outputs: Any) -> int:
        key, out = vtkStreamingDemandDrivenPipeline.WHOLE_EXTENT(), outputs.GetInformationObject(0)
        points = inputs[1].GetInformationObject(0)
        if points.Has(key):
            out.Set(key, points.Get(key), 6)
        else:
            out.Remove(key)
        return 1

    def make(self, inputs: List[Any], output: Any) -> None:
        kept = self.take(inputs[0])
        where, problem = [np.empty((0, 3))], ""
        try:
            where += map(positions, leaves(inputs[1]))
        except Exception as reason:
            problem = str(reason)
        self.ranks.agree(problem)
        at = kept.flow.locate(np.concatenate(where), progress=self.progress)
        values = {name: rows(at.sample(name, progress=self.progress), 1) for name in self.arrays(kept)}
        values[MASK] = at.found.astype(np.int8)
        ends = np.cumsum([len(part) for part in where])
        parts = iter(zip(ends[:-1], ends[1:]))

        def sampled(points: Any) -> Any:
            low, high = next(parts)
            copy = shallow(points)
            for name, array in values.items():
                copy.GetPointData().AddArray(named(array[low:high], name))
            return copy

        output.ShallowCopy(like(inputs[1], sampled))


@smproxy.filter(name="VantleResample", label="Resample")
@smhint.xml(MENU)
@smproperty.xml(
    FLOW
    + """
    <IntVectorProperty name="Dimensions" command="SetDimensions" number_of_elements="3" default_values="100 100 100">
      <IntRangeDomain name="range" min="2 2 2"/>
      <Documentation>How many points the image has along x, y and z.</Documentation>
    </IntVectorProperty>"""
    + switch("UseInputBounds", "SetUseInputBounds", 1, "The image spans the input.", "Use Input Bounds")
    + """
    <DoubleVectorProperty name="Bounds" command="SetBounds" number_of_elements="6" default_values="0 1 0 1 0 1">
      <BoundsDomain name="range" mode="data_bounds">
        <RequiredProperties><Property function="Input" name="Input"/></RequiredProperties>
      </BoundsDomain>
      <Documentation>What the image spans otherwise: from and to along x, y and z.</Documentation>
      <Hints>
        <PropertyWidgetDecorator type="GenericDecorator" mode="enabled_state" property="UseInputBounds" value="0"/>
      </Hints>
    </DoubleVectorProperty>"""
    + ARRAYS
    + COMMON
)
class Resample(Filter):
    """An image of the input. Points where nothing is are hidden; a mask says which they are."""

    pieces = (0,)

    def __init__(self) -> None:
        super().__init__("vtkImageData")
        self._dimensions = (100, 100, 100)
        self._bounds = (0.0, 1.0, 0.0, 1.0, 0.0, 1.0)
        self._of_input = True

    def SetDimensions(self, i: int, j: int, k: int) -> None:
        self._change(_dimensions=(i, j, k))

    def SetUseInputBounds(self, use: int) -> None:
        self._change(_of_input=bool(use))

    def SetBounds(self, *bounds: float) -> None:
        self._change(_bounds=bounds)

    def RequestInformation(self, _: Any, __: Any, outputs: Any) -> int:
        out = outputs.GetInformationObject(0)
        extent = [n for size in self._dimensions for n in (0, size - 1)]
        out.Set(vtkStreamingDemandDrivenPipeline.WHOLE_EXTENT(), extent, 6)
        out.Set(vtkAlgorithm.CAN_PRODUCE_SUB_EXTENT(), 1)
        return 1

    def RequestData(self, request: Any, inputs: Any, outputs: Any) -> int:
        self.extent = outputs.GetInformationObject(0).Get(vtkStreamingDemandDrivenPipeline.UPDATE_EXTENT())
        return super().RequestData(request, inputs, outputs)

    def make(self, inputs: List[Any], output: Any) -> None:
        kept = self.take(inputs[0])
        if min(self._dimensions) < 2:
            raise Refused(f"dimensions: expected at least 2 each, got {self._dimensions}")
        box = kept.flow.bounds if self._of_input else np.reshape(self._bounds, (3, 2)).T
        low, high = np.asarray(box, dtype=float)
        if not (high > low).all():
            raise Refused(f"bounds: from {tuple(low)} to {tuple(high)} has no volume")
        extent = self.extent
        output.SetExtent(extent)
        output.SetOrigin(low)
        output.SetSpacing((high - low) / (np.array(self._dimensions) - 1))
        x, y, z = (
            np.linspace(low[d], high[d], self._dimensions[d])[extent[2 * d] : extent[2 * d + 1] + 1] for d in range(3)
        )
        # Layers by layers, as many times on all ranks.
        layers = max(CHUNK // max(len(x) * len(y), 1), 1)
        turns = max(self.ranks.all(-(-len(z) // layers)))
        names = self.arrays(kept)
        values: Dict[str, List[Any]] = {name: [] for name in [*names, MASK]}
        for turn in range(turns):
            part = z[turn * layers : (turn + 1) * layers]
            at = kept.flow.locate(np.stack(np.meshgrid(part, y, x, indexing="ij")[::-1], axis=-1))
            for name in names:
                values[name].append(rows(at.sample(name), 3))
            values[MASK].append(at.found.reshape(-1).astype(np.int8))
            if not all(self.ranks.all(self.progress((turn + 1) / turns))):
                raise vt.Cancelled
        for name, parts in values.items():
            output.GetPointData().AddArray(named(np.concatenate(parts), name))
        found = np.concatenate(values[MASK]).reshape(len(z), len(y), len(x)) > 0
        if not found.all():
            hide(output, found)


@smproxy.filter(name="VantleGradient", label="Gradient Across Blocks")
@smhint.xml(MENU)
@smproperty.xml(
    FLOW
    + ARRAY.replace('"Scalars"', '"any"')
    + switch("Gradient", "SetGradient", 1, "Of scalars a vector, of vectors nine numbers.")
    + switch("Vorticity", "SetVorticity", 0, "Of vectors: the curl.")
    + switch("Divergence", "SetDivergence", 0, "Of vectors.")
    + switch("QCriterion", "SetQCriterion", 0, "Of vectors: positive where rotation outweighs strain.", "Q Criterion")
    + COMMON
)
class Gradient(LikeInput):
    """The input with derivatives of an array along x, y and z; no seam shows where blocks touch."""

    def __init__(self) -> None:
        super().__init__()
        self._wanted = {"gradient"}

    def _want(self, what: str, wanted: int) -> None:
        self._change(_wanted=self._wanted | {what} if wanted else self._wanted - {what})

    def SetGradient(self, wanted: int) -> None:
        self._want("gradient", wanted)

    def SetVorticity(self, wanted: int) -> None:
        self._want("vorticity", wanted)

    def SetDivergence(self, wanted: int) -> None:
        self._want("divergence", wanted)

    def SetQCriterion(self, wanted: int) -> None:
        self._want("q_criterion", wanted)

    def make(self, inputs: List[Any], output: Any) -> None:
        kept = self.take(inputs[0])
        field = self.array(kept)
        names = [getattr(kept.flow, what)(field) for what in sorted(self._wanted)]
        grids = [grid for grid in leaves(inputs[0]) if usable(grid)]
        ghosts = [outside(grid) for grid in grids]
        # Points of ghost layers are inside of a neighbour, which may be on another rank.
        beyond: Dict[str, Any] = {}
        if any(self.ranks.all(any(layer.any() for layer in ghosts))):
            where = [positions(grid)[layer] for grid, layer in zip(grids, ghosts)]
            at = kept.flow.locate(np.concatenate([np.empty((0, 3)), *where]), progress=self.progress)
            beyond = {name: rows(at.sample(name), 1) for name in names}
        blocks = iter(kept.local.blocks.values())
        results: List[Dict[str, Any]] = []
        low = 0
        for layer in ghosts:
            high = low + int(layer.sum())
            made = {name: values[low:high] for name, values in beyond.items()}
            if not layer.all():
                block = kept.flow.block(next(blocks).name)  # that of all ranks: its neighbours count
                own = {name: rows(block[name], 3) for name in names}
                made = {name: merged(layer, made[name], own[name]) for name in names} if layer.any() else own
            results.append(made)
            low = high
        following = iter(results)

        def derived(grid: Any) -> Any:
            copy = shallow(grid)
            for name, values in (next(following) if usable(grid) else {}).items():
                copy.GetPointData().AddArray(named(values, name))
            return copy

        output.ShallowCopy(like(inputs[0], derived))


@smproxy.filter(name="VantleBlockJoins", label="Block Joins")
@smhint.xml(MENU)
@smproperty.xml(
    FLOW
    + switch("Hull", "SetHull", 0, "Adds the faces that are not joined, which are the hull: their Join is -1.")
    + COMMON
)
class BlockJoins(Filter):
    """The faces at which blocks are joined, each once. Cells know the number of their join and the largest distance of
    two points that are one there; the field data say in words what is joined, and which faces are doubtful."""

    def __init__(self) -> None:
        super().__init__("vtkPolyData")
        self._hull = False

    def SetHull(self, wanted: int) -> None:
        self._change(_hull=bool(wanted))

    def make(self, inputs: List[Any], output: Any) -> None:
        kept = self.take(inputs[0])
        joins, own = kept.flow.joins, kept.local.blocks
        faces: List[Any] = []
        for number, join in enumerate(joins):
            if join.first[0] in own:
                part = tuple(slice(a, b + 1) for a, b in zip(join.low[::-1], join.high[::-1]))
                face = squares(np.squeeze(own[join.first[0]].points[part]))
                faces.append(marked(face, number, join.largest_distance))
        if self._hull:
            faces += [marked(hull, -1, 0.0) for hull in self.surfaces([kept.flow.boundary()])]
        output.ShallowCopy(together(faces))
        lines = [
            f"{number}: {' '.join(join.first)} - {' '.join(join.second)}, "
            + " x ".join(str(b - a + 1) for a, b in zip(join.low, join.high) if a != b)
            + ("" if join.motion is None else f", after motion {join.motion}")
            for number, join in enumerate(joins)
        ]
        output.GetFieldData().AddArray(texts("Joins", lines))
        output.GetFieldData().AddArray(texts("Doubtful faces", list(kept.flow.doubtful_faces)))
