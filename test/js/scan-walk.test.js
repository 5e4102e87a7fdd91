'use strict';
// The walk against node's fs on a generated tree (every field of every
// object, under every form of the root; on Linux with special files and
// names that are not UTF-8), folders that lead back to an ancestor, and
// folders past the path limit. Deep chains with few descriptors and folders
// that cannot be opened (EMFILE): scan_walk_test.cc, and through the module
// cli.test.js; a root that cannot be listed: scan_walk_test.cc.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { spawnSync } = require('child_process');
const { isWindows, root: repoRoot } = require('./helpers');
const { scan, makeTree, removeTree, relPaths, sep, random, longChain, childScan } = require('./scan-fixture');

// node.exe under Wine: Wine passes its own variables on to the Windows process.
const underWine = isWindows && Boolean(process.env.WINELOADER);

// node's fs is the oracle: a tree generated from a fixed seed (names with
// spaces, dots, accents and astral characters, empty folders, sizes, times
// with sub-millisecond parts) is scanned and walked with fs, and every
// delivered object must match what fs says, once, with nothing missing.
function generatedTree(seed) {
  const next = random(seed);
  const rand = (n) => Math.floor(next() * n);
  const alphabet = ['a', 'b', 'Z', '0', ' ', '.', '-', '_', 'é', 'ß', '😀', '中'];
  // A first-level folder whose name starts with a dot: its files' relativeDir
  // loses the dot.
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

// Linux: a folder "special" holding a FIFO, a socket (served by `server`),
// links to /dev/null, to the FIFO, to a file and to nowhere, files and a
// folder whose names hold the bytes 0xFF or 0xFE, and plain files.
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

// What fs says of the tree, following links to files (the default mode) or
// not (the fast mode): files (relative path -> stat), folders (relative path
// -> empty), special entries, entries other than folders (the walk counts
// them all, delivered or not), and per folder (relative) the names that are
// not UTF-8, which are left out.
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

// The object a file at `rel` must be, from its stat: `absRoot` is the root
// the paths start with, `given` the root as the scan was given it.
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

  await t.test('returnEmptyFolder gives exactly the empty folders', async () => {
    const { dirs, nodes } = await scan(root, { returnEmptyFolder: true });
    assert.deepEqual(relPaths(dirs), [...oracle.dirs].filter(([, empty]) => empty).map(([rel]) => rel).sort());
    assert.equal(nodes.length, oracle.files.size);
  });
});

// ------------------------------------------------------------ link loops --
// A tree whose folders lead back up: a/up is the root again, b/c/back too
// (two levels up). The links are relative, so the tree reads the same from
// any form of its path.
const LOOP_FILES = ['a/f.txt', 'b/c/h.txt', 'g.txt'];
const LOOP_LINKS = { 'a/up': '..', 'b/c/back': '../..' };
// node.exe under Wine can make neither junctions nor symbolic links:
// scripts/test.sh makes this copy of the tree before the runs. Wine shows
// its Unix links to folders as plain folders.
const LOOP_FIXTURE = path.join(repoRoot, 'build', 'test-fixtures', 'link-loop');
const leadsBack = (dir) => fs.existsSync(path.join(dir, 'a', 'up', 'b', 'c', 'back', 'g.txt'));

// The loop tree (junctions on Windows), else the fixture, else null (the
// case skipped).
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
    // Linux never walks into a link; the fast mode reports a link itself,
    // which is no folder, among the files.
    const links = !isWindows && fastMetadata ? Object.keys(LOOP_LINKS) : [];
    assert.deepEqual(relPaths(nodes), [...LOOP_FILES, ...links].sort(), `${what}: every file exactly once`);
    assert.equal(result.complete, true, what);
    assert.deepEqual(result.skippedFolders, [], what);
    // Windows walks into what the listing marks as a folder, so it meets
    // both links and stops at each.
    const expected = isWindows ? Object.keys(LOOP_LINKS).map((rel) => ({ path: path.join(dir, ...rel.split('/')), sameAs: dir })) : [];
    assert.deepEqual([...result.loopedFolders].sort((x, y) => x.path.localeCompare(y.path)), expected, what);
  }
});

// A real loop that Linux walks into: the root bind-mounted on one of its own
// folders, in a private mount namespace of a child process.
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

// On Linux the walk opens each folder relative to its parent and lists the
// whole chain; under Wine, whose paths become Unix paths of at most 4,096
// bytes, the deepest cannot be listed: it is named, and nothing else is
// lost. Every file delivered is queried (paths past 260 characters).
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
