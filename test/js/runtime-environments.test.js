'use strict';
// The module in several environments and on every way out of a process:
// exit and uncaught exceptions during a big scan, the main thread and
// Workers scanning at once, Workers terminated or exiting inside a
// callback, many Workers in turn, and wake-ups racing the last release.
// Each case runs in a child process, so a hang or a crash fails one test.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { root, isWindows, buildDir, runChild } = require('./helpers');
const { makeTree, removeTree } = require('./scan-fixture');

const index = JSON.stringify(path.join(root, 'index.js'));
const probePath = JSON.stringify(path.join(buildDir(), 'test', 'runtime_probe.node'));

// 1,000 files in each of `folders` folders (200,000 by default), made once
// per build folder (test.sh makes them before the Wine run, where node.exe
// would take minutes).
function bigTree(folders = 200) {
  const dir = (folders === 200 && process.env.OSTREL_BIG_TREE) ||
    path.join(root, 'build', 'test-fixtures', `big-${folders}k`);
  if (fs.existsSync(path.join(dir, '.complete'))) return dir;
  fs.rmSync(dir, { recursive: true, force: true });
  for (let d = 0; d < folders; d++) {
    const sub = path.join(dir, `d${d}`);
    fs.mkdirSync(sub, { recursive: true });
    for (let f = 0; f < 1000; f++) fs.writeFileSync(path.join(sub, `f${f}.txt`), '');
  }
  fs.writeFileSync(path.join(dir, '.complete'), '');
  return dir;
}

const ended = (r) => `status ${r.status} signal ${r.signal}\n${r.stderr.slice(-2000)}`;

test('leaving the process while a 200,000-file scan runs', async (t) => {
  const big = JSON.stringify(bigTree());
  await t.test('process.exit() inside an update callback ends the process at once', () => {
    const start = Date.now();
    const r = runChild(`const o = require(${index});
      o.ScanAllSubFiles(${big}, (u) => { console.log('UPDATE ' + u.nodes.length); process.exit(7); }, () => {}, {});`,
    { timeout: 60000 });
    assert.equal(r.status, 7, ended(r));
    assert.ok(Date.now() - start < 20000, `took ${Date.now() - start} ms`);
    assert.equal(r.stdout.split('Ostrel Cleaning ...').length - 1, 1);
  });
  await t.test('process.exit() while script does not keep up with the updates', () => {
    // The walk fills its backlog and waits for script; the exit must wake it.
    const r = runChild(`const o = require(${index});
      let n = 0;
      o.ScanAllSubFiles(${big}, (u) => { n += u.nodes.length; const end = Date.now() + 200; while (Date.now() < end); }, () => {}, {});
      setTimeout(() => { console.log('EXIT AFTER ' + n); process.exit(0); }, 1500);`, { timeout: 60000 });
    assert.equal(r.status, 0, ended(r));
    assert.match(r.stdout, /^EXIT AFTER \d+$/m);
  });
  await t.test('an uncaught exception from a timer is printed and exits with code 1', () => {
    const r = runChild(`const o = require(${index});
      o.ScanAllSubFiles(${big}, () => {}, () => {}, {});
      setTimeout(() => { throw new Error('boom from a timer'); }, 200);`, { timeout: 60000 });
    assert.equal(r.status, 1, ended(r));
    assert.match(r.stderr, /boom from a timer/);
  });
});

