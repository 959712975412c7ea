"""The files of a deck: the deck's own path, and the INCLUDE files it names, walked by a lexer
of INCLUDE and PATHS of its own before opm reads them, for what opm would choke on, hang on or
end the process for (INCLUDE cycles, nesting too deep, directories, text that is not a deck's)."""

from __future__ import annotations

import os
import pathlib
import re
from collections.abc import Iterator
from typing import Any

from ._opm import DeckError

#: How deep INCLUDE files may nest, and how many INCLUDE keywords one deck may follow in all.
#: Far beyond any real deck; they bound the work of a deck that includes itself over and over.
MAX_INCLUDE_DEPTH = 32
MAX_INCLUDES = 10_000


# --- what is handed to opm ----------------------------------------------------------------


def _shown(source: Any) -> str:
    text = repr(os.fspath(source))
    return text if len(text) <= 80 else text[:60] + "..." + text[-15:]


def deck_file(source: str | os.PathLike[str]) -> pathlib.Path:
    """The path of a deck file; FileNotFoundError, in words, where there is none."""
    try:
        found = pathlib.Path(source).is_file()
    except (OSError, ValueError) as error:  # a name too long for the system, a NUL in it
        reason = getattr(error, "strerror", None) or str(error)
        raise FileNotFoundError(f"no deck at {_shown(source)}: no file can have that name ({reason})") from None
    if not found:
        hint = ("; deck text is read as such only with a line break in it (each keyword on a line of "
                "its own)") if isinstance(source, str) else ""
        raise FileNotFoundError(f"no deck at {_shown(source)}{hint}")
    return pathlib.Path(source)


class Includes:
    """What the checks of the INCLUDE files share over one deck: the directory opm finds them
    from, the PATHS aliases seen so far and the count of INCLUDE keywords followed."""

    def __init__(self, root: pathlib.Path) -> None:
        self.root = root
        self.aliases: dict[str, str] = {}
        self.count = 0
        self.braces = False  # whether a { or } stands outside quotes


# Characters that no deck holds: control characters (tab, line and page breaks aside).
_NOT_TEXT = re.compile(r"[\x00-\x08\x0b\x0e-\x1f\x7f]")
_QUOTED = re.compile(r"'[^']*'|\"[^\"]*\"")
# Braces are deck text (in a title, a well name), but opm's parser puts a line it cannot read as
# a keyword into the format of its message, where a pair of braces with a colon in it is a field
# whose width ('{:>2000000000}') has opm write that many characters.
_FORMAT_FIELD = re.compile(r"\{[^{}]*:[^{}]*\}")
# A line that may start INCLUDE or PATHS (the reading below tells)
_LISTING = re.compile(r"^[^\S\n]*(INCLUDE|PATHS)", re.M)
_TOKEN = re.compile(r"'([^']*)'|\"([^\"]*)\"|([^\s'\"]+)")


def _lines(text: str) -> Iterator[tuple[int, str]]:
    """The lines of a deck (from 1, counted as opm counts them: at line feeds), each without
    its comment."""
    for number, line in enumerate(text.split("\n"), start=1):
        yield number, line.split("--", 1)[0]


def _items(line: str) -> list[str]:
    """The items of a record's line, up to the slash that ends the record."""
    items = []
    for single, double, bare in _TOKEN.findall(line):
        if not bare:
            items.append(single or double)
            continue
        head, slash, _ = bare.partition("/")
        if head:
            items.append(head)
        if slash:
            break
    return items


def check_file(path: pathlib.Path, at: str, chain: tuple[pathlib.Path, ...], includes: Includes) -> None:
    """The checks of :func:`check_text` on a deck file; `at` says where it is included, if it is."""
    resolved = path.resolve()
    if resolved in chain:
        cycle = " includes ".join(str(p) for p in (*chain[chain.index(resolved):], resolved))
        raise DeckError(f"INCLUDE files include each other in a cycle: {cycle}")
    if len(chain) > MAX_INCLUDE_DEPTH:
        raise DeckError(f"{path}{at}: INCLUDE files nest deeper than {MAX_INCLUDE_DEPTH} levels")
    if path.is_dir():
        raise DeckError(f"{path}{at} is a directory, not a deck file")
    if not path.is_file():
        return  # opm names the missing file
    text = path.read_bytes().decode("utf-8", errors="replace")
    check_text(text, str(path), (*chain, resolved), includes)


def check_text(text: str, where: str, chain: tuple[pathlib.Path, ...], includes: Includes) -> None:
    """DeckError for what opm would choke on, hang on or end the process for, in `text` or in
    the files it includes: characters that are not deck text (opm's parser formats them into
    its own messages), braces outside quotes that its messages would take for a field with a
    width, INCLUDE cycles and directories.  Only what is certain is refused; the rest is left
    to opm."""
    if _NOT_TEXT.search(text) is None and "{" not in text and "}" not in text and not _LISTING.search(text):
        return  # nothing for the line by line reading below to find
    lines = _lines(text)
    for number, line in lines:
        bad = _NOT_TEXT.search(line)
        if bad:
            raise DeckError(f"{where}, line {number}: {bad.group()!r} is not deck text; is this a deck file?")
        unquoted = _QUOTED.sub("", line)
        field = _FORMAT_FIELD.search(unquoted)
        if field:
            raise DeckError(f"{where}, line {number}: opm's messages would take {field.group()!r} for a field of "
                            f"their own; put it in quotes")
        includes.braces = includes.braces or "{" in unquoted or "}" in unquoted
        keyword = line.split()[0] if line.split() else ""
        if keyword not in ("INCLUDE", "PATHS"):
            continue
        for number, line in lines:  # the keyword's records
            if keyword == "PATHS" and line.strip().startswith("/"):
                break
            items = _items(line)
            if keyword == "PATHS" and len(items) >= 2:
                includes.aliases[items[0]] = items[1]
            elif keyword == "INCLUDE" and items:
                includes.count += 1
                if includes.count > MAX_INCLUDES:
                    raise DeckError(f"{where}, line {number}: more than {MAX_INCLUDES} INCLUDE keywords in one deck")
                check_file(_include_path(items[0], includes), f" (INCLUDE in {where}, line {number})", chain,
                            includes)
                break
            elif keyword == "INCLUDE" and line.strip():
                break


def _include_path(name: str, includes: Includes) -> pathlib.Path:
    for alias, directory in includes.aliases.items():
        name = name.replace(f"${alias}", directory)
    path = pathlib.Path(name)
    return path if path.is_absolute() else includes.root / path
