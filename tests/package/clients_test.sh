#!/bin/bash
# The example clients, each against a real server and against one that does everything wrong; and what
# docs/protocol.md says and shows: its statements, its first calls, its requests as they go over the wire.
#
#   clients_test.sh SOURCE BUILD      BUILD: where rdxhttpd and its libraries lie
set -eu
. "$(dirname "$0")/common.sh"
cd "$1"
build=$2
. script/serving.sh
unset RDX_SIM_CALLS
export RDX_SIM_STATE="$work/device.state" RDX_SIM_SCENARIO="$work/scenario.ini"
golden=tests/system/golden
give_demo_user "$work" "$build/rdxhttpd"
[ -z "$no_demo_user" ] || fail "no user demo: $no_demo_user"

gcc -std=c11 -O2 -Wall -Wextra -Wpedantic -Werror examples/call.c -o "$work/call" ||
    fail "examples/call.c does not compile by itself"
clients=("$work/call" examples/call.py examples/call.sh)

# has SOURCE TOOL...: true where the tools are that this client needs; otherwise it is left out.
has() {
    local source=$1 tool
    shift
    for tool; do
        command -v "$tool" >/dev/null && continue
        echo "skipped, for there is no $tool: $source"
        left_out=yes
        return 1
    done
}

# wrap NAME COMMAND: a client of one word. Java takes its arguments for text of the locale's character set.
wrap() {
    printf '#!/bin/sh\nLC_ALL=C.UTF-8 exec %s "$@"\n' "$2" >"$work/$1"
    chmod +x "$work/$1"
    clients+=("$work/$1")
}

if has examples/Call.java javac java; then
    javac -Xlint:all -Werror -d "$work" examples/Call.java || fail "examples/Call.java does not compile"
    wrap java "java -XX:TieredStopAtLevel=1 -XX:+UseSerialGC -cp $work Call"
fi
! has examples/call.mjs node || clients+=(examples/call.mjs)
if has examples/Call.cs mcs mono; then
    mcs -warnaserror -r:System.Net.Http -r:System.Xml -out:"$work/Call.exe" examples/Call.cs ||
        fail "examples/Call.cs does not compile"
    wrap cs "mono $work/Call.exe"
fi

# serve [SETTING]...: a server on a free port with a new device. A port that is taken ends it; try another.
serve() {
    rm -f "$RDX_SIM_STATE" "$RDX_SIM_SCENARIO"
    for _ in 1 2 3 4 5 6 7 8 9 10; do
        choose_port
        ! in_use "$port" || continue
        printf '%s\n' '[HTTP]' "ServicePort=$port" 'MethodsAllowed=GET, POST' "$@" >"$work/server.ini"
        "${with_demo_user[@]}" "$build/rdxhttpd" -c "$work/server.ini" -mt 16 >"$work/log" 2>&1 &
        server=$!
        until in_use "$port"; do
            kill -0 "$server" 2>/dev/null || continue 2
            sleep 0.05
        done
        sleep 0.1 # another program may have been faster to take the port
        ! kill -0 "$server" 2>/dev/null || return 0
    done
    fail "no server: $(cat "$work/log")"
}

stop() {
    kill -TERM "$server"
    wait "$server" || fail "the server ended with $?: $(cat "$work/log")"
    server=
}

# expect RESULT ARGUMENT...: the client, called so, ends with this status.
expect() {
    local wanted=$1 result=0
    shift
    "$client" "$@" >"$work/answer" 2>"$work/error" </dev/null || result=$?
    [ "$result" -eq "$wanted" ] || fail "$client $*: $result instead of $wanted: $(cat "$work/answer" "$work/error")"
    case $wanted in
    0 | 1 | 2) [ ! -s "$work/error" ] || fail "$client $*: $(cat "$work/error")" ;;
    *) [ -s "$work/error" ] || fail "$client $* says nothing" ;;
    esac
}

# call RESULT METHOD [PACKET [USER:PASSWORD]]: a call of the running server.
call() {
    local packet=${3:-$golden/$2/arguments.xml}
    expect "$1" 127.0.0.1 "$port" "$2" "$packet" ${4+"$4"}
}

