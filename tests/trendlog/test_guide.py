"""What docs/trendlog.md shows is what the commands print."""

import re
import subprocess
from pathlib import Path

import pytest

from conftest import TRENDLOG, environment

GUIDE = Path(__file__).parent.parent.parent / "docs" / "trendlog.md"
BLOCKS = re.findall(r"^    \$ (trendlog .*)\n((?:    (?!\$ ).*\n|\n(?=    ))*)",
                    GUIDE.read_text(), re.MULTILINE)


def test_there_are_ten_things():
    assert len(re.findall(r"^## \d+\. ", GUIDE.read_text(), re.MULTILINE)) == 10
    assert len(BLOCKS) >= 10


@pytest.mark.parametrize("line,shown", BLOCKS, ids=[line for line, _ in BLOCKS])
def test_output_is_as_shown(shell, line, shown):
    result = subprocess.run(["bash", "-c", f'trendlog() {{ "{TRENDLOG}" "$@"; }}; {line}'],
                            cwd=shell.folder, capture_output=True, text=True, env=environment())
    printed = [text.rstrip() for text in (result.stdout + result.stderr).splitlines()]
    shown = [text[4:] for text in shown.rstrip("\n").split("\n")]
    if shown[-1] == "...":
        shown.pop()
        printed = printed[:len(shown)]
    assert printed == shown
