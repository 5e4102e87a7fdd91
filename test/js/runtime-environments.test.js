'use strict';
// The module in several environments (the ways out of a process or a
// Worker are in lifecycle.test.js): the main thread and Workers scanning at
// once and in turn, Workers terminated at random moments, telemetry per
// environment, wake-ups racing the last release, and a share that never
// answers. Each case runs in a child process.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { root, isWindows, buildDir, runChild, bigTree } = require('./helpers');
const { spawn } = require('child_process');
const { makeTree, removeTree } = require('./scan-fixture');
const { mountStallfs, skipReason } = require('../fixtures/stallfs/mount');
const { ensureTree } = require('../../bench/scan/tree');

const index = JSON.stringify(path.join(root, 'index.js'));
const probePath = JSON.stringify(path.join(buildDir(), 'test', 'runtime_probe.node'));
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

// Four Workers scan a 120,000-file tree and are terminated, 20 rounds: two
// inside their first update callback (which spins 20 ms), one 20-100 ms
// after it was created (early in its scan, where most of the faults were),
// one at any moment in the first 700 ms. The scan's last owner is then
// often a pool worker that found the scheduler stopped, after the Worker's
// environment was freed. A Node-API call from there (it was the deletion
// of the file object factory's reference) writes into freed memory; with
// one malloc arena and no per-thread caches that memory is reused at once
// and the allocator aborts ("free(): invalid next size (fast)") instead of
// the fault passing unseen most of the time.
test('four Workers scanning 120,000 files, terminated at random moments, 20 rounds', () => {
  const big = bigTree(120);
  const r = runChild(`const { Worker } = require('worker_threads');
    require(${index});
    const code = \`const o = require(${lit(path.join(root, 'index.js'))});
      const { parentPort } = require('worker_threads');
      o.ScanAllSubFiles(${lit(big)}, () => {
        parentPort.postMessage('inside');
        const end = Date.now() + 20;
        while (Date.now() < end);
      }, () => {}, {});\`;
    const between = (a, b) => a + Math.floor(Math.random() * (b - a));
    let inside = 0;
    const one = (k) => new Promise((resolve) => {
      const w = new Worker(code, { eval: true });
      if (k < 2) w.once('message', () => { inside++; w.terminate(); });
      const ms = k < 2 ? 5000 : k === 2 ? between(20, 100) : between(20, 700);
      const timer = setTimeout(() => w.terminate(), ms);
      w.on('error', (e) => console.log('WORKER ERROR ' + e.message));
      w.on('exit', () => { clearTimeout(timer); resolve(); });
    });
    (async () => {
      for (let round = 0; round < 20; round++) await Promise.all([0, 1, 2, 3].map(one));
      console.log('ROUNDS 20 INSIDE ' + inside);
    })();`, { timeout: 240000, env: { GLIBC_TUNABLES: 'glibc.malloc.tcache_count=0:glibc.malloc.arena_max=1' } });
  assert.equal(r.signal, null, ended(r));
  assert.equal(r.status, 0, ended(r));
  assert.doesNotMatch(r.stderr, /FATAL ERROR|free\(\)|corrupt/, ended(r));
  assert.doesNotMatch(r.stdout, /WORKER ERROR/);
  assert.match(r.stdout, /^ROUNDS 20 INSIDE \d+$/m);
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

test('wake-ups racing the last release never touch a freed handle', () => {
  const r = runChild(`const p = require(${probePath});
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
  assert.equal(r.status, 0, ended(r));
  assert.match(r.stdout, /^SCHEDULES [1-9]\d*$/m);
});

// A share that never answers (stallfs, test/fixtures/stallfs): what waits
// on it must hold nothing that other work needs. Speeds are judged against a
// run without the dead share in the same child, with a generous factor.
const FACTOR = Number(process.env.OSTREL_DEADSHARE_FACTOR) || 4;
// How long the main thread goes on after the Worker that watched the dead
// share is gone (30 for the full run; short by default).
const AFTER_WORKER_S = Number(process.env.OSTREL_DEADSHARE_SECONDS) || 5;

// Runs `source` in a child node without blocking this one; resolves with
// { status, signal, stdout, stderr, exitAt, exitLineAt }: when the child
// ended, and when its line "EXIT" came.
function runChildAsync(source, timeout) {
  return new Promise((resolve) => {
    const child = spawn(process.execPath, ['-e', source], { cwd: root, stdio: ['ignore', 'pipe', 'pipe'] });
    const r = { stdout: '', stderr: '' };
    child.stdout.setEncoding('utf8').on('data', (d) => {
      r.stdout += d;
      if (!r.exitLineAt && /^EXIT\r?$/m.test(r.stdout)) r.exitLineAt = Date.now();
    });
    child.stderr.setEncoding('utf8').on('data', (d) => {
      r.stderr += d;
    });
    const timer = setTimeout(() => child.kill('SIGKILL'), timeout);
    child.on('exit', (status, signal) => {
      Object.assign(r, { status, signal, exitAt: Date.now() });
      clearTimeout(timer);
      child.on('close', () => resolve(r));
    });
  });
}

// Script pieces shared by the children: the share's count of calls it holds
// unanswered, and sleeping.
const shareKit = (statusFile) => `
  const fs = require('fs');
  const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
  const waiting = () => { try { return Number((fs.readFileSync(${JSON.stringify(statusFile)}, 'utf8').match(/waiting (\\d+)/) || [])[1]) || 0; } catch { return 0; } };
  async function untilWaiting(n, ms) {
    for (const end = Date.now() + ms; Date.now() < end && waiting() < n;) await sleep(20);
    return waiting();
  }
`;

// Timing a scan, the gaps between timer ticks, and the delay of a telemetry
// span, with the module loaded.
const timingKit = `
  const o = require(${index});
  const scanOptions = ${JSON.stringify(isWindows ? { fastMetadata: true } : {})};
  // Resolves with the scan's time and count, or { stalled } after limitMs.
  function timedScan(dir, limitMs = 600000) {
    return new Promise((resolve) => {
      const t0 = Date.now();
      let close;
      const timer = setTimeout(() => { close(); resolve({ ms: Date.now() - t0, files: -1, stalled: true }); }, limitMs);
      close = o.ScanAllSubFiles(dir, () => {}, (r) => { clearTimeout(timer); resolve({ ms: Date.now() - t0, files: r.totalFileCount }); }, scanOptions);
    });
  }
  // The longest gap between ticks of a 20 ms interval while fn() runs.
  async function withTicks(fn) {
    let last = Date.now(), gap = 0;
    const iv = setInterval(() => { const now = Date.now(); gap = Math.max(gap, now - last); last = now; }, 20);
    try { return { result: await fn(), gap: Math.max(gap, Date.now() - last) }; } finally { clearInterval(iv); }
  }
  let spanEnded = null;
  o.RegisterTracer({ startSpan: () => ({ setAttribute() {}, end() { if (spanEnded) spanEnded(); } }) });
  // From ReportTest to its statistics span (flushed every 500 ms), or -1 after limitMs.
  function spanDelay(limitMs) {
    return new Promise((resolve) => {
      const t0 = Date.now();
      const timer = setTimeout(() => { spanEnded = null; resolve(-1); }, limitMs);
      spanEnded = () => { spanEnded = null; clearTimeout(timer); resolve(Date.now() - t0); };
      o.ReportTest({});
    });
  }
  const report = (k, v) => console.log(k + ' ' + JSON.stringify(v));
`;

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
  const kit = shareKit(path.join(share.base, 'status'));

  await t.test('two watch sessions and a scan on it: a local 100,000-file scan, telemetry and timers keep their speed; closing returns at once; exit within 2 s', async (t) => {
    let local;
    try {
      local = ensureTree({ repoRoot: root, files: 100000, generate: !isWindows }).dir;
    } catch (err) {
      return t.skip(err.message);
    }
    await share.set({ '/dead': 'never' });
    const r = await runChildAsync(`${kit} ${timingKit}
      (async () => {
        const local = ${JSON.stringify(local)};
        await timedScan(local);  // warm the system's caches
        const before = await withTicks(() => timedScan(local));
        const spanBefore = await spanDelay(30000);
        report('BEFORE', { scan: before.result, gap: before.gap, span: spanBefore });
        const dead = [
          o.StartFileWatch(${JSON.stringify(deadA)}, (e) => report('DEAD_EVENT', e), () => report('DEAD_READY', 1)),
          o.StartFileWatch(${JSON.stringify(deadB)}, (e) => report('DEAD_EVENT', e), () => report('DEAD_READY', 2)),
          o.ScanAllSubFiles(${JSON.stringify(deadB)}, () => {}, (res) => report('DEAD_SCAN', res), {}),
        ];
        report('WAITING', await untilWaiting(3, 10000));
        const limit = ${FACTOR} * before.result.ms + 5000;
        const during = await withTicks(() => timedScan(local, limit));
        const spanDuring = await spanDelay(${FACTOR} * Math.max(spanBefore, 500));
        report('DURING', { scan: during.result, gap: during.gap, span: spanDuring });
        // Closing a session on a local folder, for comparison.
        const near = await new Promise((res) => {
          const c = o.StartFileWatch(local, () => {}, () => { clearTimeout(timer); res(c); });
          const timer = setTimeout(() => { report('LOCAL_WATCH_NOT_READY', limit); res(c); }, limit);
        });
        const timed = (close) => { const t0 = process.hrtime.bigint(); close(); return Number(process.hrtime.bigint() - t0) / 1e6; };
        report('CLOSE', { local: timed(near), dead: dead.map(timed) });
        report('AFTER', { scan: await timedScan(local, limit) });
        o.UnRegisterTracers();
        console.log('EXIT');
        process.exit(0);
      })();`, 90000);
    const res = Object.fromEntries(r.stdout.split('\n').filter((l) => /^[A-Z_]+ /.test(l)).map((l) => {
      const i = l.indexOf(' ');
      return [l.slice(0, i), JSON.parse(l.slice(i + 1))];
    }));
    const exitMs = r.exitAt - r.exitLineAt;
    t.diagnostic(`${JSON.stringify(res)}; share: ${JSON.stringify(share.status())}; process.exit() to the end: ${exitMs} ms`);
    assert.ok(res.BEFORE && res.DURING, ended(r));
    assert.ok(share.status().held >= 1, 'the module never asked the share');
    assert.ok(!res.DEAD_READY && !res.DEAD_SCAN, 'the share answered');
    const { BEFORE: b, DURING: d } = res;
    assert.equal(d.scan.files, b.scan.files, `the local scan stalled beside the dead share (${d.scan.ms} ms, ${b.scan.ms} ms before)`);
    assert.ok(d.scan.ms <= FACTOR * b.scan.ms, `local scan ${d.scan.ms} ms beside the dead share, ${b.scan.ms} ms before`);
    assert.ok(d.span >= 0, 'no telemetry span beside the dead share');
    assert.ok(d.span <= FACTOR * Math.max(b.span, 500), `telemetry span after ${d.span} ms, ${b.span} ms before`);
    assert.ok(d.gap <= FACTOR * Math.max(b.gap, 50), `timer gap ${d.gap} ms beside the dead share, ${b.gap} ms before`);
    assert.ok(res.CLOSE.dead.every((ms) => ms <= FACTOR * res.CLOSE.local + 100), `close took ${res.CLOSE.dead} ms (a local session ${res.CLOSE.local} ms)`);
    assert.equal(res.AFTER.scan.files, b.scan.files);
    assert.equal(r.status, 0, ended(r));
    assert.ok(exitMs <= 2000, `the process ended ${exitMs} ms after process.exit()`);
    await share.set({});
  });

  await t.test(`a Worker that alone loaded the module, watching it, terminated: the main thread goes on (${AFTER_WORKER_S} s), loads the module again and scans`, async () => {
    await share.set({ '/dead': 'never' });
    const control = path.join(share.base, 'control');
    const small = makeTree({ files: { 'a.txt': 'a', 'b/c.txt': 'c', 'b/d.txt': 'd' } });
    t.after(() => removeTree(small));
    const r = await runChildAsync(`${kit}
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
      });`, 60000 + AFTER_WORKER_S * 1000);
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
