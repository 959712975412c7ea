"""Types of the native module: PVT and rock tables, the cell calculations and
the K-column reductions.

Every function and constructor takes positional arguments only.  A record
field may hold None (an unset scalar); a calculation that reads such a field
raises RuntimeError.  Grid functions are typed without None: the calculations
refuse None with RuntimeError.
"""

from collections.abc import Iterator, Sequence
from typing import ClassVar, Generic, TypeVar, overload

import numpy as np
from numpy.typing import NDArray
from kavra.tessel._tessel import (
    IDoubleTypeGridFunction,
    IGridFunction,
    IIntTypeGridFunction,
    IntVector,
    IWritableDoubleTypeGridFunction,
    ReservoirSelectionTopology,
    ReservoirTopology,
    SelectionViewGridFunction,
)

_E = TypeVar("_E")

# Every class here is made by Boost.Python: its metaclass is Boost.Python.class
# and its root base Boost.Python.instance.  Neither has a public name.
class _BoostPythonClass(type): ...

class _Instance(metaclass=_BoostPythonClass):
    __instance_size__: ClassVar[int]

class TScalar(_Instance):
    """A number with a category and a unit (labels only, never converted)."""

    value: float
    category: str
    unit: str
    def __init__(self, value: float, category: str, unit: str, /) -> None: ...
    def __eq__(self, other: object, /) -> bool: ...
    def __ne__(self, other: object, /) -> bool: ...
    def __str__(self) -> str: ...

# The nine list classes share one set of operations over a std::vector of
# elements: copies in, copies out.  This base exists only for typing.
class _Vector(_Instance, Generic[_E]):
    @overload
    def __init__(self) -> None: ...
    @overload
    def __init__(self, items: Sequence[_E] | _Vector[_E], /) -> None: ...
    def push_back(self, element: _E, /) -> None: ...
    def append(self, element: _E, /) -> None: ...
    def size(self) -> int: ...
    def __len__(self) -> int: ...
    def __getitem__(self, index: int, /) -> _E: ...
    def __setitem__(self, index: int, element: _E, /) -> None: ...
    # Only for type checkers: at run time iteration goes through __getitem__
    # (Python's sequence protocol), and each step gives a copy.
    def __iter__(self) -> Iterator[_E]: ...
    def extend(self, items: Sequence[_E] | _Vector[_E], /) -> None: ...
    def reserve(self, count: int, /) -> None: ...
    def resize(self, count: int, /) -> None: ...
    def __eq__(self, other: object, /) -> bool: ...
    def __ne__(self, other: object, /) -> bool: ...

class TPVT(_Instance):
    """Dead-fluid row: pressure, formation volume factor, viscosity."""

    P: TScalar | None
    B: TScalar | None
    Mi: TScalar | None
    def __init__(self, _P: TScalar | None, _B: TScalar | None, _Mi: TScalar | None, /) -> None: ...

class TPVTTable(_Vector[TPVT]): ...
class TPVTList(_Vector[TPVTTable]): ...

class TPVTO(_Instance):
    """Live-oil row: Rs with its pressure rows; under_sat[0] is the saturated point."""

    Rs: TScalar | None
    # A reference into this row: changes to it change the row.
    under_sat: TPVTTable
    def __init__(
        self, RS: TScalar | None, P: TScalar | None, Bo: TScalar | None, Mio: TScalar | None, /
    ) -> None: ...

class TPVTOTable(_Vector[TPVTO]): ...
class TPVTOList(_Vector[TPVTOTable]): ...

class TPVTW(_Instance):
    """Water of one region: reference state and compressibility."""

    P_ref: TScalar | None
    Bw_ref: TScalar | None
    Cw: TScalar | None
    Miw_ref: TScalar | None
    Cvw: TScalar | None
    def __init__(
        self,
        _P_ref: TScalar | None,
        _Bw_ref: TScalar | None,
        _Cw: TScalar | None,
        _Miw_ref: TScalar | None,
        _Cvw: TScalar | None,
        /,
    ) -> None: ...

class TPVTWList(_Vector[TPVTW]): ...

class TPVTGRecord(_Instance):
    """Wet-gas record: vaporised oil ratio, formation volume factor, viscosity."""

    Rv: TScalar | None
    B: TScalar | None
    Mi: TScalar | None
    def __init__(self, _Rv: TScalar | None, _B: TScalar | None, _Mi: TScalar | None, /) -> None: ...

class TPVTGRecordTable(_Vector[TPVTGRecord]): ...

