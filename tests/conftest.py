import pathlib

import pytest

ROOT = pathlib.Path(__file__).resolve().parent.parent


def precondition_text(relative_path, condition, message):
    """The four-line text of a failed check, with the line (from 1) of the only check of `condition` in the file."""
    lines = (ROOT / relative_path).read_text().splitlines()
    hits = [n for n, text in enumerate(lines, start=1) if f"PRECONDITION({condition}," in text]
    assert len(hits) == 1, f"{condition!r} is checked {len(hits)} times in {relative_path}"
    return f"KAVRA-lib 2.0 Exception\n{relative_path}:{hits[0]}:\nPrecondition Violated:\n{condition} {message}\n"


def cast_failure_text(name):
    return precondition_text("core/utils/gridfunction_checking.h", "reservoirGridFunction.get()!=0",
                             f"The type cast for {name} failed!!")


@pytest.fixture
def raises_text():
    """Calls `call(*args)`, which must raise RuntimeError with exactly the text `expected`."""

    def check(expected, call, *args):
        with pytest.raises(RuntimeError) as info:
            call(*args)
        assert str(info.value) == expected

    return check
