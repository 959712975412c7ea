"""Preparing NumPy inputs for the native calls, and the words of their failures.

Every public function runs in two steps: a preparation that turns whatever
the caller passed into flat, contiguous, native-order buffers of the element
type the native code reads (without a copy where the input already is one),
and the native call over grid functions that wrap those buffers.  The
preparation knows nothing of the native module.
"""

from __future__ import annotations

import math
from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import NDArray

INT32_MAX = np.iinfo(np.int32).max
INT32_MIN = np.iinfo(np.int32).min


def split_mask(value: Any) -> tuple[np.ndarray, NDArray[np.bool_] | None]:
    """The data of an array-like and its mask (None when nothing is masked)."""
    if isinstance(value, np.ma.MaskedArray):
        mask = np.ma.getmask(value)
        return np.asarray(value.data), (None if mask is np.ma.nomask or not mask.any() else np.asarray(mask))
    return np.asarray(value), None


def is_native_buffer(array: np.ndarray, dtype: np.dtype[Any]) -> bool:
    """Whether a grid function can wrap `array` as it is (a dtype equal to a native one is in the
    machine's byte order).  Mostly the very dtype object: `is` first, `==` else."""
    if not (array.dtype is dtype or array.dtype == dtype):
        return False
    flags = array.flags
    return bool(flags.c_contiguous and flags.aligned and flags.writeable)


def engine_buffer(values: Any, dtype: Any = None) -> np.ndarray:
    """`values` as an array that the engine reads in place: C-contiguous, aligned and in the machine's
    byte order (of `dtype`, where given), copied only where it is not.  Arrays that arrive through
    pickles (a Dask worker's chunks) may sit at any byte; a view of a record array does too."""
    array = np.asarray(values, dtype=dtype)
    if not array.dtype.isnative:
        array = array.astype(array.dtype.newbyteorder("="))
    return np.require(array, requirements=("C", "A"))


def index_text(name: str, position: int, shape: tuple[int, ...]) -> str:
    """``name[i, j, k] (cell N, counting from 1)`` for a flat position in an array of `shape`: the words of
    every failing cell, the engine's too (bindings/_engine/Calls.cpp calls this)."""
    index = ", ".join(str(int(i)) for i in np.unravel_index(position, shape)) if shape else "()"
    return f"{name}[{index}] (cell {position + 1}, counting from 1)"


@dataclass
class CellArrays:
    """A cell calculation's arguments, ready for the native call: flat buffers of one length."""

    function: str
    shape: tuple[int, ...]
    regions: NDArray[np.int32] | None  # region numbers; 0 where a cell is masked
    inputs: list[NDArray[np.float64]]
    result: NDArray[np.float64]  # what the native call writes
    out: np.ndarray | None  # the caller's `out`, when `result` is not its memory
    given_out: Any  # the caller's `out` as passed (a masked array stays one)
    mask: NDArray[np.bool_] | None
    from_out: bool = False  # whether `result` started as a float64 copy of `out`

    def finish(self) -> Any:
        """The result as the caller sees it: `out` (filled) or a new array, masked where an input was."""
        given = self.given_out
        self.written(failed=False)
        if isinstance(given, np.ma.MaskedArray):  # its mask becomes that of the result
            given.mask = np.ma.nomask if self.mask is None else self.mask
            return given
        result = self.result.reshape(self.shape) if given is None else given
        return result if self.mask is None else np.ma.MaskedArray(result, mask=self.mask)

    def written(self, failed: bool) -> None:
        """The cells of `result` put into `out`, when the calculation did not write `out` itself.
        After a failure only when `result` started as a copy of `out`: then its cells past the
        failing one are those of `out`, and the cells before it are written once."""
        if self.out is not None and (not failed or self.from_out):
            np.copyto(self.out, self.result.reshape(self.shape), casting="same_kind")


_FLOAT64 = np.dtype(np.float64)
_INT32 = np.dtype(np.int32)
_FLOAT32 = np.dtype(np.float32)


