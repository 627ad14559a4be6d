"""Blocks dealt to the ranks of MPI give what one process with all of them gives, bit for bit. Run by mpirun with several
numbers of ranks: each rank asks both, and compares for itself."""

import gc
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import threading

import numpy as np
import pytest

pytest.importorskip("mpi4py", reason="mpi4py is not installed")
from mpi4py import MPI  # noqa: E402

import vantle as vt  # noqa: E402
from conftest import make_ring  # noqa: E402

COMM = MPI.COMM_WORLD
RANK, RANKS = COMM.rank, COMM.size
LAST = RANKS - 1


def owner(block):
    """Rank 0 has no block, unless it is alone."""
    return 1 + block % (RANKS - 1) if RANKS > 1 else 0


def deal(whole):
    """This rank's blocks of a data set, with all fields, and their numbers."""
    mine, numbers = vt.DataSet(), [n for n in range(len(whole.blocks)) if owner(n) == RANK]
    for n in numbers:
        block = list(whole.blocks.values())[n]
        there = mine.add_block(block.name, block.points)
        for field in whole.fields:
            there[field] = block[field]
    return mine, numbers


@pytest.fixture
def ring():
    return make_ring((25, 13, 9))


@pytest.fixture
def many(ring):
    mine, numbers = deal(ring)
    return vt.ParallelDataSet(COMM, mine, numbers=np.array(numbers, dtype=int))


def same(a, b):
    assert a.dtype == b.dtype and a.shape == b.shape and a.tobytes() == b.tobytes()


def check_surface(made, whole):
    """Pieces by their numbers, and all together on the last rank."""
    assert (made.point_count, made.triangle_count) == (len(whole.points), len(whole.triangles)) and len(whole.points) > 0
    same(made.piece.points, whole.points[made.numbers])
    assert COMM.allreduce(int(made.is_own.sum())) == made.point_count
    together = made.gather(LAST)
    assert together.is_empty == (RANK != LAST)
    if RANK == LAST:
        same(together.points, whole.points)
        same(together.triangles, whole.triangles)
        assert together.names == whole.names
        for name in whole.names:
            same(together[name], whole[name])


def test_surfaces_and_what_is_known_are_those_of_one_process(ring, many):
    assert list(many.blocks) == list(ring.blocks) and list(many.fields) == list(ring.fields) and "plane" in many
    assert [block.rank for block in many.blocks.values()] == [owner(n) for n in range(4)]
    same(many.bounds, ring.bounds)
    assert many.range("plane") == ring.range("plane") and many.joins == ring.joins and len(many.joins) == 4
    values = ["plane", "velocity", "gradient(radius)"]
    check_surface(many.contour("radius", 1.5, values=values, normals=True), ring.contour("radius", 1.5, values=values, normals=True))
    for a, b in zip(many.contours("plane", [0.0, 2.0]), ring.contours("plane", [0.0, 2.0])):
        check_surface(a, b)
    check_surface(many.slice((0, 1, 1), origin=(0, 0, 0.5), fields="plane"), ring.slice((0, 1, 1), origin=(0, 0, 0.5), fields="plane"))
    check_surface(many.slice("k", 3, block="quarter 2", fields="plane"), ring.slice("k", 3, block="quarter 2", fields="plane"))
    check_surface(many.boundary("radius"), ring.boundary("radius"))
    steep = many.magnitude(many.gradient("plane")), sum(ring.range("magnitude(gradient(plane))")) / 2
    check_surface(many.threshold(*steep).boundary("radius"), ring.threshold(*steep).boundary("radius"))
    for name in (many.gradient("plane"), many.magnitude(many.vorticity("velocity")), many.q_criterion("velocity"), many.divergence("velocity")):
        for block in many.blocks.values():
            if block.rank == RANK:
                same(block[name], ring.block(block.name)[name])
            else:
                with pytest.raises(ValueError, match=f"is on rank {block.rank}"):
                    block[name]
    folder = pathlib.Path(COMM.bcast(tempfile.mkdtemp() if RANK == 0 else None))
    many.contour("radius", 1.5).save(folder / "radius.pvtp")
    many.save(folder / "ring.vtm", fields=["plane"])
    assert (folder / "ring.vtm").read_text().count("<DataSet ") == 4 and (folder / f"radius_{RANK}.vtp").exists()
    COMM.Barrier()
    if RANK == 0:
        shutil.rmtree(folder)
    assert many.traffic.rounds > 0 and (many.traffic.bytes_sent > 0) == (RANKS > 1)


