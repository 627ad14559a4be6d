"""Objects of VTK in and out, against VTK's own filters, and what is seen of data sets."""

import gc
import os
import sys
import types

import numpy as np
import pytest

import vantle as vt
from conftest import make_ring, plane, quarter

pytest.importorskip("vtkmodules")
from vtkmodules import vtkCommonCore as core  # noqa: E402
from vtkmodules import vtkCommonDataModel as model  # noqa: E402
from vtkmodules.util.numpy_support import numpy_to_vtk, vtk_to_numpy  # noqa: E402


def area(points, triangles):
    a, b, c = (points[triangles[:, n].astype(int)] for n in range(3))
    return 0.5 * np.linalg.norm(np.cross(b - a, c - a), axis=1).sum()


def test_the_blunt_fin_is_the_same_by_vtk(fin):
    from vtkmodules.vtkFiltersCore import vtkContourFilter, vtkProbeFilter
    from vtkmodules.vtkIOParallel import vtkMultiBlockPLOT3DReader

    reader = vtkMultiBlockPLOT3DReader()
    reader.SetXYZFileName(fin[0])
    reader.SetQFileName(fin[1])
    reader.AutoDetectFormatOn()
    reader.Update()
    report = vt.vtk.Report()
    theirs, ours = vt.from_vtk(reader.GetOutput(), report=report), vt.read(*fin)
    (block,) = theirs.blocks.values()
    np.testing.assert_array_equal(block.points, ours.block("block1").points)
    np.testing.assert_array_equal(block["Density"], ours["density"])
    assert not report.of("left out") and {entry.what.split(", ")[1] for entry in report.of("shared")} >= {"positions", 'field "Momentum"'}

    grid = reader.GetOutput().GetBlock(0)
    grid.GetPointData().SetActiveScalars("Density")
    contour = vtkContourFilter()
    contour.SetInputData(grid)
    contour.SetValue(0, 2.0)
    contour.Update()
    surface = theirs.contour("Density", 2.0)
    made = contour.GetOutput()
    corners = vtk_to_numpy(made.GetPolys().GetConnectivityArray()).reshape(-1, 3)
    assert area(surface.points, surface.triangles) == pytest.approx(area(vtk_to_numpy(made.GetPoints().GetData()).astype(float), corners), rel=5e-3)

    low, high = theirs.bounds
    points = np.random.default_rng(5).uniform(low, high, (20000, 3))
    cloud = model.vtkPolyData()
    cloud.SetPoints(core.vtkPoints())
    cloud.GetPoints().SetData(numpy_to_vtk(points))
    probe = vtkProbeFilter()
    probe.SetInputData(cloud)
    probe.SetSourceData(grid)
    probe.Update()
    valid = vtk_to_numpy(probe.GetOutput().GetPointData().GetArray("vtkValidPointMask")) != 0
    at = theirs.locate(points)
    assert (valid != at.found).mean() < 0.01  # theirs has a tolerance
    both = valid & at.found
    difference = np.abs(vtk_to_numpy(probe.GetOutput().GetPointData().GetArray("Density")) - at.sample("Density"))[both]
    assert both.sum() > 2000 and np.quantile(difference, 0.99) < 1e-4


def image(size, name="f", origin=(0.0, 0.0, 0.0)):
    made = model.vtkImageData()
    made.SetDimensions(size)
    made.SetOrigin(origin)
    made.SetSpacing(0.5, 1.0, 2.0)
    values = numpy_to_vtk(np.arange(np.prod(size), dtype=float))
    values.SetName(name)
    made.GetPointData().AddArray(values)
    return made


def flows():
    uniform = vt.DataSet()
    uniform.add_uniform_block("image", (5, 4, 3), ((0, -1, 2), (4, 2, 3)), valid_cells=np.arange(24).reshape(2, 3, 4) != 5)
    rectilinear = vt.DataSet()
    rectilinear.add_rectilinear_block("axes", [0, 1, 4], [5, 3, 2, 0], [1.0, 1.5])
    for flow in (uniform, rectilinear):
        for block in flow.blocks.values():
            block["plane"] = plane(block.points)
            block["p"] = block.points * 2.0
    ring = make_ring((5, 4, 3))
    ring.block("quarter 2").valid = np.arange(60).reshape(3, 4, 5) > 4
    ring.block("quarter 3")["single"] = plane(quarter(3, (5, 4, 3))).astype("f4")
    return {".vti": uniform, ".vtr": rectilinear, ".vts": vt.from_vtk(ring.block("quarter 2").to_vtk()), ".vtm": ring}


