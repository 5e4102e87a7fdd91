'use strict';
// The events of StartFileWatch, natively and under Wine: the vocabulary,
// filters, copied trees, hostile names and kinds, the system's limits.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { spawnSync } = require('child_process');
const { root: repoRoot, sleep } = require('./helpers');
const { watch, watched, tempDir, pairs, wine, isRoot, index } = require('./watch-fixture');

const linux = process.platform === 'linux';
const has = (events, name, rel) => pairs(events).some(([n, p]) => n === name && p === rel);
// Whether every name in `want` was added; reads each event once (tens of thousands).
function allAdded(w, want) {
  const missing = new Set(want);
  let read = 0;
  return () => {
    for (; read < w.events.length; read++) {
      const e = w.events[read];
      if (e.watchEvent === 'add') missing.delete(e.fileName.split(path.sep).join('/'));
    }
    return missing.size === 0;
  };
}

// Resolves once no event arrived for `quiet` ms (at most `max` ms).
async function settle(w, quiet = 400, max = 15000) {
  const until = Date.now() + max;
  let seen = -1;
  while (Date.now() < until && seen !== w.events.length + w.errors.length) {
    seen = w.events.length + w.errors.length;
    await sleep(quiet);
  }
}

// `before` builds the tree before the watch (`o`: a folder beside it), `act`
// changes it; `expect` must arrive (in order when `ordered`), `never` not.
const vocabulary = [
  { name: 'a file created', act: (p) => fs.writeFileSync(p('a.txt'), 'x'), expect: [['add', 'a.txt']], never: [['rename', 'a.txt']] },
  { name: 'a file written', before: (p) => fs.writeFileSync(p('a.txt'), 'x'), act: (p) => fs.appendFileSync(p('a.txt'), 'y'),
    expect: [['change', 'a.txt']] },
  { name: 'a file deleted', before: (p) => fs.writeFileSync(p('a.txt'), 'x'), act: (p) => fs.unlinkSync(p('a.txt')),
    expect: [['unlink', 'a.txt']], never: [['unlinkDir', 'a.txt']] },
  { name: 'a file renamed inside the tree', before: (p) => fs.writeFileSync(p('a.txt'), 'x'),
    act: (p) => fs.renameSync(p('a.txt'), p('b.txt')), expect: [['renameOld', 'a.txt'], ['rename', 'b.txt']], ordered: true,
    never: [['unlink', 'a.txt'], ['add', 'b.txt']] },
  { name: 'a file moved in from outside', act: (p, o) => { fs.writeFileSync(o('in.txt'), 'x'); fs.renameSync(o('in.txt'), p('in.txt')); },
    expect: [['add', 'in.txt']], never: [['rename', 'in.txt']] },
  { name: 'a file moved out of the tree', before: (p) => fs.writeFileSync(p('out.txt'), 'x'),
    act: (p, o) => fs.renameSync(p('out.txt'), o('out.txt')), expect: [['unlink', 'out.txt']], never: [['renameOld', 'out.txt']] },
  { name: 'a folder created', act: (p) => fs.mkdirSync(p('d')), expect: [['addDir', 'd']], never: [['add', 'd']] },
  { name: 'a folder deleted', before: (p) => fs.mkdirSync(p('d')), act: (p) => fs.rmdirSync(p('d')),
    expect: [['unlinkDir', 'd']], never: [['unlink', 'd']] },
  { name: 'a folder changed (its times)', before: (p) => fs.mkdirSync(p('d')),
    act: (p) => fs.utimesSync(p('d'), new Date(2001, 1, 1), new Date(2001, 1, 1)), expect: [['changeDir', 'd']],
    never: [['change', 'd']] },
  { name: 'a folder renamed inside the tree: its content is reported again as added',
    before: (p) => { fs.mkdirSync(p('d')); fs.writeFileSync(p('d/f.txt'), 'x'); },
    act: (p) => fs.renameSync(p('d'), p('e')), expect: [['renameOldDir', 'd'], ['renameDir', 'e'], ['add', 'e/f.txt']], ordered: true,
    never: [['unlinkDir', 'd'], ['addDir', 'e']] },
  { name: 'a folder moved in from outside is expanded',
    act: (p, o) => { fs.mkdirSync(o('m/sub'), { recursive: true }); fs.writeFileSync(o('m/top.txt'), 't'); fs.writeFileSync(o('m/sub/in.txt'), 'i');
      fs.renameSync(o('m'), p('m')); },
    expect: [['addDir', 'm'], ['add', 'm/top.txt'], ['addDir', 'm/sub'], ['add', 'm/sub/in.txt']], never: [['renameDir', 'm']] },
  { name: 'a folder moved out of the tree', before: (p) => { fs.mkdirSync(p('d')); fs.writeFileSync(p('d/f.txt'), 'x'); },
    act: (p, o) => fs.renameSync(p('d'), o('d')), expect: [['unlinkDir', 'd']], never: [['renameOldDir', 'd']] },
  { name: 'a file created in a renamed folder comes under its new name', skip: wine && 'Wine (and its own fs.watch) reports a renamed folder\'s changes under its old name',
    act: async (p, o, w) => { fs.mkdirSync(p('r1')); await w.waitFor(() => has(w.events, 'addDir', 'r1')); fs.renameSync(p('r1'), p('r2'));
      await w.waitFor(() => has(w.events, 'renameDir', 'r2')); fs.writeFileSync(p('r2/n.txt'), 'x'); },
    expect: [['add', 'r2/n.txt']], never: [['add', 'r1/n.txt']] },
  { name: 'nothing comes from a folder moved out', skip: wine && 'Wine (and its own fs.watch) reports changes in a folder moved out',
    act: async (p, o, w) => { fs.mkdirSync(p('x')); await w.waitFor(() => has(w.events, 'addDir', 'x')); fs.renameSync(p('x'), o('x'));
      await w.waitFor(() => has(w.events, 'unlinkDir', 'x')); fs.writeFileSync(o('x/late.txt'), 'x'); fs.writeFileSync(p('marker.txt'), 'x'); },
    expect: [['unlinkDir', 'x'], ['add', 'marker.txt']], never: [['add', 'x/late.txt']] },
];

