"""The functions, types and files that docs/architecture.md names are there.

    names_test.py ROOT
"""

import os
import re
import sys

FOLDERS = ("common", "http", "wddx", "client", "rDxsd", "server", "host", "sim")

# Words in code type that are no names of the sources'.
FOREIGN = {"select", "accept", "abort", "rdxhttpd", "libDxSvcs.so"}


def sources(root):
    for folder in FOLDERS:
        for place, _, names in os.walk(os.path.join(root, folder)):
            for name in names:
                if name.endswith((".cpp", ".h")):
                    with open(os.path.join(place, name), encoding="utf-8") as file:
                        yield file.read()


def main():
    root = sys.argv[1]
    with open(os.path.join(root, "docs/architecture.md"), encoding="utf-8") as file:
        words = set(re.findall(r"`([^`\n]+)`", file.read())) - FOREIGN
    code = "\n".join(sources(root))
    words = {word for word in words if not os.path.exists(os.path.join(root, word))}
    findings = [f"there is no {word}" for word in sorted(words) if "/" in word]
    names = {name for word in words if re.fullmatch(r"\w+((::|\.)\w+)*", word) for name in re.split(r"::|\.", word)}
    findings += [f"nothing is called {name}" for name in sorted(names) if not re.search(rf"\b{name}\b", code)]
    if len(names) < 40 or len(code) < 100000:
        findings.append("nothing was read; look at the arguments")
    print(*findings, sep="\n", end="\n" if findings else "")
    sys.exit(1 if findings else 0)


if __name__ == "__main__":
    main()
