'use strict';
// The module in several environments (the ways out of a process or a
// Worker, Workers terminated at random moments among them, are in
// lifecycle.test.js): the main thread and Workers scanning at once and in
// turn, telemetry per environment, and a share that never answers. Each
// case runs in a child process.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { root, runChild } = require('./helpers');
const { makeTree, removeTree } = require('./scan-fixture');
const { mountStallfs, skipReason } = require('../fixtures/stallfs/mount');

const index = JSON.stringify(path.join(root, 'index.js'));
// A value as a literal inside a template literal of the child's source (a
// Worker's code).
const lit = (v) => JSON.stringify(v).replace(/\\/g, '\\\\');

const ended = (r) => `status ${r.status} signal ${r.signal}\n${r.stderr.slice(-2000)}`;
const count = (text, line) => text.split(line).length - 1;

test('two Workers scan beside the main thread, each getting the whole tree; then 100 in turn: memory and threads stay flat', (t) => {
  const files = {};
  for (let i = 0; i < 300; i++) files[`a/b${i % 7}/f${i}.txt`] = 'x';
  const tree = makeTree({ files });
  t.after(() => removeTree(tree));
  const r = runChild(`const { Worker } = require('worker_threads');
    const fs = require('fs');
    const o = require(${index});
    const code = \`const o = require(${lit(path.join(root, 'index.js'))});
      let n = 0;
      o.ScanAllSubFiles(${lit(tree)}, (u) => { n += u.nodes.length; },
        (res) => require('worker_threads').parentPort.postMessage(n + '/' + res.totalFileCount), {});\`;
    const worker = () => new Promise((resolve) => {
      const w = new Worker(code, { eval: true });
      let got = 'nothing';
      w.on('message', (m) => { got = m; });
      w.on('error', (e) => { got = e.message; });
      w.on('exit', () => resolve('W' + got));
    });
    const threads = () => (fs.existsSync('/proc/self/task') ? fs.readdirSync('/proc/self/task').length : 0);
    (async () => {
      let n = 0;
      const main = new Promise((resolve) => o.ScanAllSubFiles(${JSON.stringify(tree)}, (u) => { n += u.nodes.length; },
        (res) => resolve('M' + n + '/' + res.totalFileCount), {}));
      console.log('AT ONCE ' + (await Promise.all([main, worker(), worker()])).sort().join(' '));
      for (let i = 2; i < 10; i++) await worker();
      global.gc && global.gc();
      const rss10 = process.memoryUsage().rss, threads10 = threads();
      for (let i = 10; i < 100; i++) {
        const got = await worker();
        if (got !== 'W300/300') console.log('WORKER GOT ' + got);
      }
      global.gc && global.gc();
      await new Promise((r) => setTimeout(r, 200));
      console.log('RSS GROWTH MB ' + Math.round((process.memoryUsage().rss - rss10) / 1048576));
      console.log('THREADS ' + threads10 + ' ' + threads());
    })();`, { timeout: 300000 });
  assert.equal(r.status, 0, ended(r));
  assert.match(r.stdout, /^AT ONCE M300\/300 W300\/300 W300\/300$/m);
  assert.doesNotMatch(r.stdout, /WORKER GOT/);
  t.diagnostic(r.stdout.match(/^(RSS|THREADS).*$/gm).join(', '));
  const growth = Number(/^RSS GROWTH MB (-?\d+)$/m.exec(r.stdout)[1]);
  // AddressSanitizer keeps freed memory in quarantine: only threads count there.
  if (!/asan/.test(process.env.LD_PRELOAD || '')) {
    assert.ok(growth < 40, `resident memory grew by ${growth} MB over 90 Workers`);
  }
  const [before, after] = /^THREADS (\d+) (\d+)$/m.exec(r.stdout).slice(1).map(Number);
  assert.ok(after <= before + 2, `threads ${before} -> ${after}`);
  assert.equal(count(r.stdout, 'Ostrel Initialized.'), 101);
  assert.equal(count(r.stdout, 'Ostrel Cleaning ...'), 101);
});

