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

# give_demo_user FOLDER PROGRAM: makes `with_demo_user` the words that, put before PROGRAM, run it with a shadow
# database of its own, FOLDER/shadow, which holds the user demo alone. It lies over /etc/shadow in a mount
# namespace that only this command sees; the machine's own is not touched. Root may have such a namespace,
# an ordinary user only together with one for users, in which it counts as root. Where the system allows
# neither, as in most containers, a library that is preloaded has PROGRAM read that file. Each step becomes the
# next program, so that the process keeps its number and its signals. Where nothing helps, the words are none
# and `no_demo_user` says why.
give_demo_user() {
    local over='mount --bind "$0" /etc/shadow && exec "$@"' library
    library=$(dirname "$2")/librdxusers.so
    [ -e "$library" ] || library=build/server/librdxusers.so # an installed program has none
    (umask 077 && printf '%s\n' "$demo_user" >"$1/shadow")
    knows_demo "$1" unshare -m sh -c "$over" "$1/shadow" ||
        knows_demo "$1" unshare -rm sh -c "$over" "$1/shadow" ||
        knows_demo "$1" env "LD_PRELOAD=$library${LD_PRELOAD:+:$LD_PRELOAD}" "RDX_SIM_USERS=$1/shadow" ||
        with_demo_user=()
}

# knows_demo FOLDER WORD...: whether these words put the user demo in reach. A program that could not be given
# another database would ask the machine's, which may have a user of that name.
knows_demo() {
    with_demo_user=("${@:2}")
    no_demo_user=
    [ "$("${with_demo_user[@]}" getent shadow demo 2>"$1/refusal")" != "$demo_user" ] || return 0
    no_demo_user=$(tail -n 1 "$1/refusal")
    : "${no_demo_user:=the database could not be read}"
    return 1
}
