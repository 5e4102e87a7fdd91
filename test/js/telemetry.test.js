'use strict';
// Telemetry at the script boundary: events, facts and statistics' spans.
// The runtime probe has its own copy of the exports and native producers.
const test = require('node:test');
const assert = require('node:assert/strict');
const path = require('path');
const ostrel = require('../..');
const { root, buildDir, loadProbe, runChild, waitFor } = require('./helpers');

const probe = loadProbe();
const modulePath = JSON.stringify(root);
const probePath = JSON.stringify(path.join(buildDir(), 'test', 'runtime_probe.node'));

// A tracer that keeps every span it starts: { name, attrs: [[k, v]...], ended }.
function recordingTracer() {
  const spans = [];
  return {
    spans,
    startSpan(name) {
      const span = { name, attrs: [], ended: false };
      spans.push(span);
      return { setAttribute: (key, value) => span.attrs.push([key, value]), end: () => { span.ended = true; } };
    },
  };
}
const attrsOf = (span) => Object.fromEntries(span.attrs);
const spansNamed = (tracer, name) => tracer.spans.filter((s) => attrsOf(s).dim_0 === name);
const recorded = (tracer, name) => spansNamed(tracer, name).reduce((n, s) => n + attrsOf(s).indsum_0, 0);

// `body` in a child: `o` the module, `p` the probe, uncaught errors on stdout.
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
  await t.test('early events go to the first reporter only; every reporter, in registration order, gets every record from native threads in order', async () => {
    probe.reportEvent(300, 'test', [], false);
    probe.reportEvent(301, 'test', [], true);
    await new Promise((resolve) => setTimeout(resolve, 100));
    const calls = [];
    const make = (name) => ({ report(r) { calls.push([name, r.category]); } });
    probe.RegisterTvkReporter(make('A'));
    await waitFor(() => calls.length === 2, 'the two early events');
    probe.RegisterTvkReporter(make('B'));
    for (let i = 0; i < 200; i++) probe.reportEvent(i, '', [], i % 2 === 0);
    await waitFor(() => calls.length === 402, '402 report calls');
    await new Promise((resolve) => setTimeout(resolve, 50));
    const got = (name) => calls.filter((c) => c[0] === name).map((c) => c[1]);
    assert.deepEqual(got('A'), [300, 301, ...Array(200).keys()]);
    assert.deepEqual(got('B'), [...Array(200).keys()]);
    // Per delivery, A gets the batch before B.
    assert.equal(calls[2][0], 'A');
  });

  // Only c1..c5, bl1..bl5, wl_avgv1..5 and w_succ are typed (a later pair
  // wins; a number not read whole in 32 bits is left out); the rest by key.
  await t.test('the record: typed fields in their fixed order, then the extras by key', async () => {
    const records = [];
    probe.RegisterTvkReporter({ report: (record) => records.push(record) });
    probe.reportEvent(-5, '', [['w_succ', 'nan']], false);
    probe.reportEvent(42, 'message', [
      ['zz', 'last extra'], ['w_succ', '0.5'], ['wl_avgv5', '5'], ['bl5', 'b5'], ['c5', 'v5'], ['c6', 'not typed'],
      ['C1', 'case'], ['wl_avgv', 'no digit'], ['wl_avgv2', '12abc'], ['wl_avgv3', '99999999999'], ['wl_avgv4', '2147483647'],
      ['aa', 'first extra'], ['wl_avgv1', '-1'], ['bl1', 'b1'], ['c1', 'v1'], ['c3', 'ünïcødé 中文 😀'], ['c1', 'later'],
    ], false);
    await waitFor(() => records.length === 2, 'the events');
    assert.deepEqual(Object.entries(records[0]), [['category', -5]]);
    assert.deepEqual(Object.entries(records[1]), [['category', 42], ['msg', 'message'], ['c1', 'later'],
      ['c3', 'ünïcødé 中文 😀'], ['c5', 'v5'], ['bl1', 'b1'], ['bl5', 'b5'], ['wl_avgv1', -1], ['wl_avgv4', 2147483647],
      ['wl_avgv5', 5], ['w_succ', 0.5], ['C1', 'case'], ['aa', 'first extra'], ['c6', 'not typed'],
      ['wl_avgv', 'no digit'], ['zz', 'last extra']]);
  });
});

