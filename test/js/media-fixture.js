'use strict';
// The simulator SDK, and children recording what the media bridge reports
// (the SDK's state is the process's, never reset: one child per case).
const fs = require('fs');
const path = require('path');
const assert = require('node:assert/strict');
const { buildDir, isWindows, runChild, tempDir: helperTempDir } = require('./helpers');

const slash = (p) => p.replace(/\\/g, '/');
const modulePath = slash(path.join(buildDir(), 'ostrel.node'));
const simDir = (variant = 'full') => path.join(buildDir(), 'test', 'corvex_sim', variant);
const libNames = ['libcorvexffmpeg', 'libplacebo-291', 'libq7player'].map((n) => n + (isWindows ? '.dll' : '.so'));
const statCategory = 600;

const tempDir = (tag) => helperTempDir(`ostrel-media-${tag}-`);

// Copies the simulator's `variant` libraries into `dir` (made as needed).
function copySim(dir, variant = 'full') {
  fs.mkdirSync(dir, { recursive: true });
  for (const f of fs.readdirSync(simDir(variant))) fs.copyFileSync(path.join(simDir(variant), f), path.join(dir, f));
  return dir;
}

// `m` the module, `records` its media records, `sim` the full simulator,
// `out(tag, value)` a result; `finish()` prints the records after the last.
function prelude(module = modulePath, init = false) {
  return `
    const m = require(${JSON.stringify(slash(module))});
    const records = [];
    m.RegisterTvkReporter({ report(r) { records.push(r); } });
    const sim = ${JSON.stringify(simDir('full'))};
    if (${init}) m.InitCorvexSync({ corvexDir: sim });
    const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
    const gc = () => (require('v8').setFlagsFromString('--expose-gc'), require('vm').runInNewContext('gc'))();
    const out = (tag, value) => console.log('OUT ' + JSON.stringify([tag, value === undefined ? null : value]));
    const finish = async () => {
      await sleep(300);
      console.log('RECORDS ' + JSON.stringify(records));
      m.UnRegisterTvkReporters();
    };
    process.on('unhandledRejection', (e) => { console.error('UNHANDLED', e); process.exit(3); });
  `;
}

// Returns { outs: {tag: value}, records, stats(name), stdout, stderr, status }; `init`: from `sim`.
function runMedia(body, { module, init, env, timeout = 60000, cwd } = {}) {
  const source = `${prelude(module, init)}
    (async () => { ${body} })().then(finish, (e) => { console.error('FAILED', e && e.stack || e); process.exit(2); });`;
  const r = runChild(source, { env, timeout, ...(cwd && { cwd }) });
  assert.equal(r.status, 0, `status ${r.status}\n${r.stdout}\n${r.stderr}`);
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

module.exports = { modulePath, simDir, libNames, tempDir, copySim, runMedia, statCategory, isWindows };
