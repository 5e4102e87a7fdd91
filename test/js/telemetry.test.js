'use strict';
// Telemetry at the script boundary: events delivered to reporters (queued
// before the first one, the record's properties and their order, native
// producers), facts to fact sinks, call statistics flushed to tracers as
// "api_stat" spans, the event loop held by registrations, and reporters,
// sinks and tracers that fail. The runtime probe carries its own copy of the
// exports (registries and queues apart from ostrel.node's) and the native
// producers script cannot call. Records, queues and the aggregate: the
// native unit tests (telemetry_test.cc).
const test = require('node:test');
const assert = require('node:assert/strict');
const path = require('path');
const ostrel = require('../..');
const { root, buildDir, loadProbe, runChild, waitFor } = require('./helpers');

const probe = loadProbe();
const modulePath = JSON.stringify(root);
const probePath = JSON.stringify(path.join(buildDir(), 'test', 'runtime_probe.node'));

function recordingReporter() {
  const records = [];
  return { records, report(record) { records.push(record); } };
}
// A tracer that keeps every span it starts: { at, name, attrs: [[k, v]...], ended }.
function recordingTracer() {
  const spans = [];
  return {
    spans,
    startSpan(name) {
      const span = { at: performance.now(), name, attrs: [], ended: false };
      spans.push(span);
      return { setAttribute: (key, value) => span.attrs.push([key, value]), end: () => { span.ended = true; } };
    },
  };
}
const attrsOf = (span) => Object.fromEntries(span.attrs);
const spansNamed = (tracer, name) => tracer.spans.filter((s) => attrsOf(s).dim_0 === name);
const recorded = (tracer, name) => spansNamed(tracer, name).reduce((n, s) => n + attrsOf(s).indsum_0, 0);

// Runs `body` in a child with `o` the module and `p` the probe (loaded when
// used), uncaught errors written to stdout.
function child(body) {
  const r = runChild(`
    const o = require(${modulePath});
    ${/\bp\./.test(body) ? `const p = require(${probePath});` : ''}
    process.on('uncaughtException', (e) => console.log('UNCAUGHT ' + e.message));
    ${body}
  `, { timeout: 20000 });
  assert.equal(r.status, 0, r.stderr);
  return r;
}
const count = (text, line) => text.split(/\r?\n/).filter((l) => l === line).length;

test('events', async (t) => {
  t.afterEach(() => probe.UnRegisterTvkReporters());

  // The statistics of ReportTest are the spans case's, so the probe reports here.
  await t.test('events reported before any reporter go to the first one registered, once', async () => {
    probe.reportEvent(300, 'test', [], false);
    probe.reportEvent(300, 'test', [], true);
    await new Promise((resolve) => setTimeout(resolve, 100));
    const first = recordingReporter();
    probe.RegisterTvkReporter(first);
    await waitFor(() => first.records.length === 2, 'the two early events');
    assert.deepEqual(first.records, [{ category: 300, msg: 'test' }, { category: 300, msg: 'test' }]);
    const second = recordingReporter();
    probe.RegisterTvkReporter(second);
    probe.reportEvent(300, 'test', [], false);
    await waitFor(() => second.records.length === 1, 'the next event');
    await new Promise((resolve) => setTimeout(resolve, 50));
    assert.equal(first.records.length, 3);
    assert.equal(second.records.length, 1);
  });

  await t.test('every reporter, in registration order, gets every record from native threads in order', async () => {
    const calls = [];
    const make = (name) => ({ report(r) { calls.push([name, r.category]); } });
    probe.RegisterTvkReporter(make('A'));
    probe.RegisterTvkReporter(make('B'));
    for (let i = 0; i < 200; i++) probe.reportEvent(i, '', [], i % 2 === 0);
    await waitFor(() => calls.length === 400, '400 report calls');
    for (const name of ['A', 'B']) {
      assert.deepEqual(calls.filter((c) => c[0] === name).map((c) => c[1]), [...Array(200).keys()], name);
    }
    // Per delivery, A gets the batch before B.
    assert.equal(calls[0][0], 'A');
  });

  await t.test('the record: typed fields in their fixed order, then the extras by key', async () => {
    const r = recordingReporter();
    probe.RegisterTvkReporter(r);
    probe.reportEvent(-5, '', [], false);
    probe.reportEvent(42, 'message', [
      ['zz', 'last extra'], ['w_succ', '1'], ['wl_avgv5', '5'], ['bl5', 'b5'], ['c5', 'v5'],
      ['aa', 'first extra'], ['wl_avgv1', '-1'], ['bl1', 'b1'], ['c1', 'v1'], ['c3', 'ünïcødé 中文 😀'],
    ], false);
    await waitFor(() => r.records.length === 2, 'the events');
    assert.deepEqual(Object.entries(r.records[0]), [['category', -5]]);
    assert.deepEqual(Object.entries(r.records[1]), [['category', 42], ['msg', 'message'], ['c1', 'v1'],
      ['c3', 'ünïcødé 中文 😀'], ['c5', 'v5'], ['bl1', 'b1'], ['bl5', 'b5'], ['wl_avgv1', -1], ['wl_avgv5', 5],
      ['w_succ', 1], ['aa', 'first extra'], ['zz', 'last extra']]);
  });
});