def _ready(array: Any, dtype: np.dtype[Any], shape: tuple[int, ...]) -> bool:
    return type(array) is np.ndarray and array.shape == shape and is_native_buffer(array, dtype)


def ready_buffers(regions: Any, inputs: list[Any], out: Any) -> list[np.ndarray] | None:
    """The common case in few steps: flat views of the region numbers (None: no regions), the
    inputs and `out`, when every one of them can be read and written in place as it is (int32
    regions, float64 otherwise, all of one shape, contiguous, aligned, writeable, native order).
    None when any cannot, when one overlaps `out` (see `overlaps`), or when `out` is not given."""
    if type(out) is not np.ndarray:
        return None
    shape = out.shape
    if not _ready(out, _FLOAT64, shape) or (regions is not None and not _ready(regions, _INT32, shape)):
        return None
    for value in inputs:
        if not _ready(value, _FLOAT64, shape) or overlaps(value, out):
            return None
    if regions is not None and overlaps(regions, out):
        return None
    arrays = inputs + [out] if regions is None else [regions, *inputs, out]
    return arrays if len(shape) == 1 else [a.reshape(-1) for a in arrays]


def prepare_cells(function: str, regions: tuple[str, Any] | None, inputs: list[tuple[str, Any]], out: Any,
                  *, keep_out: bool = False, floats: bool = False) -> CellArrays:
    """Flat inputs and int32 regions of one broadcast shape, and a result buffer.

    `regions` and `inputs` are (name, value) pairs; the names appear in error
    messages.  Inputs are float64, converted once where they are not; with
    `floats` (a calculation that reads float32 as it is) inputs that are all
    float32 stay float32, and a float32 `out` is written in place.  An input
    (or the regions) of one element for many cells stays one element: every
    cell reads it, nothing spreads it over the cells.  With `keep_out` the
    result starts from the values of `out` (zeros without it), for
    calculations that leave some cells alone.  An input that shares memory
    with `out` is read from a copy, unless it is `out` itself.
    """
    named = ([regions] if regions is not None else []) + inputs
    data, masks = [], []
    for name, value in named:
        array, mask = split_mask(value)
        integral = regions is not None and name == regions[0]
        if integral and array.dtype.kind not in "iu":
            raise TypeError(f"{function}: {name} must hold integer region numbers, got {array.dtype}")
        if not integral and array.dtype.kind not in "fiu":
            raise TypeError(f"{function}: {name} must hold real numbers, got {array.dtype}")
        data.append(array.copy() if overlaps(array, out) else array)
        masks.append(mask)
    try:  # np.broadcast allocates nothing, unlike np.broadcast_shapes
        shape = data[0].shape if len(data) == 1 else np.broadcast(*data).shape
    except ValueError:
        shapes = ", ".join(f"{name} {a.shape}" for (name, _), a in zip(named, data))
        raise ValueError(f"{function}: the shapes of the inputs do not broadcast together: {shapes}") from None

    mask = None
    for m in masks:
        if m is not None:
            mask = np.broadcast_to(m, shape).copy() if mask is None else mask | m

    region_buffer = None
    if regions is not None:
        region_buffer = _regions(function, regions[0], data.pop(0), shape, mask)
    single = math.prod(shape) != 1
    floats = floats and bool(data) and all(a.dtype == _FLOAT32 for a in data)
    element = _FLOAT32 if floats else _FLOAT64
    buffers = [a.reshape(-1) if a.shape == shape and is_native_buffer(a, element)
               else a.astype(element).reshape(-1)[:1] if single and a.size == 1
               else _converted(a, shape, element) for a in data]

    given_out, target, result, in_place = out, None, None, False
    if out is not None:
        out_data = checked_out(function, out, shape)
        in_place = is_native_buffer(out_data, _FLOAT64) or (floats and is_native_buffer(out_data, _FLOAT32))
        if in_place:
            result = out_data.reshape(-1)
        else:
            target = out_data
            result = out_data.astype(np.float64, order="C").reshape(-1) if keep_out else np.empty(out_data.size)
    if result is None:
        result = np.zeros(int(np.prod(shape))) if keep_out else np.empty(int(np.prod(shape)))
    from_out = target is not None and target.dtype == _FLOAT64 and keep_out
    return CellArrays(function, shape, region_buffer, buffers, result, target, given_out, mask, from_out)


