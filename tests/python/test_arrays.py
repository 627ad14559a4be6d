"""Arrays both ways: what is shared, what is refused, and who keeps what alive."""

import gc
import itertools
import sys
import weakref

import numpy as np
import pytest

import vantle as vt
from conftest import plane, quarter


class Memory(bytearray):
    """Memory whose end can be watched."""


def watched(array):
    """A copy of an array in memory of its own, and a reference that says whether that is alive."""
    memory = Memory(array.tobytes())
    return np.frombuffer(memory, array.dtype).reshape(array.shape), weakref.ref(memory)


@pytest.mark.parametrize("dtype", [np.float64, np.float32])
def test_memory_is_shared_both_ways(dtype):
    xyz = quarter(0).astype(dtype)
    rho = plane(xyz)
    nodes = np.zeros(xyz.shape[:3], dtype=[("p", "f8"), ("state", "f8", 3)])  # records, as solvers have them
    nodes["p"] = rho
    flow = vt.DataSet()
    block = flow.add_block("zone 1", xyz)
    block["rho"], block["p"], block["xyz"] = rho, nodes["p"], xyz
    for given, taken in ((xyz, block.points), (rho, block["rho"]), (nodes["p"], block["p"]), (xyz, block["xyz"])):
        assert np.shares_memory(given, taken) and taken.dtype == given.dtype and not taken.flags.writeable
        np.testing.assert_array_equal(given, taken)
    assert block.size == (17, 9, 5) and block.shape == (5, 9, 17) == block["rho"].shape
    with pytest.raises(ValueError):
        block["rho"][0, 0, 0] = 1.0
    rho[2, 3, 4] = 100.0
    assert block["rho"][2, 3, 4] == 100.0
    block["rho"] = rho  # says that it has changed
    assert flow.range("rho")[1] == 100.0
    surface = flow.slice("z", 0.5, fields="rho")
    surface["rho"][:] = 7.0  # nobody else's
    assert (surface["rho"] == 7.0).all() and np.shares_memory(surface.points, surface.points)


def test_views_keep_memory_and_nothing_else_does():
    xyz, points_live = watched(quarter(0))
    rho, rho_lives = watched(plane(xyz))
    flow = vt.DataSet()
    block = flow.add_block("zone 1", xyz)
    block["rho"] = rho
    block["later"] = lambda: rho * 2.0
    block.valid = valid = np.ones(rho.shape, dtype=bool)
    counts = [sys.getrefcount(array) for array in (xyz, rho, valid)]
    other = flow.copy()
    view, points, later = block["rho"], block.points, block["later"]
    surface, at = flow.contour("rho", 1.0, values=["later"]), flow.locate(xyz[0])
    assert [sys.getrefcount(array) for array in (xyz, rho, valid)] == counts  # shared by copies
    corners, values, found = surface.points, at.sample("rho"), at.found
    expected = corners.copy(), values.copy(), view.copy()
    del flow, block, other, surface, at, xyz, rho, valid
    gc.collect()
    assert points_live() is not None and rho_lives() is not None
    for one, two in zip((corners, values, view), expected):
        np.testing.assert_array_equal(one, two)
    assert found.all() and later.shape == view.shape
    del points, one, two
    gc.collect()
    assert points_live() is None and rho_lives() is not None
    del view
    gc.collect()
    assert rho_lives() is None


def test_ten_thousand_cycles_do_not_grow():
    def cycle():
        xyz = quarter(0, (5, 4, 3))
        flow = vt.DataSet()
        block = flow.add_block("zone", xyz, valid=np.ones(xyz.shape[:3], dtype=np.int32))
        block["rho"] = lambda: plane(xyz)
        surface = flow.contour("rho", 1.0)
        at = flow.locate(xyz[1])
        with pytest.raises(KeyError):
            flow.range("roh")
        return surface.points, surface.triangles, at.places, block["rho"], block.points, at.sample("rho")

    def kilobytes():
        gc.collect()
        with open("/proc/self/statm") as file:
            return int(file.read().split()[1]) * 4

    with vt.threads(1):
        for _ in range(2000):
            cycle()
        before = kilobytes()
        for _ in range(10000):
            cycle()
    # 10,000 lost arrays of points alone are 14 MB.
    assert kilobytes() - before < 6000


