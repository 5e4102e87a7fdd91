'use strict';
// The main-thread scheduler, driven through the runtime probe: its budget,
// coalesced wake-ups, references, and what happens after release and stop.
const test = require('node:test');
const assert = require('node:assert/strict');
const { loadProbe, runChild, buildDir } = require('./helpers');

const probePath = require('path').join(buildDir(), 'test', 'runtime_probe.node').replace(/\\/g, '/');
const probe = loadProbe();

test('dispatch budget', async (t) => {
  await t.test('150 ms of queued work runs about 100 ms, then the rest no sooner than 100 ms later', async () => {
    const { starts, ends, runs, runStarts } = await probe.queueBusyWork(15, 10);
    assert.equal(starts.length, 15);
    // The first task of a later dispatch run (not a pause between starts:
    // on a loaded machine the main thread may be descheduled inside a run).
    const gapAt = runs.findIndex((r) => r !== runs[0]);
    assert.ok(gapAt > 0, `one run for all: ${starts.join(', ')}`);
    // The budget counts from the run's start (not its first task's): the run
    // takes tasks while under 100 ms and stops with the one that ends past it.
    const since = (ms) => ms - runStarts[0];
    if (gapAt > 1) assert.ok(since(ends[gapAt - 2]) <= 100, `first run stopped late: a task ended at ${since(ends[gapAt - 2])} ms`);
    // (1 ms for the moment between the task's clock and the scheduler's.)
    assert.ok(since(ends[gapAt - 1]) > 99, `first run stopped early: its last task ended at ${since(ends[gapAt - 1])} ms`);
    assert.ok(starts[gapAt] - ends[gapAt - 1] >= 99,
      `rest resumed ${starts[gapAt] - ends[gapAt - 1]} ms after the budget ran out`);
  });

  await t.test('many schedules before the callback runs cost one callback; a task scheduling itself again inside it goes on in the same run', async () => {
    const { runs, sameRun } = await probe.coalesce(2000);
    assert.ok(runs <= 2, `${runs} dispatch runs for 2000 queued tasks`);
    assert.equal(sameRun, true);
  });
});

// The last line of a child's stdout that is a JSON object.
const lastObject = (r) => JSON.parse(r.stdout.split('\n').filter((l) => l.startsWith('{')).pop());
const load = `const p = require(${JSON.stringify(probePath)});`;

test('references', async (t) => {
  await t.test('add_ref off the main thread from 0 stays 0 and logs; from 2 it becomes 3', () => {
    const r = runChild(`${load}
      const first = p.ref(1, true);
      p.ref(1); p.ref(1);
      const third = p.ref(1, true);
      const afterRelease = p.ref(-1, true);
      p.ref(-1); p.ref(-1);
      console.log(JSON.stringify({ first, third, afterRelease, end: p.ref(-1) }));`);
    assert.equal(r.status, 0, r.stderr);
    assert.deepEqual(lastObject(r), { first: 0, third: 3, afterRelease: 2, end: 0 });
    assert.equal(r.stderr.split('Call AddRef in non-main thread').length - 1, 2);
    assert.equal(r.stderr.split('Call Release in non-main thread').length - 1, 1);
  });

  await t.test('releasing the last reference drops queued work', async () => {
    const r = probe.dropQueuedOnRelease();
    assert.deepEqual([r.queuedBeforeRelease, r.queuedAfterRelease], [1, 0]);
    await new Promise((resolve) => setTimeout(resolve, 150));
    assert.equal(r.ran(), false);
  });

  await t.test('a pending operation keeps the process alive; the reference goes when it ends', () => {
    const r = runChild(`${load} p.delay(300).then((v) => console.log('settled', v.refCount, p.ref(0)));`);
    assert.equal(r.status, 0, r.stderr);
    assert.match(r.stdout, /settled 1 0/);
  });
});

test('after stop, schedule logs and resumes on the awaiting thread', () => {
  const r = runChild(`${load} console.log(JSON.stringify(p.scheduleAfterStop()));`);
  assert.equal(r.status, 0, r.stderr);
  assert.match(r.stdout, /^schedule_impl stop, destroy the waiting operation$/m);
  const out = lastObject(r);
  assert.equal(out.sameThread, true);
  assert.notEqual(out.threadId, out.mainThreadId);
});
