"""Where the lines go that the operations of the library say."""

import logging
from typing import Callable, Optional, Union

from . import _vantle


def messages(
    to: Union[None, bool, str, logging.Logger, Callable[[str], object]] = True, level: int = logging.INFO
) -> None:
    """Sends what operations say while they work, from now on and for all threads, to `logging`; by default to nobody.

    to     True: the logger "vantle"; a logger, or its name; a function of a line; None or False: nobody.
    level  the level of the lines.

    Lines are said by the thread that asked, while it works. Results do not depend on who listens.
    """
    if to is None or to is False:
        _vantle.set_listener(None)
        return
    if isinstance(to, (bool, str)):
        to = logging.getLogger("vantle" if isinstance(to, bool) else to)
    if isinstance(to, logging.Logger):
        logger = to
        say: Callable[[str], object] = lambda line: logger.log(level, "%s", line)
    elif callable(to):
        say = to
    else:
        raise TypeError(f"messages: expected a logger, its name, or a function, got {type(to).__name__}")

    def listen(text: str) -> None:
        for line in text.splitlines():
            if line.strip():
                say(line.rstrip())

    _vantle.set_listener(listen)
