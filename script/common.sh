# Shared by the scripts, which source it after changing to the root of the repository.

# fail MESSAGE NEXT: says what went wrong and what to do next, and ends the script.
fail() {
    printf '\n%s: %s\n  Next: %s\n' "$0" "$1" "$2" >&2
    exit 1
}

# attempt MESSAGE NEXT COMMAND...: runs the command, and fails with the message if it fails.
attempt() {
    message=$1
    next=$2
    shift 2
    "$@" || fail "$message" "$next"
}

# build_preset PRESET: configures and builds build/PRESET with all processors, each command behind `runner`.
runner=
build_preset() {
    attempt "preset '$1' could not be configured." \
        "read the first error above; 'rm -r build/$1' removes what an older configuration left." \
        $runner cmake --preset "$1"
    attempt "preset '$1' did not build." "fix the first error above, then run '$0' again." \
        $runner cmake --build --preset "$1" --parallel "$(nproc)"
}