@pytest.mark.parametrize("extension", [".vti", ".vtr", ".vts", ".vtm", ".vtk"])
def test_what_vtk_reads_and_writes_comes_back(extension, tmp_path):
    flow = flows()[extension if extension != ".vtk" else ".vts"]
    file = str(tmp_path / ("flow" + extension))
    if extension == ".vtk":
        from vtkmodules.vtkIOLegacy import vtkDataSetWriter

        writer = vtkDataSetWriter()
        writer.SetFileTypeToBinary()
    else:
        from vtkmodules import vtkIOXML

        kinds = {".vti": "ImageData", ".vtr": "RectilinearGrid", ".vts": "StructuredGrid", ".vtm": "MultiBlockData"}
        writer = getattr(vtkIOXML, f"vtkXML{kinds[extension]}Writer")()
    writer.SetInputData(flow.to_vtk())
    writer.SetFileName(file)
    assert writer.Write() == 1
    flow.save(str(tmp_path / ("ours" + (extension if extension != ".vtk" else ".vts"))))
    for back in (vt.vtk.read(file), vt.vtk.read(tmp_path / ("ours" + (extension if extension != ".vtk" else ".vts")))):
        assert len(back.blocks) == len(flow.blocks)
        for block, other in zip(flow.blocks.values(), back.blocks.values()):
            if extension == ".vtm":
                assert block.name == other.name
            assert block.kind == other.kind and block.size == other.size
            np.testing.assert_allclose(other.points, block.points, rtol=1e-15, atol=1e-15)
            for field in flow.fields:
                assert (field in block) == (field in other)
                if field in block:
                    np.testing.assert_array_equal(block[field], other[field])
            for mask in ("valid", "valid_cells"):
                ours, theirs = getattr(block, mask), getattr(other, mask)
                if ours is not None:
                    np.testing.assert_array_equal(ours, theirs)
    with pytest.raises(OSError, match="broken"):
        (tmp_path / "broken.vts").write_text("<VTKFile")
        vt.vtk.read(tmp_path / "broken.vts")