def layouts(shape):
    """Arrays of a shape in all layouts, and how they lie in memory."""
    values = np.arange(np.prod(shape), dtype=float).reshape(shape)
    from_bytes = lambda t, skip: np.frombuffer(b"x" * skip + values.astype(t).tobytes(), t, offset=skip).reshape(shape)
    yield "C", lambda t: values.astype(t)
    yield "Fortran", lambda t: np.asfortranarray(values.astype(t))
    yield "backward", lambda t: values.astype(t)[::-1]
    if len(shape) > 2:
        yield "every second", lambda t: np.repeat(values.astype(t), 2, axis=2)[:, :, ::2]
        yield "padded rows", lambda t: np.concatenate([values.astype(t)] * 2, axis=2)[:, :, : shape[2]]
    yield "broadcast", lambda t: np.broadcast_to(values.astype(t)[:1], shape)
    yield "unaligned", lambda t: from_bytes(t, 1) if t != "O" else values.astype(t)
    yield "read-only", lambda t: from_bytes(t, 0) if t != "O" else values.astype(t)


def test_whatever_is_given_is_taken_as_it_is_or_refused():
    shapes = [(3, 4, 5), (5, 4, 3), (3, 4, 5, 3), (3, 4, 5, 2), (3, 4, 5, 9), (3, 4, 5, 3, 3), (3, 4), (60,), (0, 4, 5), (3, 4, 5, 1)]
    types = ["f8", "f4", ">f8", ">i4", "f2", "g", "c16", "i8", "u8", "i4", "u4", "i2", "u2", "i1", "u1", "?", "U3", "O", "M8[s]"]
    flow = vt.DataSet()
    block = flow.add_uniform_block("zone", (5, 4, 3), ((0, 0, 0), (4, 3, 2)))
    taken = 0
    for shape, kind in itertools.product(shapes, types):
        for layout, make in layouts(shape):
            array = make(kind)
            numbers = array.dtype.kind in "fiub"
            fits = shape in ((3, 4, 5), (3, 4, 5, 3), (3, 4, 5, 9), (3, 4, 5, 3, 3))
            known = array.dtype.str in ("<f8", "<f4", "<i4", "<u4", "<i2", "<u2", "|u1", "<u8") if len(shape) == 3 else array.dtype.str in ("<f8", "<f4")
            lies_well = layout in ("C", "read-only", "every second")
            lies_well = lies_well or layout == "unaligned" and array.flags.aligned and array.flags.c_contiguous
            wanted = numbers and fits and known and lies_well and (len(shape) == 3 or array.dtype == "f8" or shape[3:] == (3,))
            what = f"{layout} {array.dtype} {shape}"
            try:
                block["f"] = array
                assert wanted, what
                assert np.shares_memory(block["f"], array), what
                np.testing.assert_array_equal(block["f"].reshape(array.shape), array, err_msg=what)
                taken += 1
            except ValueError as error:
                assert not wanted, f"{what}: {error}"
                assert 'field "f" of block "zone": expected an array of shape (3, 4, 5)' in str(error)
            flow = vt.DataSet()
            block = flow.add_uniform_block("zone", (5, 4, 3), ((0, 0, 0), (4, 3, 2)))
            if numbers and fits:
                block.set("f", array, copy=True)
                assert not np.shares_memory(block["f"], array)
                np.testing.assert_array_equal(block["f"].reshape(array.shape), array.astype("f8"), err_msg=what)
    assert taken > 20


