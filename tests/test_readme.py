"""The code in README.md runs as written and prints what the README shows.

The ```python blocks run in order, in one namespace.  A block followed by a
```text block must print exactly that text; a block without one must print
nothing.
"""

import contextlib
import io
import re

from conftest import ROOT

BLOCK = re.compile(r"```python\n(.*?)```(?:\s*```text\n(.*?)```)?", flags=re.S)


def test_readme_code_prints_what_the_readme_shows():
    blocks = BLOCK.findall((ROOT / "README.md").read_text())
    assert len(blocks) > 5
    namespace = {}
    for number, (code, shown) in enumerate(blocks, start=1):
        printed = io.StringIO()
        with contextlib.redirect_stdout(printed):
            exec(compile(code, f"README.md, python block {number}", "exec"), namespace)
        assert printed.getvalue() == shown, f"python block {number} of README.md:\n{code}"