# answered LINE CODE REASON: what the last answer says.
answered() {
    [ "$(head -n 1 "$work/answer")" = "$1" ] || fail "$client: $(cat "$work/answer")"
    [ -z "${2:-}" ] || grep -qF "<var name='Status'><struct><var name='code'><number>$2</number></var><var name='msg'><number>$3</number>" \
        "$work/answer" || fail "$client: $(cat "$work/answer")"
}

# What every client does alike.
try_client() {
    try_answers
    try_long_answer
    try_failure_of_the_device
    try_longest_packet
    try_refusals
    try_wrong_use
}

# An answer is printed whole, wherever the packet comes from.
try_answers() {
    call 0 rdxGetVersion
    answered '200 OK'
    # The whole output: the status, the packet, a line end.
    { echo '200 OK' && cat "$golden/rdxGetVersion/0.xml" && echo; } | cmp - "$work/answer" ||
        fail "$client: $(cat "$work/answer")"
    "$client" 127.0.0.1 "$port" rdxGetVersion - <"$golden/rdxGetVersion/arguments.xml" | cmp - "$work/answer" ||
        fail "$client does not read standard input"
    call 0 rdxGetDeviceStatus
    answered '200 OK' 0 0
    expect 0 localhost "$port" rdxGetDeviceStatus "$golden/rdxGetDeviceStatus/arguments.xml"
}

try_long_answer() {
    printf '[rdxGetDeviceAttributes]\n' >"$work/scenario"
    for i in 1 2 3 4 5 6 7 8 9 10; do
        printf 'attribute = "%s" "%012000d<&>" persistent\n' "$i" 0 >>"$work/scenario"
    done
    mv "$work/scenario" "$RDX_SIM_SCENARIO"
    call 0 rdxGetDeviceStatus
    [ "$(wc -c <"$work/answer")" -gt 120000 ] || fail "$client cuts a long answer off"
    rm "$RDX_SIM_SCENARIO"
}

try_failure_of_the_device() {
    printf '[rDxGetDeviceType]\nresult = 1\n' >"$work/scenario"
    mv "$work/scenario" "$RDX_SIM_SCENARIO"
    call 1 rdxGetDeviceStatus
    answered '200 OK' -1 0
    rm "$RDX_SIM_SCENARIO"
}

try_longest_packet() {
    { cat "$golden/rdxGetVersion/arguments.xml" && printf '%065536d' 0; } | head -c 65536 >"$work/longest"
    call 0 rdxGetVersion "$work/longest"
    echo >>"$work/longest"
    call 4 rdxGetVersion "$work/longest"
}

try_refusals() {
    call 2 rdxAllocateDevice
    answered '401 Unauthorized'
    call 2 rdxGetVersion "$golden/rdxReleaseDevice/arguments.xml"
    answered '400 Bad Request'
    call 2 rdxAllocateDevice "$golden/rdxAllocateDevice/arguments.xml" demo:wrong
    answered '401 Unauthorized'
}

# What cannot be called is not tried, and a port where nobody listens is told from it.
try_wrong_use() {
    local nowhere wrong
    call 4 ''
    call 4 'rdxGetVersion&x=' "$golden/rdxGetVersion/arguments.xml"
    call 4 "$(printf 'x%.0s' $(seq 33))" "$golden/rdxGetVersion/arguments.xml"
    call 4 rdxGetVersion "$work/missing"
    call 4 rdxGetVersion /dev/null
    printf '<wddx\0Packet' >"$work/nul"
    call 4 rdxGetVersion "$work/nul"
    call 4 rdxGetVersion "$golden/rdxGetVersion/arguments.xml" nobody
    expect 4
    expect 4 127.0.0.1 "$port" rdxGetVersion
    expect 4 127.0.0.1 "$port" rdxGetVersion "$golden/rdxGetVersion/arguments.xml" a:b c
    for wrong in 0 65536 x; do
        expect 4 127.0.0.1 "$wrong" rdxGetVersion "$golden/rdxGetVersion/arguments.xml"
    done
    nowhere=$((port + 1))
    while in_use "$nowhere"; do nowhere=$((nowhere + 1)); done
    expect 3 127.0.0.1 "$nowhere" rdxGetVersion "$golden/rdxGetVersion/arguments.xml"
}

