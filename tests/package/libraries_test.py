"""docs/clients.md says what each client library does: the libraries themselves are asked, on a running server.

    libraries_test.py ROOT BUILD      BUILD: where rdxhttpd lies

Each row names a call, what comes of it, and words of the document that say so. The server has one thread, so that a
connection whose request was refused is kept like the one before it. A library that this machine does not have is
skipped, and said so.
"""

import os
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time

PATIENCE = 60  # seconds for a program with all its calls

IN_TURN = "200 500 200 200"  # the second call is refused

CURL = [
    ("data", "200", "`--data-binary @FILE`", ["--data-binary", "@{packet}", "{version}"]),
    ("form", "200", "`-F` for a form",
     ["-F", "FunctionName=rdxGetVersion", "-F", "FunctionArgs=<{packet}", "{server}/rDx"]),
    ("expect", "200", "`-H 'Expect:'`", ["-H", "Expect:", "--data-binary", "@{packet}", "{version}"]),
    ("HTTP/2", "500", "`--http2` (500", ["--http2", "--data-binary", "@{packet}", "{version}"]),
    ("digest", "400", "`--digest` (400",
     ["--digest", "-u", "a:b", "--data-binary", "@{packet}", "{version}"]),
    ("no body", "400", "`-d ''` (400)", ["-d", "", "{status}"]),
    ("upload", "405", "`-T` (405)", ["-T", "{packet}", "{version}"]),
    ("chunks", "400", "`Transfer-Encoding: chunked` (400)",
     ["-H", "Transfer-Encoding: chunked", "--data-binary", "@{packet}", "{version}"]),
]

PYTHON = [
    ("http.client, each", IN_TURN, "one `HTTPConnection` for each call"),
    ("http.client, closed", IN_TURN, "`connection.close()` after any status but 200"),
    ("http.client, kept", "mixed up", "its next request goes to the old connection otherwise"),
    ("http.client, iterator", "400", "a body from an iterator or a generator (400: chunks), a POST without a body (400)"),
    ("http.client, no body", "400", "a body from an iterator or a generator (400: chunks), a POST without a body (400)"),
    ("urllib", IN_TURN, "each call has a connection and says `Connection: close`"),
    ("urllib, no body", "400", "a POST without a body (400) |"),
    ("requests", IN_TURN, "`requests.post`, `requests.get`: each has a session of its own"),
    ("requests, session", IN_TURN, "`requests.Session`: `session.close()` after any status but 200"),
    ("requests, generator", "400", "a body from a generator (400), a POST without a body (400)"),
    ("requests, no body", "400", "a body from a generator (400), a POST without a body (400)"),
    ("requests, form", "200", "Python `requests` 2.28"),
    ("etree", "wddxPacket", "Python `xml.etree`"),
]

NODE = [
    ("http, no agent", IN_TURN, "`agent: false`, which says `Connection: close` by itself"),
    ("http, pieces", "400", "when the body is written in pieces (400 otherwise: chunks)"),
    ("http, pieces and length", "200", "when the body is written in pieces (400 otherwise: chunks)"),
    ("http, no body", "400", "a POST without a body, a body with GET (400)"),
    ("http, GET", "200", "node 20 `http`"),
    ("http, GET with a body", "400", "a POST without a body, a body with GET (400)"),
    ("fetch", "500", "it sends `sec-fetch-mode`"),
]

JAVA = [
    ("HttpClient, as it is", "500", "it asks for an upgrade to HTTP/2 (500)"),
    ("HttpClient, each", IN_TURN, "and a new `HttpClient` for each call"),
    ("HttpClient, expect", "waits", "`expectContinue(true)` (it waits without end)"),
    ("HttpClient, no body", "400", "`BodyPublishers.noBody()`, and `GET()`"),
    ("HttpClient, stream", "400", "`BodyPublishers.ofInputStream` (400: chunks)"),
    ("HttpURLConnection", IN_TURN, "or `disconnect()` after every answer"),
    ("DocumentBuilder, as it is", "FileNotFoundException", "fails: `FileNotFoundException`"),
    ("DocumentBuilder", "wddxPacket", "load-external-dtd"),
    ("StAX", "wddxPacket", "`setProperty(XMLInputFactory.SUPPORT_DTD, false)`"),
]

