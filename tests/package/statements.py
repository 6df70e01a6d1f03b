"""What docs/protocol.md says of requests, tried sentence by sentence on a running server.

  statements.py PORT DOCUMENT          the statements about answers; the server allows GET and POST
  statements.py PORT DOCUMENT demo     the same, and those that need the user demo with the password demo
  statements.py PORT DOCUMENT END      a number from 0: one of the requests that end the server; status 77 when
                                       there is no such number

Each row holds words of the document, a request and the statuses of the answers to it. The words must stand in the
document; so a statement cannot change without its row.
"""

import base64
import concurrent.futures
import re
import socket
import sys

PATIENCE = 20.0  # seconds for what must come
GLANCE = 0.2  # seconds to look for what must not come
AT_ONCE = 6  # requests at a time; the server needs more threads than that

PACKET = b"<wddxPacket version='1.0'><header/><data>%s</data></wddxPacket>"
STRUCT = PACKET % b"<struct>%s</struct>"
MEMBER = b"<var name='version'><number>1</number></var>"
VERSION = STRUCT % MEMBER
USER = b"Authorization: Basic " + base64.b64encode(b"demo:demo") + b"\r\n"
STATUS_CALL = b"POST /rDx?FunctionName=rdxGetDeviceStatus HTTP/1.1\r\n"


def request(head=b"Host: a\r\n", body=VERSION, uri=b"/rDx?FunctionName=rdxGetVersion", method=b"POST",
            version=b"HTTP/1.1"):
    length = b"Content-length: %d\r\n" % len(body)
    return method + b" " + uri + b" " + version + b"\r\n" + head + length + b"\r\n" + body


def named(name, head=b"Host: a\r\n", body=VERSION):
    return request(head, body, b"/rDx?FunctionName=" + name)


def with_packet(packet):
    return request(body=packet)


def with_members(more):
    return request(body=STRUCT % (MEMBER + more))


def member(value):
    return b"<var name='a'>" + value + b"</var>"


def part(name, data, more=b""):
    return b'Content-Disposition: form-data; name="' + name + b'"' + more + b"\r\n\r\n" + data + b"\r\n"


NAME = part(b"FunctionName", b"rdxGetVersion")
ARGS = part(b"FunctionArgs", VERSION)


def form(*parts, kind=b"multipart/form-data; boundary=AbC", boundary=b"AbC", before=b"", head=b"", method=b"POST"):
    body = before + b"".join(b"--" + boundary + b"\r\n" + one for one in parts) + b"--" + boundary + b"--\r\n"
    return request(head + b"Content-Type: " + kind + b"\r\n", body, b"/rDx", method)


