'use strict';
// The walk against node's fs, loops, the path limit, unreadable metadata,
// folders deleted during a scan, a 100,000-file tree counted exactly.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { spawnSync, execFileSync } = require('child_process');
const { isWindows, root: repoRoot } = require('./helpers');
const { ostrel, scan, makeTree, removeTree, relPaths, sep, random, longChain, childScan } = require('./scan-fixture');
const { ensureTree } = require('../../bench/scan/tree');

// node.exe under Wine: Wine passes its own variables on to the Windows process.
const underWine = isWindows && Boolean(process.env.WINELOADER);

// A tree from a fixed seed: names with spaces, dots, accents and astral
// characters, empty folders, sizes, times with sub-millisecond parts.
function generatedTree(seed) {
  const next = random(seed);
  const rand = (n) => Math.floor(next() * n);
  const alphabet = ['a', 'b', 'Z', '0', ' ', '.', '-', '_', 'é', 'ß', '😀', '中'];
  // A first-level dot folder: its files' relativeDir loses the dot.
  const root = makeTree({ files: { '.cache/sub/x.bin': 'x' } });
  const folders = [root];
  const taken = new Set();
  for (let i = 0; i < 400; i++) {
    const parent = folders[rand(folders.length)];
    let name = '';
    for (let n = 1 + rand(8); n > 0; n--) name += alphabet[rand(alphabet.length)];
    name = name.trim();
    const full = path.join(parent, name);
    // One name per folder whatever the case (Windows), never "." or "..".
    if (!name || /^\.+$/.test(name) || name.endsWith('.') || name === '.cache' || taken.has(full.toLowerCase())) continue;
    taken.add(full.toLowerCase());
    if (rand(4) === 0 && parent.split(path.sep).length - root.split(path.sep).length < 5) {
      fs.mkdirSync(full);
      folders.push(full);
    } else {
      fs.writeFileSync(full, Buffer.alloc(rand(3000), 'x'));
      const when = 1e9 + rand(1e9) + rand(1e7) / 1e7;
      fs.utimesSync(full, when, when);
    }
  }
  return root;
}

// Linux: a FIFO, a socket, links to /dev/null, the FIFO, a file and nowhere,
// and names that are not UTF-8.
async function addSpecialEntries(root, server) {
  const at = (...parts) => path.join(root, 'special', ...parts);
  fs.mkdirSync(at('sub', 'deeper'), { recursive: true });
  for (const f of ['a.txt', 'sub/b.txt', 'sub/deeper/c.txt']) fs.writeFileSync(at(...f.split('/')), f);
  assert.equal(spawnSync('mkfifo', [at('fifo')]).status, 0, 'mkfifo');
  await new Promise((resolve, reject) => server.listen(at('sub', 'sock'), resolve).on('error', reject));
  fs.symlinkSync('/dev/null', at('null-link'));
  fs.symlinkSync('../fifo', at('sub', 'fifo-link'));
  fs.symlinkSync('nowhere', at('dangling'));
  fs.symlinkSync('a.txt', at('a-link'));
  const bad = (dir, name, byte) => Buffer.concat([Buffer.from(dir + path.sep + name), Buffer.from([byte])]);
  for (const [dir, name] of [[at(), 'bad'], [at('sub'), 'bad'], [at('sub'), 'worse']]) fs.writeFileSync(bad(dir, name, 0xff), 'x');
  fs.mkdirSync(bad(at('sub', 'deeper'), 'd', 0xfe));
  fs.writeFileSync(Buffer.concat([bad(at('sub', 'deeper'), 'd', 0xfe), Buffer.from('/inside.txt')]), 'x');
}