test('a reporter that unregisters everything from inside report does not deadlock', () => {
  const r = child(`
    o.RegisterTvkReporter({ report() { console.log('REPORTED'); o.UnRegisterTvkReporters(); o.RegisterTvkReporter({ report() {} }); o.UnRegisterTvkReporters(); } });
    o.ReportTest(0);
  `);
  assert.match(r.stdout, /^REPORTED$/m);
});

// Fact sinks cannot be unregistered: in a child, a tracer holding the loop.
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

  // Records made while no tracer is registered wait for one.
  await t.test('ReportTest gives "ReportTest" x4 and "ReportTest1000" x1 a call, kept until a tracer flushes them', async () => {
    ostrel.ReportTest(0);
    await new Promise((resolve) => setTimeout(resolve, 800));
    const tracer = recordingTracer();
    ostrel.RegisterTracer(tracer);
    ostrel.ReportTest(0);
    await waitFor(() => spansNamed(tracer, 'ReportTest1000').length === 1, 'the flush');
    const [test4] = spansNamed(tracer, 'ReportTest');
    const [test1000] = spansNamed(tracer, 'ReportTest1000');
    for (const span of [test4, test1000]) assert.deepEqual([span.name, span.ended], ['api_stat', true]);
    assert.deepEqual(test4.attrs.map(([k]) => k), ['dim_9', 'dim_0', 'indsum_0', 'indsum_1', 'indsum_2', 'dim_1', 'dim_2', 'indavg_0']);
    const a = attrsOf(test4);
    assert.deepEqual([a.indsum_0, a.indsum_1, a.dim_1, a.dim_2], [8, 8, 0, '']);
    assert.deepEqual(attrsOf(test1000), {
      dim_9: ostrel.getVersion(), dim_0: 'ReportTest1000', indsum_0: 2, indsum_1: 1, indsum_2: 2000, dim_1: -1, dim_2: '', indavg_0: 1000,
    });
  });

  await t.test('every tracer gets every span; the module flushes at most every 500 ms', async () => {
    const first = recordingTracer();
    const second = recordingTracer();
    probe.RegisterTracer(first);
    probe.RegisterTracer(second);
    const started = performance.now();
    let calls = 0;
    const timer = setInterval(() => calls++ < 30 && probe.ReportTest(0), 40);
    await waitFor(() => recorded(first, 'ReportTest') === 120, 'the last flush');
    clearInterval(timer);
    const flushes = spansNamed(first, 'ReportTest').length;
    assert.deepEqual(second.spans.map(attrsOf), first.spans.map(attrsOf));
    assert.ok(flushes <= (performance.now() - started) / 500 + 1, `${flushes} flushes`);
  });
});

