#!/usr/bin/env node
// Calls a method of the server with nothing but what node brings, and prints the answer.
//
//   call.mjs HOST PORT METHOD PACKET [USER:PASSWORD]      PACKET: a file with the arguments, "-" for standard input
//
// Prints the HTTP status and the body. The exit status tells what came of the call:
//   0  the device did it: status 200, code 0         3  there was no whole answer
//   1  the device did not: status 200, another code  4  the call was not made: wrong arguments
//   2  the server refused it: another status
//
// It uses `http`, for the server refuses what `fetch` sends. The password is an argument, which other users of this
// machine can see while the program runs.

import { readFileSync, writeSync } from "node:fs";
import { request } from "node:http";

const DONE = 0;
const NOT_DONE = 1;
const REFUSED = 2;
const NO_ANSWER = 3;
const NOT_CALLED = 4;

const PACKET_MAX = 65536; // bytes of a request's body
const LINE_MAX = 511; // characters of a header line
const PATIENCE_S = 60; // for the whole call: a device may take its time over some methods

// A call that came to nothing: the exit status and why.
class Failure extends Error {
  constructor(status, message) {
    super(message);
    this.status = status;
  }
}

// The packet in a file, as bytes.
function readPacket(path) {
  let packet;
  try {
    packet = readFileSync(path === "-" ? 0 : path);
  } catch (error) {
    throw new Failure(NOT_CALLED, `${path}: ${error.message}`);
  }
  if (packet.length === 0) throw new Failure(NOT_CALLED, `${path}: there is no packet in it`);
  if (packet.length > PACKET_MAX) throw new Failure(NOT_CALLED, `${path}: a packet has ${PACKET_MAX} bytes at most`);
  if (packet.includes(0)) throw new Failure(NOT_CALLED, `${path}: there is a NUL in it`);
  return packet;
}

// The headers of a request; node adds Host.
function makeHeaders(packet, credentials) {
  // Without a length node would send chunks, which the server does not understand.
  const headers = { "Content-Type": "text/xml", "Content-Length": packet.length, Connection: "close" };
  if (credentials === undefined) return headers;
  if (!credentials.includes(":")) throw new Failure(NOT_CALLED, "give the user as USER:PASSWORD");
  headers.Authorization = "Basic " + Buffer.from(credentials, "utf8").toString("base64");
  if (`Authorization: ${headers.Authorization}`.length > LINE_MAX) {
    throw new Failure(NOT_CALLED, "user and password are too long");
  }
  return headers;
}

// The status, the reason phrase and the body of the answer. The server has IPv4 alone. The default agent would keep
// the connection and make the next call on it, also after a refusal.
function call(host, port, method, packet, headers) {
  const path = `/rDx?FunctionName=${method}`;
  return new Promise((resolve, reject) => {
    const fail = (message) => reject(new Failure(NO_ANSWER, message));
    let received;
    const sent = request({ host, port, path, method: "POST", headers, agent: false, family: 4 }, (answer) => {
      const parts = [];
      received = answer;
      answer.on("data", (part) => parts.push(part));
      answer.on("error", (error) => fail(`the answer is broken off: ${error.message}`));
      answer.on("end", () =>
        resolve({ status: answer.statusCode, reason: answer.statusMessage, body: Buffer.concat(parts) }),
      );
    });
    const timer = setTimeout(() => {
      fail(`no answer within ${PATIENCE_S} s: all threads of the server may be busy`);
      sent.destroy();
    }, PATIENCE_S * 1000);
    sent.on("close", () => clearTimeout(timer));
    sent.on("error", (error) => {
      if (received?.complete) return; // a setting makes the server send a text behind it
      fail(`${host}, port ${port}: ${error.message}. Is the server running?`);
    });
    sent.end(packet);
  });
}

// The number in "code" of the packet's "Status", which one method calls "status". A text in the packet cannot look
// like this: its quotes are escaped.
function findCode(body) {
  const found = /<var name='[Ss]tatus'>\s*<struct>\s*<var name='code'><number>(-?\d+)</.exec(body.toString("utf8"));
  if (found === null) throw new Failure(NO_ANSWER, "the answer has no code");
  return Number(found[1]);
}

// Writes all of it, also to a pipe that takes it bit by bit.
function print(bytes) {
  for (let written = 0; written < bytes.length; ) {
    try {
      written += writeSync(1, bytes, written);
    } catch (error) {
      if (error.code !== "EAGAIN") throw new Failure(NO_ANSWER, `the answer could not be written: ${error.message}`);
    }
  }
}

// Makes the call and prints the answer; what it means as an exit status.
async function run(args) {
  if (args.length < 4 || args.length > 5) {
    throw new Failure(NOT_CALLED, "use: call.mjs HOST PORT METHOD PACKET [USER:PASSWORD]");
  }
  const [host, port, method, path, credentials] = args;
  if (!/^[A-Za-z0-9]{1,32}$/.test(method)) {
    throw new Failure(NOT_CALLED, `'${method}' is no method's name: give 1 to 32 letters`);
  }
  if (!/^[0-9]{1,5}$/.test(port) || Number(port) < 1 || Number(port) > 65535) {
    throw new Failure(NOT_CALLED, `'${port}' is no port: give a number from 1 to 65535`);
  }
  const packet = readPacket(path);
  const answer = await call(host, port, method, packet, makeHeaders(packet, credentials));
  print(Buffer.concat([Buffer.from(`${answer.status} ${answer.reason}\n`, "latin1"), answer.body, Buffer.from("\n")]));
  if (answer.status !== 200) return REFUSED;
  return findCode(answer.body) === 0 ? DONE : NOT_DONE;
}

try {
  process.exitCode = await run(process.argv.slice(2));
} catch (error) {
  if (!(error instanceof Failure)) throw error;
  console.error(`call.mjs: ${error.message}`);
  process.exitCode = error.status;
}