// What fs says, following links (the default mode) or not (the fast mode):
// files, folders (-> empty), special entries, all entries but folders, and
// per folder the names that are not UTF-8.
function walkWithFs(root, followLinks = true) {
  const o = { files: new Map(), dirs: new Map(), special: 0, entries: 0, invalid: new Map() };
  (function walk(dir, rel) {
    for (const name of fs.readdirSync(dir, { encoding: 'buffer' })) {
      if (!Buffer.from(name.toString()).equals(name)) {
        o.invalid.set(rel, (o.invalid.get(rel) || 0) + 1);
        continue;
      }
      const p = path.join(dir, name.toString());
      const childRel = rel ? `${rel}/${name}` : `${name}`;
      let st = fs.lstatSync(p);
      if (st.isDirectory()) {
        o.dirs.set(childRel, fs.readdirSync(p).length === 0);
        walk(p, childRel);
        continue;
      }
      o.entries++;
      if (followLinks && st.isSymbolicLink()) {
        try {
          st = fs.statSync(p);
        } catch {
          continue;  // dangling: vanished
        }
      }
      if (st.isFile() || st.isSymbolicLink()) o.files.set(childRel, st);
      else o.special++;
    }
  })(root, '');
  return o;
}

// `absRoot`: the root paths start with; `given`: the root as given.
function expectedObject(rel, st, absRoot, given, n, toSecond) {
  const parts = rel.split('/');
  const dir = parts.slice(0, -1);
  if (dir.length) dir[0] = dir[0].replace(/^\./, '');
  const second = (ms) => (toSecond ? Math.floor(ms / 1000) * 1000 : ms);
  return {
    absolutePath: path.join(absRoot, ...parts), name: parts.at(-1), relativeDir: dir.join(sep), relativePath: parts.join(sep),
    dirPath: given, isFile: true, hidden: isWindows ? n.hidden : parts.at(-1).startsWith('.'), isSystem: false,
    size: st.size, ino: st.ino, ctimeMs: second(st.ctimeMs), mtimeMs: second(st.mtimeMs), birthtimeMs: st.birthtimeMs,
    readable: true,
  };
}

