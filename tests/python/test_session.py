"""Requests as people make them: values against NumPy, errors, progress, threads, child processes, the end."""

import logging
import multiprocessing
import os
import signal
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import vantle as vt
from conftest import make_ring, plane, quarter, swirl


def test_answers_are_those_of_numpy(ring):
    random = np.random.default_rng(1)
    angle, radius = random.uniform(0, 2 * np.pi, (40, 25)), random.uniform(0.2, 2.5, (40, 25))
    points = np.stack([radius * np.cos(angle), radius * np.sin(angle), random.uniform(0.01, 0.99, (40, 25))], axis=-1)
    at = ring.locate(points)
    inside, outside = (radius > 1.0) & (radius < 1.99), (radius < 0.99) | (radius > 2.0)
    assert len(at) == 1000 and at.found[inside].all() and not at.found[outside].any()
    rho, velocity = at.sample("plane"), at.sample("velocity")
    np.testing.assert_allclose(rho[at.found], plane(points)[at.found], atol=1e-12)
    np.testing.assert_allclose(velocity[at.found], swirl(points)[at.found], atol=1e-12)
    assert np.isnan(rho[~at.found]).all() and (at.sample("plane", outside=-7.0)[~at.found] == -7.0).all()
    masked = at.sample("velocity", masked=True)
    assert masked.shape == (40, 25, 3) and (masked.mask == ~at.found[..., None]).all()
    block, place = at.blocks[at.found][0], at.places[at.found][0]
    corner = list(ring.blocks.values())[block].points[tuple(int(n) for n in place[::-1])]
    assert np.linalg.norm(corner - points[at.found][0]) < 0.4  # within a cell of there

    # A gradient is a vector of numbers; that of a vector is [m, c]: component c along axis m.
    assert ring.gradient("plane") == "gradient(plane)"
    np.testing.assert_allclose(ring.block("quarter 1")["gradient(plane)"], np.broadcast_to([2, -3, 0.5], (5, 9, 17, 3)), atol=1e-10)
    tensor = at.sample(ring.gradient("velocity"))[at.found]
    np.testing.assert_allclose(tensor, np.broadcast_to([[0, 1.5, 0], [-1.5, 0, 0], [0, 0, 0.25]], tensor.shape), atol=1e-10)
    assert ring.range(ring.divergence("velocity")) == pytest.approx((0.25, 0.25))

    image = ring.resample((32, 24, 8), bounds=((-1, -1, 0.1), (2, 2, 0.9)), fields="plane")
    assert image["plane"].shape == (8, 24, 32) and list(image.blocks) == ["image"]
    there = image.block("image")
    np.testing.assert_allclose(image["plane"][there.valid], plane(there.points)[there.valid], atol=1e-12)
    assert np.isnan(image["plane"][~there.valid]).all()
    for axis, n, low, high in zip(there.axes, (32, 24, 8), (-1, -1, 0.1), (2, 2, 0.9)):
        np.testing.assert_allclose(axis, np.linspace(low, high, n), rtol=1e-14)

    both = ring.contour("radius", [1.3, 1.7], values=["plane", "velocity"], normals=True)
    each = ring.contours("radius", np.array([1.3, 1.7]), values="plane")
    np.testing.assert_array_equal(ring.contour("radius", np.array(1.3)).points, each[0].points)
    np.testing.assert_array_equal(both.points, np.concatenate([each[0].points, each[1].points]))
    np.testing.assert_array_equal(both.triangles[len(each[0].triangles):], each[1].triangles + len(each[0].points))
    np.testing.assert_allclose(both["plane"], plane(both.points), atol=1e-12)
    assert both["velocity"].shape == both.points.shape and "radius" not in both
    outward = (both.normals[:, :2] * both.points[:, :2]).sum(axis=1) / np.hypot(*both.points[:, :2].T)
    assert outward.min() > 0.99 and not both.is_closed
    hull = ring.boundary("plane")
    assert hull.is_closed and vt.Surface().is_empty and ring.contour("radius", 9.0).is_empty
    part = ring.threshold("radius", 1.2, 1.6)
    assert part.range("radius")[1] <= 1.6 < ring.range("radius")[1] and (~part.block("quarter 0").valid).any()
    tilted = ring.slice((0, 1, 1), origin=(0, 0, 0.5), fields=["plane"])
    np.testing.assert_allclose(tilted.points[:, 1] + tilted.points[:, 2], 0.5, atol=1e-12)

    layer = ring.slice("j", 8, block="quarter 2", fields="plane")
    np.testing.assert_allclose(np.hypot(*layer.points[:, :2].T), 2.0)
    np.testing.assert_array_equal(np.sort(layer["plane"]), np.sort(ring.block("quarter 2")["plane"][:, 8].ravel()))

    assert "plane" in ring and "rho" not in ring and "plane" in ring.block("quarter 1")
    assert ring.known_joins is not None and len(ring.joins) == 4
    join = ring.joins[0]
    assert (join.first, join.second, join.low, join.high) == (("quarter 0", "imin"), ("quarter 3", "imax"), (0, 0, 0), (0, 8, 4))
    np.testing.assert_allclose(ring.bounds, [[-2, -2, 0], [2, 2, 1]], atol=1e-15)

    later = ring.copy()
    for block in later.blocks.values():
        block["plane"] = block["plane"] + 10.0
    ring.add_time(2.0, later)
    assert ring.times == [0.0, 2.0] and at.at_time(0.0).found.sum() == at.found.sum()
    np.testing.assert_allclose(ring.locate(points).at_time(3.0).sample("plane")[at.found], rho[at.found] + 10.0)


