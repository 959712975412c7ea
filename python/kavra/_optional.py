"""The modules that a build of kavra has only where it found Boost.Python for
its Python: ``kavra._kavracore`` and the Python bindings of tessel.

``load(name)`` imports such a module, or raises :class:`NotBuilt`, the
ImportError that says why the module is missing and how to get it.
``optional(name)`` is the module when it is there, else a stand-in whose every
name raises that ImportError where it is used; the stand-in's names can be
bound to class attributes at import (``_list_class = _native.TPVTOList``) and
fail only when read.
"""

import sys
from importlib import import_module
from types import ModuleType
from typing import Any, NoReturn


class NotBuilt(ModuleNotFoundError):
    """A module of kavra that this build lacks, for want of Boost.Python for this Python."""


def load(name: str) -> ModuleType:
    """The module `name` of kavra; :class:`NotBuilt` when this build lacks it."""
    try:
        return import_module(name)
    except ModuleNotFoundError as error:
        if error.name != name:  # the module is there, something it imports is not
            raise
        version = "%d.%d" % sys.version_info[:2]
        raise NotBuilt(
            f"{name} is not part of this build of kavra: it needs Boost.Python for Python {version}, and none "
            f"was found when kavra was built. kavra's functions, tables (but for to_native and from_native) "
            f"and decks work without it. To have it, install kavra on Python 3.11, whose wheel carries it, or "
            f"build kavra from source where Boost.Python for Python {version} is installed (Debian 12's "
            f"libboost-python-dev is built for Python 3.11): pip install --no-binary kavra kavra",
            name=name) from error


class _Missing:
    """A name of a module that this build lacks: reading it as a class attribute, calling it or reading
    any attribute of it raises the module's NotBuilt."""

    __slots__ = ("_error",)

    def __init__(self, error: NotBuilt) -> None:
        self._error = error

    def _raise(self, *args: Any, **kwargs: Any) -> NoReturn:
        raise self._error.with_traceback(None)  # the traceback of this use alone

    __get__ = __call__ = _raise

    def __getattr__(self, attribute: str) -> NoReturn:
        if attribute.startswith("__"):  # what hasattr, copy and inspect probe for
            raise AttributeError(attribute)
        self._raise()


class _MissingModule(ModuleType):
    """Stands for a module that this build lacks (see the module's description); it was never imported."""

    def __init__(self, error: NotBuilt) -> None:
        super().__init__(str(error.name))
        self.__error = error

    def __getattr__(self, attribute: str) -> Any:
        if attribute.startswith("__"):  # what import machinery and tools probe for
            raise AttributeError(attribute)
        return _Missing(self.__error)


def optional(name: str) -> ModuleType:
    """The module `name` of kavra when this build has it, else its stand-in."""
    try:
        return load(name)
    except NotBuilt as error:
        return _MissingModule(error)
