'use strict';
// StartFileWatch: what it accepts and returns, the order of one path's
// events under a busy main thread, the root's loss, many sessions.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { runChild } = require('./helpers');
const { ostrel, watched, tempDir, pairs, wine, isRoot, index } = require('./watch-fixture');

test('the fourth argument, the returned function and the open statistic', async (t) => {
  const root = tempDir();
  for (const extra of [[], [5], ['x'], [null], [[]]]) {
    const close = await new Promise((resolve) => { const c = ostrel.StartFileWatch(root, () => {}, () => resolve(c), ...extra); });
    assert.deepEqual([close.name, close(), close()], ['CloseFileWatch', undefined, undefined], JSON.stringify(extra));
  }
  // Each open is recorded, failures too.
  const spans = [];
  ostrel.RegisterTracer({ startSpan() { const a = {}; spans.push(a); return { setAttribute(k, v) { a[k] = v; }, end() {} }; } });
  t.after(() => ostrel.UnRegisterTracers());
  const file = path.join(root, 'plain');
  fs.writeFileSync(file, 'x');
  await watched(t, root);
  const bad = ostrel.StartFileWatch(file, () => {}, () => {}, {});
  t.after(() => bad());
  const named = () => spans.filter((a) => a.dim_0 === 'CreateFileW(WatchLoop)');
  const count = () => named().reduce((n, a) => n + a.indsum_0, 0);
  for (let i = 0; i < 60 && count() < 4; i++) await new Promise((r) => setTimeout(r, 100));
  assert.ok(count() >= 4, JSON.stringify(named()));
});

test('create, write, rename and delete of one path arrive in that order, in few calls', async (t) => {
  const root = tempDir();
  const w = await watched(t, root);
  const p = (rel) => path.join(root, rel);
  for (let i = 0; i < 200; i++) {
    fs.writeFileSync(p(`seq${i}.txt`), 'a');
    fs.appendFileSync(p(`seq${i}.txt`), 'b');
    fs.renameSync(p(`seq${i}.txt`), p(`seq${i}.bak`));
    fs.unlinkSync(p(`seq${i}.bak`));
  }
  // Busy while the changes are classified (in parallel: paths in any order).
  for (const until = Date.now() + 1500; Date.now() < until;);
  await w.waitFor(() => {
    const unlinks = new Set(pairs(w.events).filter(([n]) => n === 'unlink').map(([, r]) => r));
    return Array.from({ length: 200 }, (_, i) => `seq${i}.bak`).every((r) => unlinks.has(r));
  });
  const seen = pairs(w.events);
  // Ready while this thread was busy: what waited for it came in few calls.
  assert.ok(w.calls <= 10, `${w.calls} calls for ${seen.length} events`);
  for (let i = 0; i < 200; i++) {
    const steps = [['add', `seq${i}.txt`], ['renameOld', `seq${i}.txt`], ['rename', `seq${i}.bak`], ['unlink', `seq${i}.bak`]];
    const at = steps.map(([n, r]) => seen.findIndex(([a, b]) => a === n && b === r));
    assert.ok(at.every((v) => v >= 0), `${i}: ${JSON.stringify(seen)}`);
    assert.deepEqual([...at].sort((a, b) => a - b), at, `${i} out of order: ${JSON.stringify(seen)}`);
  }
});

// Wine keeps a watched folder until the watch's handles close, never delete-pending.
test('the root deleted and created again', { skip: wine && 'Wine never reports a watched root deleted' }, async (t) => {
  const parent = tempDir();
  const root = path.join(parent, 'watched');
  fs.mkdirSync(root);
  const w = await watched(t, root, {}, parent);
  fs.rmSync(root, { recursive: true });
  await w.waitFor(() => w.errors.some((e) => e.code === 'REMOVED'), 15000);
  assert.deepEqual(w.errors.find((e) => e.code === 'REMOVED'), { errorCode: 17, errorReason: 'Directory deleted', code: 'REMOVED' });
  fs.mkdirSync(root);
  // The root is polled every 5 s.
  let i = 0;
  const writer = setInterval(() => fs.writeFileSync(path.join(root, `back${i++}.txt`), 'x'), 500);
  t.after(() => clearInterval(writer));
  await w.waitFor(() => w.events.some((e) => e.watchEvent === 'add' && e.fileName.startsWith('back')), 20000);
});