@pytest.mark.parametrize(
    "change, error, text",
    [
        (lambda f, x: f.add_block("b", x[..., :2]), ValueError, "(nk, nj, ni, 3)"),
        (lambda f, x: f.add_block("b", x.astype(int)), ValueError, "int64"),
        (lambda f, x: f.add_block("b", x.tolist()), TypeError, "expected a NumPy array, got list"),
        (lambda f, x: f.add_block("b", [[1, [2]]], copy=True), ValueError, ""),
        (lambda f, x: f.add_block("b", np.ma.masked_array(x)), ValueError, "masked array"),
        (lambda f, x: f.add_block("b", None), TypeError, "NoneType"),
        (lambda f, x: f.add_block("b", lambda: x), ValueError, "needs the shape"),
        (lambda f, x: f.add_block("", x), ValueError, "without name"),
        (lambda f, x: f.add_block("a", x), ValueError, "already"),
        (lambda f, x: f.add_block("b", x, valid=np.ones((5, 9))), ValueError, 'mask of block "b"'),
        (lambda f, x: f.add_block("b", x, valid_cells=np.ones((5, 9, 17), dtype=bool)), ValueError, "17x9x5"),
        (lambda f, x: f.add_uniform_block("b", (2, 2, -2), ((0, 0, 0), (1, 1, 1))), ValueError, "negative"),
        (lambda f, x: f.add_uniform_block("b", (2, 2, 2), ((0, 0), (1, 1))), ValueError, "(2, 2)"),
        (lambda f, x: f.add_rectilinear_block("b", [0, 2, 1], [0, 1], [0, 1]), ValueError, "ascend"),
        (lambda f, x: f.add_rectilinear_block("b", [[0, 1]], [0, 1], [0, 1]), ValueError, "along an axis"),
        (lambda f, x: f.memory_budget("2 GiBit"), ValueError, "2 GiB"),
        (lambda f, x: f.memory_budget([1]), ValueError, "[1]"),
        (lambda f, x: f.memory_budget(-1), ValueError, "-1"),
        (lambda f, x: f.locate([1, 2]), ValueError, "(..., 3)"),
        (lambda f, x: f.locate("here"), ValueError, "(..., 3)"),
        (lambda f, x: f.set_joins(tolerance=0.7), ValueError, "joins"),
    ],
)
def test_a_wrong_request_changes_nothing(change, error, text):
    xyz = quarter(0)
    flow = vt.DataSet()
    flow.add_block("a", xyz)
    count = sys.getrefcount(xyz)
    with pytest.raises(error) as caught:
        change(flow, xyz)
    assert text in str(caught.value)
    del caught
    gc.collect()
    assert list(flow.blocks) == ["a"] and not flow.fields and sys.getrefcount(xyz) == count


def test_functions_make_what_is_needed_and_again_when_it_was_dropped():
    flow = vt.DataSet()
    calls = []
    for number in range(4):
        make = lambda n=number: calls.append(n) or quarter(n)
        block = flow.add_block(str(number), make, shape=(5, 9, 17))
        block["plane"] = lambda n=number: plane(quarter(n))
    assert flow.fields["plane"].blocks == 4 and not calls
    whole = flow.contour("plane", 1.0)
    assert sorted(set(calls)) == [0, 1, 2, 3]
    before = len(calls)
    np.testing.assert_array_equal(flow.contour("plane", 1.0).points, whole.points)
    assert len(calls) == before  # everything was kept
    made, lives = watched(plane(quarter(3)))
    block["made"] = [made].pop
    del made
    flow.range("made")
    assert lives() is not None
    flow.memory_budget(0)
    assert lives() is None
    flow.remove_field("made")
    flow.memory_budget(2 * quarter(0).nbytes)
    np.testing.assert_array_equal(flow.contour("plane", 1.1).points, flow.contour("plane", 1.1).points)
    assert len(calls) > before

    def fails():
        raise LookupError("not today")

    block["plane"] = fails
    for ask in (lambda: flow.contour("plane", 1.0), lambda: flow.locate([[1.5, -0.1, 0.5]]).sample("plane"), lambda: block["plane"],
                lambda: flow.range("magnitude(gradient(plane))"), lambda: flow.resample((9, 9, 9), fields="plane")):  # fmt: skip
        with pytest.raises(LookupError, match="not today"):
            ask()
    for each in flow.blocks.values():  # what a field is, too, is not known then
        each["unknown"] = fails
    for ask in (lambda: flow.magnitude("unknown"), lambda: flow.resample((9, 9, 9), fields="unknown"), lambda: flow.slice("z", 0.5, fields="unknown")):
        with pytest.raises(LookupError, match="not today"):
            ask()
    flow.remove_field("unknown")
    block["plane"] = lambda: np.zeros((2, 2, 2))
    with pytest.raises(ValueError, match='field "plane" of block "3": expected an array of shape'):
        flow.locate([[1.5, 0.1, 0.5]]).sample("plane"), flow.range("plane")
    block["plane"] = lambda: plane(quarter(3))
    np.testing.assert_array_equal(flow.contour("plane", 1.0).points, whole.points)


def test_what_fails_keeps_no_data_set_alive():
    def ask():  # of which the traceback knows, and so of the data set
        flow = vt.DataSet()
        for n in range(4):
            points, lives = watched(quarter(n))
            flow.add_block(str(n), points)["rho"] = lambda: 1 / 0
        with pytest.raises(ZeroDivisionError):
            flow.range("rho")
        return lives

    lives = ask()
    vt.DataSet().bounds
    gc.collect()
    assert lives() is None