# What needs the user demo.
try_user() {
    call 0 rdxAllocateDevice "$golden/rdxAllocateDevice/arguments.xml" demo:demo
    answered '200 OK' 0 0
    call 1 rdxAllocateDevice "$golden/rdxAllocateDevice/arguments.xml" demo:demo
    answered '200 OK' 42030 9001
    grep -qF "<var name='DeviceOwner'><string>Workstation 7</string></var>" "$work/answer" ||
        fail "$client: $(cat "$work/answer")"
    for method in rdxSetDeviceAttributes rdxSetIpConfiguration rdxGetVehicleStatus rdxInitiateCfgRequest; do
        call 0 "$method" "$golden/$method/arguments.xml" demo:demo
        answered '200 OK' 0 0
    done
    call 0 rdxReleaseDevice "$golden/rdxReleaseDevice/arguments.xml" demo:demo
    answered '200 OK' 0 0
    call 1 rdxNoSuchMethod "$golden/rdxReleaseDevice/arguments.xml" demo:demo
    answered '200 OK' 42010 9003
}

serve
for client in "${clients[@]}"; do
    try_client
    try_user
done
stop

# A text that a setting puts behind each answer is no part of it.
serve SendEOT=true EOTString=_END_
for client in "${clients[@]}"; do
    call 0 rdxGetVersion
    { echo '200 OK' && cat "$golden/rdxGetVersion/0.xml" && echo; } | cmp - "$work/answer" ||
        fail "$client: $(cat "$work/answer")"
done
stop

# A server that stores what it is sent and answers whatever the test wants.
cat >"$work/other.py" <<'END'
import socket, sys
folder = sys.argv[1]
server = socket.create_server(("127.0.0.1", 0))
open(folder + "/port", "w").write(str(server.getsockname()[1]))

def receive(connection):
    more = connection.recv(65536)
    if not more:
        raise ConnectionError("the client's connection ended within its request")
    return more

def serve(connection):
    request = b""
    while b"\r\n\r\n" not in request:
        request += receive(connection)
    head, body = request.split(b"\r\n\r\n", 1)
    length = int([line.split(b":")[1] for line in head.split(b"\r\n") if line.lower().startswith(b"content-length:")][0])
    while len(body) < length:
        body += receive(connection)
    open(folder + "/head", "wb").write(head.replace(b"\r\n", b"\n") + b"\n")
    open(folder + "/body", "wb").write(body)
    connection.sendall(open(folder + "/reply", "rb").read())

while True:
    with server.accept()[0] as connection:
        try:
            serve(connection)
        except ConnectionError as error:
            print("other.py:", error, file=sys.stderr)
END
python3 "$work/other.py" "$work" &
other=$!
until [ -s "$work/port" ]; do
    kill -0 "$other" 2>/dev/null || fail "the other server does not start"
    sleep 0.05
done
port=$(cat "$work/port")