def test_parts_of_parts_are_taken_and_the_rest_is_reported(caplog):
    inner, outer = model.vtkMultiBlockDataSet(), model.vtkMultiBlockDataSet()
    name = model.vtkCompositeDataSet.NAME()
    for n, title in enumerate(("left", None, "left")):
        inner.SetBlock(n, image((3, 3, 3), origin=(9.0 * n, 0, 0)))
        if title:
            inner.GetMetaData(n).Set(name, title)
    pieces, collection = model.vtkPartitionedDataSet(), model.vtkPartitionedDataSetCollection()
    pieces.SetPartition(0, image((2, 2, 2)))
    pieces.SetPartition(1, image((2, 2, 1)))
    collection.SetPartitionedDataSet(0, pieces)
    outer.SetBlock(0, inner)
    outer.GetMetaData(0).Set(name, "wing")
    outer.SetBlock(1, model.vtkUnstructuredGrid())
    outer.SetBlock(2, image((2, 2, 2)))
    bare, level = model.vtkStructuredGrid(), model.vtkRectilinearGrid()
    bare.SetDimensions(2, 2, 2)
    level.SetDimensions(1, 1, 2)
    level.SetZCoordinates(numpy_to_vtk(np.ones(2), deep=True))
    for n, part in enumerate((None, bare, level), 4):
        outer.SetBlock(n, part)
    report = vt.vtk.Report()
    flow = vt.from_vtk(outer, report=report)
    assert list(flow.blocks) == ["wing/left", "wing/1", "wing/left (2)", "2"]
    reasons = ("vtkUnstructuredGrid has no three indices", "0 points for the extents (2, 2, 2)", "coordinates that neither ascend nor descend")
    assert [entry.reason for entry in report.of("left out")] == list(reasons)
    assert "vtkUnstructuredGrid" in caplog.text
    assert [block.size for block in vt.from_vtk(collection).blocks.values()] == [(2, 2, 2), (2, 2, 1)]
    with pytest.raises(ValueError, match="vtkUnstructuredGrid has no three indices"):
        vt.from_vtk(model.vtkUnstructuredGrid())
    for wrong in (None, np.zeros(3), core.vtkPoints()):
        with pytest.raises(TypeError):
            vt.from_vtk(wrong)

    # Arrays that are not as ours are; cell data; ghosts.
    odd = image((3, 2, 2))
    shared = vtk_to_numpy(odd.GetPointData().GetArray("f"))
    apart = core.vtkSOADataArrayTemplate["float64"]()
    apart.SetNumberOfComponents(1)
    apart.SetNumberOfTuples(12)
    apart.SetName("apart")
    apart.Fill(1.0)
    odd.GetPointData().AddArray(apart)
    for title, values in (("f ", np.zeros(12)), ("long", np.arange(12)), ("two", np.zeros((12, 2))), ("tensor", np.arange(108.0).reshape(12, 9)), ("short", np.arange(12, dtype="i2"))):
        array = numpy_to_vtk(values, deep=True)
        array.SetName(title)
        odd.GetPointData().AddArray(array)
    text = core.vtkStringArray()
    text.SetName("text")
    text.SetNumberOfValues(12)
    odd.GetPointData().AddArray(text)
    odd.GetPointData().GetArray("f ").SetName("f")  # that of the first one
    cells = numpy_to_vtk(np.array([1.0, 3.0]), deep=True)
    cells.SetName("cell")
    odd.GetCellData().AddArray(cells)
    few = numpy_to_vtk(np.zeros(5), deep=True)
    few.SetName("few")
    odd.GetCellData().AddArray(few)
    ghosts = numpy_to_vtk(np.array([0, 32], dtype=np.uint8), deep=True)
    ghosts.SetName("vtkGhostType")
    odd.GetCellData().AddArray(ghosts)
    report = vt.vtk.Report()
    flow = vt.from_vtk(odd, report=report, cell_data="average")
    assert {entry.what.split('"')[3] for entry in report.of("left out")} == {"f", "two", "text", "few"}
    (block,) = flow.blocks.values()
    assert np.shares_memory(block["f"], shared) and block["long"].dtype == np.float64 and block["tensor"].shape == (2, 2, 3, 3, 3)
    np.testing.assert_array_equal(block["cell"], np.broadcast_to([1, 2, 3], (2, 2, 3)))
    assert block.valid_cells.tolist() == [[[True, False]]] and flow.bounds[1][0] == 0.5
    apart.Fill(2.0)
    odd.GetCellData().GetArray("vtkGhostType").SetName("ghosts")
    assert not any("cell" in field for field in vt.from_vtk(odd).fields) and (block["apart"] == 1.0).all()
    odd.GetCellData().GetArray("cell").SetName("vtkGhostType")  # of floats is none
    assert vt.vtk.own_points(odd) == (slice(0, 2), slice(0, 2), slice(0, 3))


def test_pieces_with_ghost_layers_meet_at_their_faces():
    axes = vt.DataSet()
    axes.add_rectilinear_block("axes", np.arange(9.0) ** 2, [5, 3, 2, 0], np.arange(6.0))
    turned = image((9, 4, 6))
    turned.SetDirectionMatrix(0, -1, 0, 1, 0, 0, 0, 0, 1)
    for whole in (image((9, 4, 6)), turned, axes.to_vtk(), make_ring((9, 4, 6)).block("quarter 1").to_vtk()):
        cells = numpy_to_vtk(np.sin(np.arange(8 * 3 * 5.0)), deep=True)
        cells.SetName("cells")
        whole.GetCellData().AddArray(cells)
        smooth = vt.from_vtk(whole, cell_data="average")
        expected = next(iter(smooth.blocks.values()))
        pieces = model.vtkPartitionedDataSet()
        low = whole.GetExtent()[::2]
        for n, (first, last) in enumerate([(0, 3), (3, 4), (4, 8)]):
            part, a, b = whole.NewInstance(), max(first - n, 0), min(last + 2, 8)
            part.ShallowCopy(whole)
            part.Crop([low[0] + a, low[0] + b, low[1], low[1] + 3, low[2], low[2] + 5])
            marks = np.ones((5, 3, b - a), dtype=np.uint8)
            marks[:, :, first - a : last - a] = 0
            ghosts = numpy_to_vtk(marks.reshape(-1), deep=True)
            ghosts.SetName("vtkGhostType")
            part.GetCellData().AddArray(ghosts)
            assert vt.vtk.own_points(part) == (slice(0, 6), slice(0, 4), slice(first - a, last - a + 1))
            pieces.SetPartition(n, part)
        flow = vt.from_vtk(pieces, cell_data="average")
        for block, own in zip(flow.blocks.values(), (slice(0, 4), slice(3, 5), slice(4, 9))):
            assert block.valid_cells is None
            np.testing.assert_allclose(block.points, expected.points[:, :, own], rtol=1e-15)
            np.testing.assert_array_equal(block["cells"], expected["cells"][:, :, own])
        assert len(flow.joins) == 2
        assert len(flow.contour("cells", 0.1).points) == len(smooth.contour("cells", 0.1).points) > 0
        ghosts.Fill(1)
        with pytest.raises(ValueError, match="nothing but ghost cells"):
            vt.from_vtk(part)


