"""How many threads the cell calculations and K reductions use.

The default is the number of cores this process may run on
(``os.sched_getaffinity``), or ``KAVRA_NUM_THREADS`` when that environment
variable is set; :func:`set_num_threads` changes it for the process, and a
``threads=`` argument for one call.  More threads than cores do not help: a
count above the cores is taken as the cores.  Results are the same bits for
every number of threads.
"""

from __future__ import annotations

import operator
import os
import warnings

__all__ = ["get_num_threads", "set_num_threads"]


def _cores() -> int:
    try:
        return len(os.sched_getaffinity(0))
    except AttributeError:  # no affinity on this platform
        return os.cpu_count() or 1


_CORES = _cores()


def _checked(threads: object, what: str) -> int:
    """`threads` as a count of threads, at most the cores: any integer (``operator.index``) from 1."""
    if isinstance(threads, bool) or type(threads).__name__ in ("bool", "bool_"):  # NumPy's: bool from 2.0
        raise TypeError(f"{what} must be an integer, got {type(threads).__name__}")
    try:
        count = operator.index(threads)  # type: ignore[arg-type]
    except TypeError:
        raise TypeError(f"{what} must be an integer, got {type(threads).__name__}") from None
    if count < 1:
        raise ValueError(f"{what} must be at least 1, got {count}")
    return min(count, _CORES)


def _default() -> int:
    """``KAVRA_NUM_THREADS`` when it is set to a count (empty: not set), else the cores."""
    setting = os.environ.get("KAVRA_NUM_THREADS", "").strip()
    if setting:
        try:
            return _checked(int(setting), "KAVRA_NUM_THREADS")
        except ValueError as error:
            warnings.warn(f"KAVRA_NUM_THREADS={setting!r} is not a whole number from 1 ({error}); "
                          f"using the {_CORES} cores", RuntimeWarning, stacklevel=3)
    return _CORES


_threads: int | None = None


def get_num_threads() -> int:
    """The number of threads a calculation uses when its call does not say.

    Returns
    -------
    int
        What :func:`set_num_threads` set, else ``KAVRA_NUM_THREADS`` (a value that is not a
        whole number from 1 is passed over with a ``RuntimeWarning``), else the number of
        cores this process may run on; never more than those cores.

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
        At least 1 (any integer, NumPy's too).  One thread runs each call on the calling thread
        alone; a count above the cores this process may run on is taken as those cores.

    Raises
    ------
    TypeError
        `threads` is not an integer.
    ValueError
        `threads` is below 1.

    Examples
    --------
    >>> import kavra
    >>> before = kavra.get_num_threads()
    >>> kavra.set_num_threads(2)
    >>> kavra.get_num_threads() == min(2, len(__import__("os").sched_getaffinity(0)))
    True
    >>> kavra.set_num_threads(before)
    """
    global _threads
    _threads = _checked(threads, "threads")


def resolve(threads: int | None) -> int:
    """The threads of one call: its own ``threads=``, or the process setting."""
    return get_num_threads() if threads is None else _checked(threads, "threads")
