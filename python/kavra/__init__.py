"""kavra: reservoir-engineering cell calculations and K-column reductions.

Every name of the native extension ``kavra._kavracore`` is available here.
Grid functions, topologies and connection lists come from the ``tessel``
package.  ``kavra.tables`` holds the PVT and rock tables as plain values.
"""

from importlib import metadata as _metadata

from . import _kavracore
from ._kavracore import *  # noqa: F401,F403
from . import tables  # noqa: E402

try:
    __version__: str = _metadata.version("kavra")
except _metadata.PackageNotFoundError:  # run from a source tree that was never installed
    __version__ = "0+unknown"

__all__ = [name for name in dir(_kavracore) if not name.startswith("_")] + ["tables"]
