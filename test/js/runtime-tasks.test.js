'use strict';
// Tasks as exports use them: promises and error delivery, and spawn's
// failure lines (argument checks: conventions.test.js; clean-up with work in
// flight: lifecycle.test.js; timed waits and the pool's size: the native
// unit tests).
const test = require('node:test');
const assert = require('node:assert/strict');
const { loadProbe, runChild, buildDir } = require('./helpers');

const probePath = require('path').join(buildDir(), 'test', 'runtime_probe.node').replace(/\\/g, '/');
const probe = loadProbe();
const load = `const p = require(${JSON.stringify(probePath)});`;

test('a rejection is an Error with the failure text and no code; so is a failure delivered to a callback', async () => {
  const plain = (message) => (e) => e.constructor === Error && e.message === message && !('code' in e);
  await assert.rejects(probe.rejectWith('disk on fire'), plain('disk on fire'));
  const error = await new Promise((resolve) => probe.callbackError(resolve, 'no such folder'));
  assert.ok(plain('no such folder')(error), String(error));
});

// [kind, on the main thread, stdout, stderr (or null: no thread line)];
// only a script error on the main thread is thrown into script besides.
const spawnRows = [
  ['std', true, /^Ostrel Spawn Exception probe std failure$/m, null],
  ['std', false, /^Ostrel Spawn Exception probe std failure$/m, null],
  ['other', true, /^Ostrel Spawn Error\.\.\.$/m, null],
  ['other', false, /^Ostrel Spawn Error\.\.\.$/m, null],
  ['napi', true, /^Ostrel Spawn Napi::Error probe napi failure$/m, null],
  // Off the main thread the message cannot be read (it is a Node-API call).
  ['napi', false, /^Ostrel Spawn Napi::Error $/m, /^Ostrel Spawn Napi::Error in thread #\d+$/m],
];

test('spawn logs each kind of failure, on and off the main thread', async (t) => {
  for (const [kind, onMain, stdout, stderr] of spawnRows) {
    await t.test(`${kind} ${onMain ? 'on' : 'off'} the main thread`, () => {
      const r = runChild(`${load}
        try { p.spawnFailure(${JSON.stringify(kind)}, ${onMain}); } catch (e) { console.log('THROWN ' + e.message); }`);
      assert.equal(r.status, 0, r.stderr);
      assert.match(r.stdout, stdout);
      if (kind === 'napi' && onMain) assert.match(r.stdout, /^THROWN probe napi failure$/m);
      else assert.doesNotMatch(r.stdout, /THROWN/);
      if (stderr) assert.match(r.stderr, stderr);
      else assert.doesNotMatch(r.stderr, /in thread #/);
    });
  }
});

test('a script error raised inside a dispatch reaches uncaughtException and work goes on', () => {
  const r = runChild(`${load}
    process.on('uncaughtException', (e) => console.log('UNCAUGHT ' + e.message));
    p.throwOnDispatch('late failure');
    p.delay(50).then(() => console.log('STILL RUNNING'));`);
  assert.equal(r.status, 0, r.stderr);
  for (const line of ['Ostrel Spawn Napi::Error late failure', 'UNCAUGHT late failure', 'STILL RUNNING']) {
    assert.match(r.stdout, new RegExp(`^${line}$`, 'm'));
  }
});