const STAT_KEYS = ['absolutePath', 'name', 'relativePath', 'relativeDir', 'isFile', 'hidden', 'isSystem', 'size', 'ino',
  'ctimeMs', 'mtimeMs', 'birthtimeMs', 'readable'];
const ACTIONS = ['add', 'unlink', 'change', 'renameOld', 'rename'];

test('the event vocabulary: one table on both platforms', async (t) => {
  for (const row of vocabulary) {
    await t.test(row.name, { skip: row.skip }, async (st) => {
      const base = tempDir();
      const [p, o] = ['root', 'outside'].map((d) => (rel) => path.join(base, d, ...rel.split('/')));
      fs.mkdirSync(p(''));
      fs.mkdirSync(o(''));
      if (row.before) row.before(p, o);
      const w = await watched(st, p(''), {}, base);
      await sleep(100);
      await row.act(p, o, w);
      await w.waitFor(() => row.expect.every(([n, r]) => has(w.events, n, r)));
      await settle(w, 300);
      const seen = pairs(w.events);
      if (row.ordered) {
        const at = row.expect.map(([n, r]) => seen.findIndex(([a, b]) => a === n && b === r));
        assert.deepEqual([...at].sort((a, b) => a - b), at, JSON.stringify(seen));
      }
      for (const [n, r] of row.never || []) assert.ok(!has(w.events, n, r), `${n} ${r} in ${JSON.stringify(seen)}`);
      const adds = seen.filter(([n]) => n === 'add' || n === 'addDir').map(([n, r]) => `${n} ${r}`);
      assert.equal(new Set(adds).size, adds.length, JSON.stringify(seen));
      // Every event's kind agrees with its name and action, its paths name
      // its item, and a rename's new name is read.
      assert.deepEqual(Object.keys(w.events[0]), ['fileName', 'watchEvent', 'action', 'fileStat']);
      assert.deepEqual(Object.keys(w.events[0].fileStat), STAT_KEYS);
      for (const { fileName: f, watchEvent: n, action, fileStat: s } of w.events) {
        const e = JSON.stringify([f, n, action, s]);
        assert.deepEqual([s.isFile, ACTIONS[action - 1], s.absolutePath, s.relativePath, s.name],
          [!n.endsWith('Dir'), n.replace(/Dir$/, ''), p(f), f, path.basename(f)], e);
        if (n === 'rename') assert.equal(s.size, fs.statSync(p(f)).size);
      }
      assert.deepEqual(w.errors, []);
    });
  }
});

