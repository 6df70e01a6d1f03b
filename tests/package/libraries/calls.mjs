// Calls with node's libraries: a line for each, "NAME | STATUSES".
//
//   calls.mjs PORT PACKET

import { readFileSync } from "node:fs";
import { request } from "node:http";

const PATIENCE_MS = 20000;
const [port, path] = process.argv.slice(2);
const packet = readFileSync(path);
const VERSION = "/rDx?FunctionName=rdxGetVersion";
const STATUS = "/rDx?FunctionName=rdxGetDeviceStatus";

// The status of a call; `write` gives the body to the request.
function call(options, write = (sent) => sent.end(packet)) {
  return new Promise((resolve, reject) => {
    const sent = request(
      { host: "127.0.0.1", port, method: "POST", path: VERSION, timeout: PATIENCE_MS, ...options },
      (answer) => {
        answer.resume();
        answer.on("end", () => resolve(answer.statusCode));
      },
    );
    sent.on("timeout", () => sent.destroy(new Error("no answer")));
    sent.on("error", reject);
    write(sent);
  });
}

const inPieces = (sent) => {
  sent.write(packet.subarray(0, 10));
  sent.end(packet.subarray(10));
};
const empty = (sent) => sent.end();

// A good call, one that is refused, two good ones.
async function inTurn(options) {
  const statuses = [];
  for (const more of [{}, { "X-Unknown": "1" }, {}, {}]) {
    statuses.push(await call({ ...options, headers: { ...options.headers, ...more } }));
  }
  return statuses.join(" ");
}

async function fetched() {
  const url = `http://127.0.0.1:${port}${VERSION}`;
  const answer = await fetch(url, { method: "POST", body: packet, signal: AbortSignal.timeout(PATIENCE_MS) });
  return answer.status;
}

const alone = { agent: false };
console.log("http, no agent |", await inTurn(alone));
console.log("http, pieces |", await call(alone, inPieces));
console.log("http, pieces and length |", await call({ ...alone, headers: { "Content-Length": packet.length } }, inPieces));
console.log("http, no body |", await call({ ...alone, path: STATUS }, empty));
console.log("http, GET |", await call({ ...alone, method: "GET", path: STATUS }, empty));
console.log("http, GET with a body |", await call({ ...alone, method: "GET" }));
console.log("fetch |", await fetched());
process.exit(0);
