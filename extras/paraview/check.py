"""Compares the plug-in with ParaView's own filters, and ranks with one process: see scripts/paraview-trial.

usage: pvpython check.py PLUGIN DATA; mpirun -n 4 pvbatch check.py PLUGIN DATA

PLUGIN is the file of the plug-in, DATA the folder of the blunt fin: bluntfinxyz.bin and bluntfinq.bin.
"""

import pathlib
import sys
import tempfile

import numpy as np
from paraview import servermanager
from paraview import simple as pv
from vtkmodules.util.numpy_support import numpy_to_vtk, vtk_to_numpy
from vtkmodules.vtkCommonDataModel import vtkDataObject, vtkMultiBlockDataSet, vtkPartitionedDataSet
from vtkmodules.vtkFiltersCore import vtkAppendPolyData, vtkFeatureEdges
from vtkmodules.vtkParallelCore import vtkMultiProcessController

PLUGIN, DATA = sys.argv[1], pathlib.Path(sys.argv[2])
LEVEL = 2.0  # of the density: the shock
GRADIENT = "gradient(Density)"
RANKS = vtkMultiProcessController.GetGlobalController().GetNumberOfProcesses()
failures = []


def check(what, good, told):
    print(f"{'ok  ' if good else 'FAIL'} {what}: {told}", flush=True)
    failures.extend([] if good else [what])


def get(proxy):
    proxy.UpdatePipeline()
    return proxy.GetClientSideObject().GetOutputDataObject(0) if RANKS == 1 else servermanager.Fetch(proxy)


def holding(data):
    """A source of an object of VTK."""
    source = pv.TrivialProducer()
    source.GetClientSideObject().SetOutput(data)
    return source


def parts(data):
    if not data.IsA("vtkCompositeDataSet"):
        return [data]
    walk, found = data.NewIterator(), []
    walk.InitTraversal()
    while not walk.IsDoneWithTraversal():
        found.append(walk.GetCurrentDataObject())
        walk.GoToNextItem()
    return found


def border(data):
    """How many edges have one triangle only, by VTK."""
    whole = vtkAppendPolyData()
    for part in parts(data):
        whole.AddInputData(part)
    edges = vtkFeatureEdges()
    edges.SetInputConnection(whole.GetOutputPort())
    edges.FeatureEdgesOff()
    edges.NonManifoldEdgesOff()
    edges.ManifoldEdgesOff()
    edges.Update()
    return edges.GetOutput().GetNumberOfLines()


def values(data, name):
    return np.concatenate([vtk_to_numpy(part.GetPointData().GetArray(name)) for part in parts(data)])


def points(data):
    return np.concatenate([vtk_to_numpy(part.GetPoints().GetData()) for part in parts(data)]).astype(float)


def apart(some, others):
    """The largest distance from some points to the nearest of others."""
    return max(float(np.sqrt(((others - p) ** 2).sum(axis=1).min())) for p in some)


def pieces(grid, cuts, ghosts, kind=vtkMultiBlockDataSet):
    """A grid as blocks between cuts along i, with layers of duplicated cells."""
    made = kind()
    extent = list(grid.GetExtent())
    for n, (low, high) in enumerate(zip(cuts, cuts[1:])):
        part = grid.NewInstance()
        part.ShallowCopy(grid)
        first, last = max(low - ghosts, extent[0]), min(high + ghosts, extent[1])
        part.Crop([first, last, *extent[2:]])
        own = np.zeros((extent[5] - extent[4], extent[3] - extent[2], last - first), dtype=np.uint8)
        own[:, :, : low - first] = own[:, :, high - first :] = 1
        if ghosts:
            marks = numpy_to_vtk(own.reshape(-1), deep=True)
            marks.SetName("vtkGhostType")
            part.GetCellData().AddArray(marks)
        (made.SetBlock if kind is vtkMultiBlockDataSet else made.SetPartition)(n, part)
    return made


class Complaints(list):
    CallDataType = "string0"

    def __call__(self, _, __, text=""):
        self.append(text)


def refusal(proxy):
    heard = Complaints()
    proxy.SMProxy.GetClientSideObject().AddObserver("ErrorEvent", heard)
    proxy.UpdatePipeline()
    return heard[0].strip() if heard else "nothing said"