def test_errors_are_pythons_own(ring, tmp_path):
    with pytest.raises(KeyError, match='^no field "plain"; there are: "plane"') as caught:
        ring.contour("plain", 0.0)
    assert isinstance(caught.value, vt.UnknownName)
    for ask in (lambda: ring.block("quartet 2"), lambda: ring.boundary()["rho"], lambda: ring.resample((2, 2, 2), fields=["rho"])):
        with pytest.raises(KeyError, match="there are"):
            ask()
    for ask in (lambda: ring.range("velocity"), lambda: ring["plane"], lambda: ring.slice("w"), lambda: ring.slice("j", 0.5, block="quarter 1"), lambda: ring.slice((0, 0, 0)),
                lambda: ring.at_time(-1), lambda: ring.contour("plane", np.nan), lambda: vt.threads(0), lambda: vt.read()):  # fmt: skip
        with pytest.raises(ValueError):
            ask()
    for ask in (lambda: ring.contour("plane", "high"), lambda: ring.contour(3, 4), lambda: ring.locate([[0, 0, 0]], progress=3), lambda: vt.messages(3.5)):
        with pytest.raises(TypeError):
            ask()
    with pytest.raises(MemoryError, match="resampling"):
        ring.resample((10**6, 10**6, 1000), fields="plane")
    missing = str(tmp_path / "missing.xyz")
    with pytest.raises(FileNotFoundError) as failure:
        vt.read(missing)
    assert failure.value.filename == missing
    (tmp_path / "nonsense.xyz").write_bytes(b"\x01\x02\x03" * 50)
    with pytest.raises(OSError) as failure:
        vt.read(tmp_path / "nonsense.xyz")
    assert failure.value.filename.endswith("nonsense.xyz") and not isinstance(failure.value, FileNotFoundError)
    with pytest.raises(OSError):
        ring.save(tmp_path / "no folder" / "ring.vtm")


def test_files_are_read_when_they_are_needed(fin, tmp_path):
    flow = vt.read(*fin, memory="1 MiB")
    assert list(flow.blocks) == ["block1"] and flow.block("block1").size == (40, 32, 32)
    # Read plainly: three extents, four numbers, five fields, all big-endian.
    raw = np.fromfile(fin[1], ">f4", offset=28)[: 5 * 40 * 32 * 32].reshape(5, 32, 32, 40)
    np.testing.assert_array_equal(flow["density"], raw[0])
    np.testing.assert_array_equal(flow["momentum"], np.moveaxis(raw[1:4], 0, -1))
    surface = flow.contour("density", 2.0, values=["pressure"])
    surface.save(tmp_path / "shock.vtp")
    flow.save(tmp_path / "fin.vts", fields=["density"], progress=lambda share: None)
    assert (tmp_path / "shock.vtp").stat().st_size > 10000
    with pytest.raises(ValueError, match="float32"):
        vt.read(*fin, scalar="float16")


class Bar:
    """As tqdm is."""

    def __init__(self, total):
        self.total, self.n = total, 0.0

    def update(self, n):
        self.n += n


def test_progress_is_told_and_ends_what_it_says(ring):
    points = np.random.default_rng(2).uniform(-2, 2, (200000, 3))
    shares = []
    whole = ring.locate(points, progress=shares.append)
    assert shares == sorted(shares) and shares[-1] == 1.0 and len(shares) > 3
    for bar in (Bar(200), Bar(None)):
        ring.locate(points, progress=bar)
        assert bar.n == pytest.approx(bar.total)
    for count in (0, 1, 3):
        told = iter(range(count))
        with pytest.raises(vt.Cancelled):
            ring.locate(points, progress=lambda share: next(told, None) is not None)
    with pytest.raises(ZeroDivisionError):
        ring.contour("plane", 1.0, progress=lambda share: 1 / 0)
    np.testing.assert_array_equal(ring.locate(points).blocks, whole.blocks)


def test_an_interrupt_ends_what_takes_long():
    flow = make_ring((33, 33, 33))
    points = np.random.default_rng(3).uniform(-1.5, 1.5, (3000000, 3))
    flow.locate(points[:10])
    begin, waited = time.process_time(), time.perf_counter()
    flow.locate(points)
    whole, waited = time.process_time() - begin, time.perf_counter() - waited
    timer = threading.Timer(0.1 * waited, os.kill, (os.getpid(), signal.SIGINT))
    begin = time.process_time()
    with pytest.raises(KeyboardInterrupt):
        timer.start()
        flow.locate(points)
    assert time.process_time() - begin < 0.7 * whole
    assert flow.locate(points[:1000]).found.any()


