"""The flow of the tour with its blocks dealt to the ranks of MPI: surface, values, image and derived fields, as in one process.

usage: mpirun -n 4 python3 -m mpi4py parallel_tour.py [GRID.xyz SOLUTION.q ...]

Without files: the flow past a cylinder, in eight blocks that make a ring. Leaves surface.pvtp and its pieces, one a rank,
and surface.png. With -m mpi4py a rank that fails on its own ends the others, too.
"""

import pathlib
import sys

import numpy as np
from mpi4py import MPI

import vantle as vt

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
from tour import add_sector  # noqa: E402


def cylinder_flow(comm, blocks=8):
    """Each rank makes every n-th block; the numbers say where these are among all, whoever has them."""
    mine, numbers = vt.DataSet(), range(comm.rank, blocks, comm.size)
    for number in numbers:
        add_sector(mine, number, blocks)
    return vt.ParallelDataSet(comm, mine, numbers=numbers)


def main():
    comm, files = MPI.COMM_WORLD, sys.argv[1:]
    say = print if comm.rank == 0 else lambda *what: None
    flow = vt.ParallelDataSet.read(comm, *files, memory="2 GiB") if files else cylinder_flow(comm)
    scalars = [name for name, info in flow.fields.items() if info.components == 1]
    field = "pressure" if "pressure" in scalars else scalars[0]
    color = next((name for name in scalars if name != field), field)
    low, high = flow.range(field)
    say(f"{len(flow.blocks)} blocks on {flow.ranks} ranks, {len(flow.joins)} joined faces; {field} from {low:.6g} to {high:.6g}")

    level = (low + high) / 2 if files else -0.6
    surface = flow.contour(field, level, values=[color], normals=True)
    surface.save("surface.pvtp")
    whole = surface.gather(0)  # elsewhere it is empty
    say(f"{field} = {level:.6g}: {surface.point_count} points, {surface.triangle_count} triangles")

    # Each rank asks for positions of its own, and gets its own layers of an image.
    (x, y, z), (far, side, top) = flow.bounds
    span = np.linspace(0, 1, 1001)[:, None]
    height = z + (comm.rank + 0.5) / comm.size * (top - z)
    at = flow.locate((1 - span) * (x, y, height) + span * (far, y + 0.75 * (side - y), height))
    found = comm.reduce(int(at.found.sum()))
    values = np.concatenate(comm.allgather(at.sample(field)[at.found]))
    say(f"{found} of {1001 * flow.ranks} positions found, on which it is {values.mean():.6g} on average")
    image = flow.resample((80, 80, 50), fields=[field])
    inside = comm.reduce(int(np.isfinite(image[field]).sum()) if image.layers else 0)
    say(f"{inside} of {80 * 80 * 50} positions of an image are inside")

    # Derived across the joins of blocks, wherever these are.
    if "velocity" in flow:
        for derived in (flow.divergence("velocity"), flow.magnitude(flow.vorticity("velocity")), flow.q_criterion("velocity")):
            say("{} from {:.3g} to {:.3g}".format(derived, *flow.range(derived)))

    if comm.rank == 0:
        whole.plot("surface.png", color=color, title=f"{field} = {level:.6g}")
        print("surface.png: a picture of it")
    say(flow.traffic)


if __name__ == "__main__":
    main()
