'use strict';
// Call statistics flushed to tracers as "api_stat" spans: the aggregate's
// attributes, the 500 ms rule, flushing only while a tracer is registered,
// many records from native threads, and tracers that lack methods.
const test = require('node:test');
const assert = require('node:assert/strict');
const ostrel = require('../..');
const { loadProbe, runChild } = require('./helpers');
const { modulePath, probePath, recordingTracer, attrsOf, spansNamed, waitFor } = require('./telemetry-helpers');

const probe = loadProbe();

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
      assert.deepEqual(span.attrs.map(([k]) => k), ['dim_9', 'dim_0', 'indsum_0', 'indsum_1', 'indsum_2', 'dim_1', 'dim_2', 'indavg_0']);
      assert.equal(attrsOf(span).dim_9, ostrel.getVersion());
    }
    const a = attrsOf(test4);
    assert.equal(a.indsum_0, 4);
    assert.equal(a.indsum_1, 4);
    assert.equal(a.dim_1, 0);
    assert.equal(a.dim_2, '');
    assert.deepEqual(attrsOf(test1000), {
      dim_9: ostrel.getVersion(), dim_0: 'ReportTest1000', indsum_0: 1, indsum_1: 0, indsum_2: 1000, dim_1: -1, dim_2: '', indavg_0: 1000,
    });
  });

  await t.test('the aggregate: ("a",10,0) ("a",30,5,"x") ("a",20,7,"y")', async () => {
    const tracer = recordingTracer();
    probe.RegisterTracer(tracer);
    // A record after a quiet spell is flushed at once; right after that
    // flush the next ones wait 500 ms together.
    probe.recordStat('warm-up', 1, 0, '');
    await waitFor(() => spansNamed(tracer, 'warm-up').length === 1, 'the first flush');
    probe.recordStat('a', 10, 0, '');
    probe.recordStat('a', 30, 5, 'x');
    probe.recordStat('a', 20, 7, 'y');
    await waitFor(() => spansNamed(tracer, 'a').length === 1, 'the span');
    const a = attrsOf(spansNamed(tracer, 'a')[0]);
    assert.deepEqual(a, { dim_9: ostrel.getVersion(), dim_0: 'a', indsum_0: 3, indsum_1: 2, indsum_2: 60, dim_1: 5, dim_2: 'x', indavg_0: 30 });
  });

  await t.test('every tracer gets every span; flushes are at least 500 ms apart with one span per name', async () => {
    const first = recordingTracer();
    const second = recordingTracer();
    probe.RegisterTracer(first);
    probe.RegisterTracer(second);
    const started = performance.now();
    let records = 0;
    await new Promise((resolve) => {
      const timer = setInterval(() => {
        for (const name of ['p', 'q']) probe.recordStat(name, 1, 0, '');
        records++;
        if (performance.now() - started > 2300) {
          clearInterval(timer);
          resolve();
        }
      }, 10);
    });
    await waitFor(() => spansNamed(first, 'p').reduce((n, s) => n + attrsOf(s).indsum_0, 0) === records, 'the last flush');
    assert.equal(second.spans.length, first.spans.length);
    // The spans of one flush are delivered together; group them.
    const flushes = [];
    for (const span of first.spans) {
      const last = flushes[flushes.length - 1];
      if (last && span.at - last.at < 50) last.names.push(attrsOf(span).dim_0);
      else flushes.push({ at: span.at, names: [attrsOf(span).dim_0] });
    }
    assert.ok(flushes.length >= 3 && flushes.length <= 7, `${flushes.length} flushes in 2.3 s`);
    for (const f of flushes) assert.deepEqual(f.names.sort(), ['p', 'q']);
    for (let i = 1; i < flushes.length; i++) {
      // Timers and delivery add some jitter on top of the 500 ms.
      assert.ok(flushes[i].at - flushes[i - 1].at >= 400, `flushes ${Math.round(flushes[i].at - flushes[i - 1].at)} ms apart`);
    }
  });

  await t.test('200,000 records from 4 native threads: one span per name per flush, none lost', async () => {
    const tracer = recordingTracer();
    probe.RegisterTracer(tracer);
    const names = ['CreateFileW', 'FindFirstFileExW', 'GetFileInformationByHandleEx'];
    await probe.recordFromThreads(4, 50000, names, 'telemetry');
    const total = () => tracer.spans.reduce((n, s) => n + attrsOf(s).indsum_0, 0);
    await waitFor(() => total() === 200000, 'every record flushed', 10000);
    const flushes = new Set(tracer.spans.map((s) => Math.round(s.at)));
    assert.ok(tracer.spans.length <= flushes.size * names.length + names.length, `${tracer.spans.length} spans`);
    for (const name of names) {
      const spans = spansNamed(tracer, name);
      // One failure in every 1024 records per thread is stored once per flush; the rest count in "other".
      for (const s of spans) {
        const a = attrsOf(s);
        assert.equal(a.indsum_0, a.indsum_1 + (a.dim_1 === 0 ? 0 : 1));
      }
    }
  });
});

