#!/bin/bash
# Every script says with --help what it does and how it is called, does nothing else then, and refuses what it
# does not know. What needs room for temporary files says so where there is none. The hook that
# script/bootstrap offers refuses a commit that is not formatted.
#
#   scripts_test.sh SOURCE
set -eu
. "$(dirname "$0")/common.sh"
source=$1

# --- help ---

for script in "$source"/script/*; do
    [ -x "$script" ] || continue
    called=script/$(basename "$script")
    for option in --help -h; do
        (cd / && timeout 20 "$script" $option) >"$work/log" 2>"$work/complaints" || fail "$called $option"
        [ ! -s "$work/complaints" ] || fail "$called $option: $(cat "$work/complaints")"
        grep -q "^  $called" "$work/log" || fail "$called $option does not say how it is called: $(cat "$work/log")"
        ! grep -q '^#\|^set \|^cd ' "$work/log" || fail "$called $option shows its code: $(cat "$work/log")"
        # No option is a secret.
        for word in $(sed -n 's/^ *\(--[a-z]*\)\(=\*\)\?\( | --[a-z]*\)\?).*/\1\3/p' "$script" | tr -d '|'); do
            grep -qe "$word" "$work/log" || fail "$called $option does not name $word"
        done
    done
    timeout 20 "$script" --unknown >"$work/log" 2>&1 && fail "$called took an unknown option"
    grep -q '^  Next: ' "$work/log" || fail "$called: no next step: $(cat "$work/log")"
done

# --- room ---

# no_room COMMAND...: fails, and says where room is to be made.
no_room() {
    "$@" >"$work/log" 2>&1 && fail "there was room: $*"
    grep -q 'there is no room for temporary files in' "$work/log" || fail "$*: $(cat "$work/log")"
    grep -q '^  Next: make room there, or name another folder: TMPDIR=FOLDER script/' "$work/log" ||
        fail "$*: $(cat "$work/log")"
}
cd "$source"
for script in 'server --port 8079' demo protocol 'build server'; do
    no_room env TMPDIR="$work/none" script/$script
    # Files of one block, as in a file system that has no more.
    no_room sh -c "ulimit -f 1; TMPDIR=$work exec script/$script"
    [ -z "$(find "$work" -mindepth 1 -name 'rdx*')" ] || fail "script/$script leaves something behind"
done

# --- the hook ---

clone=$work/clone
mkdir "$clone"
cp -R script .clang-format "$clone"
cd "$clone"
unset GIT_DIR GIT_WORK_TREE GIT_INDEX_FILE
export GIT_CONFIG_GLOBAL=/dev/null GIT_AUTHOR_NAME=a GIT_AUTHOR_EMAIL=a@b GIT_COMMITTER_NAME=a GIT_COMMITTER_EMAIL=a@b
script/bootstrap hook >"$work/log" 2>&1 && fail "a hook without a repository"
git init -q
script/bootstrap hook >"$work/log" || fail "$(cat "$work/log")"
script/bootstrap hook >"$work/log" || fail "twice: $(cat "$work/log")"
[ ! -s "$work/log" ] || fail "twice: $(cat "$work/log")"
# commits TEXT: whether the hook lets it pass.
commits() {
    printf '%s\n' "$1" >a.cpp
    git add a.cpp
    [ -z "${2:-}" ] || printf '%s\n' "$2" >a.cpp # which is not what is committed
    git commit -qm a >"$work/log" 2>&1
}
commits 'int a;' || fail "a formatted source is refused: $(cat "$work/log")"
commits 'int  b;' && fail "a source is committed that is not formatted"
grep -q '^  Next: run: script/format, then git add$' "$work/log" || fail "$(cat "$work/log")"
commits 'int  b;' 'int b;' && fail "the file is looked at instead of what is staged"
commits 'int b;' 'int  b;' || fail "the file is looked at instead of what is staged: $(cat "$work/log")"
git rm -qf a.cpp
git commit -qm none >"$work/log" 2>&1 || fail "a removed source is refused: $(cat "$work/log")"

echo '#!/bin/sh' >.git/hooks/pre-commit
script/bootstrap hook >"$work/log" 2>&1 && fail "another hook was replaced"
grep -q '^  Next: add to it: script/format --staged$' "$work/log" || fail "$(cat "$work/log")"
end "helped, refused, and hooked"
