#!/usr/bin/env python3
"""Calls a method of the server with nothing but Python's standard library, and prints the answer.

  call.py HOST PORT METHOD PACKET [USER:PASSWORD]      PACKET: a file with the arguments, "-" for standard input

Prints the HTTP status and the body. The exit status tells what came of the call:
  0  the device did it: status 200, code 0         3  there was no whole answer
  1  the device did not: status 200, another code  4  the call was not made: wrong arguments
  2  the server refused it: another status

The password is an argument, which other users of this machine can see while the program runs.
"""

import base64
import http.client
import re
import sys
import xml.etree.ElementTree as ElementTree

DONE, NOT_DONE, REFUSED, NO_ANSWER, NOT_CALLED = range(5)

PACKET_MAX = 65536  # bytes of a request's body
LINE_MAX = 511  # characters of a header line
PATIENCE = 60  # seconds without a byte from the server: a device may take its time over some methods


class Failure(Exception):
    """A call that came to nothing: the exit status and why."""

    def __init__(self, status, message):
        super().__init__(message)
        self.status = status


def read_packet(path):
    """The packet in a file, as bytes."""
    try:
        if path == "-":
            packet = sys.stdin.buffer.read(PACKET_MAX + 1)
        else:
            with open(path, "rb") as file:
                packet = file.read(PACKET_MAX + 1)
    except OSError as error:
        raise Failure(NOT_CALLED, f"{path}: {error.strerror}") from error
    if not packet:
        raise Failure(NOT_CALLED, f"{path}: there is no packet in it")
    if len(packet) > PACKET_MAX:
        raise Failure(NOT_CALLED, f"{path}: a packet has {PACKET_MAX} bytes at most")
    if b"\0" in packet:
        raise Failure(NOT_CALLED, f"{path}: there is a NUL in it")
    return packet


def make_headers(credentials):
    """The headers of a request; http.client adds Host, Content-Length and Accept-Encoding."""
    headers = {"Content-Type": "text/xml", "Connection": "close"}
    if credentials is None:
        return headers
    if ":" not in credentials:
        raise Failure(NOT_CALLED, "give the user as USER:PASSWORD")
    value = "Basic " + base64.b64encode(credentials.encode("utf-8", "surrogateescape")).decode("ascii")
    if len("Authorization: " + value) > LINE_MAX:
        raise Failure(NOT_CALLED, "user and password are too long")
    headers["Authorization"] = value
    return headers


def call(host, port, method, packet, credentials):
    """The status, the reason phrase and the body of the answer."""
    connection = http.client.HTTPConnection(host, port, timeout=PATIENCE)
    try:
        connection.request("POST", "/rDx?FunctionName=" + method, packet, make_headers(credentials))
        answer = connection.getresponse()
        return answer.status, answer.reason, answer.read()
    except TimeoutError as error:
        raise Failure(NO_ANSWER, f"no answer within {PATIENCE} s: all threads of the server may be busy") from error
    except http.client.HTTPException as error:
        raise Failure(NO_ANSWER, f"the answer is broken off or is not HTTP: {error!r}") from error
    except OSError as error:
        raise Failure(NO_ANSWER, f"{host}, port {port}: {error.strerror or error}. Is the server running?") from error
    finally:
        connection.close()


def members(structure):
    """The members of a packet's structure by their names."""
    return {var.get("name"): var[0] for var in structure if var.tag == "var"}


def find_code(body):
    """The number in "code" of the packet's "Status", which one method calls "status"."""
    try:
        result = members(ElementTree.fromstring(body).find("data/struct"))
        status = members(result["Status"] if "Status" in result else result["status"])
        return int(status["code"].text)
    except (ElementTree.ParseError, AttributeError, IndexError, KeyError, TypeError, ValueError) as error:
        raise Failure(NO_ANSWER, f"the answer has no code: {error!r}") from error


def run(arguments):
    """Makes the call and prints the answer; what it means as an exit status."""
    if not 4 <= len(arguments) <= 5:
        raise Failure(NOT_CALLED, "use: call.py HOST PORT METHOD PACKET [USER:PASSWORD]")
    host, port, method, path = arguments[:4]
    credentials = arguments[4] if len(arguments) > 4 else None
    if not re.fullmatch("[A-Za-z0-9]{1,32}", method):
        raise Failure(NOT_CALLED, f"'{method}' is no method's name: give 1 to 32 letters")
    if not re.fullmatch("[0-9]{1,5}", port) or not 0 < int(port) < 65536:
        raise Failure(NOT_CALLED, f"'{port}' is no port: give a number from 1 to 65535")
    status, reason, body = call(host, int(port), method, read_packet(path), credentials)
    sys.stdout.buffer.write(f"{status} {reason}\n".encode("latin-1") + body + b"\n")
    sys.stdout.buffer.flush()
    if status != 200:
        return REFUSED
    return DONE if find_code(body) == 0 else NOT_DONE


def main():
    try:
        return run(sys.argv[1:])
    except Failure as failure:
        print(f"call.py: {failure}", file=sys.stderr)
        return failure.status


if __name__ == "__main__":
    sys.exit(main())