# Words, request, statuses. "closed" behind the statuses: the server closes the connection; "open": it does not.
STATEMENTS = [
    ("kept after an answer when the request was HTTP/1.1", request(), "200 open"),
    ("closed when it was HTTP/1.0", request(version=b"HTTP/1.0"), "200 closed"),
    ("`Connection: close` or", request(b"Connection: CLOSE\r\n"), "200 closed"),
    ("or `Connection: keep-alive` decides",
     request(b"Connection: Keep-Alive\r\n", version=b"HTTP/1.0"), "200 open"),
    ("a blank behind it makes it unknown", request(b"Connection: close \r\n"), "200 open"),
    ("Requests sent ahead are answered in their order",
     request() + request(b"Connection: close\r\n", uri=b"/x"), "200 404"),
    ("may take that rest for further requests and answer it as well", request(b"X-A: 1\r\n"), "500 ..."),
    ("the server takes that rest for further requests", request(b"X-A: 1\r\n"), "500 ..."),
    ("`Connection: close` may be part of the rest", request(b"X-A: 1\r\nConnection: close\r\n"), "500 ..."),
    ("Browsers, and `fetch` in node, can therefore not call", request(b"sec-ch-ua: a\r\n"), "500 ..."),
    ("An empty line in front of a request counts as a request of its own",
     b"\r\n" + request(b"Connection: close\r\n"), "404 ..."),
    ("a GET may carry a body", request(method=b"GET"), "200"),
    ("in upper or lower case; what follows these four characters",
     request(uri=b"/RDXmore?FunctionName=rdxGetVersion"), "200"),
    ("A URI with a host in front", request(uri=b"http://a/rDx?FunctionName=rdxGetVersion"), "404"),
    ("with nothing behind it", request(version=b"HTTP/1.1 "), "500 ..."),
    ("or with LF alone", request().replace(b"\r\n", b"\n"), "200"),
    ("A request carries one header at least", STATUS_CALL + b"\r\n", "400"),
    ("`Origin`", request(b"Origin: a\r\n"), "500 ..."),
    ("`Keep-Alive`", request(b"Keep-Alive: 300\r\n"), "500 ..."),
    ("`Proxy-Connection`", request(b"Proxy-Connection: close\r\n"), "500 ..."),
    ("(`Sec-...`)", request(b"Sec-Fetch-Mode: cors\r\n"), "500 ..."),
    ("stands for the whole name", request(b"Co: a\r\n"), "200"),
    ("such an abbreviation says is ignored", request(b"Con: close\r\n"), "200 open"),
    ("`Host` may be missing", request(b""), "200"),
    ("behind the colon and any blanks and further colons",
     request(b"Connection::  : close\r\n"), "200 closed"),
    ("A value cannot go on in the next line", request(b"Host: a\r\n b: c\r\n"), "500 ..."),
    ("Without it there is no body", STATUS_CALL + b"Host: a\r\n\r\n", "200"),
    ("`Transfer-Encoding: chunked`",
     b"POST /rDx?FunctionName=rdxGetVersion HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n"
     b"%x\r\n%s\r\n0\r\n\r\n" % (len(VERSION), VERSION), "400 ..."),
    ("A length of 0 is refused with status 400", request(body=b""), "400 ..."),
    ("The server does not send `100 Continue`", request(b"Expect: 100-continue\r\n"), "200"),
    ("the `Content-Type` does not matter", request(b"Content-Type: image/png\r\n"), "200"),
    ("the first `FunctionName=` in the whole URI",
     request(uri=b"/rDxFunctionName=rdxGetVersion&FunctionName=x"), "200"),
    ("in this case; the name goes up to the next `&`",
     request(uri=b"/rDx?functionname=rdxGetVersion"), "400"),
    ("A name that is missing", request(uri=b"/rDx"), "400"),
    ("empty or too long is refused with status 400", named(b""), "400"),
    ("empty or too long is refused with status 400", named(b"x" * 33), "400"),
    ("Only `rdxGetDeviceStatus` can be called so",
     b"GET /rDx?FunctionName=rdxGetVersion HTTP/1.1\r\nHost: a\r\n\r\n", "400"),
    ("A NUL ends the packet", request(body=VERSION + b"\0junk"), "200"),
    ("carries both as fields", form(NAME, ARGS), "200"),
    ("begins with `multipart/form-data` in lower case",
     form(NAME, ARGS, kind=b"Multipart/Form-Data; boundary=AbC"), "400"),
    ("no quotes around it", form(NAME, ARGS, kind=b'multipart/form-data; boundary="AbC"'), "500"),
    ("no parameter behind it", form(NAME, ARGS, kind=b"multipart/form-data; boundary=AbC; a=b"), "500"),
    ("text in front of it is refused", form(NAME, ARGS, before=b"text\r\n"), "500"),
    ("The lines of the form end as the request line does",
     form(NAME, ARGS).replace(b"HTTP/1.1\r\n", b"HTTP/1.1\n"), "500"),
    ("A part begins with its `Content-Disposition` header",
     form(NAME, b"Content-Type: text/xml\r\n" + ARGS), "500"),
    ("the name in double quotes", form(NAME.replace(b'"', b""), ARGS), "500"),
    ("Further parameters and headers may follow",
     form(NAME, part(b"FunctionArgs", VERSION, b'; filename="a"\r\nContent-Type: text/xml')), "200"),
    ("in any order", form(ARGS, NAME), "200"),
    ("`PostIt`, the form's button, is ignored", form(NAME, ARGS, part(b"PostIt", b"Send")), "200"),
    ("A field given twice counts as it is given last",
     form(NAME, part(b"FunctionArgs", b"junk"), ARGS), "200"),
    ("Without `FunctionName` the method is unknown", form(ARGS), "401"),
    ("without `FunctionArgs` the call has no arguments", form(NAME), "400"),
    ("Another field, or an empty `FunctionName`", form(NAME, ARGS, part(b"Other", b"a")), "400"),
    ("Another field, or an empty `FunctionName`", form(part(b"FunctionName", b""), ARGS), "400"),
    ("another HTTP method and", form(NAME, ARGS, method=b"GET"), "400 ..."),
    ("a missing boundary", form(NAME, ARGS, kind=b"multipart/form-data"), "400 ..."),
    ("a name that is too long, are refused with status 500",
     form(part(b"FunctionName", b"x" * 33), ARGS), "500"),
    ("a name that is too long, are refused with status 500", form(NAME, ARGS, part(b"x" * 65, b"a")), "500"),
    ("and names that are no method", named(b"rdxNoSuchMethod"), "401"),
    ("accounts that are locked", named(b"rdxReleaseDevice", b"Authorization: Basic cm9vdDoq\r\n"), "401"),
    ("Credentials are looked at before the arguments are", named(b"rdxReleaseDevice", body=b"junk"), "401"),
    ("Anything but `Basic`", named(b"rdxReleaseDevice", b"Authorization: Bearer a\r\n"), "401"),
    ("an empty line stands in the place of a request", b"\n", "404"),
    ("the HTTP method is unknown, or the settings do not allow it", request(method=b"PUT"), "405 ..."),
    ("the HTTP method is unknown, or the settings do not allow it", request(method=b"FETCH"), "405 ..."),
    ("another protocol or version", request(version=b"HTTP/2.0"), "500 ..."),
    ("another protocol or version", request(version=b"ICAP/1.0"), "500 ..."),
    ("request line, header line | 511", request(b"Host: " + b"a" * 505 + b"\r\n"), "200"),
    ("request line, header line | 511", request(b"Host: " + b"a" * 506 + b"\r\n"), "400 ..."),
    ("URI | 255", request(uri=(b"/rDx?FunctionName=rdxGetVersion&" + b"a" * 255)[:255]), "200"),
    ("URI | 255", request(uri=(b"/rDx?FunctionName=rdxGetVersion&" + b"a" * 256)[:256]), "400 ..."),
    ("request body | 65536", request(body=VERSION + b" " * (65536 - len(VERSION))), "200"),
    ("request body | 65536", request(body=VERSION + b" " * (65537 - len(VERSION))), "400 ..."),
    ("boundary of a form | 253",
     form(NAME, ARGS, kind=b"multipart/form-data; boundary=" + b"b" * 253, boundary=b"b" * 253), "200"),
    ("value of an attribute | 99", with_members(b"<var name='" + b"a" * 99 + b"'><null/></var>"), "200"),
    ("value of an attribute | 99", with_members(b"<var name='" + b"a" * 100 + b"'><null/></var>"), "400"),
    ("request | 14", request(b"Accept: a\r\n" * 14), "200"),
    ("general | 16", request(b"Via: a\r\n" * 16), "200"),
    ("entity | 16", request(b"Allow: a\r\n" * 15), "200"),
    ("so that a packet may be indented", with_packet(VERSION.replace(b"><", b">\r\n\t <")), "200"),
    ("each with a value in quotes as above", with_packet(
        b"<?xml version='1.0' encoding='UTF-8'?><!DOCTYPE wddxPacket PUBLIC \"a\" \"http://a/b\">" + VERSION), "200"),
    ("each with a value in quotes as above", with_packet(b"<!DOCTYPE wddxPacket>" + VERSION), "400"),
    ("is ignored, unless it ends within a tag", with_packet(VERSION + b"<junk"), "400"),
    ("What stands behind `</wddxPacket>` is ignored", with_packet(VERSION + b"junk<junk>"), "200"),
    ("There are no comments", with_packet(b"<!-- a -->" + VERSION), "400"),
    ("There are no comments", with_members(b"<!-- a -->"), "400"),
    ("no CDATA sections", with_members(member(b"<string><![CDATA[a]]></string>")), "400"),
    ("no processing instructions", with_members(b"<?a b='c'?>"), "400"),
    ("Tags and attributes are written as above, in this case",
     with_packet(VERSION.replace(b"number", b"NUMBER")), "400"),
    ("in single or double quotes", with_packet(VERSION.replace(b"'", b'"')), "200"),
    ("apart from that they are taken as they are, escapes and all",
     with_packet(VERSION.replace(b"='version'", b"='versi&#111;n'")), "400"),
    ("and hold neither, which would end them", with_packet(VERSION.replace(b"'version'", b'"version\'s"')), "200"),
    ("They are not empty", with_packet(VERSION.replace(b"'version'", b"''")), "400"),
    ("begin with no blank, line end or `=`", with_packet(VERSION.replace(b"'version'", b"' =version'")), "200"),
    ("has it in the first place", with_packet(VERSION.replace(b"<var ", b"<var a='1' ")), "400"),
    ("and attributes of other tags, are ignored",
     with_packet(VERSION.replace(b"<struct>", b"<struct type='a'>")), "200"),
    ("as long as their values hold no `/` or `>`",
     with_packet(VERSION.replace(b"<var name='version'", b"<var name='version' a='/'")), "400"),
    ("`wddxPacket` has a `version`", with_packet(VERSION.replace(b" version='1.0'", b"")), "400"),
    ("`wddxPacket` has a `version`, whatever it says", with_packet(VERSION.replace(b"1.0", b"7")), "200"),
    ("`<header/>` may be missing", with_packet(VERSION.replace(b"<header/>", b"")), "200"),
    ("which is ignored, but not an empty one",
     with_packet(VERSION.replace(b"<header/>", b"<header><comment>a</comment></header>")), "200"),
    ("which is ignored, but not an empty one",
     with_packet(VERSION.replace(b"<header/>", b"<header><comment></comment></header>")), "400"),
    ("`<data>` holds one value", with_packet(VERSION.replace(b"</struct>", b"</struct><null/>")), "400"),
    ("are written in one tag", with_members(member(b"<null></null>")), "400"),
    ("are written in one tag", with_members(member(b"<boolean value='true'></boolean>")), "400"),
    ("what follows them is ignored, and a text without any is 0",
     with_packet(VERSION.replace(b">1<", b">a<")), "200"),
    ("`<number></number>` is refused", with_packet(VERSION.replace(b">1<", b"><")), "400"),
    ("is not accepted where an integer is asked for", with_packet(VERSION.replace(b">1<", b">1.0<")), "400"),
    ("as its `length` says, at least", with_members(member(b"<array length='2'><null/></array>")), "400"),
    ("at least; more are ignored", with_members(member(b"<array length='1'><null/><null/></array>")), "200"),
    ("A structure has a member at least", with_members(member(b"<struct></struct>")), "400"),
    ("Of two members with one name the first counts",
     with_packet(VERSION.replace(MEMBER, MEMBER + b"<var name='version'><null/></var>")), "200"),
    ("Of two members with one name the first counts",
     with_packet(VERSION.replace(MEMBER, b"<var name='version'><null/></var>" + MEMBER)), "400"),
    ("`<var name='NAME'></var>` is refused", with_members(member(b"")), "400"),
    ("Date, binary data", with_members(member(b"<dateTime>2002-04-30T12:08:00</dateTime>")), "400"),
    ("binary data", with_members(member(b"<binary length='1'>YQ==</binary>")), "400"),
    ("record sets",
     with_members(member(b"<recordset rowCount='1'><field name='a'><null/></field></recordset>")), "400"),
    ("`<char code='0A'/>`", with_members(member(b"<string>a<char code='0A'/></string>")), "400"),
    ("empty: `<string></string>` or `<string/>`", with_members(member(b"<string/>")), "200"),
    ("The arguments of a method are a structure", with_packet(PACKET % b"<array length='0'/>"), "400"),
    ("Names of methods are compared without regard to case", named(b"RDXGETVERSION"), "200"),
    ("names of arguments and keys with regard to it",
     with_packet(VERSION.replace(b"'version'", b"'Version'")), "400"),
    ("a body is not even looked at", named(b"rdxGetDeviceStatus", body=b"junk"), "200"),
    ("Where the tables say \"integer or boolean\"",
     with_packet(VERSION.replace(b"<number>1</number>", b"<boolean value='false'/>")), "200"),
]

