import pathlib
import re

import pytest

ROOT = pathlib.Path(__file__).resolve().parent.parent


def source_line(relative_path, needle):
    """Line number (from 1) of the only line of a source file that holds `needle`."""
    lines = (ROOT / relative_path).read_text().splitlines()
    hits = [n for n, text in enumerate(lines, start=1) if needle in text]
    assert len(hits) == 1, f"{needle!r} found {len(hits)} times in {relative_path}"
    return hits[0]


def precondition_text(relative_path, condition, message):
    """The full four-line text of a failed check, with the line of `condition`."""
    line = source_line(relative_path, f"PRECONDITION({condition},")
    return (
        "KAVRA-lib 2.0 Exception\n"
        f"{relative_path}:{line}:\n"
        "Precondition Violated:\n"
        f"{condition} {message}\n"
    )


CAST_SOURCE = "core/utils/gridfunction_checking.h"


def cast_failure_text(name):
    return precondition_text(CAST_SOURCE, "reservoirGridFunction.get()!=0", f"The type cast for {name} failed!!")


@pytest.fixture
def raises_text():
    """pytest.raises(RuntimeError) whose text must equal `expected` exactly."""

    def check(expected, call, *args):
        with pytest.raises(RuntimeError) as info:
            call(*args)
        assert str(info.value) == expected
        return info.value

    return check


__all__ = ["ROOT", "source_line", "precondition_text", "cast_failure_text", "re"]
