"""kavra: reservoir-engineering cell calculations and K-column reductions.

The functions that take and give NumPy arrays (``one_over_bo``, ``kaverage``
and the others) and the table values of ``kavra.tables`` are the API to
start from.  Every name of the native extension ``kavra._kavracore`` (the
``Calc…`` functions over grid functions, ``KMax`` …, and the table classes
``TScalar``, ``TPVTOList`` …) is available here as well, in a build that
has that module (one that found Boost.Python for its Python).  Grid functions,
topologies and connection lists come from ``kavra.tessel``.
"""

from importlib import import_module as _import_module
from importlib import metadata as _metadata
from typing import TYPE_CHECKING as _TYPE_CHECKING
from typing import Any as _Any

from ._optional import optional as _optional

# Built where kavra found Boost.Python for this Python; a stand-in elsewhere.
_kavracore = _optional(__name__ + "._kavracore")
if _kavracore.__spec__ is not None:  # the module itself, not the stand-in for a missing one
    from ._kavracore import *  # noqa: F401,F403

try:
    __version__: str = _metadata.version("kavra")
except _metadata.PackageNotFoundError:  # a source tree that was never installed
    __version__ = "0+unknown"

if _TYPE_CHECKING:  # "name as name" and "*": exported for type checkers
    from . import tables as tables
    from . import deck as deck
    from . import results as results
    from . import blackoil as blackoil
    from .calculations import *  # noqa: F401,F403
    from .reductions import *  # noqa: F401,F403
    from .maps import *  # noqa: F401,F403
    from ._volumetrics import *  # noqa: F401,F403
    from ._threads import *  # noqa: F401,F403


_SUBMODULES = ("tables", "calculations", "reductions", "maps", "deck", "results", "blackoil", "satfunc", "equil")


# The NumPy-first layer (its functions are named in the table of calls, kavra._calls) is imported
# when first used, so that importing the native module alone (kavra._kavracore) runs nothing but
# its own import.
def _face() -> dict[str, str]:
    """The package's own functions: name -> the module that defines it."""
    face: dict[str, str] = _import_module("._calls", __name__).FACE
    return face


def __getattr__(name: str) -> _Any:
    if name in _SUBMODULES:
        return _import_module("." + name, __name__)
    if name.startswith("_") and name != "__all__":  # ("from . import _engine" asks here first)
        raise AttributeError(f"module 'kavra' has no attribute {name!r}")
    if name == "__all__":
        value = [*_face(), "tables"] + [name for name in dir(_kavracore) if not name.startswith("_")]
    elif name in _face():
        value = getattr(_import_module("." + _face()[name], __name__), name)
    else:
        raise AttributeError(f"module 'kavra' has no attribute {name!r}")
    globals()[name] = value
    return value


def __dir__() -> list[str]:
    return sorted({*globals(), *_face(), *_SUBMODULES, "__all__"})