test('reporters that fail: the first failure of each delivery is logged, the others still get every event', () => {
  const r = child(`
    const got = [];
    let calls = 0;
    o.RegisterTvkReporter({ report() { if (++calls === 1) throw new Error('reporter broke'); } });
    o.RegisterTvkReporter({ report: 'not a function' });
    o.RegisterTvkReporter({ report(r) { got.push(r.category); } });
    o.ReportTest(0);
    setTimeout(() => o.ReportTest(0), 200);
    setTimeout(() => { console.log('CALLS ' + calls + ' GOT ' + got.join(',')); o.UnRegisterTvkReporters(); }, 400);
  `);
  assert.equal(count(r.stdout, 'Ostrel Spawn Napi::Error reporter broke'), 1);
  assert.equal(count(r.stdout, 'UNCAUGHT reporter broke'), 1);
  assert.equal(count(r.stdout, 'Ostrel Spawn Exception report is not function'), 1);
  assert.match(r.stdout, /^CALLS 2 GOT 300,300$/m);
});

test('a reporter that unregisters everything from inside report does not deadlock', () => {
  const r = child(`
    o.RegisterTvkReporter({ report() { console.log('REPORTED'); o.UnRegisterTvkReporters(); o.RegisterTvkReporter({ report() {} }); o.UnRegisterTvkReporters(); } });
    o.ReportTest(0);
  `);
  assert.match(r.stdout, /^REPORTED$/m);
});

// Fact sinks cannot be unregistered: in a child. The tracer holds the loop,
// as the host's always does.
test('facts: dropped with no sink; every sink in order gets each fact, attributes in key order', () => {
  const r = child(`
    const got = [];
    const sink = (tag) => ({ corvex(name, attrs) { got.push([tag, name, attrs]); } });
    p.postFact('early', { a: '1' }, false);
    p.postFact('early-thread', { a: '2' }, true);
    setTimeout(() => {
      p.RegisterTracer({ startSpan() {} });
      p.RegisterFact({ corvex: 42 });
      p.RegisterFact(sink('S1'));
      p.RegisterFact(sink('S2'));
      p.postFact('corvex_stat', { zeta: 'z', alpha: 'ä 中 😀', mid: '' }, false);
      for (let i = 0; i < 100; i++) p.postFact('f' + i, { i: String(i) }, true);
      setTimeout(() => { console.log('GOT ' + JSON.stringify(got)); p.UnRegisterTracers(); }, 300);
    }, 100);
  `);
  assert.match(r.stdout, /^RegisterFact end$/m);
  const got = JSON.parse(r.stdout.split(/\r?\n/).find((l) => l.startsWith('GOT ')).slice(4));
  const names = ['corvex_stat', ...[...Array(100).keys()].map((i) => 'f' + i)];
  for (const tag of ['S1', 'S2']) assert.deepEqual(got.filter((g) => g[0] === tag).map((g) => g[1]), names, tag);
  assert.deepEqual(Object.entries(got[0][2]), [['alpha', 'ä 中 😀'], ['mid', ''], ['zeta', 'z']]);
  assert.equal(got[0][0], 'S1');
  // Logged once per delivery that reached the broken sink.
  assert.ok(count(r.stdout, 'Ostrel Spawn Exception corvex is not function') >= 1, r.stdout);
});

test('spans', async (t) => {
  t.afterEach(() => {
    ostrel.UnRegisterTracers();
    probe.UnRegisterTracers();
  });

  await t.test('ReportTest gives "ReportTest" x4 and "ReportTest1000" x1 on the next flush', async () => {
    const tracer = recordingTracer();
    ostrel.RegisterTracer(tracer);
    ostrel.ReportTest(0);
    await waitFor(() => spansNamed(tracer, 'ReportTest1000').length === 1, 'the flush');
    const [test4] = spansNamed(tracer, 'ReportTest');
    const [test1000] = spansNamed(tracer, 'ReportTest1000');
    for (const span of [test4, test1000]) {
      assert.equal(span.name, 'api_stat');
      assert.equal(span.ended, true);
    }
    assert.deepEqual(test4.attrs.map(([k]) => k), ['dim_9', 'dim_0', 'indsum_0', 'indsum_1', 'indsum_2', 'dim_1', 'dim_2', 'indavg_0']);
    const a = attrsOf(test4);
    assert.deepEqual([a.indsum_0, a.indsum_1, a.dim_1, a.dim_2], [4, 4, 0, '']);
    assert.deepEqual(attrsOf(test1000), {
      dim_9: ostrel.getVersion(), dim_0: 'ReportTest1000', indsum_0: 1, indsum_1: 0, indsum_2: 1000, dim_1: -1, dim_2: '', indavg_0: 1000,
    });
  });

  // The rule itself (500 ms, only with a tracer): telemetry_test.cc; here
  // the module keeps to it: at most one flush per 500 ms of records.
  await t.test('every tracer gets every span; the module flushes at most every 500 ms', async () => {
    const first = recordingTracer();
    const second = recordingTracer();
    probe.RegisterTracer(first);
    probe.RegisterTracer(second);
    const started = performance.now();
    let records = 0;
    const timer = setInterval(() => records++ < 120 && probe.recordStat('p', 1, 0, ''), 10);
    await waitFor(() => recorded(first, 'p') === 120, 'the last flush');
    clearInterval(timer);
    const flushes = spansNamed(first, 'p').length;
    assert.deepEqual(spansNamed(second, 'p').map(attrsOf), spansNamed(first, 'p').map(attrsOf));
    assert.ok(flushes <= (performance.now() - started) / 500 + 1, `${flushes} flushes`);
  });
});

