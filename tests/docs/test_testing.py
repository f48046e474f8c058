"""docs/testing.md says of each stage what ./test --help says."""

import re
import subprocess
from pathlib import Path

ROOT = Path(__file__).parents[2]


def test_the_page_and_the_help_say_the_same():
    usage = subprocess.run([ROOT / "test", "--help"], check=True, stdout=subprocess.PIPE, encoding="utf-8").stdout
    helped = dict(re.findall(r"^ {14}(\S+) +(.*)$", usage, re.MULTILINE))
    page = (ROOT / "docs" / "testing.md").read_text(encoding="utf-8")
    listed = dict(re.findall(r"^\| `(\S+)` \| ([^|]*) \| [^|]+ \| \d+ \|$", page, re.MULTILINE))
    assert len(listed) >= 17
    assert listed == {stage: what for stage, what in helped.items() if stage in listed}


def test_every_stage_has_help():
    script = (ROOT / "test").read_text(encoding="utf-8")
    stages = re.search(r"^all=\((.*)\)$", script, re.MULTILINE)[1].split()
    helped = re.findall(r"^ {14}(\S+) ", script.partition("\nEND\n")[0], re.MULTILINE)
    assert sorted(stages) == sorted(helped)
    assert sorted(re.findall(r"^ {8}([a-z]+)\)", script, re.MULTILINE)) == sorted(stages)