// `made` once the watch is ready: adds exactly `reported`, no path `never` matches.
const rules = [
  { name: 'ignoreDirRegs at any depth and an excluded extension',
    options: { ignoreDirRegs: ['node_modules', '\\.git'], extFilter: { excludes: ['bin'] } },
    made: ['node_modules/a/b/', 'node_modules/a/b/deep.txt', 'src/.git/', 'src/.git/HEAD.txt', 'src/kept.txt', 'src/skipped.bin', 'last.txt'],
    reported: ['addDir src', 'add src/kept.txt', 'add last.txt'], never: /node_modules|\.git|\.bin$/ },
  { name: 'two rules: folders matched level by level, all below them, each rule with its own omits and covers',
    options: { fineGrainedDirs: [{ relativeDirPathRegList: ['keep'], omits: [], covers: [{ fileNameReg: '.*', extList: ['jpg'] }] },
      { relativeDirPathRegList: ['docs', '[0-9]+'], omits: [{ fileNameReg: 'draft.*', extList: [] }], covers: [] }] },
    made: ['keep/', 'keep/a.jpg', 'keep/a.txt', 'keep/sub/', 'keep/sub/b.jpg', 'other/', 'other/c.jpg', 'root.jpg',
      'docs/', 'docs/12/', 'docs/12/draft1.txt', 'docs/x/', 'docs/x/report.txt', 'docs/top.txt', 'docs/12/report.txt'],
    reported: ['addDir keep/sub', 'add keep/a.jpg', 'add keep/sub/b.jpg', 'add docs/12/report.txt'] },
  { name: 'a selected folder inside a folder moved in, and an unknown rule shape ignored',
    options: { fineGrainedDirs: [{ relativeDirPathRegList: ['in', 'photos'], omits: [], covers: [] }, { relativeDirPathRegList: ['x'] }] },
    moveIn: ['in/photos/p.jpg', 'in/other/o.jpg'],
    made: ['x/', 'x/z.txt'],
    reported: ['add in/photos/p.jpg'] },
];

test('filters and fine-grained rules', async (t) => {
  for (const row of rules) {
    await t.test(row.name, async (st) => {
      const root = tempDir();
      const w = await watched(st, root, row.options);
      if (row.moveIn) {
        const outside = tempDir();
        for (const rel of row.moveIn) {
          fs.mkdirSync(path.dirname(path.join(outside, rel)), { recursive: true });
          fs.writeFileSync(path.join(outside, rel), 'x');
        }
        fs.renameSync(path.join(outside, 'in'), path.join(root, 'in'));
      }
      for (const m of row.made) {
        const full = path.join(root, ...m.split('/').filter(Boolean));
        if (m.endsWith('/')) fs.mkdirSync(full, { recursive: true });
        else fs.writeFileSync(full, 'x');
      }
      // Every expected event (a new folder's listing may come after later changes), then no more.
      await w.waitFor(() => row.reported.every((e) => has(w.events, ...e.split(' '))));
      await settle(w, 400);
      const adds = pairs(w.events).filter(([n]) => n === 'add' || n === 'addDir').map(([n, r]) => `${n} ${r}`);
      assert.deepEqual([...adds].sort(), [...row.reported].sort());
      for (const [n, r] of pairs(w.events)) assert.ok(!row.never || !row.never.test(r), `${n} ${r}`);
    });
  }
});