# reply TEXT: the other server's next answers; the text is printf's.
reply() { printf "$1" >"$work/reply"; }
good="<wddxPacket version='1.0'><header/><data><struct><var name='Status'><struct><var name='code'><number>0</number></var></struct></var></struct></data></wddxPacket>"
for client in "${clients[@]}"; do
    reply "HTTP/1.1 200 OK\r\ncontent-LENGTH: ${#good}\r\n\r\n$good"
    call 0 rdxGetVersion "$golden/rdxUpdateDeviceFirmware/arguments.xml" 'Jörg:a:b c>?~'
    cmp "$work/body" "$golden/rdxUpdateDeviceFirmware/arguments.xml" || fail "$client changes the packet"
    grep -qx "POST /rDx?FunctionName=rdxGetVersion HTTP/1.1" "$work/head" || fail "$client: $(cat "$work/head")"
    grep -qx "Authorization: Basic $(printf 'Jörg:a:b c>?~' | base64)" "$work/head" || fail "$client: $(cat "$work/head")"
    call 0 rdxGetVersion
    ! grep -i '^authorization' "$work/head" || fail "$client invents credentials"

    reply ''
    call 3 rdxGetVersion
    reply "HTTP/1.1 200 OK\r\nContent-length: $((${#good} + 1))\r\n\r\n$good"
    call 3 rdxGetVersion
    reply 'HTTP/1.1 200 OK\r\nContent-le'
    call 3 rdxGetVersion
    reply 'SSH-2.0-x\r\n\r\n'
    call 3 rdxGetVersion
    reply 'HTTP/1.1 200 OK\r\nContent-length: 4\r\n\r\ntext'
    call 3 rdxGetVersion
    reply 'HTTP/1.1 405 Not implemented\r\nContent-length: 4\r\n\r\ntext'
    call 2 rdxGetVersion
    [ "$(cat "$work/answer")" = '405 Not implemented
text' ] || fail "$client: $(cat "$work/answer")"
done
kill "$other"
wait "$other" 2>/dev/null || true
other=

# What the document says of requests, and of those that end the server.
serve
statements() { python3 tests/package/statements.py "$port" docs/protocol.md "$@"; }
statements demo || fail "a statement of docs/protocol.md"
stop
ended=0
while serve; do
    result=0
    statements "$ended" || result=$?
    kill -KILL "$server" 2>/dev/null || true
    wait "$server" 2>/dev/null || true
    server=
    [ "$result" -ne 77 ] || break
    [ "$result" -eq 0 ] && grep -q Assertion "$work/log" || fail "a request that ends the server, by docs/protocol.md"
    ended=$((ended + 1))
done
[ "$ended" -eq 9 ] || fail "$ended requests that end the server"

# The document's requests, each followed by the answer's first line, byte for byte where the document shows it.
cat >"$work/wire.py" <<'END'
import re, socket, sys
port, document = int(sys.argv[1]), open(sys.argv[2], encoding="utf-8").read()

def receive(connection):
    more = connection.recv(65536)
    assert more, "the server's connection ended within its answer"
    return more

def exchange(request):
    with socket.create_connection(("127.0.0.1", port), timeout=20) as connection:
        connection.sendall(request)
        answer = receive(connection)
        while b"\r\n\r\n" not in answer:
            answer += receive(connection)
        length = int(re.search(rb"Content-length: (\d+)", answer)[1])
        while len(answer.split(b"\r\n\r\n", 1)[1]) < length:
            answer += receive(connection)
        return answer

document = re.sub(r"<!-- begin .*?<!-- end -->", "", document, flags=re.DOTALL)  # other tests have those
messages = re.findall(r"```http\n(.*?)\n```", document, re.DOTALL)
requests = 0
for message, following in zip(messages, messages[1:] + [""]):
    if message.startswith("HTTP/"):
        continue
    head, body = message.split("\n\n", 1)
    lines = body.split("\n")
    # A form ends with a line end, a packet does not.
    body = "\r\n".join(lines) + ("\r\n" if body.startswith("--") else "")
    length = int(re.search(r"Content-length: (\d+)", head)[1])
    assert length == len(body.encode()), f"Content-length: {len(body.encode())} instead of {length}"
    answer = exchange((head.replace("\n", "\r\n") + "\r\n\r\n" + body).encode()).decode()
    assert answer.startswith("HTTP/1.1 200 OK\r\n"), answer
    if following.startswith("HTTP/"):
        assert answer.replace("\r\n", "\n") == following, answer
    requests += 1
assert requests == 2, requests
END
serve
python3 "$work/wire.py" "$port" docs/protocol.md || fail "a request of docs/protocol.md"

# Its first calls, as they stand but for the port. "..." stands for what the document leaves out.
awk '/^## A first call/ { inside = 1; next } /^## / { inside = 0 } inside && /^    / { print substr($0, 5) } inside && /^$/' \
    docs/protocol.md >"$work/calls"
# expected COMMAND OUTPUT
expected() {
    [ -n "$1" ] || return 0
    sh -c "$1" >"$work/answer" 2>&1 || true
    if [ "${2%...
}" != "$2" ]; then
        head -n 1 "$work/answer" | diff <(printf '%s' "${2%...
}") - || fail "$1"
    else
        diff <(printf '%s' "$2") "$work/answer" || fail "$1"
    fi
    tried=$((tried + 1))
}
tried=0
command='' output=''
while IFS= read -r line; do
    case $line in
    '$ '*)
        expected "$command" "$output"
        command=${line#'$ '}
        command=${command/ 8080 / $port }
        output=
        ;;
    '' | script/server) ;;
    *) output=$output$line$'\n' ;;
    esac
done <"$work/calls"
expected "$command" "$output"
[ "$tried" -eq 4 ] || fail "$tried calls tried"
stop
end "${#clients[@]} clients called, and understood what went wrong"