def test_threads_ask_while_others_change(ring):
    expected = ring.contour("plane", 1.0, values=["magnitude(velocity)"])
    fresh = [make_ring() for _ in range(3)]
    asked = []

    def slow(n):
        asked.append(threading.get_ident())
        time.sleep(0.001)
        return plane(quarter(n))

    for flow in fresh:
        for n, block in enumerate(flow.blocks.values()):
            block["plane"] = lambda n=n: slow(n)
    wrong = []

    def work(number):
        for turn in range(20):
            with vt.threads(1 + number % 2):
                made = fresh[turn % 3].contour("plane", 1.0, values=["magnitude(velocity)"])
                if not np.array_equal(made.points, expected.points):
                    wrong.append((number, turn))

    threads = [threading.Thread(target=work, args=(n,)) for n in range(4)]
    for thread in threads:
        thread.start()
    for turn in range(50):
        for flow in fresh:
            flow.block("quarter 0")[f"other {turn % 5}"] = plane(quarter(0))
    for thread in threads:
        thread.join(120)
    assert not wrong and not any(thread.is_alive() for thread in threads) and asked
    before, alone = vt.thread_count(), vt.threads(1)
    with alone:
        with alone:
            pass
        assert vt.thread_count() == 1
    assert vt.thread_count() == before

    flow, steps = vt.DataSet(), [vt.DataSet(), vt.DataSet()]  # whose blocks change their size
    for each, n in ((flow, 3), (steps[0], 3), (steps[1], 60)):
        each.add_uniform_block("box", (n, n, n), ((0, 0, 0), (1, 1, 1)))
    changing = threading.Thread(target=lambda: [flow.add_time(0.0, steps[n % 2]) for n in range(100000)])
    interval = sys.getswitchinterval()
    sys.setswitchinterval(1e-6)
    changing.start()
    while changing.is_alive():
        assert (flow.block("box").points[-1, -1, -1] == 1.0).all()
    sys.setswitchinterval(interval)


def _in_child(flow, points, pipe):
    with vt.threads(4):
        at = flow.locate(points)
        pipe.send((vt.thread_count(), at.sample("plane"), flow.contour("radius", 1.5).points.copy(), flow.range("magnitude(velocity)")))


def test_a_child_process_works_after_its_parents_teams():
    flow = make_ring((49, 49, 49))
    points = np.random.default_rng(4).uniform(-2, 2, (100000, 3))
    with vt.threads(4):
        expected = flow.locate(points).sample("plane"), flow.contour("radius", 1.5).points
    context = multiprocessing.get_context("fork")
    ours, theirs = context.Pipe()
    child = context.Process(target=_in_child, args=(flow, points, theirs))
    child.start()
    assert ours.poll(90), "the child waits for ever"
    threads, values, corners, _ = ours.recv()
    child.join(10)
    assert child.exitcode == 0 and threads == 1
    np.testing.assert_array_equal(values, expected[0])
    np.testing.assert_array_equal(corners, expected[1])


def test_messages_go_to_logging_on_the_thread_that_asks(ring, caplog, capfd):
    ring.contour("plane", 1.0)
    vt.messages("flow")
    try:
        with caplog.at_level(logging.INFO, "flow"):
            ring.contour("plane", 1.0)
    finally:
        vt.messages(None)
    lines = caplog.records
    assert any("ISOSURFACE" in record.getMessage() for record in lines)
    assert {record.thread for record in lines} == {threading.get_ident()}
    ring.contour("plane", 1.0)
    assert len(caplog.records) == len(lines) and capfd.readouterr().out == ""

    def interrupted(line):
        raise KeyboardInterrupt

    with pytest.raises(KeyboardInterrupt):
        vt.messages(interrupted)
        ring.contour("plane", 1.0)
        time.sleep(1)
    vt.messages(None)


def test_the_interpreter_ends_with_everything_alive():
    script = """
import sys, threading, numpy as np, vantle as vt
sys.path.insert(0, {folder!r})
from conftest import make_ring, plane, quarter
flow = make_ring()
flow.block("quarter 1")["plane"] = lambda: plane(quarter(1))
class Last:
    def __call__(self): return plane(quarter(2))
    def __del__(self): flow.range("plane") if flow else None
flow.block("quarter 2")["plane"] = Last()
surface, view, at = flow.contour("plane", 1.0), flow.block("quarter 1")["plane"], flow.locate([[1.5, 0, 0.5]])
vt.messages(lambda line: None)
sys.modules["kept"] = surface.points
threading.Thread(target=lambda: [flow.contour("plane", 1.0) for _ in range(10**6)], daemon=True).start()
print("done")
"""
    done = subprocess.run([sys.executable, "-c", script.format(folder=os.path.dirname(__file__))], capture_output=True, text=True, timeout=100)
    assert (done.returncode, done.stdout, done.stderr) == (0, "done\n", "")