WITH_USER = [
    ("A call with an unknown name, credentials and arguments that can be read",
     named(b"rdxNoSuchMethod", USER), "200"),
    ("Escapes (`%65`) are not decoded", named(b"rdxG%65tVersion", USER), "200"),
    ("(in upper or lower case) is refused",
     named(b"rdxNoSuchMethod", USER.replace(b"Basic", b"bASIC")), "200"),
    ("whose value is no structure", named(b"rdxNoSuchMethod", USER, PACKET % b"<null/>"), "500"),
    ("or that end within a tag", named(b"rdxNoSuchMethod", USER, VERSION[:-1]), "500"),
    ("missing; an argument has another type or is too long", named(b"rdxGetVehicleStatus", USER), "400"),
    ("An argument that is not required may also be null", named(b"rdxSetDeviceAttributes", USER, STRUCT % (
        b"<var name='DeviceOwner'><string>a</string></var><var name='SlpAttributes'><array length='1'><struct>"
        b"<var name='AttributeName'><null/></var><var name='IsPersistent'><number>0</number></var>"
        b"<var name='EnforceReg'><number>0</number></var></struct></array></var>")), "200"),
]

ENDS = [
    ("a line without a colon among the headers", request(b"Host\r\n")),
    ("more headers of a kind than the [table](#headers) allows", request(b"Via: a\r\n" * 17)),
    ("more headers of a kind than the [table](#headers) allows", request(b"Accept: a\r\n" * 15)),
    ("more headers of a kind than the [table](#headers) allows", request(b"Allow: a\r\n" * 16)),
    ("a form without a body",
     b"POST /rDx HTTP/1.1\r\nContent-Type: multipart/form-data; boundary=AbC\r\n\r\n"),
    ("one whose boundary is too long",
     form(NAME, ARGS, kind=b"multipart/form-data; boundary=" + b"b" * 254, boundary=b"b" * 254)),
    ("or a part with an empty name", form(NAME, part(b"", b"a"))),
    ("a body, or a field `FunctionArgs`, that begins with a NUL", request(body=b"\0a")),
    ("a body, or a field `FunctionArgs`, that begins with a NUL", form(NAME, part(b"FunctionArgs", b"\0a"))),
]


