'use strict';
// StartFileWatch: arguments, the ready signal, the events of each kind of
// change, folders moved in, filters, order, the root going away and coming
// back, an unopenable root, and closing in every way. Trees are made by
// this process after the watch is armed.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { root: repoRoot, runChild } = require('./helpers');
const { ostrel, watch, tempDir, pairs } = require('./watch-fixture');

const index = JSON.stringify(path.join(repoRoot, 'index.js'));
const has = (events, name, rel) => pairs(events).some(([n, p]) => n === name && p === rel);

test('the fourth argument, the returned function and the open statistic', async (t) => {
  const f = () => {};
  // Each row: a fourth argument StartFileWatch accepts (the refused ones
  // are in conventions.test.js).
  const fourth = [
    ['no fourth argument', undefined],
    ['a number', 5],
    ['a string', 'x'],
    ['null', null],
    ['an array', []],
  ];
  const root = tempDir();
  t.after(() => fs.rmSync(root, { recursive: true, force: true }));
  for (const [name, options] of fourth) {
    await t.test(name, async () => {
      const args = options === undefined ? [root, f] : [root, f, options];
      let close;
      await new Promise((resolve) => { close = ostrel.StartFileWatch(args[0], f, resolve, ...args.slice(2)); });
      assert.equal(typeof close, 'function');
      assert.equal(close.name, 'CloseFileWatch');
      assert.equal(close(), undefined);
      assert.equal(close(), undefined);
    });
  }
  await t.test('"CreateFileW(WatchLoop)" is recorded for each open, failures with their code', async () => {
    const spans = [];
    ostrel.RegisterTracer({ startSpan() { const a = {}; spans.push(a); return { setAttribute(k, v) { a[k] = v; }, end() {} }; } });
    const file = path.join(root, 'plain');
    fs.writeFileSync(file, 'x');
    const good = await watch(root);
    const bad = ostrel.StartFileWatch(file, () => {}, () => {}, {});
    try {
      const named = () => spans.filter((a) => a.dim_0 === 'CreateFileW(WatchLoop)');
      const count = () => named().reduce((n, a) => n + a.indsum_0, 0);
      for (let i = 0; i < 60 && count() < 4; i++) await new Promise((r) => setTimeout(r, 100));
      assert.ok(count() >= 4, JSON.stringify(named()));
    } finally {
      good.close();
      bad();
      ostrel.UnRegisterTracers();
    }
  });
});