def test_objects_of_vtk_share_memory_and_keep_it_alive():
    flow = make_ring((9, 9, 9))
    surface = flow.contour("radius", [1.25, 1.5], values=["plane", "velocity"], normals=True)
    made, grids = surface.to_vtk(), flow.to_vtk(["plane", "magnitude(velocity)"])
    points = vtk_to_numpy(made.GetPoints().GetData())
    block = flow.block("quarter 1")
    pairs = [(points, surface.points), (vtk_to_numpy(made.GetPolys().GetConnectivityArray()), surface.triangles.view("i4"))]
    pairs += [(vtk_to_numpy(made.GetPointData().GetArray(name)), surface[name]) for name in surface.names]
    grid = grids.GetBlock(1)
    pairs += [(vtk_to_numpy(grid.GetPoints().GetData()), block.points), (vtk_to_numpy(grid.GetPointData().GetArray("plane")), block["plane"])]
    assert all(np.shares_memory(one, two) for one, two in pairs)
    with pytest.raises(KeyError, match="there are"):
        flow.to_vtk(["plain"])
    nothing = flow.contour("radius", 9.0, values="velocity", normals=True).to_vtk().GetPointData()
    assert [nothing.GetArray(n).GetNumberOfComponents() for n in range(2)] == [3, 3]
    copies = [one.copy() for one, _ in pairs]
    again = vt.from_vtk(grids)
    del flow, surface, block, grid, grids, pairs
    gc.collect()
    from vtkmodules.vtkFiltersCore import vtkMassProperties

    mass = vtkMassProperties()
    mass.SetInputData(made)
    mass.Update()
    assert mass.GetSurfaceArea() == pytest.approx(2 * np.pi * (1.25 + 1.5), rel=0.01)
    np.testing.assert_array_equal(points, copies[0])
    np.testing.assert_array_equal(again.block("quarter 1")["plane"].ravel(), copies[-1])


def test_a_mesh_has_an_accessor_where_there_is_a_registry():
    class Mesh(model.vtkImageData):
        pass

    library = types.SimpleNamespace(DataSet=Mesh, registered=[])

    def register(name, kind):
        def take(made):
            library.registered.append(name)
            setattr(kind, name, property(made))
            return made

        return take

    assert not vt.vtk.register_accessor(library) or "pyvista" in sys.modules
    library.register_dataset_accessor = register
    assert vt.vtk.register_accessor(library) and library.registered == ["vantle"]
    mesh = Mesh()
    mesh.DeepCopy(image((4, 4, 4)))
    assert mesh.vantle.range("f") == (0.0, 63.0) and not mesh.vantle.contour("f", 30.0).is_empty
    assert mesh.vantle.data_set(copy=True).fields["f"].components == 1
    accessor = mesh.vantle
    assert list(accessor.fields) == ["f"]
    mesh.GetPointData().AddArray(image((4, 4, 4), "g").GetPointData().GetArray(0))
    assert list(accessor.fields) == ["f", "g"]


