"""kavra: reservoir-engineering cell calculations and K-column reductions.

Every name of the native extension ``kavra._kavracore`` is available here.
Grid functions, topologies and connection lists come from the ``tessel``
package.
"""

from . import _kavracore
from ._kavracore import *  # noqa: F401,F403

__all__ = [name for name in dir(_kavracore) if not name.startswith("_")]