// The first failure of each delivery or flush is logged (a missing method
// once per span); the ones after it still get every event and span.
test('reporters and tracers that fail are logged and do not starve the ones after them', () => {
  const r = child(`
    const got = [];
    let calls = 0, good = 0;
    const broke = (what) => () => { throw new Error(what + ' broke'); };
    o.RegisterTvkReporter({ report() { if (++calls === 1) broke('reporter')(); } });
    o.RegisterTvkReporter({ report: 'not a function' });
    o.RegisterTvkReporter({ report(r) { got.push(r.category); } });
    o.RegisterTracer({});
    o.RegisterTracer({ startSpan() { return 5; } });
    o.RegisterTracer({ startSpan() { return {}; } });
    o.RegisterTracer({ startSpan() { return { setAttribute() {} }; } });
    o.RegisterTracer({ startSpan: broke('tracer') });
    o.RegisterTracer({ get startSpan() { return broke('tracer')(); } });
    o.RegisterTracer({ startSpan() { return { setAttribute: broke('tracer'), end() {} }; } });
    o.RegisterTracer({ startSpan() { good++; return { setAttribute() {}, end() {} }; } });
    o.ReportTest(0);
    setTimeout(() => { o.UnRegisterTracers(); o.ReportTest(0); }, 300);
    setTimeout(() => { console.log('CALLS ' + calls + ' GOT ' + got.join(',') + ' GOOD ' + good); o.UnRegisterTvkReporters(); }, 500);
  `);
  assert.match(r.stdout, /^CALLS 2 GOT 300,300 GOOD 2$/m);
  for (const what of ['reporter', 'tracer']) {
    assert.equal(count(r.stdout, `Ostrel Spawn Napi::Error ${what} broke`), 1, what);
    assert.equal(count(r.stdout, `UNCAUGHT ${what} broke`), 1, what);
  }
  assert.equal(count(r.stdout, 'Ostrel Spawn Exception report is not function'), 1);
  for (const line of ['startSpan is not function', 'span is not object', 'setAttribute is not function', 'end is not function']) {
    assert.equal(count(r.stderr, line), 2, `${line}\n${r.stderr}`);
  }
});

// Registrations belong to their environment: a Worker's unregistration leaves
// the main thread's tracer, which gets the Worker's records too.
test('registrations belong to their environment; a Worker\'s records reach every tracer', () => {
  const r = child(`const { Worker } = require('worker_threads');
    let mainSpans = 0;
    o.RegisterTracer({ startSpan: () => ({ setAttribute() {}, end() { mainSpans++; } }) });
    const w = new Worker(\`const o = require(${modulePath.replace(/\\/g, '\\\\')});
      let told = false;
      o.RegisterTracer({ startSpan: () => ({ setAttribute() {}, end() {
        if (told) return;
        told = true;
        require('worker_threads').parentPort.postMessage('span');
        o.UnRegisterTracers();
      } }) });
      o.ReportTest({});\`, { eval: true });
    let workerSpans = 0;
    w.on('message', () => { workerSpans++; });
    w.on('exit', () => setTimeout(() => {
      console.log('SPANS main ' + (mainSpans > 0) + ' worker ' + workerSpans);
      o.UnRegisterTracers();
    }, 700));`);
  assert.match(r.stdout, /^SPANS main true worker 1$/m);
});

// A fact sink never holds the loop: the facts case's child ends.
test('registrations return their argument and hold the event loop until unregistered', () => {
  const reporter = { report() {} };
  const tracer = { startSpan() {} };
  assert.equal(ostrel.RegisterTvkReporter(reporter), reporter);
  assert.equal(ostrel.RegisterTracer(tracer), tracer);
  assert.equal(ostrel.UnRegisterTvkReporters(), undefined);
  assert.equal(ostrel.UnRegisterTracers(), undefined);
  assert.equal(ostrel.ReportTest('anything'), undefined);
  // An unref'd timer fires only while something else keeps the loop alive.
  const rows = [
    ['o.RegisterTvkReporter({ report() {} }); o.RegisterTvkReporter({ report() {} });', 'o.UnRegisterTvkReporters();', 'RegisterTvkReporter end'],
    ['o.RegisterTracer({ startSpan() {} });', 'o.UnRegisterTracers();', 'RegisterTracer end'],
  ];
  for (const [register, unregister, line] of rows) {
    const r = child(`${register} setTimeout(() => { console.log('STILL ALIVE'); ${unregister} }, 300).unref();`);
    assert.ok(count(r.stdout, line) >= 1, r.stdout);
    assert.match(r.stdout, /^STILL ALIVE$/m, register);
  }
});