class TPVTG(_Instance):
    """Wet-gas row: gas pressure with its Rv records; under_sat[0] is the saturated point."""

    Pg: TScalar | None
    # A reference into this row: changes to it change the row.
    under_sat: TPVTGRecordTable
    def __init__(
        self, Pg: TScalar | None, Rv: TScalar | None, Bg: TScalar | None, Mig: TScalar | None, /
    ) -> None: ...

class TPVTGTable(_Vector[TPVTG]): ...
class TPVTGList(_Vector[TPVTGTable]): ...

class TRock(_Instance):
    """Rock of one region: reference pressure and compressibility."""

    P_ref: TScalar | None
    Cr: TScalar | None
    def __init__(self, _P_ref: TScalar | None, _Cr: TScalar | None, /) -> None: ...

class TRockList(_Vector[TRock]): ...

# Cell calculations: region list first, region numbers second, inputs next,
# the result (written in place) last.

def CalcBubblePointPressure(
    p_pvtoList: TPVTOList, p_PVTNum: IGridFunction, p_RS: IGridFunction, Pbub: IGridFunction, /
) -> None: ...
def CalcOneOverB(
    pvtList: TPVTList, p_PVTNum: IGridFunction, p_P: IGridFunction, OneOverB: IGridFunction, /
) -> None: ...
def InterpolateB(table: TPVTTable, pressure: float, /) -> float: ...
def CalcOneOverBo(
    pvtoList: TPVTOList,
    PVTNum: IGridFunction,
    Po: IGridFunction,
    Pbub: IGridFunction,
    OneOverBo: IGridFunction,
    /,
) -> None: ...
def CalcOneOverBw(
    pvtwList: TPVTWList, p_PVTNum: IGridFunction, p_Pw: IGridFunction, OneOverBw: IGridFunction, /
) -> None: ...
def CalcOneOverBg(
    p_pvtg_list: TPVTGList,
    p_PVTNum: IGridFunction,
    p_Pg: IGridFunction,
    p_Pdew: IGridFunction,
    p_Rv: IGridFunction,
    OneOverBg: IGridFunction,
    /,
) -> None: ...

# The rock calculations and CalcTransmissibilityK demand grid functions of
# one class each (RuntimeError for any other).

def CalcPorosity(
    rockList: TRockList,
    PVTNum: IIntTypeGridFunction,
    Po: IDoubleTypeGridFunction,
    PORO: IDoubleTypeGridFunction,
    Porosity: IWritableDoubleTypeGridFunction,
    /,
) -> None: ...
def CalcPorosityFromPORV(
    BulkVolume: IDoubleTypeGridFunction, PORV: IDoubleTypeGridFunction, Porosity: IWritableDoubleTypeGridFunction, /
) -> None: ...
@overload
def CalcBulkVolume(NTG: IDoubleTypeGridFunction, BulkVolume: IWritableDoubleTypeGridFunction, /) -> None: ...
@overload
def CalcBulkVolume(
    PORV: IDoubleTypeGridFunction, PORO: IDoubleTypeGridFunction, BulkVolume: IWritableDoubleTypeGridFunction, /
) -> None: ...

# Shortens nnc1 and nnc2 in place and marks pinch-outs in TranK.
def CalcTransmissibilityK(
    nnc1: IntVector, nnc2: IntVector, topo: ReservoirSelectionTopology, TranK: SelectionViewGridFunction, /
) -> None: ...
def CalcRsFromComponents(
    p_Denominator: IGridFunction, p_Numerator: IGridFunction, p_Rs: IGridFunction, /
) -> None: ...

# K-column reductions: a new array of the input's shape and element type.
# Element types: int32, uint32, C long and unsigned long (int64 and uint64 on
# Linux), float32, float64.
_Element = TypeVar("_Element", np.int32, np.uint32, np.int64, np.uint64, np.float32, np.float64)

def KMax(
    topology: ReservoirTopology | ReservoirSelectionTopology, array: NDArray[_Element], /
) -> NDArray[_Element]: ...
def KMin(
    topology: ReservoirTopology | ReservoirSelectionTopology, array: NDArray[_Element], /
) -> NDArray[_Element]: ...
def KSum(
    topology: ReservoirTopology | ReservoirSelectionTopology, array: NDArray[_Element], /
) -> NDArray[_Element]: ...
def KAverage(
    topology: ReservoirTopology | ReservoirSelectionTopology, array: NDArray[_Element], /
) -> NDArray[_Element]: ...