def test_what_notebooks_and_pictures_show(ring, tmp_path, monkeypatch):
    assert "–" not in ring._repr_html_() and "joined" not in ring._repr_html_() and "quarter 3" in ring._repr_html_()
    ring.range("plane"), ring.joins
    html = ring._repr_html_()
    low, high = ring.range("plane")
    assert f"{low:.6g} … {high:.6g}" in html and "quarter 0 imin" in html and "<td>vector</td>" in html
    flow = vt.DataSet()
    flow.add_block("<b>", lambda: 1 / 0, shape=(2, 2, 2))
    assert "&lt;b&gt;" in flow._repr_html_() and "2 × 2 × 2" in flow._repr_html_()  # nothing was made

    pytest.importorskip("matplotlib")
    from matplotlib.image import imread

    surface = ring.contour("radius", 1.5, values=["plane"])
    assert "plane" in surface._repr_html_() and repr(surface).startswith("<vantle.Surface: ")
    surface.plot(tmp_path / "surface.png", title="a ring")
    ring.slice("z", 0.5, fields="velocity").plot(tmp_path / "slice.png", color="velocity")
    figure = ring.plot("plane", tmp_path / "middle.png", limits=(-1, 1))
    labels = [axes.get_xlabel() or axes.get_ylabel() for axes in figure.axes]
    assert labels == ["x", "plane"] and figure.axes[0].get_title() == "z = 0.5"
    for name in ("surface", "slice", "middle"):
        picture = imread(tmp_path / f"{name}.png")[..., :3]
        colours = np.unique((picture.reshape(-1, 3) * 15).astype(int), axis=0)
        assert picture.shape[:2] == (720, 960) and len(colours) > 30, name
    with pytest.raises(ValueError, match="no triangles"):
        vt.Surface().plot()
    for module in [name for name in sys.modules if name.split(".")[0] in ("matplotlib", "mpl_toolkits")]:
        monkeypatch.delitem(sys.modules, module)
    monkeypatch.setitem(sys.modules, "matplotlib", None)
    with pytest.raises(ImportError, match="matplotlib, which is not installed"):
        surface.plot()
    assert os.path.exists(tmp_path / "surface.png")


def test_curves_have_lengths_directions_and_values(ring, tmp_path):
    t = np.linspace(0, 3, 301)
    helix = np.stack([1.5 * np.cos(t), 1.5 * np.sin(t), 0.2 * t + 0.1], axis=-1)
    path = vt.Curves(helix, starts=np.array([0, 101]))
    speed = np.hypot(1.5, 0.2)
    lengths = path.arc_lengths()
    np.testing.assert_allclose(lengths, np.where(t <= 1.0, t, t - 1.01) * speed, rtol=1e-4, atol=1e-12)
    assert path.greatest_length() == lengths.max() == lengths[-1]
    np.testing.assert_allclose(path.tangents()[1:100] @ [0, 0, 1], 0.2 / speed, rtol=1e-4)
    path = path.with_values("plane", ring.locate(path.points).sample("plane")).with_values("length", lengths)
    np.testing.assert_allclose(path["plane"], plane(helix), atol=1e-2)
    assert path.names == ["length", "plane"] and "plane" in path and len(path) == 2
    assert np.shares_memory(path.points, helix) and np.shares_memory(path["length"], lengths)
    assert not path.points.flags.writeable and path.curve(1).tolist() == list(range(101, 301))
    path.save(tmp_path / "path.vtp")
    from vtkmodules.vtkIOXML import vtkXMLPolyDataReader

    reader = vtkXMLPolyDataReader()
    reader.SetFileName(str(tmp_path / "path.vtp"))
    reader.Update()
    expected, made = lengths.copy(), path.to_vtk()
    del path, lengths
    gc.collect()
    for lines in (reader.GetOutput(), made):
        assert lines.GetNumberOfLines() == 2 and lines.GetCell(1).GetPointId(0) == 101
        np.testing.assert_array_equal(vtk_to_numpy(lines.GetPointData().GetArray("length")), expected)
        np.testing.assert_array_equal(vtk_to_numpy(lines.GetPoints().GetData()), helix)
    unaligned = np.frombuffer(b"x" + helix.tobytes(), offset=1).reshape(-1, 3)
    np.testing.assert_array_equal(vt.Curves(unaligned).points, helix)
    crossing = vt.Curves([[0, 0, 0], [1, 0, 0], [1, 1, 0]], [np.arange(3), [], (2, 0, 2)])
    assert [crossing.curve(n).tolist() for n in range(3)] == [[0, 1, 2], [], [2, 0, 2]]
    for wrong in (lambda: vt.Curves(helix, [[301]]), lambda: vt.Curves(helix, starts=[5, 4]), lambda: vt.Curves(helix[:, :2]),
                  lambda: vt.Curves(helix, [[0]], starts=[0]), lambda: crossing.with_values("f", [1.0, 2.0])):  # fmt: skip
        with pytest.raises(ValueError, match="point|starts|values"):
            wrong()
    with pytest.raises(KeyError, match='there are: "length"'):
        crossing.with_values("length", [0.0, 1.0, 2.0])["plane"]
    ends = [line[[0, -1]] for line in ring.edges("quarter 1")]
    corners = ring.block("quarter 1").points[::4, ::8, ::16].reshape(-1, 3)
    assert len(ends) == 12 and all((end == corners).all(axis=-1).any() for pair in ends for end in pair)
