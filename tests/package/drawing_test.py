"""docs/floors.svg is what docs/floors.txt gives, and that text shows the floors that floors.py holds.

    drawing_test.py ROOT
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ElementTree

sys.dont_write_bytecode = True  # the sources stay as they are
from floors import FLOORS


def drawing(root, *options):
    """Whether the script was satisfied, and what it said."""
    done = subprocess.run([os.path.join(root, "script/drawing"), *options], capture_output=True, check=False, text=True)
    return done.returncode == 0, done.stderr


def reachable(arrows, start):
    """The folders below one, by its arrows and theirs."""
    found, left = set(), [start]
    while left:
        below = arrows.get(left.pop(), set()) - found
        found |= below
        left += below
    return found


def check_floors(text):
    """The drawing has the arrows of the sources' floors, the lower ones of which follow from the higher."""
    drawn = {}
    for start, end in re.findall(r"^uses (\w+) (\w+)", text, re.M):
        drawn.setdefault(start, set()).add(end)
    allowed = {folder: {path.split("/")[0] for path in paths} for folder, paths in FLOORS.items()}
    boxes = set(re.findall(r"^box (\w+)", text, re.M))
    yield from (f"{folder} is in the drawing or in floors.py only" for folder in sorted(boxes ^ set(FLOORS)))
    for folder in FLOORS:
        if reachable(drawn, folder) != reachable(allowed, folder):
            yield f"{folder} stands on {sorted(reachable(allowed, folder))}, drawn: {sorted(reachable(drawn, folder))}"
        for end in drawn.get(folder, set()) - allowed[folder]:
            yield f"{folder} may not include {end}, which the drawing says"


def check_words(root):
    """Each box and its name are in the drawing, which is well-formed."""
    texts = {text.text for text in ElementTree.parse(os.path.join(root, "docs/floors.svg")).iter()
             if text.tag.endswith("}text")}
    yield from (f"{folder}/ is not in the drawing" for folder in FLOORS if folder + "/" not in texts)


def check_notices(root):
    """A changed text is noticed, not repaired by a check, and repaired without one; a bad line is refused."""
    with tempfile.TemporaryDirectory(prefix="rdx-drawing-test.") as copy:
        for path in ("script/drawing", "docs/floors.txt", "docs/floors.svg"):
            os.makedirs(os.path.join(copy, os.path.dirname(path)), exist_ok=True)
            shutil.copy(os.path.join(root, path), os.path.join(copy, path))
        text = os.path.join(copy, "docs/floors.txt")
        with open(text, "a", encoding="utf-8") as file:
            file.write("uses server http\n")
        if drawing(copy, "--check")[0] or drawing(copy, "--check")[0]:
            yield "a new arrow was not noticed, or the check draws"
        if not drawing(copy)[0] or not drawing(copy, "--check")[0]:
            yield "a new arrow was not drawn"
        with open(text, "a", encoding="utf-8") as file:
            file.write("uses server nothing\n")
        ok, words = drawing(copy)
        if ok or "  Next: " not in words:
            yield f"an arrow to nowhere was drawn: {words}"
        ok, words = drawing(copy, "--unknown")
        if ok or "  Next: " not in words:
            yield "an unknown option was accepted"


def main():
    root = os.path.abspath(sys.argv[1])
    ok, words = drawing(root, "--check")
    with open(os.path.join(root, "docs/floors.txt"), encoding="utf-8") as file:
        findings = [*([] if ok else [words]), *check_floors(file.read()), *check_words(root), *check_notices(root)]
    print(*findings, sep="\n", end="\n" if findings else "")
    sys.exit(1 if findings else 0)


if __name__ == "__main__":
    main()