test('changes of files and folders', async (t) => {
  const root = tempDir();
  const w = await watch(root);
  t.after(() => {
    w.close();
    fs.rmSync(root, { recursive: true, force: true });
  });
  const p = (rel) => path.join(root, ...rel.split('/'));

  await t.test('add, change and unlink of a file', async () => {
    fs.writeFileSync(p('a.txt'), 'one');
    await w.waitFor(() => has(w.events, 'add', 'a.txt'));
    fs.appendFileSync(p('a.txt'), 'two');
    await w.waitFor(() => has(w.events, 'change', 'a.txt'));
    fs.unlinkSync(p('a.txt'));
    await w.waitFor(() => has(w.events, 'unlink', 'a.txt'));
    const add = w.events.find((e) => e.watchEvent === 'add');
    assert.deepEqual(Object.keys(add), ['fileName', 'watchEvent', 'action', 'fileStat']);
    assert.deepEqual(Object.keys(add.fileStat), ['absolutePath', 'name', 'relativePath', 'relativeDir', 'isFile', 'hidden',
      'isSystem', 'size', 'ino', 'ctimeMs', 'mtimeMs', 'birthtimeMs', 'readable']);
    assert.equal(add.action, 1);
    assert.equal(add.fileStat.absolutePath, p('a.txt'));
    assert.equal(add.fileStat.isFile, true);
    const unlink = w.events.find((e) => e.watchEvent === 'unlink');
    assert.equal(unlink.action, 2);
    assert.equal(unlink.fileStat.isFile, true);
  });

  await t.test('addDir and unlinkDir, decided without reading a vanished folder', async () => {
    fs.mkdirSync(p('d1'));
    await w.waitFor(() => has(w.events, 'addDir', 'd1'));
    fs.rmdirSync(p('d1'));
    await w.waitFor(() => has(w.events, 'unlinkDir', 'd1'));
    assert.equal(w.events.find((e) => e.watchEvent === 'unlinkDir').fileStat.isFile, false);
  });

  await t.test('a rename gives renameOld and rename, each with its own record and the right kind', async () => {
    fs.writeFileSync(p('old.txt'), 'x');
    fs.mkdirSync(p('olddir'));
    await w.waitFor(() => has(w.events, 'add', 'old.txt') && has(w.events, 'addDir', 'olddir'));
    fs.renameSync(p('old.txt'), p('new.txt'));
    fs.renameSync(p('olddir'), p('newdir'));
    await w.waitFor(() => ['renameOld', 'old.txt', 'rename', 'new.txt', 'renameOldDir', 'olddir', 'renameDir', 'newdir']
      .every((v, i, a) => i % 2 === 1 || has(w.events, v, a[i + 1])));
    const renamed = w.events.find((e) => e.watchEvent === 'rename');
    assert.equal(renamed.fileStat.size, 1);
  });

  await t.test('a folder moved in is expanded into add and addDir for everything inside', async () => {
    const outside = tempDir('ostrel-watch-outside-');
    fs.mkdirSync(path.join(outside, 'm', 'sub', 'deeper'), { recursive: true });
    fs.writeFileSync(path.join(outside, 'm', 'top.txt'), 't');
    fs.writeFileSync(path.join(outside, 'm', 'sub', 'deeper', 'in.txt'), 'i');
    fs.renameSync(path.join(outside, 'm'), p('m'));
    fs.rmSync(outside, { recursive: true, force: true });
    await w.waitFor(() => ['m/top.txt', 'm/sub/deeper/in.txt'].every((r) => has(w.events, 'add', r)) &&
      ['m/sub', 'm/sub/deeper'].every((r) => has(w.events, 'addDir', r)));
    assert.ok(has(w.events, 'renameDir', 'm') || has(w.events, 'addDir', 'm'));
  });

  await t.test('create, write, rename and delete of one path arrive in that order, in few calls', async () => {
    const before = w.events.length;
    const callsBefore = w.calls;
    for (let i = 0; i < 200; i++) {
      fs.writeFileSync(p(`seq${i}.txt`), 'a');
      fs.appendFileSync(p(`seq${i}.txt`), 'b');
      fs.renameSync(p(`seq${i}.txt`), p(`seq${i}.bak`));
      fs.unlinkSync(p(`seq${i}.bak`));
    }
    // This thread stays busy while the changes are read and classified.
    for (const until = Date.now() + 1500; Date.now() < until;);
    // Records of different names are classified in parallel: the last
    // path's events may come before an earlier one's.
    await w.waitFor(() => {
      const unlinks = new Set(pairs(w.events.slice(before)).filter(([n]) => n === 'unlink').map(([, r]) => r));
      return Array.from({ length: 200 }, (_, i) => `seq${i}.bak`).every((r) => unlinks.has(r));
    });
    const seen = pairs(w.events.slice(before));
    // Ready while this thread was busy: what waited for it came in few calls.
    assert.ok(w.calls - callsBefore <= 10, `${w.calls - callsBefore} calls for ${seen.length} events`);
    for (let i = 0; i < 200; i++) {
      const steps = [['add', `seq${i}.txt`], ['renameOld', `seq${i}.txt`], ['rename', `seq${i}.bak`], ['unlink', `seq${i}.bak`]];
      const at = steps.map(([n, r]) => seen.findIndex(([a, b]) => a === n && b === r));
      assert.ok(at.every((v) => v >= 0), `${i}: ${JSON.stringify(seen)}`);
      assert.deepEqual([...at].sort((a, b) => a - b), at, `${i} out of order: ${JSON.stringify(seen)}`);
    }
  });
});

test('filters', async (t) => {
  const root = tempDir();
  t.after(() => fs.rmSync(root, { recursive: true, force: true }));
  const w = await watch(root, { ignoreDirRegs: ['node_modules', '\\.git'], extFilter: { excludes: ['bin'] } });
  t.after(() => w.close());
  fs.mkdirSync(path.join(root, 'node_modules', 'a', 'b'), { recursive: true });
  fs.writeFileSync(path.join(root, 'node_modules', 'a', 'b', 'deep.txt'), 'x');
  fs.mkdirSync(path.join(root, 'src', '.git'), { recursive: true });
  fs.writeFileSync(path.join(root, 'src', '.git', 'HEAD.txt'), 'x');
  fs.writeFileSync(path.join(root, 'src', 'kept.txt'), 'x');
  fs.writeFileSync(path.join(root, 'src', 'skipped.bin'), 'x');
  fs.writeFileSync(path.join(root, 'last.txt'), 'x');
  await w.waitFor(() => has(w.events, 'add', 'last.txt') && has(w.events, 'add', 'src/kept.txt'));
  await new Promise((r) => setTimeout(r, 300));
  const seen = pairs(w.events).map(([, r]) => r);
  for (const r of seen) assert.ok(!/node_modules|\.git|\.bin$/.test(r), `${r} should be filtered: ${JSON.stringify(seen)}`);
});

