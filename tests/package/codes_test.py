"""docs/codes.md has words for every number that docs/protocol.md and the device library's header know.

    codes_test.py ROOT

The table of codes in docs/protocol.md is held to the code by a test of its own; here every row of it must be found
again in docs/codes.md, and docs/codes.md must not know numbers that the table does not have.
"""

import os
import re
import sys

# What only the status of the device says, beside the table.
STATUS_CODES = {"-1", "0"}


def read(root, path):
    with open(os.path.join(root, path), encoding="utf-8") as file:
        return file.read()


def rows(text):
    """The cells of each row of the tables in a text, without their headings."""
    for line in text.splitlines():
        if line.startswith("| ") and not line.startswith("| ---"):
            yield [cell.strip() for cell in line.strip("|").split(" |")]


def chapter(text, title):
    return re.search(rf"^## {title}\n(.*?)(?=^## |\Z)", text, re.M | re.S)[1]


def is_number(text):
    return re.fullmatch(r"-?\d+", text) is not None


def outcomes(protocol):
    """Method, result, code and reason of each row of the table that the code gives."""
    table = re.search(r"<!-- begin codes -->\n(.*?)<!-- end -->", protocol, re.S)[1]
    return [row[:4] for row in rows(table) if is_number(row[2]) or is_number(row[3])]


def results(words):
    """What a client sees of each function and result, by the chapter for writers of device libraries."""
    function, seen = "", {}
    for row in rows(chapter(words, "Results of the device library")):
        function = row[0].strip("`") or function
        seen[function, row[1]] = row[3]
    return seen


def numbers(words, title):
    return {row[0] for row in rows(chapter(words, title)) if is_number(row[0])}


def check_numbers(known, words):
    codes = {row[2] for row in known if is_number(row[2])} | STATUS_CODES
    reasons = {row[3] for row in known if is_number(row[3])}
    for title, wanted in (("Codes", codes), ("Reasons", reasons)):
        found = numbers(words, title)
        yield from (f"{title}: no words for {number}" for number in sorted(wanted - found))
        yield from (f"{title}: {number} is never answered" for number in sorted(found - wanted))


def check_results(known, words, functions):
    seen = results(words)
    named = {function.lower(): function for function in functions}
    for method, result, code, reason in known:
        function = named.get(method.strip("`").lower())
        if function is None or result == reason:  # a result of the server's own has the reason's number
            continue
        told = seen.get((function, result), "nothing")
        if not told.startswith(f"{code}, {reason}"):
            yield f"{function}, result {result}: {told} instead of {code}, {reason}"
    listed = {(named.get(row[0].strip("`").lower()), row[1]) for row in known}
    with_codes = {function for function, _ in listed if function}
    for function, result in seen:
        if function in with_codes and result != "0" and (function, result) not in listed:
            yield f"{function} has no result {result}"
    for function in sorted(set(functions) ^ {function for function, _ in seen if function.lower() != "function"}):
        yield f"{function} stands in one of rDxSvcs.h and docs/codes.md only"


def main():
    root = sys.argv[1]
    known = outcomes(read(root, "docs/protocol.md"))
    words = read(root, "docs/codes.md")
    functions = re.findall(r"^RDX_API int (\w+)\(", read(root, "rDxsd/rDxSvcs.h"), re.M)
    if len(known) < 30 or len(functions) < 19:
        sys.exit("codes_test.py: the tables cannot be read")
    findings = [*check_numbers(known, words), *check_results(known, words, functions)]
    print(*findings, sep="\n", end="\n" if findings else "")
    sys.exit(1 if findings else 0)


if __name__ == "__main__":
    main()
