"""How a failed check reaches Python: the four-line text, casts that name
their argument, and the order in which arguments are looked at."""

import numpy as np
import pytest
from tessel import DoubleGridFunction, FloatGridFunction, IntGridFunction

import kavra
from conftest import cast_failure_text, precondition_text


def test_failure_text_has_four_lines_with_relative_path_and_line(raises_text):
    expected = precondition_text(
        "core/rock/BulkVolume.cpp",
        "nElts == NTG->number_of_elements()",
        "BulkVolume and NTG should have the same number of elements.",
    )
    error = raises_text(expected, kavra.CalcBulkVolume, DoubleGridFunction(2), DoubleGridFunction(3))
    lines = str(error).split("\n")
    assert lines[0] == "KAVRA-lib 2.0 Exception"
    assert lines[1].startswith("core/rock/BulkVolume.cpp:") and lines[1][len("core/rock/BulkVolume.cpp:") :-1].isdigit()
    assert lines[-1] == ""  # the text ends with a newline
    assert type(error) is RuntimeError


@pytest.mark.parametrize(
    "args, name",
    [
        # A wrong class is reported before a wrong size, arguments left to right.
        ((FloatGridFunction(3), DoubleGridFunction(2), DoubleGridFunction(5)), "PORV"),
        ((DoubleGridFunction(3), IntGridFunction(2), FloatGridFunction(5)), "PORO"),
        ((DoubleGridFunction(3), DoubleGridFunction(2), IntGridFunction(5)), "BulkVolume"),
        ((None, DoubleGridFunction(3), DoubleGridFunction(3)), "PORV"),
        ((DoubleGridFunction(3), DoubleGridFunction(3), None), "BulkVolume"),
    ],
)
def test_cast_failure_names_first_bad_argument_of_three(raises_text, args, name):
    raises_text(cast_failure_text(name), kavra.CalcBulkVolume, *args)


@pytest.mark.parametrize(
    "args, name",
    [
        ((IntGridFunction(3), DoubleGridFunction(4)), "NTG"),
        ((DoubleGridFunction(3), FloatGridFunction(4)), "BulkVolume"),
        ((None, None), "NTG"),
    ],
)
def test_cast_failure_names_first_bad_argument_of_two(raises_text, args, name):
    raises_text(cast_failure_text(name), kavra.CalcBulkVolume, *args)


@pytest.mark.parametrize(
    "sizes, failing",
    [((4, 5, 3), "PORV"), ((3, 5, 3), "PORO"), ((4, 4, 3), "PORV")],
)
def test_size_checks_in_argument_order_and_nothing_written(raises_text, sizes, failing):
    porv, poro, bulk = (DoubleGridFunction(np.full(n, 2.0)) for n in sizes)
    expected = precondition_text(
        "core/rock/BulkVolume.cpp",
        f"nElts == {failing}->number_of_elements()",
        f"BulkVolume and {failing} should have the same number of elements.",
    )
    raises_text(expected, kavra.CalcBulkVolume, porv, poro, bulk)
    assert np.all(bulk.values == 2.0)


def test_what_text_is_rebuilt_for_each_exception():
    texts = []
    for name, args in [("NTG", (None, DoubleGridFunction(1))), ("PORV", (None, None, None))]:
        with pytest.raises(RuntimeError) as info:
            kavra.CalcBulkVolume(*args)
        texts.append(str(info.value))
    assert texts == [cast_failure_text("NTG"), cast_failure_text("PORV")]