test('without a tracer nothing is flushed and the attempt says so; records wait for a tracer', () => {
  const r = child(`
    const spans = [];
    o.ReportTest(0);
    setTimeout(() => {
      console.log('SPANS BEFORE ' + spans.length);
      o.RegisterTracer({ startSpan() { const a = {}; spans.push(a); return { setAttribute(k, v) { a[k] = v; }, end() {} }; } });
      o.ReportTest(0);
      setTimeout(() => {
        const t = spans.find((a) => a.dim_0 === 'ReportTest');
        console.log('COUNT ' + (t && t.indsum_0));
        o.UnRegisterTracers();
      }, 900);
    }, 800);
  `);
  assert.match(r.stdout, /^shouldFlush failed again, the current time duration is \d+$/m);
  assert.match(r.stdout, /^SPANS BEFORE 0$/m);
  assert.match(r.stdout, /^COUNT 8$/m);  // both calls' records, in one span
});

test('tracers that lack a method or throw are logged and do not starve the ones after them', () => {
  // Thrown from startSpan, from a property read, and from a span method.
  const r = child(`
    let good = 0;
    const broke = () => { throw new Error('tracer broke'); };
    o.RegisterTracer({});
    o.RegisterTracer({ startSpan() { return 5; } });
    o.RegisterTracer({ startSpan() { return {}; } });
    o.RegisterTracer({ startSpan() { return { setAttribute() {} }; } });
    o.RegisterTracer({ startSpan: broke });
    o.RegisterTracer({ get startSpan() { return broke(); } });
    o.RegisterTracer({ startSpan() { return { setAttribute: broke, end() {} }; } });
    o.RegisterTracer({ startSpan() { good++; return { setAttribute() {}, end() {} }; } });
    o.ReportTest(0);
    setTimeout(() => { console.log('GOOD ' + good); o.UnRegisterTracers(); }, 300);
  `);
  assert.match(r.stdout, /^GOOD 2$/m);
  // Once per span: two names in the flush.
  for (const line of ['startSpan is not function', 'span is not object', 'setAttribute is not function', 'end is not function']) {
    assert.equal(count(r.stderr, line), 2, `${line}\n${r.stderr}`);
  }
  assert.equal(count(r.stdout, 'Ostrel Spawn Napi::Error tracer broke'), 1);
  assert.equal(count(r.stdout, 'UNCAUGHT tracer broke'), 1);
});

test('registrations return their argument and hold the event loop until unregistered; a fact sink never does', () => {
  const reporter = { report() {} };
  const tracer = { startSpan() {} };
  assert.equal(ostrel.RegisterTvkReporter(reporter), reporter);
  assert.equal(ostrel.RegisterTracer(tracer), tracer);
  assert.equal(ostrel.UnRegisterTvkReporters(), undefined);
  assert.equal(ostrel.UnRegisterTracers(), undefined);
  assert.equal(ostrel.ReportTest('anything'), undefined);
  // An unref'd timer fires only while something else keeps the loop alive.
  const rows = [
    ['o.RegisterTvkReporter({ report() {} }); o.RegisterTvkReporter({ report() {} });', 'o.UnRegisterTvkReporters();', 'RegisterTvkReporter end', true],
    ['o.RegisterTracer({ startSpan() {} });', 'o.UnRegisterTracers();', 'RegisterTracer end', true],
    [`o.RegisterTvkReporter({ report() {} }); o.RegisterTracer({ startSpan() {} }); o.RegisterFact({ corvex() {} });
      o.UnRegisterTvkReporters(); o.UnRegisterTracers();`, '', 'RegisterFact end', false],
  ];
  for (const [register, unregister, line, alive] of rows) {
    const r = child(`${register} setTimeout(() => { console.log('STILL ALIVE'); ${unregister} }, 300).unref();`);
    assert.ok(count(r.stdout, line) >= 1, r.stdout);
    assert.equal(/^STILL ALIVE$/m.test(r.stdout), alive, register);
  }
});