def serial(fin):
    contour = {"Array": ["POINTS", "Density"], "Levels": [LEVEL]}
    grid = parts(get(fin))[0]
    ours = get(pv.ClosedContour(Input=fin, **contour))
    theirs = get(pv.Contour(Input=fin, ContourBy=["POINTS", "Density"], Isosurfaces=[LEVEL]))
    count, edges = ours.GetNumberOfPoints(), border(ours)
    far = max(apart(points(ours), points(theirs)), apart(points(theirs), points(ours)))
    theirs = sum(part.GetNumberOfPoints() for part in parts(theirs)), border(theirs)
    check("contour, one block", far < 1e-5, f"{count} points, {edges} border edges; ParaView's Contour {theirs[0]}, "
          f"{theirs[1]}; {far:.1e} apart")  # fmt: skip

    cuts = [0, 10, 20, 30, 39]
    for ghosts in (0, 2):
        cut = holding(pieces(grid, cuts, ghosts))
        mine = get(pv.ClosedContour(Input=cut, **contour))
        other = get(pv.Contour(Input=cut, ContourBy=["POINTS", "Density"], Isosurfaces=[LEVEL]))
        told = sum(part.GetNumberOfPoints() for part in parts(other)), border(other)
        check(
            f"contour, four blocks with {ghosts} ghost layers",
            (mine.GetNumberOfPoints(), border(mine)) == (count, edges),
            f"{mine.GetNumberOfPoints()} points, {border(mine)} border edges; ParaView's Contour {told[0]}, {told[1]}",
        )
        one, four = (get(pv.GradientAcrossBlocks(Input=i, Array=["POINTS", "Density"])) for i in (fin, cut))
        whole = values(one, GRADIENT).reshape(32, 32, 40, 3)
        worst = 0.0
        for part in parts(four):
            first, last = part.GetExtent()[:2]
            low = first + (ghosts if first > 0 else 0)
            high = last - (ghosts if last < 39 else 0)
            mine = values(part, GRADIENT).reshape(32, 32, -1, 3)[:, :, low - first : high - first + 1]
            worst = max(worst, np.abs(mine - whole[:, :, low : high + 1]).max())
        check(f"gradient, four blocks with {ghosts} ghost layers", worst < 1e-9, f"{worst:.1e} from that of one block")

    wavelet = pv.Wavelet()
    image = get(wavelet)
    cut = holding(pieces(image, [-10, -3, 2, 10], 0, vtkPartitionedDataSet))
    ball = {"Array": ["POINTS", "RTData"], "Levels": [200.0]}
    mine = get(pv.ClosedContour(Input=cut, **ball))
    other = get(pv.Contour(Input=cut, ContourBy=["POINTS", "RTData"], Isosurfaces=[200.0]))
    told = f"{border(mine)} border edges; ParaView's Contour {border(other)}"
    check("contour, an image in three partitions", border(mine) == 0 < mine.GetNumberOfPolys(), told)

    # Values at the points of a surface, and in an image.
    probe = pv.Sphere(Center=[2, 1, 1], Radius=0.9, ThetaResolution=60, PhiResolution=60)
    mine = get(pv.SampleAtPoints(Input=fin, Points=probe))
    other = get(pv.ResampleWithDataset(SourceDataArrays=fin, DestinationMesh=probe))
    agree("sample", mine, other, "Density")
    agree("sample", mine, other, "Momentum")
    size = [40, 30, 20]
    mine = get(pv.Resample(Input=fin, Dimensions=size))
    other = get(pv.ResampleToImage(Input=fin, SamplingDimensions=size))
    agree("resample", mine, other, "Density")

    mine = values(get(pv.GradientAcrossBlocks(Input=wavelet, Array=["POINTS", "RTData"])), "gradient(RTData)")
    other = values(get(pv.Gradient(Input=wavelet, ScalarArray=["POINTS", "RTData"])), "Gradient")
    off = np.abs(mine - other).reshape(21, 21, 21, 3)[1:-1, 1:-1, 1:-1].max()
    check("gradient of an image", off < 1e-3, f"{off:.1e} from ParaView's Gradient, of up to {np.abs(other).max():.0f}")
    mine = get(pv.GradientAcrossBlocks(Input=fin, Array=["POINTS", "Momentum"], Divergence=1, Vorticity=1))
    other = get(pv.Gradient(Input=fin, ScalarArray=["POINTS", "Momentum"], ComputeDivergence=1, ComputeVorticity=1))
    for ours_is, theirs_is in (("gradient", "Gradient"), ("divergence", "Divergence"), ("vorticity", "Vorticity")):
        a, b = values(mine, f"{ours_is}(Momentum)"), values(other, theirs_is)
        a, b = (v.reshape(32, 32, 40, -1)[1:-1, 1:-1, 1:-1] for v in (a, b))
        off = np.abs(a - b) / (1e-3 * np.abs(b).max() + np.abs(b))
        told = f"median {np.median(off):.1e}, 99 % {np.quantile(off, 0.99):.1e} from ParaView's"
        check(f"{ours_is} of vectors", np.quantile(off, 0.99) < 1e-6, told)

    joins = get(pv.BlockJoins(Input=holding(pieces(grid, cuts, 1))))
    words = joins.GetFieldData().GetAbstractArray("Joins")
    check("joins", joins.GetNumberOfCells() == 3 * 31 * 31, f"{joins.GetNumberOfCells()} faces; {words.GetValue(0)}")

    said = refusal(pv.ClosedContour(Input=pv.Tetrahedralize(Input=wavelet), **ball))
    check("an unstructured grid is refused", "vtkUnstructuredGrid has no three indices" in said, said)
    said = refusal(pv.ClosedContour(Input=fin, Array=["POINTS", "Densiti"], Levels=[1.0]))
    check("an array that there is not is refused", '"Density"' in said, said)
    cells = pv.PointDatatoCellData(Input=wavelet)
    said = refusal(pv.ClosedContour(Input=cells, Array=["CELLS", "RTData"], Levels=[200.0]))
    check("an array of cells is refused", "Average Cell Data" in said, said)
    some = get(pv.ClosedContour(Input=cells, Array=["CELLS", "RTData"], Levels=[200.0], AverageCellData=1))
    averages = pv.CellDatatoPointData(Input=cells)
    other = get(pv.Contour(Input=averages, ContourBy=["POINTS", "RTData"], Isosurfaces=[200.0]))
    counts = some.GetNumberOfPoints(), other.GetNumberOfPoints()
    told = f"{counts[0]} points; by ParaView's averages and Contour {counts[1]}"
    check("or averaged", counts[0] == counts[1] > 0, told)

    with tempfile.TemporaryDirectory() as folder:
        files = [f"{folder}/{n}.vtk" for n in range(2)]
        for n, file in enumerate(files):
            pv.SaveData(file, proxy=pv.Wavelet(Maximum=255.0 + 100 * n))
        reader = pv.LegacyVTKReader(FileNames=files)
        steps = pv.ClosedContour(Input=reader, **ball)
        told = []
        for time in reader.TimestepValues:
            steps.UpdatePipeline(time)
            made = steps.GetClientSideObject().GetOutputDataObject(0)
            told.append((made.GetInformation().Get(vtkDataObject.DATA_TIME_STEP()), made.GetNumberOfPoints()))
        check("times", [t for t, _ in told] == [0, 1] and told[0][1] != told[1][1], f"(time, points) {told}")


