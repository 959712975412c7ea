"""Sphinx configuration of kavra's documentation: `make docs` builds it into build/docs/html."""

import pathlib
import re
import sys

import kavra

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent
sys.path.insert(0, str(HERE))  # _gallery

project = "kavra"
author = "the kavra developers"
copyright = "the kavra developers"
release = version = kavra.__version__

# --- pages from the repository's Markdown, written once there ------------------------------------
# README.md is cut at its markers into the tour, the comparison with Flow and the native reference;
# bench/README.md is the performance page.  Links between those parts point at the page that holds
# the target, and paths of the repository at its files.
PAGES = HERE / "_pages"
PARTS = {  # page: (file, the text it starts after, the text it ends before; None: the file's end)
    "tour": ("README.md", "<!-- tour: start -->", "<!-- tour: end -->"),
    "comparison": ("README.md", "<!-- comparison with Flow: start -->", "<!-- comparison with Flow: end -->"),
    "native": ("README.md", "<!-- tour: end -->", None),
    "performance": ("bench/README.md", "", None),
}
TITLES = {"tour": "A tour", "comparison": "Black-oil properties against Flow",
          "native": "The native module, the layout, contributing"}
# The modules of the API reference, a page each (with their functions and classes): one line each.
MODULES = [
    "kavra.tables",
    "kavra.deck",
    "kavra.results",
    "kavra.dask",
    "kavra.blackoil",
    "kavra.satfunc",
    "kavra.equil",
]


def _slug(heading: str) -> str:
    """The anchor of a heading, as GitHub and MyST make it."""
    return re.sub(r"[^\w\- ]", "", heading.strip().lower()).replace(" ", "-")


def _write_pages() -> None:
    texts = {}
    for page, (name, start, end) in PARTS.items():
        text = (ROOT / name).read_text()
        text = text[text.index(start) + len(start):]
        texts[page] = text if end is None else text[:text.index(end)]
    anchors = {page: {_slug(h) for h in re.findall(r"^#+ (.+)$", text, re.M)} for page, text in texts.items()}
    PAGES.mkdir(exist_ok=True)
    for page, text in texts.items():
        def link(match: re.Match[str]) -> str:
            target = match.group(1)
            if target.startswith("#") and target[1:] not in anchors[page]:
                target = next(p for p, a in anchors.items() if target[1:] in a) + ".md" + target
            elif target.startswith("bench/README.md"):
                target = "performance.md" + target[len("bench/README.md"):]
            elif target.startswith("docs/"):
                target = "../" + target[len("docs/"):]
            return "](" + target + ")"
        text = re.sub(r"\]\(((?!https?:)[^)]+)\)", link, text)
        title = f"# {TITLES[page]}\n\n" if page in TITLES else ""
        written = title + text.strip() + "\n"
        path = PAGES / f"{page}.md"
        if not path.exists() or path.read_text() != written:  # unchanged pages stay unread
            path.write_text(written)




# The functions of kavra itself, by the module that defines them (kavra._calls, the table of calls,
# names them): a heading each on the page of the package, the first of the API reference's.
FACE_HEADINGS = {"calculations": "Cell calculations", "reductions": "Columns and regions",
                 "maps": "Columns and regions", "_volumetrics": "Volumetrics", "_threads": "Threads"}


def _write_face_page() -> None:
    from kavra._calls import FACE

    sections: dict[str, list[str]] = {}
    for name, module in FACE.items():
        sections.setdefault(FACE_HEADINGS[module], []).append(name)
    lines = ["kavra", "=====", "", ".. automodule:: kavra", "   :no-members:", "", ".. currentmodule:: kavra", ""]
    for heading, names in sections.items():
        lines += [heading, "-" * len(heading), "", ".. autosummary::", "   :toctree: ../../generated",
                  "   :nosignatures:", "", *(f"   {name}" for name in names), ""]
    (PAGES / "api").mkdir(parents=True, exist_ok=True)
    path = PAGES / "api" / "kavra.rst"
    written = "\n".join(lines)
    if not path.exists() or path.read_text() != written:
        path.write_text(written)


def _write_module_pages() -> None:
    """A page per module of MODULES: its docstring, then what its __all__ exports."""
    import importlib
    import inspect

    (PAGES / "api").mkdir(parents=True, exist_ok=True)
    for name in MODULES:
        module = importlib.import_module(name)
        kinds: dict[str, list[str]] = {"Functions": [], "Classes": [], "Exceptions": []}
        for member in module.__all__:
            value = getattr(module, member)
            if inspect.isclass(value):
                kinds["Exceptions" if issubclass(value, BaseException) else "Classes"].append(member)
            elif callable(value):
                kinds["Functions"].append(member)
        lines = [name, "=" * len(name), "", f".. automodule:: {name}", "   :no-members:", "",
                 f".. currentmodule:: {name}", ""]
        for kind, members in kinds.items():
            if members:
                lines += [kind, "-" * len(kind), "", ".. autosummary::", "   :toctree: ../../generated",
                          "   :nosignatures:", "", *(f"   {m}" for m in members), ""]
        path = PAGES / "api" / f"{name}.rst"
        written = "\n".join(lines)
        if not path.exists() or path.read_text() != written:
            path.write_text(written)


_write_pages()
_write_face_page()
_write_module_pages()

extensions = [
    "sphinx.ext.autodoc",
    "sphinx.ext.autosummary",
    "numpydoc",
    "myst_parser",
    "sphinx_gallery.gen_gallery",
]
source_suffix = {".rst": "restructuredtext", ".md": "markdown"}
templates_path = ["_templates"]
exclude_patterns = ["_build", "generated/*.examples", "auto_examples/*.ipynb", "auto_examples/*.py",
                    "auto_examples/*.zip", "auto_examples/*.md5"]
# `name` in a docstring or an example's text is code, as in the README's Markdown.
default_role = "literal"
# Options such as --png stay two hyphens.
smartquotes = False
html_theme = "furo"
html_title = f"kavra {release}"
html_static_path: list[str] = []

autosummary_generate = True
autodoc_typehints = "none"  # numpydoc's Parameters say the types
numpydoc_show_class_members = False
numpydoc_class_members_toctree = False
myst_heading_anchors = 4
myst_enable_extensions = ["colon_fence"]

sphinx_gallery_conf = {
    "examples_dirs": str(ROOT / "examples"),
    "gallery_dirs": "auto_examples",
    # Examples that need a cluster of worker processes are shown, not run (make ensemble runs them).
    "filename_pattern": r"/(?!ensemble_)[^/]+\.py$",
    "image_scrapers": ("_gallery.saved_figures",),
    "reset_modules": ("_gallery.reset",),
    "reset_modules_order": "before",
    "download_all_examples": False,
    "show_memory": False,
    "remove_config_comments": True,
    "within_subsection_order": "FileNameSortKey",
}
