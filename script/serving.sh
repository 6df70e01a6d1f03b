# Shared by the scripts that run a server; bash, sourced after common.sh.

# in_use PORT: true when something listens on it: state 0A in the kernel's tables, the port in hexadecimal.
in_use() {
    cat /proc/net/tcp /proc/net/tcp6 2>/dev/null |
        awk -v port="$(printf ':%04X$' "$1")" '$2 ~ port && $4 == "0A" { found = 1 } END { exit !found }'
}

# The user that these servers know: demo with the password demo. That is no secret, it stands in the README;
# what it opens is a simulated device, for as long as the script runs. A salt of its own would hide nothing
# and would need a program that a bare system may lack.
demo_user='demo:$6$rdxdemo$iNtN0PPu4FpeeqB6wkcwCz43zb2et5./EtWzqO6hNcztT85b9jZsCZpKhSM4CgH2xMlx8pAPdhZqaFSdTQ7Qj/:19000:0:99999:7:::'

# give_demo_user FOLDER: makes `with_demo_user` the words that, put before a command, run it with a shadow
# database of its own, FOLDER/shadow, which holds the user demo alone. It lies over /etc/shadow in a mount
# namespace that only this command sees; the machine's own is not touched. Root may have such a namespace,
# an ordinary user only together with one for users, in which it counts as root. Each step becomes the next
# program, so that the process keeps its number and its signals. Where the system allows neither, the words
# are none and `no_demo_user` says why.
give_demo_user() {
    local namespaces
    (umask 077 && printf '%s\n' "$demo_user" >"$1/shadow")
    for namespaces in -m -rm; do
        no_demo_user=
        with_demo_user=(unshare "$namespaces" sh -c 'mount --bind "$0" /etc/shadow && exec "$@"' "$1/shadow")
        ! "${with_demo_user[@]}" getent shadow demo >/dev/null 2>"$1/refusal" || return 0
        no_demo_user=$(tail -n 1 "$1/refusal")
    done
    : "${no_demo_user:=the database could not be read}"
    with_demo_user=()
}