test('the scan against node\'s fs on a generated tree', async (t) => {
  const root = generatedTree(21);
  const server = require('net').createServer();
  t.after(() => {
    server.close();
    removeTree(root);
  });
  if (!isWindows) await addSpecialEntries(root, server);
  const oracle = walkWithFs(root);
  assert.ok(oracle.files.size > 200 && oracle.dirs.size > 40, `${oracle.files.size} files, ${oracle.dirs.size} folders`);
  // The FIFO, the socket and the links to /dev/null and to the FIFO.
  if (!isWindows) assert.deepEqual([oracle.special, oracle.invalid.size], [4, 3]);

  // [what, the root as given, the root absolutePath starts with, options]
  const forms = [
    ['as made, with needDirs', root, root, { needDirs: true }],
    ['relative to the working folder', path.relative(process.cwd(), root), root, {}],
    ['with formatMsToSecond (ctimeMs and mtimeMs only)', root, root, { formatMsToSecond: true }],
    ['in the fast mode (paths and counts; links are not followed)', root, root, { fastMetadata: true, needDirs: true }],
    ...(isWindows ? [['in the \\\\?\\ form', `\\\\?\\${root}`, `\\\\?\\${root}`, {}],
      ['in the \\\\?\\ form with a trailing separator', `\\\\?\\${root}\\`, `\\\\?\\${root}`, {}]] : []),
  ];
  for (const [what, given, absRoot, options] of forms) {
    await t.test(`every file once with every field, the root ${what}`, async () => {
      const fast = Boolean(options.fastMetadata);
      const expected = fast ? walkWithFs(root, false) : oracle;
      const { nodes, dirs, result } = await scan(given, options);
      assert.deepEqual(relPaths(nodes), [...expected.files.keys()].sort());
      for (const n of fast ? [] : nodes) {
        const rel = n.relativePath.split(sep).join('/');
        assert.deepEqual(n, expectedObject(rel, expected.files.get(rel), absRoot, given, n, options.formatMsToSecond), rel);
      }
      assert.deepEqual(relPaths(dirs), options.needDirs ? [...expected.dirs.keys()].sort() : []);
      assert.ok(dirs.every((d) => d.isFile === false));
      for (const d of fast ? [] : dirs) assert.equal(d.mtimeMs, fs.statSync(d.absolutePath).mtimeMs, d.relativePath);
      const invalid = [...expected.invalid].map(([rel, count]) => ({ path: rel ? path.join(given, ...rel.split('/')) : given, count }));
      const byPath = (x, y) => x.path.localeCompare(y.path);
      assert.deepEqual({ ...result, invalidNameFolders: [...result.invalidNameFolders].sort(byPath) }, {
        fileCountBeyondLimit: false, totalFileCount: expected.entries, filteredFileCount: 0, hiddenSystemFileCount: 0,
        specialFileCount: expected.special, invalidNameCount: invalid.reduce((sum, f) => sum + f.count, 0),
        // Left-out names make the scan incomplete; nothing was skipped.
        complete: invalid.length === 0, skippedFolders: [], loopedFolders: [], invalidNameFolders: invalid.sort(byPath),
      });
    });
  }

  await t.test('a root that cannot be listed is named with the system\'s code', async () => {
    const file = [...oracle.files.keys()].find((k) => !k.startsWith('special/'));
    for (const [rel, codes] of [['missing/deeper', isWindows ? [2, 3] : [2]], [file, [isWindows ? 267 : 20]]]) {
      const given = path.join(root, ...rel.split('/'));
      const { nodes, result } = await scan(given);
      assert.deepEqual([nodes.length, result.totalFileCount, result.complete, result.skippedFolders.map((s) => s.path)], [0, 0, false, [given]]);
      assert.ok(codes.includes(result.skippedFolders[0].code) && result.skippedFolders[0].reason, JSON.stringify(result));
    }
  });

  await t.test('returnEmptyFolder gives exactly the empty folders', async () => {
    const { dirs, nodes } = await scan(root, { returnEmptyFolder: true });
    assert.deepEqual(relPaths(dirs), [...oracle.dirs].filter(([, empty]) => empty).map(([rel]) => rel).sort());
    assert.equal(nodes.length, oracle.files.size);
  });
});

// a/up and b/c/back lead back to the root (relative links).
const LOOP_FILES = ['a/f.txt', 'b/c/h.txt', 'g.txt'];
const LOOP_LINKS = { 'a/up': '..', 'b/c/back': '../..' };
// node.exe under Wine can make no links: scripts/test.sh makes this copy.
const LOOP_FIXTURE = path.join(repoRoot, 'build', 'test-fixtures', 'link-loop');
const leadsBack = (dir) => fs.existsSync(path.join(dir, 'a', 'up', 'b', 'c', 'back', 'g.txt'));

// The loop tree (junctions on Windows), else the fixture, else null.
function loopTree(t) {
  const dir = makeTree({ files: Object.fromEntries(LOOP_FILES.map((rel) => [rel, rel])) });
  t.after(() => removeTree(dir));
  try {
    for (const [rel, target] of Object.entries(LOOP_LINKS)) {
      const link = path.join(dir, ...rel.split('/'));
      fs.symlinkSync(isWindows ? path.resolve(path.dirname(link), target) : target, link, isWindows ? 'junction' : 'dir');
    }
  } catch {
    // no links here
  }
  if (leadsBack(dir)) return dir;
  if (isWindows && leadsBack(LOOP_FIXTURE)) return LOOP_FIXTURE;
  t.skip(`no links here and no ${LOOP_FIXTURE} (scripts/test.sh makes it)`);
  return null;
}

