'use strict';
// The module in several environments: the main thread and Workers scanning at
// once and in turn, and a share that never answers.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { root, runChild } = require('./helpers');
const { makeTree, removeTree } = require('./scan-fixture');
const { mountStallfs, skipReason } = require('../fixtures/stallfs/mount');

const index = path.join(root, 'index.js');
const ended = (r) => `status ${r.status} signal ${r.signal}\n${r.stderr.slice(-2000)}`;
const count = (text, line) => text.split(line).length - 1;
// A Worker running `source` with `data` (and the module's path d.index) as d.
const worker = (source, data = {}) =>
  `new (require('worker_threads').Worker)(${JSON.stringify(`const d = require('worker_threads').workerData; ${source}`)}, { eval: true, workerData: ${JSON.stringify({ index, ...data })} })`;

test('two Workers scan beside the main thread, each getting the whole tree; then 100 in turn: memory and threads stay flat', (t) => {
  const files = {};
  for (let i = 0; i < 300; i++) files[`a/b${i % 7}/f${i}.txt`] = 'x';
  const tree = makeTree({ files });
  t.after(() => removeTree(tree));
  // "<files in updates>/<total>", in the main thread and in the Workers alike.
  const scanned = `(o, tree) => new Promise((resolve) => {
    let n = 0;
    o.ScanAllSubFiles(tree, (u) => { n += u.nodes.length; }, (res) => resolve(n + '/' + res.totalFileCount), {});
  })`;
  const r = runChild(`const fs = require('fs');
    const one = () => new Promise((resolve) => {
      const w = ${worker(`(${scanned})(require(d.index), d.tree).then((m) => require('worker_threads').parentPort.postMessage(m));`, { tree })};
      let got = 'nothing';
      w.on('message', (m) => { got = m; });
      w.on('error', (e) => { got = e.message; });
      w.on('exit', () => resolve('W' + got));
    });
    const threads = () => (fs.existsSync('/proc/self/task') ? fs.readdirSync('/proc/self/task').length : 0);
    (async () => {
      const main = (${scanned})(require(${JSON.stringify(index)}), ${JSON.stringify(tree)}).then((m) => 'M' + m);
      console.log('AT ONCE ' + (await Promise.all([main, one(), one()])).sort().join(' '));
      for (let i = 2; i < 10; i++) await one();
      global.gc && global.gc();
      const rss10 = process.memoryUsage().rss, threads10 = threads();
      for (let i = 10; i < 100; i++) {
        const got = await one();
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

// A share that never answers (stallfs) holds nothing that other work needs,
// nor the process's end (the bounds are hangs, not speeds).
test('a share that never answers, two watch sessions and a scan on it: a local scan, telemetry and timers go on; closing returns at once; exit within 2 s', { skip: skipReason(), timeout: 900000 }, async (t) => {
  const share = await mountStallfs(t);
  // Only /dead never answers: a dead drive root would stop Wine itself.
  fs.mkdirSync(path.join(share.source, 'dead', 'sub'), { recursive: true });
  for (let i = 0; i < 20; i++) fs.writeFileSync(path.join(share.source, 'dead', 'sub', `f${i}.txt`), 'x');
  // Under Wine one session goes through the drive letter, the others through Z:.
  const deadA = path.join(share.drivePath || share.path, 'dead');
  const deadB = path.join(share.path, 'dead');
  const small = makeTree({ files: { 'a.txt': 'a', 'b/c.txt': 'c', 'b/d.txt': 'd' } });
  t.after(() => removeTree(small));
  await share.set({ '/dead': 'never' });
  // Before 3df982c the root poll's stat on libuv's threads kept process.exit() waiting.
  const r = runChild(`const fs = require('fs');
    const o = require(${JSON.stringify(index)});
    const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
    // The share's count of calls it holds unanswered.
    const waiting = () => { try { return Number((fs.readFileSync(${JSON.stringify(path.join(share.base, 'status'))}, 'utf8').match(/waiting (\\d+)/) || [])[1]) || 0; } catch { return 0; } };
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
      for (const end = Date.now() + 10000; Date.now() < end && waiting() < 3;) await sleep(20);
      report('WAITING', waiting());
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
  const exitMs = Date.now() - Number((/^EXIT (\d+)$/m.exec(r.stdout) || [])[1]);
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