def agree(what, mine, other, name):
    """Values where both filters have found something."""
    found, also = (values(data, "vtkValidPointMask") > 0 for data in (mine, other))
    a, b = values(mine, name), values(other, name)
    off = np.abs(a - b)[found & also] / np.abs(b[also]).max()
    told = f"{found.sum()} points found, {also.sum()} by ParaView; median {np.median(off):.1e}, most {off.max():.1e}"
    check(f"{what}, {name}", np.median(off) < 1e-6 and (found != also).mean() < 0.01, told)


def distributed(fin):
    """The reader gives each rank a piece of the blunt fin, with ghost layers around it."""
    import vantle as vt
    from vtkmodules.vtkIOParallel import vtkMultiBlockPLOT3DReader

    reader = vtkMultiBlockPLOT3DReader()  # the whole, on this rank
    reader.SetController(None)
    reader.SetXYZFileName(str(DATA / "bluntfinxyz.bin"))
    reader.SetQFileName(str(DATA / "bluntfinq.bin"))
    reader.AutoDetectFormatOn()
    reader.Update()
    flow = vt.from_vtk(reader.GetOutputDataObject(0))

    def counted(proxy):
        proxy.UpdatePipeline()
        return proxy.GetDataInformation().GetNumberOfPoints()  # of all ranks

    contour = {"Array": ["POINTS", "Density"], "Levels": [LEVEL], "Arrays": ["Density", GRADIENT]}
    whole = flow.contour("Density", LEVEL, values=[GRADIENT])
    ours = pv.ClosedContour(Input=fin, **contour)
    theirs = counted(pv.Contour(Input=fin, ContourBy=["POINTS", "Density"], Isosurfaces=[LEVEL]))
    count = counted(ours)
    told = f"{count} points over all ranks, {len(whole.points)} by one process; ParaView's Contour {theirs}"
    check("contour over ranks", count == len(whole.points), told)
    mine = get(ours)
    order, other = (np.lexsort(np.round(where, 9).T) for where in (points(mine), whole.points))
    off = np.abs(points(mine)[order] - whole.points[other]).max()
    told = f"{off:.1e} from one process, {border(mine)} border edges"
    check("its points and border", off < 1e-12 and border(mine) == whole.border_edges, told)
    off = np.abs(values(mine, GRADIENT)[order] - whole[GRADIENT][other])
    missing = np.isnan(whole[GRADIENT]).any(axis=1).sum()  # next to cells without thickness
    told = f"{np.nanmax(off):.1e} from one process; {missing} without"
    check("gradients there, across ranks", np.nanmax(off) < 1e-9 and np.isnan(off).any(axis=1).sum() == missing, told)

    pieces = pv.ClosedContour(Input=fin, OnePiece=0, **contour)
    owned = pv.ProgrammableFilter(Input=pieces, OutputDataSetType="vtkPolyData", Script="""
import numpy as np
output.Points = inputs[0].Points[np.asarray(inputs[0].PointData["vtkGhostType"]) == 0]
""")  # fmt: skip
    held, own = counted(pieces), counted(owned)
    told = f"{held} points on {RANKS} ranks, {own} that are not marked as another rank's"
    check("its pieces", own == len(whole.points), told)

    image = pv.Resample(Input=fin, Dimensions=[40, 30, 20])
    sphere = pv.SampleAtPoints(Input=fin, Points=pv.Sphere(Center=[2, 1, 1], ThetaResolution=60, PhiResolution=60))
    for what, proxy, cells in (("resample", image, 39 * 29 * 19), ("sample", sphere, 2 * 60 * 58)):
        mine = get(pv.ConvertToPointCloud(Input=proxy))  # which can be fetched from all ranks
        alone = flow.locate(points(mine)).sample("Density")
        there = values(mine, "vtkValidPointMask") > 0
        missed = (there != np.isfinite(alone)).sum()  # points of the cloud are rounded, also at the border
        off = np.nanmax(np.abs(values(mine, "Density") - alone)) / np.nanmax(alone)
        count = proxy.GetDataInformation().GetNumberOfCells()
        told = f"{there.sum()} of {there.size} found, by one process {missed} others; {off:.1e} apart; {count} cells"
        check(what, off < 1e-5 and missed < 0.01 * there.size and count == cells, told)

    # Where several ranks have a point, one of them has it inside of its piece; others may have it in a ghost layer.
    cloud = get(pv.ConvertToPointCloud(Input=pv.GradientAcrossBlocks(Input=fin, Array=["POINTS", "Density"])))
    vertices, alone = points(reader.GetOutputDataObject(0)), flow[GRADIENT].reshape(-1, 3)
    count = len(vertices)
    place = np.unique(np.concatenate([vertices, points(cloud)]), axis=0, return_inverse=True)[1]
    serial = np.full((place.max() + 1, 3), np.nan)
    serial[place[:count]] = alone
    best = np.full(len(serial), np.inf)
    np.fmin.at(best, place[count:], np.abs(values(cloud, GRADIENT) - serial[place[count:]]).max(axis=1))
    sure = (np.bincount(place[:count], minlength=len(best)) == 1) & np.isfinite(serial).all(axis=1)
    told = f"{best[sure].max():.1e} from one process at {sure.sum()} of {count} points, the others without thickness"
    check("gradient", best[sure].max() < 1e-9 and sure.sum() > 0.9 * count, told)

    said = refusal(pv.ClosedContour(Input=fin, Array=["POINTS", "Densiti"], Levels=[1.0]))
    check("an array that there is not is refused", '"Density"' in said, said)


pv.LoadPlugin(PLUGIN, ns=vars(pv))
fin = pv.PLOT3DReader(FileName=str(DATA / "bluntfinxyz.bin"), QFileName=[str(DATA / "bluntfinq.bin")])
(serial if RANKS == 1 else distributed)(fin)
print(f"{len(failures)} failures" + "".join(f"\n  {what}" for what in failures))
if failures:
    sys.exit(1)  # only then: this would end the process before MPI
