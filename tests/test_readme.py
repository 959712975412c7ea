"""The code in README.md runs as written and prints what the README shows.

Every ```python block runs on its own, in a fresh namespace and from another
directory than the repository's.  A block followed by a ```text block must
print exactly that text; a block without one must print nothing.  A block
that uses an optional extra is skipped when the extra is not installed.
"""

import contextlib
import io
import re

import pytest

from conftest import BOOST_PYTHON_BUILT, KAVRACORE_NAMES, ROOT, WITHOUT_BOOST_PYTHON

BLOCK = re.compile(r"```python\n(.*?)```(?:\s*```text\n(.*?)```)?", flags=re.S)
BLOCKS = BLOCK.findall((ROOT / "README.md").read_text())
EXTRAS = {"kavra.deck": "opm", "kavra.dask": "dask", "to_frame": "pandas"}  # what a block uses: what it needs
NATIVE = KAVRACORE_NAMES | set("_kavracore tessel to_native from_native".split())  # words that need Boost.Python


@pytest.mark.parametrize("number", range(1, len(BLOCKS) + 1))
def test_each_readme_block_prints_what_the_readme_shows(number, tmp_path, monkeypatch):
    code, shown = BLOCKS[number - 1]
    for use, module in EXTRAS.items():
        if use in code:
            pytest.importorskip(module)
    if not BOOST_PYTHON_BUILT and NATIVE & set(re.findall(r"\w+", code)):
        pytest.skip("needs " + WITHOUT_BOOST_PYTHON)
    monkeypatch.chdir(tmp_path)
    printed = io.StringIO()
    with contextlib.redirect_stdout(printed):
        exec(compile(code, f"README.md, python block {number}", "exec"), {})
    assert printed.getvalue() == shown, f"python block {number} of README.md:\n{code}"