// Wine keeps a watched folder until the watch's handles close and never
// reports it delete-pending (a probe showed DeletePending 0 and the folder
// still there), so nothing can tell the watch; Windows fails the pending
// read and marks the handle, and Linux sends IN_DELETE_SELF.
const wine = process.platform === 'win32' && (!!process.env.WINEPREFIX || fs.existsSync('Z:\\etc\\passwd'));
test('the root deleted and created again', { skip: wine && 'Wine never reports a watched root deleted' }, async () => {
  const parent = tempDir();
  const root = path.join(parent, 'watched');
  fs.mkdirSync(root);
  const w = await watch(root);
  try {
    fs.rmSync(root, { recursive: true });
    await w.waitFor(() => w.errors.some((e) => e.code === 'REMOVED'), 15000);
    const removed = w.errors.find((e) => e.code === 'REMOVED');
    assert.deepEqual(removed, { errorCode: 17, errorReason: 'Directory deleted', code: 'REMOVED' });
    fs.mkdirSync(root);
    // The root poll runs every 5007 ms; keep writing until events resume.
    let i = 0;
    const writer = setInterval(() => fs.writeFileSync(path.join(root, `back${i++}.txt`), 'x'), 500);
    try {
      await w.waitFor(() => w.events.some((e) => e.watchEvent === 'add' && e.fileName.startsWith('back')), 20000);
    } finally {
      clearInterval(writer);
    }
  } finally {
    w.close();
    fs.rmSync(parent, { recursive: true, force: true });
  }
});

// Each case watches an unopenable root for 2.6 s and returns the error
// events with the time each arrived.
const isRoot = process.platform === 'linux' && process.getuid && process.getuid() === 0;
const unopenableRoots = [
  { name: 'a plain file', make: (dir) => { const f = path.join(dir, 'plain-file'); fs.writeFileSync(f, 'not a folder'); return f; },
    collect: (target) => collectErrors(target) },
  // A folder that this user may not read: root reads everything, so the
  // watch runs in a child as nobody.
  { name: 'a folder this user may not read (EACCES as nobody)', skip: !isRoot && 'needs root on Linux to run a child as nobody',
    make: (dir) => { const f = path.join(dir, 'locked'); fs.mkdirSync(f, { mode: 0o700 }); fs.chmodSync(dir, 0o755); return f; },
    errorCode: 13,
    collect: (target) => {
      const r = runChild(`const o = require(${index}); const out = [];
        o.StartFileWatch(${JSON.stringify(target)}, (e) => { if (!Array.isArray(e)) out.push({ ...e, at: Date.now() }); }, () => {}, {});
        setTimeout(() => { console.log(JSON.stringify(out)); process.exit(0); }, 2600);`, { uid: 65534, gid: 65534 });
      assert.equal(r.status, 0, r.stderr.slice(-2000));
      const out = JSON.parse(r.stdout.split('\n').find((l) => l.startsWith('[')));
      return { errors: out.map(({ at, ...e }) => e), times: out.map((e) => e.at) };
    } },
];

async function collectErrors(target) {
  const errors = [];
  const times = [];
  const close = ostrel.StartFileWatch(target, (e) => { if (!Array.isArray(e)) { errors.push(e); times.push(Date.now()); } }, () => {}, {});
  try {
    await new Promise((r) => setTimeout(r, 2600));
  } finally {
    close();
  }
  return { errors, times };
}

test('a root that cannot be watched gives error events, three at once then one a second', async (t) => {
  for (const c of unopenableRoots) {
    await t.test(c.name, { skip: c.skip }, async () => {
      const dir = tempDir();
      try {
        const { errors, times } = await c.collect(c.make(dir));
        assert.ok(errors.length >= 4, JSON.stringify(errors));
        for (const e of errors) {
          assert.deepEqual(Object.keys(e), ['errorCode', 'errorReason', 'code']);
          assert.ok(e.errorCode > 0 && e.errorReason.length > 0 && e.code === '', JSON.stringify(e));
          if (c.errorCode) assert.equal(e.errorCode, c.errorCode, JSON.stringify(e));
        }
        // Per loop: attempts 1-3 back to back, then at least a second apart.
        const gaps = times.slice(1).map((at, i) => at - times[i]);
        assert.ok(gaps.some((g) => g >= 900), `gaps ${gaps}`);
        assert.ok(errors.length <= 12, `${errors.length} errors in 2.6 s`);
      } finally {
        fs.rmSync(dir, { recursive: true, force: true });
      }
    });
  }
});