// As a copy makes them: none lost while its folder's watch is added, none doubled.
test('new folders given files at once: nothing lost, nothing doubled', async (t) => {
  const root = tempDir();
  const w = await watched(t, root);
  const want = [];
  for (let a = 0; a < (wine ? 3 : 10); a++) {
    // Wine follows b0, made with its parent, only from a moment later and
    // reports no creation of it: files written at once could go unseen there.
    if (wine) {
      fs.mkdirSync(path.join(root, `a${a}`));
      await w.waitFor(() => has(w.events, 'addDir', `a${a}`));
    }
    for (let b = 0; b < 100; b++) {
      fs.mkdirSync(path.join(root, `a${a}`, `b${b}`), { recursive: true });
      for (let f = 0; f < 6; f++) {
        fs.writeFileSync(path.join(root, `a${a}`, `b${b}`, `f${f}.txt`), 'x');
        want.push(`a${a}/b${b}/f${f}.txt`);
      }
    }
  }
  await w.waitFor(allAdded(w, want), 120000).catch(() => {});
  await settle(w, 500);
  const adds = pairs(w.events).filter(([e]) => e === 'add').map(([, r]) => r);
  const got = new Set(adds);
  const lost = want.filter((r) => !got.has(r));
  assert.equal(lost.length, 0, `${lost.length} of ${want.length} lost: ${lost.slice(0, 10)}; errors: ${JSON.stringify(w.errors)}`);
  assert.equal(got.size, adds.length, `${adds.length - got.size} reported twice`);
});

// Each made after the watch is ready, and inside a folder moved in (whose listing reads all).
test('special files, names that are not valid UTF-8, paths past PATH_MAX (Linux)', { skip: !linux && 'Linux only' }, async () => {
  const net = require('net');
  const base = tempDir();
  const root = path.join(base, 'root');
  const moved = path.join(base, 'moved');
  fs.mkdirSync(root);
  const segment = 'd'.repeat(200);
  const levels = 25;  // over 5,000 bytes
  const chain = Array(levels).fill(segment).join('/');
  const sh = (script, cwd) => {
    const r = spawnSync('bash', ['-c', script], { cwd, encoding: 'utf8' });
    assert.equal(r.status, 0, r.stderr);
  };
  const deepMkdir = `for i in $(seq ${levels}); do mkdir ${segment} && cd ${segment}; done`;
  sh(deepMkdir, root);
  sh(`mkdir moved && cd moved && ${deepMkdir} && echo x > deep.txt`, base);
  const servers = [];
  const make = (dir) => {
    spawnSync('mkfifo', [path.join(dir, 'fifo')]);
    fs.symlinkSync('/dev/null', path.join(dir, 'null-link'));
    fs.writeFileSync(Buffer.concat([Buffer.from(dir + '/'), Buffer.from([0x62, 0xff, 0x2e, 0x74])]), 'x');
    servers.push(net.createServer());
    return new Promise((resolve) => servers.at(-1).listen(path.join(dir, 'socket'), resolve));
  };
  const w = await watch(root);
  try {
    await make(root);
    await make(moved);
    fs.writeFileSync(path.join(moved, 'plain.txt'), 'x');
    sh(`for i in $(seq ${levels}); do cd ${segment}; done; echo x > long.txt; sleep 0.3; echo y >> long.txt`, root);
    fs.renameSync(moved, path.join(root, 'moved'));
    fs.writeFileSync(path.join(root, 'last.txt'), 'x');
    const longRel = `${chain}/long.txt`;
    const deepRel = `moved/${chain}/deep.txt`;
    const want = [['add', 'last.txt'], ['add', 'moved/plain.txt'], ['add', longRel], ['change', longRel], ['add', deepRel]];
    await w.waitFor(() => want.every(([n, r]) => has(w.events, n, r)), 20000);
    await settle(w, 400);
    const seen = pairs(w.events);
    assert.ok(!seen.some(([, r]) => /fifo|socket|null-link|\ufffd/.test(r)), JSON.stringify(seen));
    const bad = w.errors.filter((e) => e.code === 'INVALID_NAME');
    assert.equal(bad.length, 2, JSON.stringify(w.errors));
    assert.deepEqual(Object.keys(bad[0]), ['errorCode', 'errorReason', 'code']);
    assert.equal(bad[0].errorCode, 84);
    assert.match(bad[0].errorReason, /b\\xFF\.t/);
    const stat = (rel) => w.events.filter((e) => e.fileName === rel).map(({ fileStat: s }) => [s.isFile, s.readable, s.size]);
    assert.ok(stat(longRel).every(([isFile, readable]) => isFile && !readable), JSON.stringify(stat(longRel)));
    assert.deepEqual(stat(deepRel)[0], [true, true, 2]);
  } finally {
    w.close();
    servers.forEach((s) => s.close());
    spawnSync('rm', ['-rf', base]);
  }
});

