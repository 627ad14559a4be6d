"""A short walk over the library by way of Python: a flow, a surface, a uniform grid, files and pictures of them.

Without files the potential flow past a cylinder, stretched along its axis, in eight blocks that make a ring; else a
PLOT3D grid and its solutions.
"""

import argparse
import os
import pathlib
import sys
import time

import numpy as np

import vantle as vt

STRAIN = 0.12


def velocity(p):
    """Uniform flow along x past a cylinder of radius 1 about z, drawn out along z; without divergence and vorticity."""
    plane = p[..., 0] + 1j * p[..., 1]
    plane = 1 - 1 / plane**2 + STRAIN / plane
    x, y, z = np.moveaxis(STRAIN * p, -1, 0)
    return np.stack([plane.real - x, -plane.imag - y, 2 * z], axis=-1)


def potential(p):
    squared = p[..., 0] ** 2 + p[..., 1] ** 2
    return p[..., 0] + p[..., 0] / squared + STRAIN * (p[..., 2] ** 2 - squared / 2 + np.log(squared) / 2)


def add_sector(flow, number, blocks=8, around=16, across=32, along=24):
    """Adds a block of the ring around the cylinder; its cells shrink towards the wall, and are twisted in between."""
    k, j, i = np.meshgrid(np.arange(along + 1), np.arange(across + 1), np.arange(around + 1), indexing="ij")
    middle = np.where((j > 0) & (j < across), np.sin(np.pi * j / across), 0.0)
    twist = 0.12 * middle * np.cos(np.pi * k / along)
    height = k / along + np.where((k > 0) & (k < along), 0.06 * middle * np.sin(2 * np.pi * k / along), 0.0)
    radius = 4.0 ** (j / across)
    # The last vertices around are the first ones: equal angles, whose coordinates are equal in every bit.
    angle = 2 * np.pi * ((number * around + i) % (blocks * around)) / (blocks * around) + twist
    points = np.stack([radius * np.cos(angle), radius * np.sin(angle), 2.5 * height], axis=-1)
    block = flow.add_block(f"sector{number + 1}", points)
    block["velocity"] = velocity(points)
    block["pressure"] = 1 - (velocity(points) ** 2).sum(axis=-1)
    block["potential"] = potential(points)


def cylinder_flow(blocks=8):
    flow = vt.DataSet()
    for number in range(blocks):
        add_sector(flow, number, blocks)
    return flow


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("files", nargs="*", metavar="FILE", help="a PLOT3D grid, and its solutions and functions")
    parser.add_argument("--field", help="the scalar field to look at")
    parser.add_argument("--level", type=float, help="the value on the surface")
    parser.add_argument("--resolution", type=int, default=80, help="positions of the image along its longest axis")
    parser.add_argument("--output", type=pathlib.Path, default="tour-output", help="folder for files and pictures")
    given = parser.parse_args()
    given.output.mkdir(parents=True, exist_ok=True)
    began = time.perf_counter()

    def done(what, about):
        nonlocal began
        now = time.perf_counter()
        print(f"  {what:<14}{about:<64}{1000 * (now - began):8.0f} ms")
        began = time.perf_counter()

    flow = vt.read(*given.files) if given.files else cylinder_flow()
    scalars = [name for name, info in flow.fields.items() if info.components == 1]
    field = given.field or ("pressure" if not given.files else scalars[0])
    other = next((name for name in ("potential", "speed", *scalars) if name in scalars and name != field), field)
    low, high = flow.range(field)
    level = given.level if given.level is not None else -0.6 if not given.files else (low + high) / 2
    vertices = sum(int(np.prod(block.size)) for block in flow.blocks.values())
    print(f"{len(flow.blocks)} blocks, {vertices} vertices, {len(flow.joins)} joined faces; {', '.join(flow.fields)}")
    done("read" if given.files else "made", f"{field} from {low:.6g} to {high:.6g}")

    surface = flow.contour(field, level, values=[other], normals=True)
    border = "closed" if surface.is_closed else "open"
    done("contour", f"{field} = {level:.6g}: {len(surface.triangles)} triangles, {border}")
    surface.save(given.output / "surface.vtp")
    done("surface.vtp", f"the surface, with {other} and normals")
    if not surface.is_empty:
        surface.plot(given.output / "surface.png", color=other, title=f"{field} = {level:.6g}")
        done("surface.png", "a picture of it")

    extent = np.diff(flow.bounds, axis=0)[0]
    size = np.maximum(2, np.rint(given.resolution * extent / extent.max())).astype(int).tolist()
    image = flow.resample(size, fields=[field])
    there = np.isfinite(image[field])
    done("resampled", f"{' x '.join(map(str, size))} positions, {there.sum()} of them inside")
    if not given.files:
        speed = velocity(image.block("image").points[there])
        wrong = np.abs(image[field][there] - 1 + (speed**2).sum(axis=-1)) if field == "pressure" else np.zeros(1)
        print(f"{'':16}off by at most {wrong.max():.3g}, {wrong.mean():.3g} on average")
        began = time.perf_counter()
    image.save(given.output / "uniform.vti")
    done("uniform.vti", field)
    image.plot(field, given.output / "slice.png")
    done("slice.png", "a picture of its middle")
    if "velocity" in flow.fields:
        spin = flow.magnitude(flow.vorticity("velocity"))
        for derived in (flow.divergence("velocity"), spin, flow.q_criterion("velocity")):
            least, greatest = flow.range(derived)
            done("derived", f"{derived} from {least:.3g} to {greatest:.3g}")


if __name__ == "__main__":
    try:
        main()
    except (OSError, ValueError, KeyError) as problem:
        sys.exit(f"{os.path.basename(sys.argv[0])}: {problem}")
