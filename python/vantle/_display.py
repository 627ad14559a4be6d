"""What notebooks show of data sets and surfaces: what is known, without reading or computing anything."""

from html import escape
from typing import TYPE_CHECKING, Iterable, Sequence

from ._vantle import DataSet, Surface

if TYPE_CHECKING:
    from ._parallel import ParallelDataSet


def _table(head: Sequence[str], rows: Iterable[Sequence[object]]) -> str:
    def line(cells: Sequence[object], tag: str) -> str:
        return "<tr>" + "".join(f"<{tag}>{escape(str(cell))}</{tag}>" for cell in cells) + "</tr>"

    return "<table>" + line(head, "th") + "".join(line(row, "td") for row in rows) + "</table>"


_MOST = 20  # rows of blocks and joins
_KINDS = {0: "", 1: "scalar", 3: "vector", 9: "tensor"}


def data_set(self: DataSet) -> str:
    """Blocks, fields with the ranges that are known by now, joins that are known by now."""
    blocks = list(self.blocks.values())
    vertices = [block.size[0] * block.size[1] * block.size[2] for block in blocks]
    rows = [(block.name, " × ".join(map(str, block.size)), block.kind) for block in blocks[:_MOST]]
    if len(blocks) > _MOST:
        rows.append((f"and {len(blocks) - _MOST} more", "", ""))
    text = f"<b>vantle.DataSet</b>: {len(blocks)} blocks, {sum(vertices):,} vertices"
    if len(self.times) > 1:
        text += f", {len(self.times)} times from {self.times[0]:g} to {self.times[-1]:g}, at {self.time:g}"
    text += _table(("block", "vertices", "kind"), rows)
    fields = []
    for name, info in self.fields.items():
        known = self.known_range(name)
        everywhere = "" if info.blocks == len(blocks) else f"{info.blocks} of {len(blocks)}"
        span = f"{known[0]:.6g} … {known[1]:.6g}" if known else ""
        fields.append((name, _KINDS.get(info.components, ""), span, everywhere))
    if fields:
        text += _table(("field", "", "range, as far as known", "blocks, if not all"), fields)
    joins = self.known_joins
    if joins:
        faces = [(" ".join(join.first), " ".join(join.second)) for join in joins[:_MOST]]
        text += _table(("joined face", "and"), faces)
        if len(joins) > _MOST:
            text += f"and {len(joins) - _MOST} more joins"
    return f"<div>{text}</div>"


def parallel_data_set(self: "ParallelDataSet") -> str:
    """Blocks of all ranks, and fields; no rank has to wait for another one."""
    blocks = list(self.blocks.values())
    rows = [(block.name, " × ".join(map(str, block.size)), block.kind, block.rank) for block in blocks[:_MOST]]
    text = f"<b>vantle.ParallelDataSet</b>: {len(blocks)} blocks on {self.ranks} ranks"
    text += _table(("block", "vertices", "kind", "rank"), rows)
    if len(blocks) > _MOST:
        text += f"and {len(blocks) - _MOST} more"
    fields = [(name, _KINDS.get(info.components, ""), info.blocks) for name, info in self.fields.items()]
    return f"<div>{text}{_table(('field', '', 'blocks'), fields) if fields else ''}</div>"


def surface(self: Surface) -> str:
    """Numbers of points and triangles, and the ranges of the values."""
    import numpy as np

    rows = []
    for name in self.names:
        values = self[name]
        finite = values[np.isfinite(values)]
        span = f"{finite.min():.6g} … {finite.max():.6g}" if finite.size else ""
        rows.append((name, "scalar" if values.ndim == 1 else "vector" if values.ndim == 2 else "tensor", span))
    text = f"<b>vantle.Surface</b>: {len(self.points):,} points, {len(self.triangles):,} triangles"
    return f"<div>{text}{_table(('value', '', 'range'), rows) if rows else ''}</div>"
