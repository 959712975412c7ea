"""The tour in README.md runs as written."""

import re

from conftest import ROOT


def test_readme_tour_runs():
    text = (ROOT / "README.md").read_text()
    blocks = re.findall(r"```python\n(.*?)```", text, flags=re.S)
    assert blocks
    exec(compile("\n".join(blocks), "README.md", "exec"), {})
