"""``python -m kavra``: the command line ``kavra`` (see :mod:`kavra.cli`)."""

import sys

from .cli import main

if __name__ == "__main__":
    sys.exit(main())
