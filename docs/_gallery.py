"""The gallery's figures: the PNG files an example writes to examples/output.

The examples save their figures and close them, as scripts do, so the figures
that matplotlib still holds are none of them.  Before each example, every PNG
file there counts as old (``reset``); after each block of code, the files that
are new or rewritten since are copied to the gallery's images (``saved_figures``).
"""

import pathlib
import shutil

OUTPUT = pathlib.Path(__file__).resolve().parent.parent / "examples" / "output"
_seen: dict[pathlib.Path, int] = {}


def _stamps() -> dict[pathlib.Path, int]:
    return {png: png.stat().st_mtime_ns for png in sorted(OUTPUT.glob("*.png"))}


def reset(gallery_conf, fname, when=None):
    _seen.clear()
    _seen.update(_stamps())


def saved_figures(block, block_vars, gallery_conf):
    from sphinx_gallery.scrapers import figure_rst

    paths = []
    for png, stamp in _stamps().items():
        if _seen.get(png) != stamp:
            _seen[png] = stamp
            target = next(block_vars["image_path_iterator"])
            shutil.copyfile(png, target)
            paths.append(target)
    return figure_rst(paths, gallery_conf["src_dir"])
