"""Holds the floors of the house: which folder and which module may include which.

    floors.py ROOT MODULES

ROOT is the project's folder. MODULES lists the library's modules as the build knows them, lowest first, a line
each: "NAME: FILE...: MODULE...", the last the modules it is declared to depend on. Prints each arrow that must
not be there and each declared one that nobody uses; the exit status is 1 then.
"""

import os
import re
import sys

# What the sources of a folder may include beside their own folder's, in the order of the floors.
FLOORS = {
    "common": [],
    "http": ["common/"],
    "wddx": ["common/"],
    "client": ["common/", "http/"],
    "rDxsd": ["common/", "http/", "wddx/"],
    "server": ["common/", "http/", "client/", "wddx/", "rDxsd/"],
    "host": ["common/config.h", "server/rdxhttp.h"],
    "sim": ["rDxsd/rDxSvcs.h"],
}

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def includes(root, path):
    """The project's own headers that a file includes."""
    with open(os.path.join(root, path), encoding="utf-8") as file:
        return INCLUDE.findall(file.read())


def sources(root, folder):
    for place, _, names in os.walk(os.path.join(root, folder)):
        for name in sorted(names):
            if name.endswith((".cpp", ".h", ".c")):
                yield os.path.relpath(os.path.join(place, name), root)


def check_folders(root):
    """Every include of a folder's sources is its own folder's or one that its floor may use."""
    floors = list(FLOORS)
    for folder, allowed in FLOORS.items():
        higher = [a for a in allowed if floors.index(a.split("/")[0]) >= floors.index(folder) and folder != "sim"]
        if higher:
            yield f"the floors themselves: {folder} may not stand on {higher}"
        for path in sources(root, folder):
            for target in includes(root, path):
                own = target.startswith(folder + "/")
                listed = any(target == a or (a.endswith("/") and target.startswith(a)) for a in allowed)
                if not own and not listed:
                    yield f"{path} includes {target}, which is not below {folder}/"


def read_modules(path):
    """The modules in their order: name, files, declared dependencies."""
    with open(path, encoding="utf-8") as file:
        for line in file:
            name, files, needs = (part.split() for part in line.split(":"))
            yield name[0], files, needs


def check_modules(root, modules):
    """The declared arrows are the arrows of the includes, and all of them go down."""
    home = {path: name for name, files, _ in modules for path in files}
    position = {name: i for i, (name, _, _) in enumerate(modules)}
    folders = [folder for folder in FLOORS if folder not in ("host", "sim")]
    for path in (p for folder in folders for p in sources(root, folder)):
        if path not in home:
            yield f"{path} belongs to no rdx_module of CMakeLists.txt"
    for name, files, needs in modules:
        used = {}
        for path in files:
            for target in includes(root, path):
                used.setdefault(home.get(target, target), []).append(f"{path} includes {target}")
        used.pop(name, None)
        for other, reasons in used.items():
            if other not in needs:
                yield f"module {name} does not declare {other}: {reasons[0]}"
        for other in needs:
            if other not in used:
                yield f"module {name} declares {other} and includes nothing of it"
            elif position[other] >= position[name]:
                yield f"module {name} stands below {other}, which it uses: {used[other][0]}"


def check_cycles(root):
    """No header leads back to itself."""
    graph = {path: includes(root, path) for folder in FLOORS for path in sources(root, folder)}
    done = set()

    def walk(path, trail):
        if path in trail:
            yield "a cycle: " + " -> ".join(trail[trail.index(path):] + [path])
        elif path not in done:
            for target in graph.get(path, []):
                yield from walk(target, trail + [path])
            done.add(path)

    for path in graph:
        yield from walk(path, [])


def main():
    root, listing = sys.argv[1:]
    modules = list(read_modules(listing))
    if len(modules) < 10 or sum(1 for folder in FLOORS for _ in sources(root, folder)) < 50:
        sys.exit("floors.py: nothing was read; look at its arguments")
    findings = [*check_folders(root), *check_modules(root, modules), *check_cycles(root)]
    print(*findings, sep="\n", end="\n" if findings else "")
    sys.exit(1 if findings else 0)


if __name__ == "__main__":
    main()