def test_values_elsewhere_are_those_of_one_process(ring, many, fin):
    positions = np.random.default_rng(RANK).uniform(-2, 2, (RANK * 700 if RANKS > 1 else 700, 2, 3))
    ours, theirs = many.locate(positions), ring.locate(positions)
    same(ours.blocks, theirs.blocks)
    same(ours.places, theirs.places)
    assert ours.found.shape == positions.shape[:2] and len(ours) == 2 * len(positions)
    for field in ("plane", "velocity", many.gradient("velocity")):
        same(ours.sample(field, outside=-3.0), theirs.sample(field, outside=-3.0))
    masked = ours.sample("velocity", masked=True)
    same(masked.mask, theirs.sample("velocity", masked=True).mask)
    for root in (None, LAST):
        image, whole = many.resample((20, 21, 8), fields=["plane", "velocity"], root=root), ring.resample((20, 21, 8), fields=["plane", "velocity"])
        assert COMM.allreduce(image.layers) == 8 and (root is None or image.layers == (8 if RANK == root else 0))
        for field in ("plane", "velocity") if image.layers else ():
            same(image[field], whole[field][image.first:image.first + image.layers])
    flow, alone = vt.ParallelDataSet.read(COMM, *fin, memory="100 MiB"), vt.read(*fin)
    check_surface(flow.contour("density", 2.0, values="momentum"), alone.contour("density", 2.0, values="momentum"))


def test_what_one_rank_cannot_do_no_rank_does(ring, many):
    def expect(own, others, text, ask):
        """The last rank gets its own exception, all others one that names it."""
        with pytest.raises(own if RANK == LAST else others, match=text if RANK == LAST else f"^rank {LAST}: .*{text}"):
            ask()

    only = lambda what, other: what if RANK == LAST else other  # noqa: E731
    mine, numbers = deal(ring)
    expect(ZeroDivisionError, ValueError, "division", lambda: vt.ParallelDataSet(COMM, only(lambda: 1 / 0, lambda: mine)))
    expect(TypeError, ValueError, "expected a DataSet", lambda: vt.ParallelDataSet(COMM, only("blocks", mine)))
    expect(ValueError, ValueError, "5 numbers for", lambda: vt.ParallelDataSet(COMM, mine, numbers=only(range(5), numbers)))
    expect(ValueError, ValueError, "positions", lambda: many.locate(only([1, 2], [[0, 0, 0]])))
    for block in many.local.blocks.values():
        mine.block(block.name)["late"] = lambda: {}["gone"]
    lazy = vt.ParallelDataSet(COMM, mine, numbers=numbers)
    with pytest.raises(KeyError if RANK == owner(0) else ValueError, match="gone"):
        lazy.range("late")
    for ask in (lambda: many.contour("plain", 1.0), lambda: many.locate([[0, 0, 0]]).sample("plain"), lambda: many.block("quartet 1")):
        with pytest.raises(vt.UnknownName, match="there are"):
            ask()
    with pytest.raises(OSError, match="^rank 0: .*missing.xyz"):
        vt.ParallelDataSet.read(COMM, "missing.xyz")
    with pytest.raises(MemoryError, match="^rank 0: resampling"):
        many.resample((10**6, 10**6, 1000), fields="plane")

    # One layer at a time, and of these very many where somebody interrupts.
    slow = vt.ParallelDataSet(COMM, deal(ring)[0], numbers=numbers, budget=1000)
    image = lambda progress=None, layers=40: slow.resample((4, 4, layers), fields="plane", root=0, progress=progress)  # noqa: E731
    shares, whole = [], image()
    image(shares.append)
    assert shares == sorted(shares) and len(shares) > (20 if RANK == 0 else 0)
    with pytest.raises(vt.Cancelled):
        image(lambda share: RANK != 0 or share < 0.5)
    for own, text, progress in ((RuntimeError, "at work", lambda share: slow.range("plane")), (TypeError, "progress", 3)):
        with pytest.raises(own if RANK == 0 else vt.Cancelled, match=text if RANK == 0 else f"^rank 0: .*{text}"):
            image(progress if RANK == 0 else None)
    timer = threading.Timer(0.1, os.kill, (os.getpid(), signal.SIGINT))
    with pytest.raises(KeyboardInterrupt if RANK == 0 else vt.Cancelled, match="" if RANK == 0 else "^rank 0: .*KeyboardInterrupt"):
        if RANK == 0:
            timer.start()
        image(layers=10**6)  # some seconds, without it
    again = image()
    assert again.layers == whole.layers and (RANK > 0 or again["plane"].tobytes() == whole["plane"].tobytes())