test('no tracer, broken tracers', async (t) => {
  await t.test('without a tracer nothing is flushed and the attempt says so; records wait for a tracer', () => {
    const r = runChild(`
      const o = require(${JSON.stringify(modulePath)});
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
    assert.equal(r.status, 0, r.stderr);
    assert.match(r.stdout, /^shouldFlush failed again, the current time duration is \d+$/m);
    assert.match(r.stdout, /^SPANS BEFORE 0$/m);
    assert.match(r.stdout, /^COUNT 8$/m);  // both calls' records, in one span
  });

  await t.test('a tracer, span or method missing is logged and the other tracers still get their spans', () => {
    const r = runChild(`
      const o = require(${JSON.stringify(modulePath)});
      let good = 0;
      o.RegisterTracer({});
      o.RegisterTracer({ startSpan() { return 5; } });
      o.RegisterTracer({ startSpan() { return {}; } });
      o.RegisterTracer({ startSpan() { return { setAttribute() {} }; } });
      o.RegisterTracer({ startSpan() { good++; return { setAttribute() {}, end() {} }; } });
      o.ReportTest(0);
      setTimeout(() => { console.log('GOOD ' + good); o.UnRegisterTracers(); }, 300);
    `);
    assert.equal(r.status, 0, r.stderr);
    assert.match(r.stdout, /^GOOD 2$/m);
    // Once per span: two names in the flush.
    for (const line of ['startSpan is not function', 'span is not object', 'setAttribute is not function', 'end is not function']) {
      assert.equal(r.stderr.split(/\r?\n/).filter((l) => l === line).length, 2, `${line}\n${r.stderr}`);
    }
  });

  await t.test('a tracer that throws does not starve the ones after it; the failure is logged', () => {
    // Thrown from startSpan, from a property read, and from a span method:
    // the good tracer after them gets both spans ("ReportTest" and
    // "ReportTest1000"), the failure reaches the log and uncaughtException.
    for (const bad of [
      '{ startSpan() { throw new Error("tracer broke"); } }',
      '{ get startSpan() { throw new Error("tracer broke"); } }',
      '{ startSpan() { return { setAttribute() { throw new Error("tracer broke"); }, end() {} }; } }',
    ]) {
      const r = runChild(`
        const o = require(${JSON.stringify(modulePath)});
        process.on('uncaughtException', (e) => console.log('UNCAUGHT ' + e.message));
        let good = 0;
        o.RegisterTracer(${bad});
        o.RegisterTracer({ startSpan() { good++; return { setAttribute() {}, end() {} }; } });
        o.ReportTest(0);
        setTimeout(() => { console.log('GOOD ' + good); o.UnRegisterTracers(); }, 300);
      `);
      assert.equal(r.status, 0, r.stderr);
      assert.match(r.stdout, /^GOOD 2$/m, bad);
      assert.match(r.stdout, /^Ostrel Spawn Napi::Error tracer broke$/m, bad);
      assert.match(r.stdout, /^UNCAUGHT tracer broke$/m, bad);
    }
  });
});
