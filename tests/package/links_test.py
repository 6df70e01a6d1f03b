"""The links in the documents lead to files and headings that are there.

    links_test.py ROOT
"""

import glob
import os
import re
import sys

LINK = re.compile(r"\[[^\]]*\]\(([^)\s]+)\)")


def without_code(text):
    return re.sub(r"^```.*?^```$", "", text, flags=re.M | re.S)


def anchors(path):
    """What a heading is linked by: its words in lower case, joined by dashes."""
    with open(path, encoding="utf-8") as file:
        headings = re.findall(r"^#+ (.+)$", without_code(file.read()), re.M)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).strip().replace(" ", "-") for heading in headings}


def check(path):
    with open(path, encoding="utf-8") as file:
        links = LINK.findall(without_code(file.read()))
    for link in links:
        if "://" in link:
            continue
        target, _, anchor = link.partition("#")
        place = os.path.normpath(os.path.join(os.path.dirname(path), target)) if target else path
        if not os.path.exists(place):
            yield f"{path}: there is no {link}"
        elif anchor and anchor not in anchors(place):
            yield f"{path}: there is no heading {link}"


def main():
    os.chdir(sys.argv[1])
    documents = sorted(glob.glob("*.md") + glob.glob("docs/*.md"))
    findings = [finding for path in documents for finding in check(path)]
    with open("docs/README.md", encoding="utf-8") as file:
        index = file.read()
    findings += [f"docs/README.md does not name {path}" for path in documents
                 if path != "docs/README.md" and os.path.basename(path) not in index]
    if len(documents) < 8:
        findings.append("no documents were found; look at the argument")
    print(*findings, sep="\n", end="\n" if findings else "")
    sys.exit(1 if findings else 0)


if __name__ == "__main__":
    main()