def test_communicators_and_what_lives_longer(ring, many):
    for wrong, error in ((None, TypeError), (7, TypeError), (MPI.COMM_NULL, ValueError)):
        with pytest.raises(error, match="comm: "):
            vt.ParallelDataSet(wrong, ring)
    alone = COMM.Split(RANK)
    if RANKS > 1:
        between = COMM.Split(min(RANK, 1)).Create_intercomm(0, COMM, 1 if RANK == 0 else 0)
        with pytest.raises(ValueError, match="comm: .*two groups"):
            vt.ParallelDataSet(between, ring)
    flow = vt.ParallelDataSet(alone, ring)
    alone.Free()
    numbers, places = flow.contour("radius", 1.5).numbers, flow.locate([[1.5, 0, 0.5]]).places
    assert flow.ranks == 1 and not numbers.flags.writeable and not places.flags.writeable
    del flow
    gc.collect()
    np.testing.assert_array_equal(np.sort(numbers), np.arange(len(numbers)))
    np.testing.assert_allclose(places[0], [0, 6, 4], atol=1e-12)
    ring.add_time(2.0, make_ring((5, 5, 5)))
    later = vt.ParallelDataSet(COMM, lambda: ring if RANK == LAST else vt.DataSet()).at_time(3.0)
    assert later.times == [0.0, 2.0] and later.time == 2.0 and later.block("quarter 1").size == (5, 5, 5)
    lines = []
    vt.messages(lines.append)
    try:
        many.locate(ring.bounds)
    finally:
        vt.messages(None)
    heard = len(lines)
    vt.ParallelDataSet(COMM, deal(ring)[0]).locate(ring.bounds)
    assert COMM.allreduce(heard) > 0 and len(lines) == heard
    assert f"rank {RANK} of {RANKS}, 4 blocks" in repr(many) and f"quarter 3</td><td>25 × 13 × 9</td><td>curvilinear</td><td>{owner(3)}" in many._repr_html_()


@pytest.mark.skipif(RANKS > 1, reason="about one process")
def test_mpi_is_loaded_when_it_is_asked_for():
    alone = {name: value for name, value in os.environ.items() if not name.startswith(("OMPI_", "PMIX_", "ORTE_"))}

    def say(script):
        done = subprocess.run([sys.executable, "-c", "import sys, vantle as vt\n" + script], env=alone, capture_output=True, text=True, timeout=100)
        return done.stdout + done.stderr

    assert say("print('mpi4py' in sys.modules, 'libmpi' in open('/proc/self/maps').read())") == "False False\n"
    assert "ImportError: vantle.ParallelDataSet needs mpi4py" in say("sys.modules['mpi4py'] = None; vt.ParallelDataSet")
    assert "ImportError: vantle.ParallelDataSet is not installed" in say("sys.modules['vantle._parallel'] = None; vt.ParallelDataSet")
    assert "ImportError: vantle was built for another MPI" in say("from mpi4py import MPI; MPI.Get_library_version = lambda: 'Other'; vt.ParallelDataSet")
    over = "RuntimeError: MPI is not initialised, or finalised"
    assert over in say("import mpi4py; mpi4py.rc.initialize = False; from mpi4py import MPI; vt.ParallelDataSet(MPI.COMM_WORLD, vt.DataSet())")
    assert over in say("from mpi4py import MPI; flow = vt.ParallelDataSet(MPI.COMM_WORLD, vt.DataSet()); MPI.Finalize(); flow.joins")
    assert "AttributeError: module 'vantle' has no attribute 'ParallelData'" in say("vt.ParallelData")