test('the main thread and two Workers scan at once, each getting the whole tree', () => {
  const files = {};
  for (let i = 0; i < 300; i++) files[`a/b${i % 7}/f${i}.txt`] = 'x';
  const tree = makeTree({ files });
  try {
    const r = runChild(`const { Worker } = require('worker_threads');
      const code = \`const o = require(${index.replace(/\\/g, '\\\\')});
        const { parentPort, workerData } = require('worker_threads');
        let n = 0;
        o.ScanAllSubFiles(workerData, (u) => { n += u.nodes.length; }, (res) => parentPort.postMessage(n + '/' + res.totalFileCount), {});\`;
      const o = require(${index});
      const results = [];
      const done = () => { if (results.length === 3) console.log('RESULTS ' + results.sort().join(' ')); };
      for (let i = 0; i < 2; i++) {
        new Worker(code, { eval: true, workerData: ${JSON.stringify(tree)} }).on('message', (m) => { results.push('W' + m); done(); });
      }
      let n = 0;
      o.ScanAllSubFiles(${JSON.stringify(tree)}, (u) => { n += u.nodes.length; }, (res) => { results.push('M' + n + '/' + res.totalFileCount); done(); }, {});`);
    assert.equal(r.status, 0, ended(r));
    assert.match(r.stdout, /^RESULTS M300\/300 W300\/300 W300\/300$/m);
    assert.equal(r.stdout.split('Ostrel Initialized.').length - 1, 3);
    assert.equal(r.stdout.split('Ostrel Cleaning ...').length - 1, 3);
  } finally {
    removeTree(tree);
  }
});

test('a Worker that ends inside a callback leaves the main thread running', async (t) => {
  const files = {};
  for (let i = 0; i < 50; i++) files[`f${i}.txt`] = 'x';
  const tree = JSON.stringify(makeTree({ files }));
  const big = JSON.stringify(bigTree());
  const worker = (inCallback, dir = tree) => `const o = require(${index.replace(/\\/g, '\\\\')});
    const { parentPort } = require('worker_threads');
    o.ScanAllSubFiles(${dir.replace(/\\/g, '\\\\')}, () => { parentPort.postMessage('inside'); ${inCallback} }, () => {}, {});`;
  // With `alone`, the Worker is the only environment that loaded the module:
  // its end unloads it while the walk's job thread is still busy, and the
  // main thread loads it again afterwards.
  const main = (inCallback, onMessage, { alone = false, dir } = {}) => `const { Worker } = require('worker_threads');
    let o = ${alone ? 'null' : `require(${index})`};
    const w = new Worker(${JSON.stringify(worker(inCallback, dir))}, { eval: true });
    w.on('message', () => { ${onMessage} });
    w.on('exit', (code) => {
      console.log('WORKER EXIT ' + code);
      setTimeout(() => {
        o = o || require(${index});
        o.ScanAllSubFiles(${tree}, () => {}, (r) => console.log('MAIN SCAN ' + r.totalFileCount), {});
      }, ${alone ? 500 : 0});
    });`;
  try {
    for (const [name, source] of [
      ['terminate() while the callback spins', main('for (;;) {}', 'w.terminate();')],
      ['process.exit() inside the callback', main('process.exit(3);', '')],
      ['an exception thrown inside the callback', main('throw new Error("worker callback failed");', '')],
      ['terminate() of the only environment while a 200,000-file walk runs, then a new load',
        main('', 'w.terminate();', { alone: true, dir: big })],
    ]) {
      await t.test(name, () => {
        const r = runChild(source, { timeout: 60000 });
        assert.equal(r.status, 0, ended(r));
        assert.doesNotMatch(r.stderr, /FATAL ERROR/);
        assert.match(r.stdout, /^WORKER EXIT \d+$/m);
        assert.match(r.stdout, /^MAIN SCAN 50$/m);
      });
    }
  } finally {
    removeTree(JSON.parse(tree));
  }
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
    const code = \`const o = require(${index.replace(/\\/g, '\\\\')});
      const { parentPort } = require('worker_threads');
      o.ScanAllSubFiles(${JSON.stringify(big).replace(/\\/g, '\\\\')}, () => {
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

test('100 Workers in turn: memory and threads stay flat', (t) => {
  const tree = makeTree({ files: { 'a.txt': 'a', 'b/c.txt': 'c' } });
  try {
    const r = runChild(`const { Worker } = require('worker_threads');
      const fs = require('fs');
      require(${index});
      const code = \`const o = require(${index.replace(/\\/g, '\\\\')});
        o.ScanAllSubFiles(${JSON.stringify(tree).replace(/\\/g, '\\\\')}, () => {}, (r) => require('worker_threads').parentPort.postMessage(r.totalFileCount), {});\`;
      const threads = () => (fs.existsSync('/proc/self/task') ? fs.readdirSync('/proc/self/task').length : 0);
      const one = () => new Promise((resolve, reject) => {
        const w = new Worker(code, { eval: true });
        let files = -1;
        w.on('message', (n) => { files = n; });
        w.on('error', reject);
        w.on('exit', () => (files === 2 ? resolve() : reject(new Error('files ' + files))));
      });
      (async () => {
        for (let i = 0; i < 10; i++) await one();
        global.gc && global.gc();
        const rss10 = process.memoryUsage().rss, threads10 = threads();
        for (let i = 10; i < 100; i++) await one();
        global.gc && global.gc();
        await new Promise((r) => setTimeout(r, 200));
        console.log('RSS GROWTH MB ' + Math.round((process.memoryUsage().rss - rss10) / 1048576));
        console.log('THREADS ' + threads10 + ' ' + threads());
      })();`, { timeout: 300000 });
    assert.equal(r.status, 0, ended(r));
    t.diagnostic(r.stdout.match(/^(RSS|THREADS).*$/gm).join(', '));
    const growth = Number(/^RSS GROWTH MB (-?\d+)$/m.exec(r.stdout)[1]);
    // AddressSanitizer keeps freed memory in quarantine: only threads count there.
    if (!/asan/.test(process.env.LD_PRELOAD || '')) {
      assert.ok(growth < 40, `resident memory grew by ${growth} MB over 90 Workers`);
    }
    const [before, after] = /^THREADS (\d+) (\d+)$/m.exec(r.stdout).slice(1).map(Number);
    assert.ok(after <= before + 2, `threads ${before} -> ${after}`);
    assert.equal(r.stdout.split('Ostrel Cleaning ...').length - 1, 101);
  } finally {
    removeTree(tree);
  }
});

