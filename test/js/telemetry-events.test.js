'use strict';
// Event records and their delivery to reporters: queueing before the first
// reporter, the record's properties and their order, several reporters,
// producers on native threads, and reporters that fail.
const test = require('node:test');
const assert = require('node:assert/strict');
const ostrel = require('../..');
const { loadProbe, runChild } = require('./helpers');
const { modulePath, probePath, waitFor } = require('./telemetry-helpers');

// The probe carries its own registries and queues, fed by native producers.
const probe = loadProbe();

function recordingReporter() {
  const records = [];
  return { records, report(record) { records.push(record); } };
}

test('queueing and order', async (t) => {
  t.afterEach(() => {
    ostrel.UnRegisterTvkReporters();
    probe.UnRegisterTvkReporters();
  });

  await t.test('an event reported before any reporter goes to the first one registered', async () => {
    ostrel.ReportTest(0);
    ostrel.ReportTest(0);
    await new Promise((resolve) => setTimeout(resolve, 100));
    const first = recordingReporter();
    ostrel.RegisterTvkReporter(first);
    await waitFor(() => first.records.length === 2, 'the two early events');
    assert.deepEqual(first.records, [{ category: 300, msg: 'test' }, { category: 300, msg: 'test' }]);
    // Delivered once: a second reporter registered later does not get them again.
    const second = recordingReporter();
    ostrel.RegisterTvkReporter(second);
    ostrel.ReportTest(0);
    await waitFor(() => second.records.length === 1, 'the next event');
    await new Promise((resolve) => setTimeout(resolve, 50));
    assert.equal(first.records.length, 3);
    assert.equal(second.records.length, 1);
  });

  await t.test('each reporter, in registration order, gets every record in order', async () => {
    const calls = [];
    const make = (name) => ({ report(r) { calls.push(`${name}:${r.category}`); } });
    probe.RegisterTvkReporter(make('A'));
    probe.RegisterTvkReporter(make('B'));
    probe.reportEvent(1, 'x', [], false);
    probe.reportEvent(2, 'x', [], false);
    probe.reportEvent(3, 'x', [], false);
    await waitFor(() => calls.length === 6, 'six report calls');
    // One delivery may carry all three records, or each its own: per
    // delivery, reporter A sees the batch before B, and order is kept.
    const a = calls.filter((c) => c.startsWith('A')).map((c) => c.slice(2));
    const b = calls.filter((c) => c.startsWith('B')).map((c) => c.slice(2));
    assert.deepEqual(a, ['1', '2', '3']);
    assert.deepEqual(b, ['1', '2', '3']);
  });

  await t.test('events from native threads arrive, none lost', async () => {
    const r = recordingReporter();
    probe.RegisterTvkReporter(r);
    for (let i = 0; i < 200; i++) probe.reportEvent(i, '', [], true);
    await waitFor(() => r.records.length === 200, '200 events');
    assert.deepEqual(r.records.map((x) => x.category), [...Array(200).keys()]);
  });
});