def receive(connection, received):
    """More of what the server sends; False when it has closed the connection."""
    try:
        more = connection.recv(65536)
    except ConnectionResetError:
        more = b""
    received += more
    return bool(more)


def exchange(port, message, expected):
    """The statuses of the answers, and whether the connection is open or closed then."""
    statuses = [word for word in expected.split() if word.isdigit()]
    with socket.create_connection(("127.0.0.1", port), timeout=PATIENCE) as connection:
        connection.sendall(message)
        received = bytearray()
        found = []
        while len(found) < len(statuses) and receive(connection, received):
            found = whole_answers(received)
        try:
            connection.settimeout(PATIENCE if expected.endswith("closed") else GLANCE)
            while receive(connection, received):
                pass
            fate = "closed"
        except TimeoutError:
            fate = "open"
    return whole_answers(received), fate


def whole_answers(received):
    statuses = []
    rest = bytes(received)
    while True:
        head, end, rest = rest.partition(b"\r\n\r\n")
        if not end:
            return statuses
        length = int(re.search(rb"Content-length: (\d+)", head)[1])
        if len(rest) < length:
            return statuses
        statuses.append(re.match(rb"HTTP/1.1 (\d+) ", head)[1].decode())
        rest = rest[length:]


def holds(found, fate, expected):
    """"..." stands for whatever more the server makes of the request; open and closed are looked at if named."""
    words = expected.split()
    statuses = [word for word in words if word.isdigit()]
    if found[: len(statuses)] != statuses or ("..." not in words and len(found) != len(statuses)):
        return False
    return fate in words or not {"open", "closed"} & set(words)


def complaint(port, document, words, message, expected):
    """What is wrong with a statement, or nothing."""
    if words not in document:
        return f"the document does not say: {words}"
    found, fate = exchange(port, message, expected)
    if holds(found, fate, expected):
        return ""
    return f"{words}\n  expected {expected}, found {' '.join(found)} {fate}: {message[:200]!r}"


def main():
    port, path = int(sys.argv[1]), sys.argv[2]
    what = sys.argv[3] if len(sys.argv) > 3 else ""
    document = " ".join(open(path, encoding="utf-8").read().split())
    statements = STATEMENTS + (WITH_USER if what == "demo" else [])
    if what.isdigit():
        statements = [(words, message, "closed") for words, message in ENDS[int(what) : int(what) + 1]]
    with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as threads:
        complaints = [c for c in threads.map(lambda row: complaint(port, document, *row), statements) if c]
    for one in complaints:
        print(one)
    if not statements:
        return 77
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