test('telemetry registrations belong to their environment; records reach every one', () => {
  const r = runChild(`const { Worker } = require('worker_threads');
    const o = require(${index});
    const tracer = (tell) => ({ startSpan: () => ({ setAttribute() {}, end: tell }) });
    let mainSpans = 0;
    o.RegisterTracer(tracer(() => { mainSpans++; }));
    const w = new Worker(\`const o = require(${index.replace(/\\/g, '\\\\')});
      const { parentPort } = require('worker_threads');
      let told = false;
      o.RegisterTracer({ startSpan: () => ({ setAttribute() {}, end() {
        if (told) return;
        told = true;
        parentPort.postMessage('span');
        o.UnRegisterTracers();  // the Worker's only; lets it end
      } }) });
      o.ReportTest({});\`, { eval: true });
    let workerSpans = 0;
    w.on('message', () => { workerSpans++; });
    w.on('exit', () => setTimeout(() => {
      console.log('SPANS main ' + (mainSpans > 0) + ' worker ' + workerSpans);
      o.UnRegisterTracers();
    }, 700));`, { timeout: 60000 });
  assert.equal(r.status, 0, ended(r));
  assert.match(r.stdout, /^SPANS main true worker 1$/m);
});

test('wake-ups racing the last release never touch a freed handle', () => {
  const r = runChild(`const p = require(${probePath});
    const join = p.scheduleStorm(1500);
    const end = Date.now() + 1500;
    (function cycle() {
      p.addRef();
      setImmediate(() => {
        p.release();
        if (Date.now() < end) setImmediate(cycle);
        else console.log('SCHEDULES ' + join());
      });
    })();`, { timeout: 60000, maxBuffer: 256 * 1024 * 1024 });
  assert.equal(r.status, 0, ended(r));
  assert.match(r.stdout, /^SCHEDULES [1-9]\d*$/m);
});

if (isWindows) {
  // Nothing Windows-only here: the same cases run under Wine with node.exe.
}
