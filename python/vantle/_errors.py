"""Exceptions of the module that are no built-in ones."""


class UnknownName(KeyError):
    """There is no field, block or value of this name. The text lists those that there are, the nearest first."""

    def __str__(self) -> str:  # a KeyError shows its text as a key
        return Exception.__str__(self)


class Cancelled(Exception):
    """An operation that its progress function has ended by returning False. Nothing was changed."""