def checked_out(function: str, out: Any, shape: tuple[int, ...]) -> np.ndarray:
    """The array that `out` (a NumPy array, masked or not) writes to; TypeError or ValueError, in
    words, for one that cannot take a result of the given shape."""
    out_data = out.data if isinstance(out, np.ma.MaskedArray) else out
    if not isinstance(out_data, np.ndarray):
        raise TypeError(f"{function}: out must be a NumPy array, got {type(out).__name__}")
    if out_data.shape != shape:
        raise ValueError(f"{function}: out has the shape {out_data.shape}, the result {shape}")
    if not out_data.flags.writeable:
        raise ValueError(f"{function}: out is read-only")
    if out_data.dtype.kind != "f":
        raise TypeError(f"{function}: out must be an array of a real floating dtype, got {out_data.dtype}")
    if isinstance(out, np.ma.MaskedArray) and out.hardmask:
        raise ValueError(f"{function}: out has a hard mask, which the result's mask cannot replace "
                         "(out.soften_mask() lets it)")
    return out_data


def _converted(array: np.ndarray, shape: tuple[int, ...], dtype: np.dtype[Any] = np.dtype(np.float64)) -> Any:
    """One pass: broadcast, convert to `dtype` in native order, contiguous."""
    result = np.empty(shape, dtype=dtype)
    np.copyto(result, array, casting="unsafe")
    return result.reshape(-1)


def _regions(function: str, name: str, array: np.ndarray, shape: tuple[int, ...],
             mask: NDArray[np.bool_] | None) -> NDArray[np.int32]:
    """Region numbers as flat int32, converted in one pass; a number past int32 fails, one below
    int32 becomes its lowest value (both belong to no table's region).  One number for many cells
    (``pvtnum=1``) stays one number."""
    if array.shape == shape and mask is None and is_native_buffer(array, _INT32):
        return array.reshape(-1)
    cells = shape
    if array.size == 1 and mask is None and math.prod(shape) != 1:
        array = array.reshape(1)
        cells = (1,)
    result = np.empty(cells, dtype=np.int32)
    if (array.dtype.itemsize > 4 or array.dtype == np.uint32) and array.size:
        checked = array if mask is None else np.where(mask, 0, np.broadcast_to(array, shape))
        if checked.max() > INT32_MAX:
            position = int(np.argmax(np.broadcast_to(checked, cells).reshape(-1) > INT32_MAX))
            value = np.broadcast_to(checked, cells).reshape(-1)[position]
            raise ValueError(f"{function}: region {value} at {index_text(name, position, shape)} is not a region "
                             f"of any table")
        if array.dtype.kind == "i":  # no allocation: converted in the ufunc's buffers
            np.maximum(array, INT32_MIN, out=result, casting="unsafe")
        else:
            np.copyto(result, array, casting="unsafe")
    else:
        np.copyto(result, array, casting="unsafe")
    if mask is not None:
        result[mask] = 0  # a masked cell belongs to no region: nothing is looked up for it
    return result.reshape(-1)


def overlaps(value: Any, out: Any) -> bool:
    """Whether an input shares memory with `out` other than as `out` itself, cell for cell: then
    the calculation reads it from a copy, as if every input were read before a cell is written
    (NumPy's rule for ufuncs)."""
    if out is None or not isinstance(value, np.ndarray):
        return False
    array, target = np.asarray(value), np.asarray(out)
    if not np.may_share_memory(array, target):
        return False
    same = (array.__array_interface__["data"][0] == target.__array_interface__["data"][0]
            and array.dtype == target.dtype and array.shape == target.shape and array.strides == target.strides)
    return not same