test('closing', async (t) => {
  await t.test('close during a burst, close twice, and close from inside the callback', async () => {
    const root = tempDir();
    try {
      const w = await watch(root);
      for (let i = 0; i < 500; i++) fs.writeFileSync(path.join(root, `b${i}`), 'x');
      w.close();
      w.close();
      const w2 = await watch(root);
      let calls = 0;
      const inside = new Promise((resolve) => {
        const close = ostrel.StartFileWatch(root, () => { calls++; close(); resolve(); }, () => fs.writeFileSync(path.join(root, 'trigger'), 'x'), {});
      });
      await inside;
      fs.writeFileSync(path.join(root, 'after'), 'x');
      await new Promise((r) => setTimeout(r, 300));
      assert.equal(calls, 1);
      w2.close();
    } finally {
      fs.rmSync(root, { recursive: true, force: true });
    }
  });

  await t.test('1,000 start/close cycles: no crash, flat memory', () => {
    const root = tempDir();
    try {
      const r = runChild(`const o = require(${index});
        const start = () => new Promise((res) => { const c = o.StartFileWatch(${JSON.stringify(root)}, () => {}, () => res(c), {}); });
        (async () => {
          for (let i = 0; i < 100; i++) (await start())();
          global.gc && global.gc();
          const rss = process.memoryUsage().rss;
          for (let i = 100; i < 1000; i++) (await start())();
          await new Promise((r) => setTimeout(r, 200));
          global.gc && global.gc();
          console.log('GROWTH MB ' + Math.round((process.memoryUsage().rss - rss) / 1048576));
          // A session started while the last one is still closing keeps a
          // live watch on the folder they share.
          const last = (await start())();
          const seen = new Promise((res) => { const c = o.StartFileWatch(${JSON.stringify(root)}, (evs) => {
            if (evs.some((e) => String(e.fileName).endsWith('probe.txt'))) { c(); res(); } }, () => {
            require('fs').writeFileSync(require('path').join(${JSON.stringify(root)}, 'probe.txt'), 'x'); }, {}); });
          await seen;
          console.log('PROBE SEEN');
        })();`, { timeout: /asan|tsan/.test(process.env.LD_PRELOAD || '') || process.platform === 'win32' ? 400000 : 120000 });
      // Each start waits for its session to be ready: a session whose
      // watch was removed under it never was, and the child timed out.
      assert.equal(r.status, 0, r.stderr.slice(-2000) + r.stdout.slice(-2000));
      assert.match(r.stdout, /PROBE SEEN/);
      const growth = Number(/^GROWTH MB (-?\d+)$/m.exec(r.stdout)[1]);
      if (!/asan/.test(process.env.LD_PRELOAD || '')) assert.ok(growth < 30, `grew ${growth} MB`);
    } finally {
      fs.rmSync(root, { recursive: true, force: true });
    }
  });

});

// Linux only, as root: inotify's queue length is read when a descriptor is
// made, so the limit is lowered just while the watch starts and put back at
// once; a burst then overflows the watch's small queue.
const queuedEvents = '/proc/sys/fs/inotify/max_queued_events';
const canShrinkQueue = process.platform === 'linux' && process.getuid && process.getuid() === 0 &&
  (() => { try { fs.accessSync(queuedEvents, fs.constants.W_OK); return true; } catch { return false; } })();
test('an overflow is reported with reportOverflow and silent without it', { skip: !canShrinkQueue && 'needs root on Linux to shrink the inotify queue' }, async (t) => {
  for (const reportOverflow of [true, false]) {
    await t.test(`reportOverflow: ${reportOverflow}`, async () => {
      const root = tempDir();
      const saved = fs.readFileSync(queuedEvents, 'utf8').trim();
      let w;
      try {
        fs.writeFileSync(queuedEvents, '8');
        try {
          w = await watch(root, { reportOverflow });
        } finally {
          fs.writeFileSync(queuedEvents, saved);
        }
        for (let i = 0; i < 2000; i++) fs.writeFileSync(path.join(root, `o${i}`), '');
        if (reportOverflow) {
          await w.waitFor(() => w.errors.some((e) => e.code === 'OVERFLOW'));
          assert.deepEqual(Object.keys(w.errors.find((e) => e.code === 'OVERFLOW')), ['errorCode', 'errorReason', 'code']);
          assert.equal(w.errors.find((e) => e.code === 'OVERFLOW').errorCode, 1022);
        } else {
          await new Promise((r) => setTimeout(r, 1000));
          assert.deepEqual(w.errors, []);
        }
        // Either way the watch goes on after the loss.
        fs.writeFileSync(path.join(root, 'after.txt'), 'x');
        await w.waitFor(() => w.events.some((e) => e.fileName === 'after.txt'));
      } finally {
        if (w) w.close();
        fs.rmSync(root, { recursive: true, force: true });
      }
    });
  }
});
