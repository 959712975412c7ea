"""How many threads the cell calculations and K reductions use.

The default is the number of cores this process may run on
(``os.sched_getaffinity``), or ``KAVRA_NUM_THREADS`` when that environment
variable is set; :func:`set_num_threads` changes it for the process, and a
``threads=`` argument for one call.  Results are the same bits for every
number of threads.
"""

from __future__ import annotations

import os

__all__ = ["get_num_threads", "set_num_threads"]


def _checked(threads: object, what: str) -> int:
    if isinstance(threads, bool) or not isinstance(threads, int):
        raise TypeError(f"{what} must be an int, got {type(threads).__name__}")
    if threads < 1:
        raise ValueError(f"{what} must be at least 1, got {threads}")
    return threads


def _default() -> int:
    setting = os.environ.get("KAVRA_NUM_THREADS")
    if setting is not None:
        try:
            return _checked(int(setting), "KAVRA_NUM_THREADS")
        except ValueError as error:
            raise ValueError(f"KAVRA_NUM_THREADS={setting!r}: {error}") from None
    try:
        return len(os.sched_getaffinity(0))
    except AttributeError:  # no affinity on this platform
        return os.cpu_count() or 1


_threads: int | None = None


def get_num_threads() -> int:
    """The number of threads a calculation uses when its call does not say.

    Returns
    -------
    int
        What :func:`set_num_threads` set, else ``KAVRA_NUM_THREADS``, else the
        number of cores this process may run on.

    Examples
    --------
    >>> import kavra
    >>> kavra.get_num_threads() >= 1
    True
    """
    global _threads
    if _threads is None:
        _threads = _default()
    return _threads


def set_num_threads(threads: int) -> None:
    """Set the number of threads the calculations use from now on.

    Parameters
    ----------
    threads : int
        At least 1.  One thread runs each call on the calling thread alone.

    Examples
    --------
    >>> import kavra
    >>> before = kavra.get_num_threads()
    >>> kavra.set_num_threads(2)
    >>> kavra.get_num_threads()
    2
    >>> kavra.set_num_threads(before)
    """
    global _threads
    _threads = _checked(threads, "threads")


def resolve(threads: int | None) -> int:
    """The threads of one call: its own ``threads=``, or the process setting."""
    return get_num_threads() if threads is None else _checked(threads, "threads")
