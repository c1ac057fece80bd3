// SPDX-License-Identifier: Apache-2.0
//
// node ask-trace.mjs FOLDER TRACE <SQL: loads the trace into the trace processor that FOLDER has,
// and prints the rows that each statement gives, their columns with tabs between. A statement that
// fails ends it with status 1.
//
// The trace processor is built for a worker of a browser. This is the little of one that it uses.
import fs from 'node:fs';
import path from 'node:path';

const [folder, trace] = process.argv.slice(2);
const { EngineBase } = await import(path.resolve(folder, 'engine.mjs'));
const wasm = fs.readFileSync(path.join(folder, 'trace_processor.wasm'));
Object.assign(globalThis, {
  self: globalThis,
  WorkerGlobalScope: Object,
  location: { href: '' },
  XMLHttpRequest: class {
    response = wasm;
    open() {}
    send() {}
  },
});
// Without `process` it does not take this for node, for which it is not built.
new Function('process', fs.readFileSync(path.join(folder, 'engine_bundle.node.js'), 'utf8'))();

const port = { postMessage: (data) => engine.onRpcResponseBytes(data) };
class Engine extends EngineBase {
  rpcSendRequestBytes(data) {
    port.onmessage({ data });
  }
}
const engine = new Engine();
globalThis.onmessage({ data: port });
await new Promise((resolve) => setImmediate(resolve));
await engine.resetTraceProcessor({});
for await (const part of fs.createReadStream(trace, { highWaterMark: 1 << 20 })) {
  await engine.parse(part);
}
await engine.notifyEof();

const statements = fs.readFileSync(0, 'utf8').replace(/--.*$/gm, '').split(';');
for (const statement of statements.filter((text) => text.trim() !== '')) {
  const result = await engine.query(statement);
  const columns = result.columns();
  for (const row = result.iter({}); row.valid(); row.next()) {
    console.log(columns.map((column) => row.get(column)).join('\t'));
  }
}
