'use strict';
// The main-thread scheduler and tasks as exports use them, driven through
// the runtime probe: the dispatch budget, coalesced wake-ups, references,
// wake-ups racing the last release, what happens after release and stop;
// promises and error delivery, and spawn's failure lines (argument checks:
// conventions.test.js; clean-up with work in flight: lifecycle.test.js;
// timed waits and the pool's size: the native unit tests).
const test = require('node:test');
const assert = require('node:assert/strict');
const { loadProbe, runChild, buildDir } = require('./helpers');

const probePath = require('path').join(buildDir(), 'test', 'runtime_probe.node').replace(/\\/g, '/');
const probe = loadProbe();
const load = `const p = require(${JSON.stringify(probePath)});`;
// The last line of a child's stdout that is a JSON object.
const lastObject = (r) => JSON.parse(r.stdout.split('\n').filter((l) => l.startsWith('{')).pop());

test('dispatch budget', async (t) => {
  await t.test('150 ms of queued work runs about 100 ms, then the rest no sooner than 100 ms later', async () => {
    const { ends, runs, runStarts } = await probe.queueBusyWork(15, 10);
    assert.equal(ends.length, 15);
    // The first task of a later dispatch run (not a pause between starts:
    // on a loaded machine the main thread may be descheduled inside a run).
    const gapAt = runs.findIndex((r) => r !== runs[0]);
    assert.ok(gapAt > 0, `one run for all: ${ends.join(', ')}`);
    // The budget counts from the run's start (not its first task's): the run
    // takes tasks while under 100 ms and stops with the one that ends past it.
    const since = (ms) => ms - runStarts[0];
    if (gapAt > 1) assert.ok(since(ends[gapAt - 2]) <= 100, `first run stopped late: a task ended at ${since(ends[gapAt - 2])} ms`);
    // (1 ms for the moment between the task's clock and the scheduler's.)
    assert.ok(since(ends[gapAt - 1]) > 99, `first run stopped early: its last task ended at ${since(ends[gapAt - 1])} ms`);
    assert.ok(runStarts[gapAt] - ends[gapAt - 1] >= 99,
      `rest resumed ${runStarts[gapAt] - ends[gapAt - 1]} ms after the budget ran out`);
  });

  await t.test('many schedules before the callback runs cost one callback; a task scheduling itself again inside it goes on in the same run', async () => {
    const { runs, sameRun } = await probe.queueBusyWork(2000, 0);
    assert.ok(Math.max(...runs) <= 2, `${Math.max(...runs)} dispatch runs for 2000 queued tasks`);
    assert.equal(sameRun, true);
  });
});

// That a pending operation keeps the process (or Worker) alive and lets it
// end once settled: every Worker ending of lifecycle.test.js, whose child
// prints its last call's answer and then ends by itself.
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

test('a rejection is an Error with the failure text and no code', async () => {
  const plain = (message) => (e) => e.constructor === Error && e.message === message && !('code' in e);
  await assert.rejects(probe.rejectWith('disk on fire'), plain('disk on fire'));
});

// [kind, on the main thread, the lines it writes to stdout]; only a script
// error on the main thread is thrown into script besides. Off the main
// thread its message cannot be read (it is a Node-API call) and stderr names
// the thread. A standard exception and any other value are logged alike on
// any thread.
const spawnRows = [
  ['std', true, 'Ostrel Spawn Exception probe std failure'],
  ['other', false, 'Ostrel Spawn Error...'],
  ['napi', true, 'Ostrel Spawn Napi::Error probe napi failure', 'THROWN probe napi failure'],
  ['napi', false, 'Ostrel Spawn Napi::Error '],
];

test('spawn logs each kind of failure, on and off the main thread; a script error raised inside a dispatch reaches uncaughtException and work goes on', () => {
  const r = runChild(`${load}
    for (const [kind, onMain] of ${JSON.stringify(spawnRows)}) {
      console.log('ROW');
      try { p.spawnFailure(kind, onMain); } catch (e) { console.log('THROWN ' + e.message); }
    }
    console.log('ROW');
    process.on('uncaughtException', (e) => console.log('UNCAUGHT ' + e.message));
    p.throwOnDispatch('late failure');
    p.rejectWith('later').catch(() => console.log('STILL RUNNING'));`);
  assert.equal(r.status, 0, r.stderr);
  const rows = r.stdout.split(/^ROW\r?\n/m).slice(1).map((part) => part.split(/\r?\n/).filter(Boolean));
  assert.deepEqual(rows.slice(0, -1), spawnRows.map((row) => row.slice(2)));
  for (const line of ['Ostrel Spawn Napi::Error late failure', 'UNCAUGHT late failure', 'STILL RUNNING']) {
    assert.ok(rows.at(-1).includes(line), `${line}\n${r.stdout}`);
  }
  assert.equal((r.stderr.match(/^Ostrel Spawn Napi::Error in thread #\d+$/gm) || []).length, 1, r.stderr);
});
