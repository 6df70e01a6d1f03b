"""Calls with Python's libraries: a line for each, "NAME | STATUSES".

    calls.py PORT PACKET
"""

import http.client
import sys
import urllib.request
import xml.etree.ElementTree as ElementTree

import requests

PATIENCE = 20
HOST, PORT = "127.0.0.1", int(sys.argv[1])
PACKET = open(sys.argv[2], "rb").read()
PATH = "/rDx?FunctionName=rdxGetVersion"
STATUS_PATH = "/rDx?FunctionName=rdxGetDeviceStatus"
URL = f"http://{HOST}:{PORT}"
REFUSED = {"X-Unknown": "1"}


def through(connection, body=PACKET, path=PATH, headers=None):
    connection.request("POST", path, body, headers or {})
    answer = connection.getresponse()
    answer.read()
    return answer.status


def connection():
    return http.client.HTTPConnection(HOST, PORT, timeout=PATIENCE)


def one_connection(close):
    """Calls of one connection: a good one, one that is refused, two good ones."""
    kept = connection()
    statuses = []
    for headers in ({}, REFUSED, {}, {}):
        statuses.append(through(kept, headers=headers))
        if close and statuses[-1] != 200:
            kept.close()
    return statuses


def opened(data=PACKET, path=PATH, headers=None):
    try:
        with urllib.request.urlopen(urllib.request.Request(URL + path, data, headers or {}), timeout=PATIENCE) as answer:
            answer.read()
            return answer.status
    except urllib.error.HTTPError as refusal:
        return refusal.code


def session():
    kept = requests.Session()
    statuses = []
    for headers in ({}, REFUSED, {}, {}):
        statuses.append(kept.post(URL + PATH, data=PACKET, headers=headers, timeout=PATIENCE).status_code)
        if statuses[-1] != 200:
            kept.close()
    return statuses


def post(data, path=PATH, **more):
    return requests.post(URL + path, data=data, timeout=PATIENCE, **more).status_code


def tell(name, result):
    statuses = result if isinstance(result, list) else [result]
    print(name, "|", *statuses, flush=True)


FORM = {"FunctionName": (None, "rdxGetVersion"), "FunctionArgs": (None, PACKET)}

tell("http.client, each", [through(connection(), headers=headers) for headers in ({}, REFUSED, {}, {})])
tell("http.client, closed", one_connection(True))
tell("http.client, iterator", through(connection(), iter([PACKET])))
tell("http.client, no body", through(connection(), None, STATUS_PATH))
tell("urllib", [opened(headers=headers) for headers in ({}, REFUSED, {}, {})])
tell("urllib, no body", opened(b"", STATUS_PATH))
tell("requests", [post(PACKET, headers=headers) for headers in ({}, REFUSED, {}, {})])
tell("requests, session", session())
tell("requests, generator", post(iter([PACKET])))
tell("requests, no body", post(None, STATUS_PATH))
tell("requests, form", post(None, "/rDx", files=FORM))
tell("etree", ElementTree.fromstring(requests.post(URL + PATH, PACKET, timeout=PATIENCE).content).tag)
# The last one, for what it leaves behind: the rest of a refused request is answered to the next call.
tell("http.client, kept", "mixed up" if one_connection(False)[2:] != [200, 200] else "in order")
