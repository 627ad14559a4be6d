"""Quick pictures by matplotlib: surfaces, shaded and coloured, and slices."""

import os
from typing import TYPE_CHECKING, Any, Optional, Tuple, Union

import numpy as np

from ._vantle import DataSet, Surface

if TYPE_CHECKING:
    from matplotlib.figure import Figure

_AXES = ("x", "y", "z")


def _figure(size: Tuple[float, float]) -> "Figure":
    try:
        from matplotlib.backends.backend_agg import FigureCanvasAgg
        from matplotlib.figure import Figure
    except ImportError as missing:
        raise ImportError("plot needs matplotlib, which is not installed (Debian: python3-matplotlib)") from missing
    figure = Figure(figsize=size, layout="constrained")
    FigureCanvasAgg(figure)
    return figure


def _values(surface: Surface, name: Optional[str]) -> Tuple[Optional[str], Optional[Any]]:
    """What the surface is coloured by: the value of a name, or the first scalar there is."""
    names = [name] if name else [other for other in surface.names if surface[other].ndim == 1]
    if not names:
        return None, None
    values = surface[names[0]]
    if values.ndim == 2:
        return f"|{names[0]}|", np.linalg.norm(values, axis=1)
    if values.ndim != 1:
        raise ValueError(f'plot: value "{names[0]}" is neither a scalar nor a vector')
    return names[0], values


def _flat_axis(points: Any) -> Optional[int]:
    """The axis that a surface is normal to, if it is flat."""
    extent = np.ptp(points, axis=0)
    axis = int(np.argmin(extent))
    return axis if extent[axis] <= 1e-9 * extent.max() else None


def _finish(figure: "Figure", file: Union[None, str, "os.PathLike[str]"], dpi: int) -> "Figure":
    if file is not None:
        figure.savefig(os.fspath(file), dpi=dpi)
    return figure


def surface(
    self: Surface,
    file: Union[None, str, "os.PathLike[str]"] = None,
    *,
    color: Optional[str] = None,
    title: Optional[str] = None,
    cmap: str = "viridis",
    limits: Optional[Tuple[float, float]] = None,
    view: Tuple[float, float] = (25.0, -60.0),
    size: Tuple[float, float] = (8.0, 6.0),
    dpi: int = 120,
) -> "Figure":
    """Draws a surface, shaded, or a cut along two axes, coloured by a value, with axes and colour bar.

    file    where the picture goes; without, the figure is returned, which notebooks show.
    color   name of a value, by default the first scalar there is; of vectors the length.
    limits  of the colours, in units of the value; by default those of the values.
    view    elevation and azimuth in degrees.
    size    in inches, of `dpi` pixels each.

    ImportError without matplotlib; ValueError for a surface without triangles.
    """
    figure = _figure(size)
    if self.is_empty:
        raise ValueError("plot: the surface has no triangles")
    from matplotlib import cm, colors

    label, values = _values(self, color)
    points, triangles = self.points, self.triangles.astype(np.int64)
    low, high = limits if limits else (np.nanmin(values), np.nanmax(values)) if values is not None else (0.0, 1.0)
    shades = cm.ScalarMappable(colors.Normalize(low, high), cmap)
    flat = _flat_axis(points)
    if flat is not None:
        axes = figure.add_subplot()
        u, v = [d for d in range(3) if d != flat]
        if values is None:
            axes.triplot(points[:, u], points[:, v], triangles, color="0.4", linewidth=0.3)
        else:
            axes.tripcolor(
                points[:, u], points[:, v], triangles, np.nan_to_num(values, nan=low),
                shading="gouraud", cmap=cmap, norm=shades.norm, mask=np.isnan(values)[triangles].any(axis=1),
            )  # fmt: skip
        where = f"{_AXES[flat]} = {points[0, flat]:.6g}"
        axes.set(xlabel=_AXES[u], ylabel=_AXES[v], aspect="equal", title=title or where)
    else:
        from mpl_toolkits.mplot3d.art3d import Poly3DCollection

        axes = figure.add_subplot(projection="3d")
        corners = points[triangles]
        normal = np.cross(corners[:, 1] - corners[:, 0], corners[:, 2] - corners[:, 0])
        length = np.linalg.norm(normal, axis=1, keepdims=True)
        normal = np.divide(normal, length, out=np.zeros_like(normal), where=length > 0)
        up, around = np.radians(view[0] + 15), np.radians(view[1] - 20)
        light = np.array([np.cos(up) * np.cos(around), np.cos(up) * np.sin(around), np.sin(up)])
        brightness = 0.5 + 0.5 * np.abs(normal @ light)  # seen from both sides
        base = np.tile((0.62, 0.72, 0.84, 1.0), (len(triangles), 1))
        if values is not None:
            base = shades.to_rgba(values[triangles].mean(axis=1))
        base[:, :3] *= brightness[:, None]
        axes.add_collection3d(Poly3DCollection(corners, facecolors=base, edgecolors=base, linewidths=0.2))
        least, greatest = points.min(axis=0), points.max(axis=0)
        axes.auto_scale_xyz(*np.stack([least, greatest], axis=1))
        axes.set_box_aspect(np.maximum(greatest - least, 1e-3 * (greatest - least).max()))
        axes.set(xlabel="x", ylabel="y", zlabel="z", title=title or "")
        axes.view_init(*view)
    if values is not None:
        figure.colorbar(shades, ax=axes, label=label, shrink=0.8)
    return _finish(figure, file, dpi)


def data_set(
    self: DataSet,
    field: str,
    file: Union[None, str, "os.PathLike[str]"] = None,
    *,
    normal: str = "z",
    at: Optional[float] = None,
    **options: Any,
) -> "Figure":
    """Draws the cut by the plane where `normal` ("x", "y", "z") is `at`, by default in the middle, coloured by a field.

    `options` are those of `Surface.plot`.
    """
    _figure((1.0, 1.0))  # found out before the work
    if at is None:
        at = float(self.bounds[:, _AXES.index(normal)].mean()) if normal in _AXES else 0.0
    return surface(self.slice(normal, at, fields=[field]), file, color=field, **options)