test('the record object', async (t) => {
  t.afterEach(() => probe.UnRegisterTvkReporters());

  const deliver = async (category, message, fields) => {
    const r = recordingReporter();
    probe.RegisterTvkReporter(r);
    probe.reportEvent(category, message, fields, false);
    await waitFor(() => r.records.length === 1, 'the event');
    return r.records[0];
  };

  await t.test('without optional fields it has only "category"', async () => {
    const record = await deliver(-5, '', []);
    assert.deepEqual(Object.keys(record), ['category']);
    assert.equal(record.category, -5);
  });

  await t.test('typed fields come in their fixed order, then the extras by key', async () => {
    const fields = [
      ['zz', 'last extra'], ['w_succ', '1'], ['wl_avgv5', '5'], ['bl5', 'b5'], ['c5', 'v5'],
      ['aa', 'first extra'], ['wl_avgv1', '-1'], ['bl1', 'b1'], ['c1', 'v1'], ['c3', 'ünïcødé 中文 😀'],
    ];
    const record = await deliver(42, 'message', fields);
    assert.deepEqual(Object.keys(record), ['category', 'msg', 'c1', 'c3', 'c5', 'bl1', 'bl5', 'wl_avgv1', 'wl_avgv5', 'w_succ', 'aa', 'zz']);
    assert.equal(record.msg, 'message');
    assert.equal(record.c3, 'ünïcødé 中文 😀');
    assert.equal(record.wl_avgv1, -1);
    assert.equal(record.wl_avgv5, 5);
    assert.equal(record.w_succ, 1);
    assert.equal(typeof record.w_succ, 'number');
    assert.equal(record.zz, 'last extra');
  });

  await t.test('a numeric field with a non-numeric value is left out', async () => {
    const record = await deliver(1, 'm', [['wl_avgv2', 'many'], ['w_succ', 'yes'], ['c2', '']]);
    assert.deepEqual(record, { category: 1, msg: 'm', c2: '' });
  });

  await t.test("the module's own event is category 194 with the version", async () => {
    const r = recordingReporter();
    probe.RegisterTvkReporter(r);
    probe.reportModuleEvent('ostrel:hardwaredisk:biglist', 31, true);
    await waitFor(() => r.records.length === 1, 'the event');
    assert.deepEqual(r.records[0], { category: 194, c1: ostrel.getVersion(), wl_avgv1: 31, w_succ: 1, c20: 'ostrel:hardwaredisk:biglist' });
  });
});

test('failing reporters', async (t) => {
  await t.test('a throwing report is logged and later deliveries go on', () => {
    const r = runChild(`
      const o = require(${JSON.stringify(modulePath)});
      process.on('uncaughtException', (e) => console.log('UNCAUGHT ' + e.message));
      let calls = 0;
      o.RegisterTvkReporter({ report() { calls++; if (calls === 1) throw new Error('reporter broke'); } });
      o.ReportTest(0);
      setTimeout(() => o.ReportTest(0), 200);
      setTimeout(() => { console.log('CALLS ' + calls); o.UnRegisterTvkReporters(); }, 400);
    `);
    assert.equal(r.status, 0, r.stderr);
    assert.match(r.stdout, /^Ostrel Spawn Napi::Error reporter broke$/m);
    assert.match(r.stdout, /^UNCAUGHT reporter broke$/m);
    assert.match(r.stdout, /^CALLS 2$/m);
  });

  await t.test('a reporter without report is logged and the others still get every event', () => {
    const r = runChild(`
      const o = require(${JSON.stringify(modulePath)});
      process.on('uncaughtException', (e) => console.log('UNCAUGHT ' + e.message));
      const got = [];
      o.RegisterTvkReporter({ report: 'not a function' });
      o.RegisterTvkReporter({ report() { throw new Error('second broke'); } });
      o.RegisterTvkReporter({ report(r) { got.push(r.category); } });
      o.ReportTest(0);
      setTimeout(() => o.ReportTest(0), 200);
      setTimeout(() => { console.log('GOT ' + got.join(',')); o.UnRegisterTvkReporters(); }, 400);
    `);
    assert.equal(r.status, 0, r.stderr);
    // The first failure of each delivery is the one logged.
    assert.equal(r.stdout.match(/^Ostrel Spawn Exception report is not function$/gm).length, 2);
    assert.doesNotMatch(r.stdout, /UNCAUGHT/);
    assert.match(r.stdout, /^GOT 300,300$/m);
  });

  await t.test('a reporter that unregisters everything from inside report does not deadlock', () => {
    const r = runChild(`
      const o = require(${JSON.stringify(modulePath)});
      o.RegisterTvkReporter({ report() { console.log('REPORTED'); o.UnRegisterTvkReporters(); o.RegisterTvkReporter({ report() {} }); o.UnRegisterTvkReporters(); } });
      o.ReportTest(0);
    `, { timeout: 20000 });
    assert.equal(r.status, 0, r.stderr);
    assert.match(r.stdout, /^REPORTED$/m);
  });
});
