'use strict';
// Tasks as exports use them (argument checks: conventions.test.js): promises and error delivery,
// spawn's failure lines, timed waits, the pool's size, and the event loop's
// end (clean-up with work in flight: lifecycle.test.js).
const test = require('node:test');
const assert = require('node:assert/strict');
const os = require('os');
const { loadProbe, runChild, buildDir } = require('./helpers');

const probePath = require('path').join(buildDir(), 'test', 'runtime_probe.node').replace(/\\/g, '/');
const probe = loadProbe();
const load = `const p = require(${JSON.stringify(probePath)});`;

test('settling and delivering failures', async (t) => {
  await t.test('a rejection is an Error with the failure text and no code', async () => {
    await assert.rejects(probe.rejectWith('disk on fire'), (e) => e instanceof Error && e.message === 'disk on fire' && !('code' in e));
  });
  await t.test('a failure delivered to a callback is an Error', async () => {
    const error = await new Promise((resolve) => probe.callbackError(resolve, 'no such folder'));
    assert.ok(error instanceof Error);
    assert.equal(error.message, 'no such folder');
  });
});

test('spawn logs each kind of failure', async (t) => {
  const run = (kind, onMain) => runChild(`${load}
    try { p.spawnFailure(${JSON.stringify(kind)}, ${onMain}); } catch (e) { console.log('THROWN ' + e.message); }`);

  await t.test('a standard exception, on and off the main thread', () => {
    for (const onMain of [true, false]) {
      const r = run('std', onMain);
      assert.equal(r.status, 0, r.stderr);
      assert.match(r.stdout, /^Ostrel Spawn Exception probe std failure$/m);
    }
  });
  await t.test('anything else', () => {
    for (const onMain of [true, false]) {
      const r = run('other', onMain);
      assert.match(r.stdout, /^Ostrel Spawn Error\.\.\.$/m);
    }
  });
  await t.test('a script error on the main thread is logged and thrown into script', () => {
    const r = run('napi', true);
    assert.match(r.stdout, /^Ostrel Spawn Napi::Error probe napi failure$/m);
    assert.match(r.stdout, /^THROWN probe napi failure$/m);
    assert.doesNotMatch(r.stderr, /in thread #/);
  });
  await t.test('a script error on a worker gives two lines, one with the thread number', () => {
    const r = run('napi', false);
    assert.match(r.stdout, /^Ostrel Spawn Napi::Error $/m);
    assert.match(r.stderr, /^Ostrel Spawn Napi::Error in thread #\d+$/m);
    assert.doesNotMatch(r.stdout, /THROWN/);
  });
  await t.test('a script error raised inside a dispatch reaches uncaughtException and work goes on', () => {
    const r = runChild(`${load}
      process.on('uncaughtException', (e) => console.log('UNCAUGHT ' + e.message));
      p.throwOnDispatch('late failure');
      p.delay(50).then(() => console.log('STILL RUNNING'));`);
    assert.equal(r.status, 0, r.stderr);
    assert.match(r.stdout, /^Ostrel Spawn Napi::Error late failure$/m);
    assert.match(r.stdout, /^UNCAUGHT late failure$/m);
    assert.match(r.stdout, /^STILL RUNNING$/m);
  });
});

test('timed waits on the I/O service never wake early', async () => {
  const waits = [1, 2, 5, 10, 16, 25, 40, 60, 100];
  const results = await Promise.all(waits.map((ms) => probe.delay(ms)));
  results.forEach((r, i) => {
    assert.ok(r.waited >= waits[i], `${waits[i]} ms wait woke after ${r.waited} ms`);
    assert.equal(r.onServiceThread, true);
  });
});

test('the pool has max(4, hardware threads) workers', () => {
  assert.equal(probe.poolSize(), Math.max(4, os.cpus().length));
  for (const [hw, expected] of [[2, 4], [16, 16], [1, 4]]) {
    const r = runChild(`${load} console.log('POOL ' + p.poolSize());`, { env: { OSTREL_PROBE_HARDWARE_THREADS: String(hw) } });
    assert.match(r.stdout, new RegExp(`^POOL ${expected}$`, 'm'));
  }
});

test('clean-up with work in flight', async (t) => {
  await t.test('the event loop ends by itself once nothing holds a reference', () => {
    const r = runChild(`${load} p.delay(20).then(() => console.log('DONE'));`, { timeout: 20000 });
    assert.equal(r.status, 0);
    assert.match(r.stdout, /^DONE$/m);
  });
});