CSHARP = [
    ("HttpClient", "200 200 200",
     "a new `HttpClient` for each call, and `ConnectionClose = true` in the request's headers"),
    ("HttpClient, form", "500", "`MultipartFormDataContent` (500"),
    ("HttpClient, no body", "400", "none around the names), a POST without a body (400)"),
    ("XmlReader, as it is", "XmlException", "fails: a document type is prohibited"),
    ("XmlReader", "wddxPacket", "`DtdProcessing = DtdProcessing.Ignore` and `XmlResolver = null`"),
]

# How often a server is called that takes a call and closes the connection: arguments behind the program's.
BROKEN_OFF = [
    ("curl", 1, "curl 7.88", ["curl", "-q", "-s", "--noproxy", "*", "--data-binary", "@{packet}", "{url}"]),
    ("wget", 2, "wget makes a call again when the connection breaks",
     ["wget", "-q", "-O", "-", "--no-proxy", "--tries=2", "--post-file={packet}", "{url}"]),
    ("wget, once", 1, "`--tries=1`",
     ["wget", "-q", "-O", "-", "--no-proxy", "--tries=1", "--post-file={packet}", "{url}"]),
    ("java", 2, "it makes a call again when the connection breaks",
     ["java", "-cp", "{work}", "Calls", "0", "{packet}", "{port}"]),
    ("java, once", 1, "`-Dsun.net.http.retryPost=false`",
     ["java", "-Dsun.net.http.retryPost=false", "-cp", "{work}", "Calls", "0", "{packet}", "{port}"]),
]


class Server:
    """rdxhttpd with one thread on a free port, for a scope."""

    def __init__(self, build, work):
        self.build, self.work = build, work

    def __enter__(self):
        for _ in range(10):
            with socket.create_server(("127.0.0.1", 0)) as probe:
                self.port = probe.getsockname()[1]
            settings = os.path.join(self.work, "server.ini")
            with open(settings, "w", encoding="ascii") as file:
                file.write(f"[HTTP]\nServicePort={self.port}\nMethodsAllowed=GET, POST\n")
            self.process = subprocess.Popen(
                [os.path.join(self.build, "rdxhttpd"), "-c", settings],
                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                env={**os.environ, "RDX_SIM_STATE": ""})
            if self.listens():
                return self
            self.process.wait()
        sys.exit("libraries_test.py: no server")

    def listens(self):
        """Whether the server has come up; False when it has ended, for the port may be somebody else's now."""
        while self.process.poll() is None:
            try:
                with socket.create_connection(("127.0.0.1", self.port), timeout=1):
                    return True
            except OSError:
                time.sleep(0.05)
        return False

    def __exit__(self, *_):
        self.process.terminate()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


class BreakingServer:
    """Takes calls, counts them and closes their connections without an answer, for a scope."""

    def __enter__(self):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.calls = 0
        threading.Thread(target=self.serve, daemon=True).start()
        return self

    def serve(self):
        while True:
            try:
                connection = self.listener.accept()[0]
            except OSError:
                return
            with connection:
                received = b""
                while b"</wddxPacket>" not in received and (more := connection.recv(65536)):
                    received += more
                self.calls += b"</wddxPacket>" in received

    def __exit__(self, *_):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()


def run(command):
    """What a program prints; nothing when it takes too long."""
    try:
        return subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, timeout=PATIENCE,
                              check=False, text=True).stdout
    except subprocess.TimeoutExpired:
        return ""


def compare(language, rows, found):
    """Findings about rows of name, expected and words; `found` has what came of each call."""
    for name, expected, _ in rows:
        if found.get(name) != expected:
            yield f"{language} {name}: {found.get(name)} instead of {expected}"


def ask(command, context):
    """What came of each call of a program, and what it said on standard error."""
    with Server(context["build"], context["work"]) as server:
        try:
            done = subprocess.run([*command, str(server.port), context["packet"]], stdin=subprocess.DEVNULL,
                                  capture_output=True, timeout=PATIENCE, check=False, text=True)
        except subprocess.TimeoutExpired:
            return {}, "it took too long"
    return dict(line.split(" | ", 1) for line in done.stdout.splitlines() if " | " in line), done.stderr


def try_program(language, rows, command, context):
    """A program that breaks off, as a machine that is busy can make it, is run again; its answers are not."""
    for _ in range(3):
        found, complaint = ask(command, context)
        if all(name in found for name, _, _ in rows):
            break
    else:
        yield f"{language}: {complaint.strip()}"
    yield from compare(language, rows, found)