// A child's error events (with their time) during 2.6 s on `target`.
function unopenable(target, uid) {
  const r = runChild(`const o = require(${index}); const out = [];
    const close = o.StartFileWatch(${JSON.stringify(target)}, (e) => { if (!Array.isArray(e)) out.push({ ...e, at: Date.now() }); }, () => {}, {});
    setTimeout(() => { close(); console.log(JSON.stringify(out)); process.exit(0); }, 2600);`, uid ? { uid, gid: uid } : {});
  assert.equal(r.status, 0, r.stderr.slice(-2000));
  return JSON.parse(r.stdout.split('\n').find((l) => l.startsWith('[')));
}

test('a root that cannot be watched gives error events, three at once then one a second', async (t) => {
  const rows = [
    { name: 'a plain file', make: (dir) => { const f = path.join(dir, 'plain-file'); fs.writeFileSync(f, 'not a folder'); return f; } },
    { name: 'a folder this user may not read (EACCES as nobody)', skip: !isRoot && 'needs root on Linux to run a child as nobody',
      make: (dir) => { const f = path.join(dir, 'locked'); fs.mkdirSync(f, { mode: 0o700 }); fs.chmodSync(dir, 0o755); return f; },
      uid: 65534, errorCode: 13 },
  ];
  for (const c of rows) {
    await t.test(c.name, { skip: c.skip }, (st) => {
      const dir = tempDir();
      st.after(() => fs.rmSync(dir, { recursive: true, force: true }));
      const errors = unopenable(c.make(dir), c.uid);
      assert.ok(errors.length >= 4, JSON.stringify(errors));
      for (const { at, ...e } of errors) {
        assert.deepEqual([Object.keys(e), e.errorCode > 0, e.errorReason.length > 0, e.code], [['errorCode', 'errorReason', 'code'], true, true, '']);
        if (c.errorCode) assert.equal(e.errorCode, c.errorCode, JSON.stringify(e));
      }
      const gaps = errors.slice(1).map((e, i) => e.at - errors[i].at);
      assert.ok(gaps.some((g) => g >= 900) && errors.length <= 12, `${errors.length} errors in 2.6 s, gaps ${gaps}`);
    });
  }
});

// A burst's metadata queries once started all 64 blocking threads (Wine: +40-62 MB).
test('1,000 start/close cycles: no crash, flat memory', async (t) => {
  for (const burst of [false, true]) {
    const name = burst ? 'every 100th closed amid a burst of 300 changes' : 'closed at once';
    await t.test(name, (st) => {
      const root = tempDir();
      st.after(() => fs.rmSync(root, { recursive: true, force: true }));
      const r = runChild(`const o = require(${index});
        const fs = require('fs');
        const start = () => new Promise((res) => { const c = o.StartFileWatch(${JSON.stringify(root)}, () => {}, () => res(c), {}); });
        (async () => {
          for (let i = 0; i < 100; i++) (await start())();
          const rss = process.memoryUsage().rss;
          for (let i = 100; i < 1000; i++) {
            const close = await start();
            for (let k = 0; ${burst} && i % 100 === 0 && k < 300; k++) fs.writeFileSync(${JSON.stringify(root)} + '/b' + k, 'x');
            close();
          }
          await new Promise((r) => setTimeout(r, 200));
          console.log('GROWTH MB ' + Math.round((process.memoryUsage().rss - rss) / 1048576));
          // Started while the last one on the folder is still closing: it watches.
          (await start())();
          const seen = new Promise((res) => { const c = o.StartFileWatch(${JSON.stringify(root)}, (evs) => {
            if (evs.some((e) => String(e.fileName).endsWith('probe.txt'))) { c(); res(); } }, () => {
            fs.writeFileSync(require('path').join(${JSON.stringify(root)}, 'probe.txt'), 'x'); }, {}); });
          await seen;
          console.log('PROBE SEEN');
        })();`, { timeout: /asan|tsan/.test(process.env.LD_PRELOAD || '') || process.platform === 'win32' ? 400000 : 120000 });
      assert.equal(r.status, 0, r.stderr.slice(-2000) + r.stdout.slice(-2000));
      assert.match(r.stdout, /PROBE SEEN/);
      const growth = Number(/^GROWTH MB (-?\d+)$/m.exec(r.stdout)[1]);
      if (!/asan/.test(process.env.LD_PRELOAD || '')) assert.ok(growth < 30, `grew ${growth} MB`);
    });
  }
});