test('a folder that leads back to one of its ancestors is not walked again', async (t) => {
  const dir = loopTree(t);
  if (!dir) return;
  for (const fastMetadata of [false, true]) {
    const what = fastMetadata ? 'fast' : 'default';
    const { nodes, result } = await scan(dir, { fastMetadata });
    // Linux never walks into a link; the fast mode lists it among the files.
    const links = !isWindows && fastMetadata ? Object.keys(LOOP_LINKS) : [];
    assert.deepEqual(relPaths(nodes), [...LOOP_FILES, ...links].sort(), `${what}: every file exactly once`);
    assert.equal(result.complete, true, what);
    assert.deepEqual(result.skippedFolders, [], what);
    // Windows walks into both links and stops at each.
    const expected = isWindows ? Object.keys(LOOP_LINKS).map((rel) => ({ path: path.join(dir, ...rel.split('/')), sameAs: dir })) : [];
    assert.deepEqual([...result.loopedFolders].sort((x, y) => x.path.localeCompare(y.path)), expected, what);
  }
});

// The root bind-mounted on one of its own folders, in a private namespace.
test('a folder mounted inside its own tree is walked once (Linux)', { skip: isWindows && 'Linux only' }, (t) => {
  if (spawnSync('unshare', ['-m', 'true']).status !== 0) {
    t.skip('needs unshare -m (root)');
    return;
  }
  const root = makeTree({ files: { 'a/f.txt': '', 'b/g.txt': '', 'top.txt': '' }, folders: ['a/mount'] });
  t.after(() => removeTree(root));
  const { nodes, r } = childScan('scanAll(process.argv[1], { needDirs: true }).then(report);', {
    prefix: ['unshare', '-m', 'sh', '-c', 'mount --bind "$1" "$1/a/mount" && shift && exec "$@"', 'sh', root],
    args: [root],
  });
  assert.deepEqual(relPaths(nodes), ['a/f.txt', 'b/g.txt', 'top.txt']);
  assert.equal(r.complete, true);
  assert.deepEqual(r.loopedFolders, [{ path: path.join(root, 'a', 'mount'), sameAs: root }]);
});

// Linux lists the whole chain (each folder opened relative to its parent);
// under Wine (Unix paths of at most 4,096 bytes) the deepest is named.
test('a folder nested past the path limit is listed or named, and the walk goes on', async (t) => {
  const base = makeTree({ files: { 'before.txt': '', 'zafter/after.txt': '' } });
  const files = ['before.txt', 'zafter/after.txt', ...longChain(t, base)];
  const { nodes, result } = await scan(base);
  const delivered = new Set(relPaths(nodes));
  const skipped = result.skippedFolders.map((s) => s.path + path.sep);
  for (const rel of files) {
    const beneath = skipped.some((p) => path.join(base, ...rel.split('/')).startsWith(p));
    assert.ok(delivered.has(rel) !== beneath, `${rel}: delivered ${delivered.has(rel)}, beneath a skipped folder ${beneath}`);
  }
  assert.ok(nodes.every((n) => n.readable && n.mtimeMs > 0), 'every delivered file queried');
  assert.deepEqual(result.loopedFolders, []);
  assert.equal(result.complete, !underWine, JSON.stringify(result.skippedFolders));
  assert.equal(result.skippedFolders.length, underWine ? 1 : 0);
  if (underWine) {
    const [skipped0] = result.skippedFolders;
    assert.ok(Number.isInteger(skipped0.code) && skipped0.code > 0 && skipped0.reason.length > 0, JSON.stringify(skipped0));
    assert.ok(nodes.length >= 4, 'the files before the limit and the other folders are delivered');
  }
});