// Metadata that cannot be read: the kind the reader saw, unreadable.
test('a file under a folder this user may not search keeps its kind (Linux)', { skip: !isRoot && 'needs root on Linux to run a child as nobody' }, async () => {
  const { spawn } = require('child_process');
  const base = tempDir();
  const locked = path.join(base, 'locked');
  fs.chmodSync(base, 0o755);
  fs.mkdirSync(locked, { mode: 0o755 });
  const child = spawn(process.execPath, ['-e', `const o = require(${index}); const out = [];
    const close = o.StartFileWatch(${JSON.stringify(base)}, (e) => { if (Array.isArray(e)) out.push(...e); }, () => console.log('READY'), {});
    process.stdin.on('data', () => { close(); console.log(JSON.stringify(out.map((e) => [e.watchEvent, e.fileName, e.fileStat.isFile, e.fileStat.readable]))); process.exit(0); });`],
  { uid: 65534, gid: 65534, cwd: repoRoot, stdio: ['pipe', 'pipe', 'pipe'] });
  let stdout = '';
  let stderr = '';
  child.stdout.on('data', (d) => { stdout += d; });
  child.stderr.on('data', (d) => { stderr += d; });
  try {
    for (let i = 0; i < 200 && !/READY/.test(stdout); i++) await sleep(50);
    assert.match(stdout, /READY/, stderr);
    fs.chmodSync(locked, 0o744);  // nobody may list it, not search it
    fs.writeFileSync(path.join(locked, 'f.txt'), 'x');
    await sleep(300);
    fs.appendFileSync(path.join(locked, 'f.txt'), 'y');
    await sleep(1500);
    child.stdin.write('\n');
    await new Promise((resolve) => child.on('exit', resolve));
    const events = JSON.parse(stdout.split('\n').find((l) => l.startsWith('[')));
    // Added and changed, a file each time, unreadable.
    const mine = new Set(events.filter(([, r]) => r === 'locked/f.txt').map(String));
    assert.deepEqual([...mine].sort(), ['add,locked/f.txt,true,false', 'change,locked/f.txt,true,false'], JSON.stringify(events));
  } finally {
    child.kill();
    fs.rmSync(base, { recursive: true, force: true });
  }
});