test('telemetry registrations belong to their environment; records reach every one', () => {
  const r = runChild(`const { Worker } = require('worker_threads');
    const o = require(${index});
    let mainSpans = 0;
    o.RegisterTracer({ startSpan: () => ({ setAttribute() {}, end() { mainSpans++; } }) });
    const w = new Worker(\`const o = require(${lit(path.join(root, 'index.js'))});
      let told = false;
      o.RegisterTracer({ startSpan: () => ({ setAttribute() {}, end() {
        if (told) return;
        told = true;
        require('worker_threads').parentPort.postMessage('span');
        o.UnRegisterTracers();  // the Worker's only; lets it end
      } }) });
      o.ReportTest({});\`, { eval: true });
    let workerSpans = 0;
    w.on('message', () => { workerSpans++; });
    w.on('exit', () => setTimeout(() => {
      console.log('SPANS main ' + (mainSpans > 0) + ' worker ' + workerSpans);
      o.UnRegisterTracers();
    }, 700));`);
  assert.equal(r.status, 0, ended(r));
  assert.match(r.stdout, /^SPANS main true worker 1$/m);
});

// A share that never answers (stallfs, test/fixtures/stallfs): what waits
// on it must hold nothing that other work needs, nor the process's or a
// Worker's end. The bounds below are hangs, not speeds.
// How long the main thread goes on after the Worker that watched the dead
// share is gone (30 for the full run; short by default).
const AFTER_WORKER_S = Number(process.env.OSTREL_DEADSHARE_SECONDS) || 5;