test('hidden+system files and folders are dropped and counted; hidden-only and system-only are kept (Windows)', {
  skip: !isWindows && 'Windows attributes',
}, async (t) => {
  const root = makeTree({ files: { 'both.txt': '', 'hidden.txt': '', 'system.txt': '', 'plain.txt': '' }, folders: ['hsdir'] });
  t.after(() => removeTree(root));
  // Wine's attrib takes one attribute per call.
  for (const [name, flags] of [['both.txt', '+h +s'], ['hidden.txt', '+h'], ['system.txt', '+s'], ['hsdir', '+h +s']]) {
    for (const f of flags.split(' ')) execFileSync('attrib', [f, path.join(root, name)]);
  }
  const { nodes, dirs, result } = await scan(root, { needDirs: true });
  assert.deepEqual(nodes.map((n) => [n.name, n.hidden, n.isSystem]).sort(),
    [['hidden.txt', true, false], ['plain.txt', false, false], ['system.txt', false, true]]);
  assert.deepEqual(dirs, [], 'a hidden+system folder is dropped too');
  assert.deepEqual([result.totalFileCount, result.filteredFileCount, result.hiddenSystemFileCount, result.complete], [4, 1, 1, true]);
});

// A denied query: the listing's kind, readable false, every number 0.
function checkDenied(nodes, r) {
  const byName = Object.fromEntries(nodes.map((n) => [n.name, n]));
  assert.equal(byName['open.txt'].readable, true);
  assert.ok(byName['open.txt'].size > 0);
  const { readable, isFile, size, ino, mtimeMs, ctimeMs, birthtimeMs } = byName['secret.txt'] || {};
  assert.deepEqual({ readable, isFile, size, ino, mtimeMs, ctimeMs, birthtimeMs },
    { readable: false, isFile: true, size: 0, ino: 0, mtimeMs: 0, ctimeMs: 0, birthtimeMs: 0 }, JSON.stringify(nodes));
  assert.equal(r.totalFileCount, 2);
}

// Windows: scripts/test.sh makes the fixture and a Wine server without DAC
// override. Linux: a folder of mode r-- (listed, statx fails with EACCES)
// and one of mode --- (left out), scanned as "nobody".
test('a file whose metadata may not be read is delivered unreadable', async (t) => {
  if (isWindows) {
    const fixture = process.env.OSTREL_DENIED_FIXTURE;
    if (!fixture) return t.skip('needs OSTREL_DENIED_FIXTURE and a Wine server without DAC override (scripts/test.sh sets both)');
    const { nodes, result } = await scan(path.resolve(repoRoot, fixture));
    return checkDenied(nodes, result);
  }
  const asRoot = process.getuid() === 0;
  if (asRoot && spawnSync('setpriv', ['--help']).status !== 0) return t.skip('setpriv cannot run the scan as an unprivileged user');
  const root = makeTree({ files: { 'locked/secret.txt': 'secret', 'open.txt': 'open', 'closed/unseen.txt': '' } });
  t.after(() => {
    for (const d of ['locked', 'closed']) fs.chmodSync(path.join(root, d), 0o755);
    removeTree(root);
  });
  fs.chmodSync(root, 0o755);
  fs.chmodSync(path.join(root, 'locked'), 0o444);
  fs.chmodSync(path.join(root, 'closed'), 0o000);
  const { nodes, r } = childScan(`scanAll(${JSON.stringify(root)}).then(report);`, {
    prefix: asRoot ? ['setpriv', '--reuid=nobody', '--regid=nogroup', '--clear-groups'] : [],
  });
  checkDenied(nodes, r);
  // A folder below the root that may not be listed at all stays silent.
  assert.deepEqual([r.complete, r.skippedFolders], [true, []]);
});

