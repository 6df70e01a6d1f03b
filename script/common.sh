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

# help_if_asked "$@": prints the comment that the script begins with, and ends it, if that is asked for.
help_if_asked() {
    for word; do
        case $word in
        -h | --help)
            sed -n '2,/^[^#]/s/^# \{0,1\}//p' "script/${0##*/}"
            exit 0
            ;;
        esac
    done
}

# temporary_folder NAME: makes a folder for temporary files and prints its path. A full file system still gives
# a folder and refuses only what is put into it, so that is tried.
temporary_folder() {
    if made=$(mktemp -d "${TMPDIR:-/tmp}/$1.XXXXXX") && head -c 8388608 /dev/zero >"$made/room"; then
        rm "$made/room"
        printf '%s\n' "$made"
        return
    fi
    [ -z "$made" ] || rm -rf "$made"
    fail "there is no room for temporary files in ${TMPDIR:-/tmp}." \
        "make room there, or name another folder: TMPDIR=FOLDER $0"
}

# build_preset PRESET: configures and builds build/PRESET with all processors, each command behind `runner`.
runner=
build_preset() {
    probe=$(temporary_folder rdx-build) || exit 1 # for the compiler, whose own words are many
    rmdir "$probe"
    attempt "preset '$1' could not be configured." \
        "read the first error above; 'rm -r build/$1' removes what an older configuration left." \
        $runner cmake --preset "$1"
    attempt "preset '$1' did not build." "fix the first error above, then run '$0' again." \
        $runner cmake --build --preset "$1" --parallel "$(nproc)"
}
