'use strict';
// Shared pieces of the media suites: where the simulator SDK's libraries
// are, WAV files, and child scripts that load the module with a reporter
// recording what the media bridge reports. The SDK's state
// is the process's and is never reset, so every loading case runs in a
// child of its own.
const fs = require('fs');
const path = require('path');
const assert = require('node:assert/strict');
const { buildDir, isWindows, runChild, tempDir: helperTempDir } = require('./helpers');

const slash = (p) => p.replace(/\\/g, '/');
const modulePath = slash(path.join(buildDir(), 'ostrel.node'));
const simDir = (variant = 'full') => path.join(buildDir(), 'test', 'corvex_sim', variant);
const libNames = isWindows
  ? ['libcorvexffmpeg.dll', 'libplacebo-291.dll', 'libq7player.dll']
  : ['libcorvexffmpeg.so', 'libplacebo-291.so', 'libq7player.so'];
const statCategory = 600;

// A PCM WAV file (8 kHz, mono, 16 bit) that plays `ms` milliseconds.
function writeWav(file, ms) {
  const data = Buffer.alloc(ms * 16);
  const h = Buffer.alloc(44);
  h.write('RIFF', 0);
  h.writeUInt32LE(36 + data.length, 4);
  h.write('WAVE', 8);
  h.write('fmt ', 12);
  h.writeUInt32LE(16, 16);
  h.writeUInt16LE(1, 20);
  h.writeUInt16LE(1, 22);
  h.writeUInt32LE(8000, 24);
  h.writeUInt32LE(16000, 28);
  h.writeUInt16LE(2, 32);
  h.writeUInt16LE(16, 34);
  h.write('data', 36);
  h.writeUInt32LE(data.length, 40);
  fs.writeFileSync(file, Buffer.concat([h, data]));
  return file;
}

const tempDir = (tag) => helperTempDir(`ostrel-media-${tag}-`);

// Copies the simulator's `variant` libraries into `dir` (made as needed).
function copySim(dir, variant = 'full') {
  fs.mkdirSync(dir, { recursive: true });
  for (const f of fs.readdirSync(simDir(variant))) fs.copyFileSync(path.join(simDir(variant), f), path.join(dir, f));
  return dir;
}

// The prelude of a child script: `m` the module (from `module`), `records`
// every media record, `out(tag, value)` prints a result line, `finish()`
// waits for the last deliveries, prints "RECORDS" and lets the child end.
function prelude(module = modulePath) {
  return `
    const m = require(${JSON.stringify(slash(module))});
    const records = [];
    m.RegisterTvkReporter({ report(r) { records.push(r); } });
    const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
    const out = (tag, value) => console.log('OUT ' + JSON.stringify([tag, value === undefined ? null : value]));
    const finish = async () => {
      await sleep(300);
      console.log('RECORDS ' + JSON.stringify(records));
      m.UnRegisterTvkReporters();
    };
    process.on('unhandledRejection', (e) => { console.error('UNHANDLED', e); process.exit(3); });
  `;
}

// Runs `body` (inside an async function, after the prelude) in a child and
// returns { outs: {tag: value}, records, stats(name), stdout, stderr, status }.
function runMedia(body, { module, env, timeout = 60000, expectStatus = 0, cwd } = {}) {
  const source = `${prelude(module)}
    (async () => { ${body} })().then(finish, (e) => { console.error('FAILED', e && e.stack || e); process.exit(2); });`;
  const r = runChild(source, { env, timeout, ...(cwd && { cwd }) });
  if (expectStatus !== null) assert.equal(r.status, expectStatus, `status ${r.status}\n${r.stdout}\n${r.stderr}`);
  const outs = {};
  let records = [];
  for (const line of r.stdout.split(/\r?\n/)) {
    if (line.startsWith('OUT ')) {
      const [tag, value] = JSON.parse(line.slice(4));
      outs[tag] = value;
    } else if (line.startsWith('RECORDS ')) {
      records = JSON.parse(line.slice(8));
    }
  }
  return { ...r, outs, records, stats: (name) => records.filter((x) => x.category === statCategory && x.msg === name) };
}

module.exports = { modulePath, simDir, libNames, writeWav, tempDir, copySim, runMedia, statCategory, isWindows };