// In the first update every folder is moved out (as to the recycle bin;
// Windows refuses the one being listed) and deleted: entries listed but
// waiting for their query vanish. Natively one folder of 110,000 files
// holds the walk (it waits once 100,000 records wait for script); under
// Wine, where files are slow to write, the tree grows until it is caught.
test('files of folders deleted during the scan vanish: no ghost records, no retries', { timeout: 600000 }, async (t) => {
  const shapes = isWindows ? [[40, 100], [80, 100], [160, 100]] : [[1, 110000]];
  for (const [folders, perFolder] of shapes) {
    const files = {};
    for (let d = 0; d < folders; d++) for (let i = 0; i < perFolder; i++) files[`d${d}/f${i}.txt`] = '';
    const root = makeTree({ files });
    const trash = `${root}-trash`;
    t.after(() => {
      removeTree(root);
      removeTree(trash);
    });
    const r = childScan(
      `const fs = require('fs');
       const path = require('path');
       const root = ${JSON.stringify(root)};
       const trash = ${JSON.stringify(trash)};
       let delivered = 0, unreadable = 0, removed = -1;
       ostrel.ScanAllSubFiles(root, (u) => {
         delivered += u.nodes.length;
         unreadable += u.nodes.filter((n) => !n.readable).length;
         if (removed >= 0) return;
         removed = 0;
         fs.mkdirSync(trash);
         for (const d of fs.readdirSync(root)) {
           try {
             fs.renameSync(path.join(root, d), path.join(trash, d));
             removed++;
           } catch (err) {
             if (err.code !== 'EBUSY' && err.code !== 'EPERM') throw err;  // open in the walk (Windows)
           }
         }
         fs.rmSync(trash, { recursive: true, force: true });
       }, (res) => report({ delivered, unreadable, removed, res }), {});`,
    );
    const { delivered, unreadable, removed, res } = r;
    assert.equal(unreadable, 0, 'no record of a deleted file is delivered as unreadable');
    assert.doesNotMatch(r.stdout + r.stderr, /FillFileInfoAsync|ScanFileUpdate/, 'no retry line, no failing callback');
    assert.equal(res.complete, true, JSON.stringify(res.skippedFolders));
    assert.ok(removed > 0, 'folders were removed');
    const vanished = res.totalFileCount - res.filteredFileCount - delivered;
    assert.ok(vanished >= 0, `${delivered} delivered of ${res.totalFileCount}`);
    t.diagnostic(`${folders} folders: ${removed} removed, ${delivered} files delivered, ${vanished} vanished`);
    if (vanished > 0) return;
    // No listed entry was caught waiting: try a bigger tree (Wine), or fail.
    removeTree(root);
  }
  assert.fail('the walk was never caught with entries of a deleted folder waiting');
});

// The benchmark's tree (under Wine written natively first: node
// bench/scan/run.js --generate-only; the fast listing there). Its updates
// are cut into pieces of text: every record's paths must read back whole.
test('a 100,000-file scan counts the tree exactly, in few updates', { timeout: 600000 }, async (t) => {
  let tree;
  try {
    tree = ensureTree({ repoRoot, files: 100000, generate: !isWindows });
  } catch (err) {
    t.skip(err.message);
    return;
  }
  const options = isWindows ? { fastMetadata: true, needDirs: true } : { needDirs: true };
  const got = { files: 0, dirs: 0, bytes: 0, updates: 0, empty: 0, torn: [] };
  const seen = new Set();
  const result = await new Promise((resolve) => {
    ostrel.ScanAllSubFiles(tree.dir, (u) => {
      got.updates++;
      if (u.nodes.length + u.dirs.length === 0) got.empty++;
      got.files += u.nodes.length;
      got.dirs += u.dirs.length;
      for (const n of [...u.nodes, ...u.dirs]) {
        if (n.absolutePath !== path.join(tree.dir, n.relativePath) || path.basename(n.relativePath) !== n.name) got.torn.push(n);
      }
      for (const n of u.nodes) {
        got.bytes += n.size;
        seen.add(n.relativePath);
      }
    }, resolve, options);
  });
  assert.deepEqual([result.totalFileCount, result.filteredFileCount, seen.size], [tree.files, 0, tree.files]);
  assert.deepEqual([got.files, got.dirs, got.bytes, got.empty], [tree.files, tree.folders, tree.bytes, 0]);
  assert.deepEqual(got.torn.slice(0, 3), [], 'every record\'s paths read back whole');
  // One update per 100 ms of walking at most, or per 8,192 records.
  assert.ok(got.updates < tree.files / 100, `${got.updates} updates`);
});