def try_curl(context):
    found = {}
    with Server(context["build"], context["work"]) as server:
        url = f"http://127.0.0.1:{server.port}"
        names = {"server": url, "version": url + "/rDx?FunctionName=rdxGetVersion",
                 "status": url + "/rDx?FunctionName=rdxGetDeviceStatus", "packet": context["packet"]}
        for name, _, _, arguments in CURL:
            found[name] = run(["curl", "-q", "-s", "--noproxy", "*", "--max-time", "20", "-o", os.devnull, "-w",
                               "%{http_code}", *(argument.format(**names) for argument in arguments)])
    yield from compare("curl", [row[:3] for row in CURL], found)


def try_wget(context):
    with Server(context["build"], context["work"]) as server:
        url = f"http://127.0.0.1:{server.port}/rDx?FunctionName=rdxGetVersion"
        answer = run(["wget", "-q", "-O", "-", "--no-proxy", f"--post-file={context['packet']}", url])
    if "</wddxPacket>" not in answer:
        yield f"wget: {answer}"


def try_broken_off(missing, context):
    for name, expected, _, command in BROKEN_OFF:
        if command[0] in missing:
            continue
        with BreakingServer() as server:
            names = {**context, "port": server.port, "url": f"http://127.0.0.1:{server.port}/"}
            run([part.format(**names) for part in command])
        if server.calls != expected:
            yield f"{name}: {server.calls} calls instead of {expected}"


def python_with_requests():
    """The system's Python has the system's packages, another one may not."""
    for candidate in ("/usr/bin/python3", sys.executable):
        if os.path.exists(candidate) and subprocess.run([candidate, "-c", "import requests"], check=False,
                                                        capture_output=True).returncode == 0:
            return candidate
    return None


def prepare(sources, work):
    """The command of each language that this machine has."""
    java = os.path.join(sources, "Calls.java")
    csharp = os.path.join(sources, "Calls.cs")
    program = os.path.join(work, "Calls.exe")
    python = python_with_requests()
    commands = {}
    if python:
        commands["python"] = [python, os.path.join(sources, "calls.py")]
    if shutil.which("node"):
        commands["node"] = ["node", os.path.join(sources, "calls.mjs")]
    if shutil.which("javac") and shutil.which("java"):
        subprocess.run(["javac", "-Xlint:all", "-Werror", "-d", work, java], check=True)
        commands["java"] = ["java", "-cp", work, "Calls"]
    if shutil.which("mcs") and shutil.which("mono"):
        subprocess.run(["mcs", "-r:System.Net.Http", "-r:System.Xml", "-out:" + program, csharp], check=True)
        commands["mono"] = ["mono", program]
    return commands


def check_words(document):
    for row in [*CURL, *PYTHON, *NODE, *JAVA, *CSHARP, *BROKEN_OFF]:
        if row[2] not in document:
            yield f"docs/clients.md does not say: {row[2]}"


def examine(root, build, work):
    """What does not hold, and the tools that are missing."""
    os.chdir(work)  # where an XML reader would look for the document type
    context = {"build": build, "work": work,
               "packet": os.path.join(root, "tests/system/golden/rdxGetVersion/arguments.xml")}
    with open(os.path.join(root, "docs/clients.md"), encoding="utf-8") as file:
        findings = [*check_words(" ".join(file.read().split()))]
    commands = prepare(os.path.join(root, "tests/package/libraries"), work)
    for language, rows in (("python", PYTHON), ("node", NODE), ("java", JAVA), ("mono", CSHARP)):
        if language in commands:
            findings += try_program(language, rows, commands[language], context)
    missing = {tool for tool in ("curl", "wget") if not shutil.which(tool)}
    if "curl" not in missing:
        findings += try_curl(context)
    if "wget" not in missing:
        findings += try_wget(context)
    missing |= {"python", "node", "java", "mono"} - set(commands)
    findings += try_broken_off(missing, context)
    return findings, missing


def main():
    root, build = (os.path.abspath(path) for path in sys.argv[1:])
    with tempfile.TemporaryDirectory(prefix="rdx-libraries-test.") as work:
        findings, missing = examine(root, build, work)
        os.chdir("/")
    for tool in sorted(missing):
        print(f"skipped, for it is not on this machine: the libraries of {tool}")
    print(*findings, sep="\n", end="\n" if findings else "")
    sys.exit(1 if findings else 77 if missing else 0)


if __name__ == "__main__":
    main()
