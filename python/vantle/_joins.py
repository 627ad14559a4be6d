"""What is said of joins between blocks."""

from typing import NamedTuple, Optional, Tuple

Face = Tuple[str, str]
Index = Tuple[int, int, int]


class Join(NamedTuple):
    """Two rectangles of faces that are the same."""

    first: Face  #: name of the block, and which face: "imin", "imax", "jmin" ...
    second: Face
    low: Index  #: the first and the last vertex (i, j, k) of the rectangle in the first block
    high: Index
    motion: Optional[int]  #: of a periodic pair, which of the motions takes one face to the other
    largest_distance: float  #: of two vertices that are one; 0 when all are equal