test('a share that never answers stalls nothing else', { skip: skipReason(), timeout: 900000 }, async (t) => {
  const share = await mountStallfs(t);
  // The folder /dead never answers; the share's root does. Under Wine a
  // drive whose root never answers would stop Wine itself (it stats every
  // drive's root to turn any Linux path into a drive path), which Windows
  // does not.
  fs.mkdirSync(path.join(share.source, 'dead', 'sub'), { recursive: true });
  for (let i = 0; i < 20; i++) fs.writeFileSync(path.join(share.source, 'dead', 'sub', `f${i}.txt`), 'x');
  // The share as the module sees it: under Wine one session goes through
  // the drive letter, the others through Z:.
  const deadA = path.join(share.drivePath || share.path, 'dead');
  const deadB = path.join(share.path, 'dead');
  const small = makeTree({ files: { 'a.txt': 'a', 'b/c.txt': 'c', 'b/d.txt': 'd' } });
  t.after(() => removeTree(small));
  // The share's count of calls it holds unanswered, and sleeping.
  const kit = `const fs = require('fs');
    const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
    const waiting = () => { try { return Number((fs.readFileSync(${JSON.stringify(path.join(share.base, 'status'))}, 'utf8').match(/waiting (\\d+)/) || [])[1]) || 0; } catch { return 0; } };
    async function untilWaiting(n, ms) {
      for (const end = Date.now() + ms; Date.now() < end && waiting() < n;) await sleep(20);
      return waiting();
    }`;

  await t.test('two watch sessions and a scan on it: a local scan, telemetry and timers go on; closing returns at once; exit within 2 s', async () => {
    await share.set({ '/dead': 'never' });
    // Before the fix of 3df982c the root poll's stat on libuv's threads kept
    // process.exit() waiting for the share.
    const r = runChild(`${kit}
      const o = require(${index});
      const report = (k, v) => console.log(k + ' ' + JSON.stringify(v));
      let last = Date.now(), gap = 0;
      setInterval(() => { gap = Math.max(gap, Date.now() - last); last = Date.now(); }, 20);
      const dead = [
        o.StartFileWatch(${JSON.stringify(deadA)}, (e) => report('DEAD_EVENT', e), () => report('DEAD_READY', 1)),
        o.StartFileWatch(${JSON.stringify(deadB)}, (e) => report('DEAD_EVENT', e), () => report('DEAD_READY', 2)),
        o.ScanAllSubFiles(${JSON.stringify(deadB)}, () => {}, (res) => report('DEAD_SCAN', res), {}),
      ];
      const within = (ms, fn) => Promise.race([new Promise(fn), sleep(ms).then(() => 'STALLED')]);
      (async () => {
        report('WAITING', await untilWaiting(3, 10000));
        const files = await within(30000, (res) => o.ScanAllSubFiles(${JSON.stringify(small)}, () => {}, (s) => res(s.totalFileCount), {}));
        // A statistics span is flushed every 500 ms.
        const span = await within(10000, (res) => {
          o.RegisterTracer({ startSpan: () => ({ setAttribute() {}, end: () => res('SPAN') }) });
          o.ReportTest({});
        });
        const timed = (close) => { const t0 = process.hrtime.bigint(); close(); return Number(process.hrtime.bigint() - t0) / 1e6; };
        report('DURING', { files, span, gap, close: dead.map(timed) });
        console.log('EXIT ' + Date.now());
        process.exit(0);
      })();`, { timeout: 90000 });
    const endedAt = Date.now();
    const exitMs = endedAt - Number((/^EXIT (\d+)$/m.exec(r.stdout) || [])[1]);
    t.diagnostic(`${r.stdout.split('\n').filter((l) => /^[A-Z_]+ /.test(l)).join(' | ')}; process.exit() to the end: ${exitMs} ms`);
    assert.ok(share.status().held >= 1, 'the module never asked the share');
    assert.doesNotMatch(r.stdout, /^DEAD_(READY|SCAN)/m, 'the share answered');
    const during = JSON.parse((/^DURING (.*)$/m.exec(r.stdout) || [, 'null'])[1]);
    assert.ok(during, ended(r));
    assert.deepEqual([during.files, during.span], [3, 'SPAN']);
    assert.ok(during.gap < 2000, `timers stopped for ${during.gap} ms`);
    assert.ok(during.close.every((ms) => ms < 1000), `close took ${during.close} ms`);
    assert.equal(r.status, 0, ended(r));
    assert.ok(exitMs <= 2000, `the process ended ${exitMs} ms after process.exit()`);
    await share.set({});
  });

  await t.test(`a Worker that alone loaded the module, watching it, terminated: the main thread goes on (${AFTER_WORKER_S} s), loads the module again and scans`, async () => {
    await share.set({ '/dead': 'never' });
    const control = path.join(share.base, 'control');
    const r = runChild(`${kit}
      const { Worker } = require('worker_threads');
      const w = new Worker(\`const o = require(${lit(path.join(root, 'index.js'))});
        o.StartFileWatch(${lit(deadA)}, () => {}, () => console.log('READY'));
        o.StartFileWatch(${lit(deadB)}, () => {}, () => console.log('READY'));
        require('worker_threads').parentPort.postMessage('watching');\`, { eval: true });
      w.once('message', async () => {
        console.log('STUCK ' + await untilWaiting(1, 10000));
        const t0 = Date.now();
        const ended = await Promise.race([w.terminate().then(() => true), sleep(30000).then(() => false)]);
        console.log((ended ? 'TERMINATED ' : 'TERMINATE HANGS ') + (Date.now() - t0));
        if (!ended) process.exit(9);
        // Past the runtime's grace for threads stuck at clean-up, then the
        // share answers: whatever was stuck returns now.
        await sleep(3000);
        fs.writeFileSync(${JSON.stringify(control)} + '.new', '');
        fs.renameSync(${JSON.stringify(control)} + '.new', ${JSON.stringify(control)});
        const end = Date.now() + ${AFTER_WORKER_S * 1000};
        let ticks = 0, junk = [];
        while (Date.now() < end) {
          await sleep(10);
          ticks++;
          junk.push(Buffer.alloc(4096, ticks));  // keep the allocator and GC busy
          if (junk.length > 1000) junk = [];
        }
        console.log('WENT ON ' + ticks);
        const o = require(${index});
        o.ScanAllSubFiles(${JSON.stringify(small)}, () => {}, (res) => console.log('MAIN SCAN ' + res.totalFileCount), {});
      });`, { timeout: 60000 + AFTER_WORKER_S * 1000 });
    t.diagnostic(r.stdout.split('\n').filter((l) => /^(STUCK|TERMINATE|WENT|MAIN|READY)/.test(l)).join(' | '));
    assert.doesNotMatch(r.stdout, /TERMINATE HANGS/);
    assert.equal(r.status, 0, ended(r));
    assert.match(r.stdout, /^STUCK [1-9]/m);
    assert.match(r.stdout, /^WENT ON \d+$/m);
    assert.match(r.stdout, /^MAIN SCAN 3$/m);
    assert.doesNotMatch(r.stderr, /FATAL ERROR|Segmentation|page fault/i);
    await share.set({});
  });
});
