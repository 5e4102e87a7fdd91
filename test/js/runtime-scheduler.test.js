'use strict';
// The main-thread scheduler and spawned tasks, driven through the runtime
// probe: coalesced wake-ups, references, wake-ups racing the last release,
// release and stop, and spawn's failure lines.
const test = require('node:test');
const assert = require('node:assert/strict');
const { loadProbe, runChild, buildDir } = require('./helpers');

const probePath = require('path').join(buildDir(), 'test', 'runtime_probe.node').replace(/\\/g, '/');
const probe = loadProbe();
const load = `const p = require(${JSON.stringify(probePath)});`;
const lastObject = (r) => JSON.parse(r.stdout.split('\n').filter((l) => l.startsWith('{')).pop());

test('many schedules before the callback runs cost one callback; a task scheduling itself again inside it goes on in the same run', async () => {
  const { runs, sameRun } = await probe.queueWork(2000);
  assert.ok(Math.max(...runs) <= 2, `${Math.max(...runs)} dispatch runs for 2000 queued tasks`);
  assert.equal(sameRun, true);
});

test('references', async (t) => {
  await t.test('add_ref off the main thread from 0 stays 0 and logs; from 2 it becomes 3; after stop, schedule logs and resumes on the awaiting thread', () => {
    const r = runChild(`${load}
      const first = p.ref(1, true);
      p.ref(1); p.ref(1);
      const third = p.ref(1, true);
      const afterRelease = p.ref(-1, true);
      p.ref(-1); p.ref(-1);
      const end = p.ref(-1);
      console.log(JSON.stringify({ first, third, afterRelease, end, where: p.scheduleFromThread('stop').where() }));`);
    assert.equal(r.status, 0, r.stderr);
    assert.deepEqual(lastObject(r), { first: 0, third: 3, afterRelease: 2, end: 0, where: 'own thread' });
    assert.equal(r.stderr.split('Call AddRef in non-main thread').length - 1, 2);
    assert.equal(r.stderr.split('Call Release in non-main thread').length - 1, 1);
    assert.match(r.stdout, /^schedule_impl stop, destroy the waiting operation$/m);
  });

  await t.test('releasing the last reference drops queued work', async () => {
    const r = probe.scheduleFromThread('release');
    assert.deepEqual([r.queuedBeforeRelease, r.queuedAfterRelease], [1, 0]);
    await new Promise((resolve) => setTimeout(resolve, 150));
    assert.equal(r.where(), 'not run');
  });
});

test('wake-ups racing the last release never touch a freed handle', () => {
  const r = runChild(`${load}
    const join = p.scheduleStorm(1500);
    const end = Date.now() + 1500;
    (function cycle() {
      p.ref(1);
      setImmediate(() => {
        p.ref(-1);
        if (Date.now() < end) setImmediate(cycle);
        else console.log('SCHEDULES ' + join());
      });
    })();`, { maxBuffer: 256 * 1024 * 1024 });
  assert.equal(r.status, 0, `status ${r.status} signal ${r.signal}\n${r.stderr.slice(-2000)}`);
  assert.match(r.stdout, /^SCHEDULES [1-9]\d*$/m);
});

// [kind, where, the lines it writes to stdout]: only a script error on the
// main thread is thrown into script besides; off the main thread its message
// cannot be read (a Node-API call) and stderr names the thread. One raised
// inside a dispatch reaches uncaughtException, and work goes on.
const spawnRows = [
  ['std', 'main', 'Ostrel Spawn Exception probe std failure'],
  ['other', 'thread', 'Ostrel Spawn Error...'],
  ['napi', 'main', 'Ostrel Spawn Napi::Error probe napi failure', 'THROWN probe napi failure'],
  ['napi', 'thread', 'Ostrel Spawn Napi::Error '],
];

test('spawn logs each kind of failure, on and off the main thread and inside a dispatch', () => {
  const r = runChild(`${load}
    for (const [kind, where] of ${JSON.stringify(spawnRows)}) {
      console.log('ROW');
      try { p.spawnFailure(kind, where); } catch (e) { console.log('THROWN ' + e.message); }
    }
    console.log('ROW');
    process.on('uncaughtException', (e) => console.log('UNCAUGHT ' + e.message));
    p.spawnFailure('napi', 'dispatch');
    p.queueWork(1).then(() => console.log('STILL RUNNING'));`);
  assert.equal(r.status, 0, r.stderr);
  const rows = r.stdout.split(/^ROW\r?\n/m).slice(1).map((part) => part.split(/\r?\n/).filter(Boolean));
  assert.deepEqual(rows.slice(0, -1), spawnRows.map((row) => row.slice(2)));
  for (const line of ['Ostrel Spawn Napi::Error late failure', 'UNCAUGHT late failure', 'STILL RUNNING']) {
    assert.ok(rows.at(-1).includes(line), `${line}\n${r.stdout}`);
  }
  assert.equal((r.stderr.match(/^Ostrel Spawn Napi::Error in thread #\d+$/gm) || []).length, 1, r.stderr);
});
