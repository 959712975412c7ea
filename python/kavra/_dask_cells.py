"""The cell calculations over dask arrays: each chunk computed by the NumPy function.

``forms`` builds the Dask form of every function of a module that the table
of calls (``kavra._calls``) marks ``"cells"``: ``kavra.dask`` takes those of
``kavra.calculations``, ``kavra.dask.blackoil`` those of ``kavra.blackoil``.
A form takes the arguments of its function without ``out`` and ``threads``;
the arguments before ``pvtnum`` (the tables) ride in the task graph as one
key, pickled once.
"""

# mypy: disable-error-code="no-untyped-call"
# (dask leaves most of its functions without annotations)

from __future__ import annotations

import importlib
import inspect
import math
from collections.abc import Callable, Sequence
from typing import Any

import dask.array as da
import numpy as np
from dask.array.core import unify_chunks
from dask.delayed import delayed

from . import tables as _tables
from ._calls import CALLS
from ._docs import dask_form


def _check_table(function: str, name: str, table: Any, kinds: tuple[type, ...]) -> None:
    if not isinstance(table, kinds):
        names = " or ".join(f"kavra.tables.{kind.__name__}" for kind in kinds)
        hint = f" ({kinds[0].__name__}.from_native(lst) makes one of a native list, which cannot be pickled)"
        raise TypeError(f"kavra.dask.{function}: {name} must be a {names}{hint}, got {type(table).__name__}")


def _sample(value: Any) -> Any:
    """A zero-size stand-in of an input (dask array or scalar), of its element type."""
    if isinstance(value, da.Array):
        return np.empty((0,) * value.ndim, dtype=value.dtype)
    return value


def _chunk_block(function: Callable[..., Any], keywords: tuple[str, ...], table: Any, *blocks: Any,
                 block_info: Any = None) -> Any:
    """The NumPy function on one chunk of each input; failures say which chunk."""
    positional = blocks[:len(blocks) - len(keywords)]
    named = dict(zip(keywords, blocks[len(positional):]))
    try:
        if table is None:
            return function(*positional, **named)
        return function(table, *positional, **named)
    except ValueError as error:
        where = "of the result"
        if block_info is not None and None in block_info:
            location = block_info[None]["array-location"]
            where = "[" + ", ".join(f"{start}:{stop}" for start, stop in location) + "] of the result"
        raise ValueError(f"{error} (in the chunk {where}; positions are counted within that chunk)") from error


def _check_shapes(function: Callable[..., Any], names: Sequence[str], values: Sequence[Any]) -> None:
    """ValueError naming the inputs whose shapes do not broadcast together, as the NumPy
    functions say it (shapes with a size that dask does not know yet are left to the chunks)."""
    shapes = [np.shape(value) for value in values]
    if any(isinstance(n, float) and math.isnan(n) for shape in shapes for n in shape):
        return
    try:
        np.broadcast_shapes(*shapes)
    except ValueError:
        listed = ", ".join(f"{name} {shape}" for name, shape in zip(names, shapes))
        raise ValueError(f"kavra.dask.{function.__name__}: the shapes of the inputs do not broadcast together: "
                         f"{listed}") from None


def _cells(function: Callable[..., Any], table: Any, inputs: Sequence[Any],
           keywords: dict[str, Any] | None = None) -> da.Array:
    """`function` over chunks: the inputs aligned, the table one key of the graph."""
    keywords = {name: value for name, value in (keywords or {}).items() if value is not None}
    values = [*inputs, *keywords.values()]
    values = [value if np.ndim(value) == 0 and not isinstance(value, da.Array) else da.asarray(value)
              for value in values]
    # Errors of element types and tables come from the NumPy function itself, now rather than
    # on a worker; its answer for zero-size inputs is the result's meta.
    names = tuple(keywords)
    samples = [_sample(value) for value in values]
    npos = len(samples) - len(names)
    table_args = () if table is None else (table,)
    meta = function(*table_args, *samples[:npos], **dict(zip(names, samples[npos:])))
    if any(isinstance(v, da.Array) and isinstance(v._meta, np.ma.MaskedArray) for v in values):
        meta = np.ma.masked_array(meta)

    arrays = [value for value in values if isinstance(value, da.Array)]
    positional = list(inspect.signature(function).parameters)[table is not None:][:len(inputs)]
    _check_shapes(function, [*positional, *names], values)
    ndim = max((a.ndim for a in arrays), default=0)
    if arrays:
        pairs: list[Any] = []
        for a in arrays:
            pairs += [a, tuple(range(ndim - a.ndim, ndim))]
        _, aligned = unify_chunks(*pairs)
        replaced = iter(aligned)
        values = [next(replaced) if isinstance(value, da.Array) else value for value in values]
    else:
        values = [da.asarray(value) for value in values]
    shipped = None if table is None else delayed(table, pure=True)
    result: da.Array = da.map_blocks(_chunk_block, function, names, shipped, *values, dtype=np.float64, meta=meta,
                         token=f"kavra-{function.__name__}")
    return result


def _joined(function: Callable[..., Any], count: int) -> Callable[..., Any]:
    """`function` with its first `count` arguments (a table and DENSITY) as one value, the graph's key."""
    def chunk(tables: tuple[Any, ...], *arguments: Any, **keywords: Any) -> Any:
        return function(*tables, *arguments, **keywords)
    chunk.__name__ = function.__name__
    return chunk


def _form(module: str, name: str, function: Callable[..., Any], kinds: tuple[type, ...],
          table_word: str | None) -> Callable[..., da.Array]:
    """The Dask form of `function`; `table_word`: what its failures call the table (default: the
    argument's name)."""
    signature = inspect.signature(function)
    parameters = [p for p in signature.parameters.values() if p.name not in ("out", "threads")]
    names = [p.name for p in parameters]
    keys = names[:names.index("pvtnum")] if "pvtnum" in names else []
    cells_of = parameters[len(keys):]
    inputs = [p.name for p in cells_of if p.default is p.empty]
    optional = [p.name for p in cells_of if p.default is not p.empty]
    chunk = _joined(function, len(keys)) if len(keys) > 1 else function
    form = signature.replace(parameters=parameters, return_annotation="da.Array")

    def lazy(*args: Any, **kwargs: Any) -> da.Array:
        given = form.bind(*args, **kwargs)
        given.apply_defaults()
        values = given.arguments
        if kinds:
            _check_table(name, table_word or keys[0], values[keys[0]], kinds)
        table = None if not keys else values[keys[0]] if len(keys) == 1 else tuple(values[k] for k in keys)
        return _cells(chunk, table, [values[n] for n in inputs], {n: values[n] for n in optional})

    lazy.__name__ = lazy.__qualname__ = name
    lazy.__module__ = module
    lazy.__doc__ = dask_form(function, f"{function.__module__}.{name}".replace(".calculations.", "."), bool(kinds))
    lazy.__signature__ = form  # type: ignore[attr-defined]
    return lazy


def forms(of: str, module: str, table_word: str | None = None) -> dict[str, Callable[..., da.Array]]:
    """The Dask forms of the functions of kavra.`of` that the table of calls runs chunk by chunk,
    as functions of `module`."""
    source = importlib.import_module(f"kavra.{of}")
    return {name: _form(module, name, getattr(source, name),
                        tuple(getattr(_tables, kind) for kind in CALLS[key].tables), table_word)
            for key, name in ((key, key.rpartition(".")[2]) for key in CALLS)
            if CALLS[key].module == of and CALLS[key].dask == "cells"}