// Lowered just while a session starts (read when a descriptor is made, or a watch added).
const limits = [
  // Written while this process is stopped: a reader keeping up lost nothing.
  { name: 'an overflow of the event queue', file: '/proc/sys/fs/inotify/max_queued_events', limit: () => 8, fresh: true,
    after: (root) => {
      const r = spawnSync('sh', ['-c', `trap 'kill -CONT $PPID' EXIT; kill -STOP $PPID
        i=0; while [ $i -lt 2000 ]; do : > "$1/o$i"; i=$((i + 1)); done`, 'sh', root]);
      assert.equal(r.status, 0, String(r.stderr));
    } },
  { name: 'folders beyond the watch limit', file: '/proc/sys/fs/inotify/max_user_watches', limit: () => watchesInUse() + 20,
    before: (root) => { for (let i = 0; i < 60; i++) fs.mkdirSync(path.join(root, `f${i}`)); },
    unreported: [28, 'UNWATCHED'], count: 60 },
];

// Sessions share one descriptor, closed with the last: a fresh one reads the limit.
const inotifyOpen = () => fs.readdirSync('/proc/self/fd').some((fd) => {
  try { return fs.readlinkSync(`/proc/self/fd/${fd}`) === 'anon_inode:inotify'; } catch { return false; }
});

// The watches root holds now, in every process.
const watchesInUse = () => Number(spawnSync('sh', ['-c', "find /proc/[0-9]*/fdinfo -maxdepth 1 -type f -user 0 2>/dev/null | xargs grep -sh '^inotify wd:' | wc -l"],
  { encoding: 'utf8' }).stdout);

// The limits are the machine's: scripts/test.sh runs this apart from its Wine lane.
test('inotify limits: losses reported with reportOverflow, the rest watched (Linux)', {
  skip: (!isRoot && 'needs root on Linux to lower the inotify limits') ||
    (process.env.OSTREL_INOTIFY_LIMITS === 'apart' && 'run apart, after the Wine lane (scripts/test.sh)'),
}, async (t) => {
    for (const row of limits) {
      for (const reportOverflow of [true, false]) {
        await t.test(`${row.name}, reportOverflow: ${reportOverflow}`, async () => {
          const root = tempDir();
          if (row.before) row.before(root);
          for (let i = 0; row.fresh && inotifyOpen(); i++) {
            if (i === 200) throw new Error('the sessions before left their inotify descriptor open');
            await sleep(50);
          }
          const saved = fs.readFileSync(row.file, 'utf8').trim();
          let w;
          // Put back when ready, after 10 s at most, and if this process is killed.
          const restore = () => fs.writeFileSync(row.file, saved);
          const onSignal = (sig) => { restore(); process.kill(process.pid, sig); };
          try {
            ['SIGTERM', 'SIGINT'].forEach((sig) => process.once(sig, onSignal));
            fs.writeFileSync(row.file, String(row.limit()));
            try {
              w = await Promise.race([watch(root, { reportOverflow }),
                sleep(10000).then(() => { throw new Error('not ready in 10 s'); })]);
            } finally {
              restore();
              ['SIGTERM', 'SIGINT'].forEach((sig) => process.off(sig, onSignal));
            }
            if (row.after) row.after(root);
            const expected = reportOverflow ? [1022, 'OVERFLOW'] : row.unreported;
            if (expected) await w.waitFor(() => w.errors.length > 0);
            // Reported, or another notice (it once came before the reader read again).
            const notices = w.errors.length;
            fs.writeFileSync(path.join(root, 'after0.txt'), 'x');
            const reported = () => w.events.some((e) => /^after\d+\.txt$/.test(e.fileName));
            for (let i = 1; !reported(); i++) {
              if (i === 50) throw new Error(`no change reported after the loss: ${JSON.stringify(w.errors)}`);
              await sleep(200);
              fs.writeFileSync(path.join(root, `after${i}.txt`), 'x');
            }
            await sleep(1500);
            if (!expected) return assert.deepEqual(w.errors, []);
            assert.ok(has(w.events, 'add', 'after0.txt') || w.errors.length > notices, JSON.stringify(w.errors));
            for (const e of w.errors) assert.deepEqual([e.errorCode, e.code], expected);
            if (row.count) {
              const count = Number(/^(\d+) folders? (is|are) not watched/.exec(w.errors[0].errorReason)[1]);
              assert.ok(count > 0 && count <= row.count, w.errors[0].errorReason);
              assert.equal(w.errors.length, 1, JSON.stringify(w.errors));
            }
          } finally {
            if (w) w.close();
            fs.rmSync(root, { recursive: true, force: true });
          }
        });
      }
    }
  });

test('300 sessions on 300 folders, all ready and reporting', { skip: !linux && 'native Linux only' }, async (t) => {
  const base = tempDir();
  const dirs = Array.from({ length: 300 }, (_, i) => path.join(base, `s${i}`));
  dirs.forEach((d) => fs.mkdirSync(d));
  const sessions = await Promise.all(dirs.map((d) => watched(t, d, {}, base)));
  dirs.forEach((d) => fs.writeFileSync(path.join(d, 'hello.txt'), 'x'));
  await Promise.all(sessions.map((w) => w.waitFor(() => has(w.events, 'add', 'hello.txt'), 20000)));
  for (const w of sessions) assert.ok(pairs(w.events).every(([, r]) => r === 'hello.txt') && !w.errors.length, JSON.stringify(w));
});

// A drive root keeps its separator: whole names, filters on whole components.
const qMapped = wine && fs.existsSync('Q:\\');
test('a drive root: names and filters of a folder moved in (Wine)', { skip: !qMapped && 'needs drive Q: of the Wine prefix (scripts/wine-node maps it)' }, async () => {
  // Beside the drive's folder (build/wine-drive-q), on the same volume.
  const outside = path.join(repoRoot, 'build', `wine-drive-q-outside-${process.pid}`);
  const clean = () => {
    for (const e of fs.readdirSync('Q:\\')) fs.rmSync(path.join('Q:\\', e), { recursive: true, force: true });
    fs.rmSync(outside, { recursive: true, force: true });
  };
  clean();
  // "b" would match "ab" cut short; below "deep", a file past MAX_PATH.
  const deep = ['deep', ...Array(12).fill('x'.repeat(30))];
  const files = { 'ab\\top.txt': 't', 'ab\\sub\\in.txt': 'in', 'ab\\skip\\no.txt': 'no', [`ab\\${deep.join('\\')}\\bottom.txt`]: 'end' };
  for (const [rel, text] of Object.entries(files)) {
    fs.mkdirSync(path.dirname(path.join(outside, rel)), { recursive: true });
    fs.writeFileSync(path.join(outside, rel), text);
  }
  const expected = ['addDir ab', 'add ab\\top.txt', 'addDir ab\\sub', 'add ab\\sub\\in.txt',
    ...deep.map((_, i) => `addDir ab\\${deep.slice(0, i + 1).join('\\')}`), `add ${Object.keys(files)[3]}`];
  assert.ok(`Q:\\${Object.keys(files)[3]}`.length > 260);
  const w = await watch('Q:\\', { ignoreDirRegs: ['b', 'skip'] });
  try {
    fs.renameSync(path.join(outside, 'ab'), 'Q:\\ab');
    await w.waitFor(() => has(w.events, 'add', Object.keys(files)[3].split('\\').join('/')));
    await settle(w, 400);
    const got = w.events.filter((e) => e.watchEvent.startsWith('add')).map((e) => `${e.watchEvent} ${e.fileName}`);
    assert.deepEqual([...got].sort(), [...expected].sort());
    for (const e of w.events.filter((x) => x.watchEvent === 'add')) {
      const { absolutePath, relativePath, name, readable, size } = e.fileStat;
      assert.deepEqual([absolutePath, relativePath, name, readable, size],
        [`Q:\\${e.fileName}`, e.fileName, path.basename(e.fileName), true, files[e.fileName].length]);
    }
  } finally {
    w.close();
    clean();
  }
});
