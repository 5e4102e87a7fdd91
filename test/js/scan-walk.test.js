'use strict';
// The walk: a missing root, "." and "..", folders in "dirs" on request,
// empty folders, the result object, folders that lead back to an ancestor
// and folders that cannot be listed.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { spawnSync } = require('child_process');
const { isWindows, root: repoRoot, buildDir } = require('./helpers');
const { scan, makeTree, removeTree, relPaths, sep } = require('./scan-fixture');

const COUNTS = ['fileCountBeyondLimit', 'totalFileCount', 'filteredFileCount', 'hiddenSystemFileCount'];
const NOT_DELIVERED = ['specialFileCount', 'invalidNameCount'];
const ACCOUNTS = ['complete', 'skippedFolders', 'loopedFolders', 'invalidNameFolders'];
// node.exe under Wine: Wine passes its own variables on to the Windows process.
const underWine = isWindows && Boolean(process.env.WINELOADER);

test('a root that does not exist, or is a file, gives no update, zero counts and an incomplete scan naming it', async (t) => {
  const root = makeTree({ files: { 'f.txt': '' } });
  t.after(() => removeTree(root));
  const cases = [
    ['missing', path.join(root, 'nope'), isWindows ? [2, 3] : [2]],
    ['missing parent', path.join(root, 'nope', 'deeper'), isWindows ? [2, 3] : [2]],
    ['a file', path.join(root, 'f.txt'), isWindows ? [267] : [20]],
  ];
  for (const [what, given, codes] of cases) {
    const { updates, result } = await scan(given);
    assert.equal(updates.length, 0, what);
    assert.deepEqual(COUNTS.map((k) => result[k]), [false, 0, 0, 0], what);
    assert.equal(result.complete, false, what);
    assert.equal(result.skippedFolders.length, 1, what);
    const [skipped] = result.skippedFolders;
    assert.equal(skipped.path, given, what);
    assert.ok(codes.includes(skipped.code), `${what}: code ${skipped.code}`);
    assert.equal(typeof skipped.reason, 'string');
    assert.ok(skipped.reason.length > 0, what);
  }
});

// node's fs is the oracle: a tree generated from a fixed seed (names with
// spaces, dots, accents and astral characters, empty folders, sizes, times
// with sub-millisecond parts) is scanned and walked with fs, and every
// delivered object must match what fs says, once, with nothing missing.
function generatedTree(seed) {
  let x = seed;
  const rand = (n) => {
    x = (x + 0x6d2b79f5) | 0;
    let r = Math.imul(x ^ (x >>> 15), 1 | x);
    r = (r + Math.imul(r ^ (r >>> 7), 61 | r)) ^ r;
    return (((r ^ (r >>> 14)) >>> 0) % n);
  };
  const alphabet = ['a', 'b', 'Z', '0', ' ', '.', '-', '_', 'é', 'ß', '😀', '中'];
  const root = makeTree();
  const folders = [root];
  const taken = new Set();
  for (let i = 0; i < 400; i++) {
    const parent = folders[rand(folders.length)];
    let name = '';
    for (let n = 1 + rand(8); n > 0; n--) name += alphabet[rand(alphabet.length)];
    name = name.trim();
    const full = path.join(parent, name);
    // One name per folder whatever the case (Windows), never "." or "..".
    if (!name || /^\.+$/.test(name) || name.endsWith('.') || taken.has(full.toLowerCase())) continue;
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

function walkWithFs(root) {
  const files = new Map();
  const dirs = new Map();
  (function walk(dir) {
    for (const e of fs.readdirSync(dir, { withFileTypes: true })) {
      const p = path.join(dir, e.name);
      const rel = path.relative(root, p).split(path.sep).join('/');
      if (e.isDirectory()) {
        dirs.set(rel, fs.readdirSync(p).length === 0);
        walk(p);
      } else {
        files.set(rel, fs.statSync(p));
      }
    }
  })(root);
  return { files, dirs };
}

test('the scan against node\'s fs on a generated tree', async (t) => {
  const root = generatedTree(21);
  t.after(() => removeTree(root));
  const oracle = walkWithFs(root);
  assert.ok(oracle.files.size > 200 && oracle.dirs.size > 40, `${oracle.files.size} files, ${oracle.dirs.size} folders`);

  await t.test('every file once, with its size, id and times; every folder with needDirs', async () => {
    const { nodes, dirs, result } = await scan(root, { needDirs: true });
    assert.deepEqual(relPaths(nodes), [...oracle.files.keys()].sort());
    assert.deepEqual(relPaths(dirs), [...oracle.dirs.keys()].sort());
    for (const n of nodes) {
      const rel = n.relativePath.split(sep).join('/');
      const st = oracle.files.get(rel);
      assert.deepEqual(
        [n.name, n.absolutePath, n.dirPath, n.isFile, n.size, n.ino, n.mtimeMs, n.ctimeMs, n.birthtimeMs, n.readable],
        [path.basename(rel), path.join(root, ...rel.split('/')), root, true, st.size, st.ino, st.mtimeMs, st.ctimeMs,
          st.birthtimeMs, true],
        rel,
      );
    }
    assert.ok(dirs.every((d) => d.isFile === false));
    assert.deepEqual(Object.keys(result), [...COUNTS, ...NOT_DELIVERED, ...ACCOUNTS]);
    assert.deepEqual(result, {
      fileCountBeyondLimit: false, totalFileCount: oracle.files.size, filteredFileCount: 0, hiddenSystemFileCount: 0,
      specialFileCount: 0, invalidNameCount: 0, complete: true, skippedFolders: [], loopedFolders: [], invalidNameFolders: [],
    });
  });

  await t.test('without needDirs no folder; returnEmptyFolder gives exactly the empty ones', async () => {
    assert.deepEqual((await scan(root)).dirs, []);
    const { dirs, nodes } = await scan(root, { returnEmptyFolder: true });
    assert.deepEqual(relPaths(dirs), [...oracle.dirs].filter(([, empty]) => empty).map(([rel]) => rel).sort());
    assert.equal(nodes.length, oracle.files.size);
  });

  await t.test('a folder ignored by name is skipped with its whole sub-tree', async () => {
    const name = [...oracle.dirs.keys()].find((rel) => !rel.includes('/') && [...oracle.files.keys()].some((f) => f.startsWith(rel + '/')));
    assert.ok(name, 'the seed gives a top-level folder holding files');
    const { nodes } = await scan(root, { ignoreDirRegs: [name.replace(/[.*+?^${}()|[\]\\]/g, '\\$&')] });
    const kept = [...oracle.files.keys()].filter((rel) => !rel.split('/').slice(0, -1).includes(name)).sort();
    assert.deepEqual(relPaths(nodes), kept);
  });
});

// ------------------------------------------------------------ link loops --
// A tree whose folders lead back up: a/up is the root again, b/c/back too
// (two levels up). The links are relative, so the tree reads the same from
// any form of its path.
const LOOP_FILES = ['a/f.txt', 'b/c/h.txt', 'g.txt'];
const LOOP_LINKS = { 'a/up': '..', 'b/c/back': '../..' };
// Made by the native run for the Wine run: node.exe under Wine can make
// neither junctions nor symbolic links.
const LOOP_FIXTURE = path.join(repoRoot, 'build', 'test-fixtures', 'link-loop');

// Wine shows a Unix link to a folder as a plain folder, so the native
// fixture is only checked for being there (`made` false).
function linksWork(dir, made = true) {
  return Object.keys(LOOP_LINKS).every((rel) => {
    const link = path.join(dir, ...rel.split('/'));
    try {
      return (!made || fs.lstatSync(link).isSymbolicLink()) && fs.statSync(link).isDirectory();
    } catch {
      return false;
    }
  });
}

function writeLoopTree(dir) {
  fs.rmSync(dir, { recursive: true, force: true });
  for (const rel of LOOP_FILES) {
    const file = path.join(dir, ...rel.split('/'));
    fs.mkdirSync(path.dirname(file), { recursive: true });
    fs.writeFileSync(file, rel);
  }
  for (const [rel, target] of Object.entries(LOOP_LINKS)) {
    const link = path.join(dir, ...rel.split('/'));
    const attempts = isWindows ? [['junction', path.resolve(path.dirname(link), target)], ['dir', target]] : [['dir', target]];
    for (const [type, to] of attempts) {
      try {
        fs.symlinkSync(to, link, type);
        if (linksWork(dir) || fs.existsSync(link)) break;
      } catch {
        // try the next kind of link
      }
    }
  }
  return linksWork(dir);
}

// The loop tree, or null when this platform cannot make one (Wine) and the
// native run has not left one behind.
function loopTree(t) {
  const own = makeTree();
  t.after(() => removeTree(own));
  if (writeLoopTree(own)) {
    // Leave a copy for the Wine run (scripts/test.sh makes one before the
    // runs; it is never rewritten while the Wine run may be reading it).
    if (!isWindows && !linksWork(LOOP_FIXTURE)) writeLoopTree(LOOP_FIXTURE);
    return own;
  }
  if (linksWork(LOOP_FIXTURE, false)) return LOOP_FIXTURE;
  t.skip(`no links here and no ${LOOP_FIXTURE} (the native run of this suite makes it)`);
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
    const looped = [...result.loopedFolders].sort((x, y) => x.path.localeCompare(y.path));
    if (isWindows) {
      // Windows walks into what the listing marks as a folder, so it meets
      // both links and stops at each.
      const expected = Object.keys(LOOP_LINKS).map((rel) => ({ path: path.join(dir, ...rel.split('/')), sameAs: dir }));
      assert.deepEqual(looped, expected, what);
    } else {
      assert.deepEqual(looped, [], what);
    }
  }
});

// A real loop that Linux walks into: the root bind-mounted on one of its own
// folders, in a private mount namespace of a child process.
test('a folder mounted inside its own tree is walked once (Linux)', { skip: isWindows && 'Linux only' }, (t) => {
  const probe = spawnSync('unshare', ['-m', 'true']);
  if (probe.status !== 0) {
    t.skip('needs unshare -m (root)');
    return;
  }
  const root = makeTree({ files: { 'a/f.txt': '', 'b/g.txt': '', 'top.txt': '' }, folders: ['a/mount'] });
  t.after(() => removeTree(root));
  const source = `process.env.OSTREL_BUILD_DIR = ${JSON.stringify(buildDir())};
    const ostrel = require(${JSON.stringify(repoRoot)});
    const files = [];
    ostrel.ScanAllSubFiles(process.argv[1], (u) => files.push(...u.nodes.map((n) => n.relativePath)),
      (r) => console.log('RESULT ' + JSON.stringify({ files, r })), { needDirs: true });`;
  const r = spawnSync(
    'unshare',
    ['-m', 'sh', '-c', 'mount --bind "$1" "$1/a/mount" && exec "$2" -e "$3" "$1"', 'sh', root, process.execPath, source],
    { encoding: 'utf8', timeout: 60000 },
  );
  const line = (r.stdout || '').split('\n').find((l) => l.startsWith('RESULT '));
  assert.ok(line, `status ${r.status}: ${r.stdout} ${r.stderr}`);
  const { files, r: result } = JSON.parse(line.slice(7));
  assert.deepEqual(files.sort(), ['a/f.txt', 'b/g.txt', 'top.txt']);
  assert.equal(result.complete, true);
  assert.deepEqual(result.loopedFolders, [{ path: path.join(root, 'a', 'mount'), sameAs: root }]);
});

// ----------------------------------------------- folders that cannot be listed --
// Every file of `files` (paths relative to root) is either delivered or lies
// beneath a folder the result names: nothing is lost silently.
function assertAccountedFor(root, files, nodes, result) {
  const delivered = new Set(relPaths(nodes));
  const skipped = result.skippedFolders.map((s) => s.path + path.sep);
  for (const rel of files) {
    const full = path.join(root, ...rel.split('/'));
    const beneath = skipped.some((p) => full.startsWith(p));
    assert.ok(delivered.has(rel) !== beneath, `${rel}: delivered ${delivered.has(rel)}, beneath a skipped folder ${beneath}`);
  }
  assert.equal(result.complete, result.skippedFolders.length === 0);
}

// A chain of folders whose names are long, made under a short name and then
// renamed to a long one, so that its deepest folders lie past the longest
// path the file system calls take. On Linux the walk opens each folder
// relative to its parent and lists them all; under Wine, whose paths become
// Unix paths of at most 4,096 bytes, the deepest cannot be listed.
test('a folder nested past the path limit is listed or named, and the walk goes on', async (t) => {
  const base = makeTree({ files: { 'before.txt': '', 'zafter/after.txt': '' } });
  const long = (i) => `d${i}_`.padEnd(240, 'x');
  const short = path.join(base, 't');
  const renamed = path.join(base, long(99));
  t.after(() => {
    // Back to the short name first: the long paths cannot be removed.
    try {
      fs.renameSync(renamed, short);
    } catch {
      // not renamed yet
    }
    removeTree(base);
  });
  const files = ['before.txt', 'zafter/after.txt'];
  fs.mkdirSync(short);
  fs.writeFileSync(path.join(short, 'top.txt'), '');
  files.push(`${long(99)}/top.txt`);
  let dir = short;
  let rel = long(99);
  for (let i = 0; i < 20; i++) {
    const next = path.join(dir, long(i));
    try {
      fs.mkdirSync(next);
    } catch {
      break;  // the path limit of the system calls
    }
    try {
      fs.writeFileSync(path.join(next, 'f.txt'), '');
    } catch {
      fs.rmdirSync(next);
      break;
    }
    dir = next;
    rel += `/${long(i)}`;
    files.push(`${rel}/f.txt`);
  }
  fs.renameSync(short, renamed);
  const { nodes, result } = await scan(base);
  assertAccountedFor(base, files, nodes, result);
  assert.deepEqual(result.loopedFolders, []);
  if (underWine) {
    assert.equal(result.complete, false);
    assert.equal(result.skippedFolders.length, 1, JSON.stringify(result.skippedFolders));
    const [skipped] = result.skippedFolders;
    assert.ok(skipped.path.startsWith(renamed + path.sep), skipped.path);
    assert.ok(Number.isInteger(skipped.code) && skipped.code > 0, String(skipped.code));
    assert.ok(skipped.reason.length > 0);
    assert.ok(nodes.length >= 4, 'the files before the limit and the other folders are delivered');
  } else {
    assert.equal(result.complete, true, JSON.stringify(result.skippedFolders));
    assert.equal(nodes.length, files.length);
  }
});

// Linux, with the limit of open files set low (`ulimit -n 64`): two chains
// of 120 folders (a folder is closed once it is listed and its sub-folders
// are open, so the walk needs no descriptor per level), then the same tree
// with every descriptor but one taken before the scan: the root opens, the
// folders below it cannot (EMFILE), and each is skipped, named with its
// error, while the walk goes on to the next one.
// The sanitizers test whether memory is readable through a pipe they open;
// with the descriptors used up that fails and UBSan reports every virtual
// call as one on an invalid object, so the case runs on the plain build only.
const sanitized = /asan|tsan/.test(process.env.LD_PRELOAD || '');
test('deep folders need no descriptor per level; folders that cannot be opened are skipped and named (Linux)', {
  skip: (isWindows && 'Linux only') || (sanitized && 'sanitizers need descriptors of their own'),
}, (t) => {
  const files = { 'top.txt': '', 'p/shallow.txt': '', 'q/shallow.txt': '' };
  const deep = (b) => `${b}/${Array.from({ length: 120 }, (_, i) => `l${i}`).join('/')}/leaf.txt`;
  files[deep('p')] = '';
  files[deep('q')] = '';
  const root = makeTree({ files });
  t.after(() => removeTree(root));
  const scan = (takeDescriptors) => {
    const source = `process.env.OSTREL_BUILD_DIR = ${JSON.stringify(buildDir())};
      const fs = require('fs');
      const ostrel = require(${JSON.stringify(repoRoot)});
      const held = [];
      if (${takeDescriptors}) {
        try { for (;;) held.push(fs.openSync('/dev/null', 'r')); } catch (e) { if (e.code !== 'EMFILE') throw e; }
        fs.closeSync(held.pop());
      }
      const files = [];
      ostrel.ScanAllSubFiles(process.argv[1], (u) => files.push(...u.nodes.map((n) => n.relativePath)),
        (r) => console.log('RESULT ' + JSON.stringify({ files, r, held: held.length })), {});`;
    const r = spawnSync('sh', ['-c', 'ulimit -n 64 && exec "$1" -e "$2" "$3"', 'sh', process.execPath, source, root], {
      encoding: 'utf8',
      timeout: 60000,
    });
    const line = (r.stdout || '').split('\n').find((l) => l.startsWith('RESULT '));
    assert.ok(line, `status ${r.status}: ${r.stdout} ${r.stderr}`);
    return { ...JSON.parse(line.slice(7)), stderr: r.stderr };
  };

  const whole = scan(false);
  assert.deepEqual(whole.r.skippedFolders, []);
  assert.equal(whole.r.complete, true);
  assert.deepEqual(whole.files.sort(), Object.keys(files).sort());

  const starved = scan(true);
  assert.ok(starved.held > 0);
  assert.deepEqual(starved.files, ['top.txt']);
  assert.equal(starved.r.complete, false);
  assert.equal(starved.r.totalFileCount, 1);
  const skipped = [...starved.r.skippedFolders].sort((x, y) => x.path.localeCompare(y.path));
  assert.deepEqual(skipped.map((s) => s.path), [path.join(root, 'p'), path.join(root, 'q')]);
  for (const s of skipped) {
    assert.equal(s.code, 24);  // EMFILE
    assert.match(s.reason, /too many open files/i);
  }
  // One line per skipped folder on standard error.
  assert.equal(starved.stderr.split('\n').filter((l) => l.startsWith('ScanAllSubFiles: skipped ')).length, 2, starved.stderr);
  assertAccountedFor(root, Object.keys(files), starved.files.map((p) => ({ relativePath: p })), starved.r);
});

// ------------------------------- special files and names that are not UTF-8 --
// A tree holding a FIFO, a socket, links to /dev/null and to the FIFO, a
// dangling link, a file and a folder whose names hold the byte 0xFF, and
// plain files beside them. node's fs is the oracle: it reads names as bytes
// and tells each entry's kind, with (default mode) or without (fast mode)
// following links.
function validName(buf) {
  return Buffer.from(buf.toString('utf8'), 'utf8').equals(buf);
}

// What the scan must report for `root`: delivered files (relative paths),
// special entries, and per folder the names left out.
function oracle(root, followLinks) {
  const files = [];
  let special = 0;
  const invalid = new Map();
  const walk = (dir, rel) => {
    for (const name of fs.readdirSync(dir, { encoding: 'buffer' })) {
      const full = Buffer.concat([Buffer.from(dir + path.sep), name]);
      if (!validName(name)) {
        invalid.set(dir, (invalid.get(dir) || 0) + 1);
        continue;
      }
      const childRel = rel ? `${rel}/${name.toString()}` : name.toString();
      const own = fs.lstatSync(full);
      if (own.isDirectory()) {
        walk(full.toString(), childRel);
        continue;
      }
      let st = own;
      if (followLinks && own.isSymbolicLink()) {
        try {
          st = fs.statSync(full);
        } catch {
          continue;  // dangling: vanished
        }
      }
      if (st.isFile() || st.isSymbolicLink()) files.push(childRel);
      else special++;
    }
  };
  walk(root, '');
  return { files: files.sort(), special, invalid };
}

test('special files are not delivered, names that are not UTF-8 are named (Linux, node\'s fs as oracle)', {
  skip: isWindows && 'Linux only',
}, async (t) => {
  const net = require('net');
  const root = makeTree({ files: { 'a.txt': 'a', 'sub/b.txt': 'bb', 'sub/deeper/c.txt': 'c' } });
  const server = net.createServer();
  t.after(() => {
    server.close();
    removeTree(root);
  });
  const at = (...parts) => path.join(root, ...parts);
  assert.equal(spawnSync('mkfifo', [at('fifo')]).status, 0, 'mkfifo');
  await new Promise((resolve, reject) => server.listen(at('sub', 'sock'), resolve).on('error', reject));
  fs.symlinkSync('/dev/null', at('null-link'));
  fs.symlinkSync('../fifo', at('sub', 'fifo-link'));
  fs.symlinkSync('nowhere', at('dangling'));
  fs.symlinkSync('a.txt', at('a-link'));
  const bad = (dir, stem) => Buffer.concat([Buffer.from(dir + path.sep + stem), Buffer.from([0xff]), Buffer.from('.txt')]);
  fs.writeFileSync(bad(root, 'bad'), 'x');
  fs.writeFileSync(bad(at('sub'), 'bad'), 'x');
  fs.writeFileSync(bad(at('sub'), 'worse'), 'x');
  const badDir = Buffer.concat([Buffer.from(at('sub', 'deeper') + path.sep + 'd'), Buffer.from([0xfe])]);
  fs.mkdirSync(badDir);
  fs.writeFileSync(Buffer.concat([badDir, Buffer.from('/inside.txt')]), 'x');

  for (const fastMetadata of [false, true]) {
    const what = fastMetadata ? 'fast' : 'default';
    const expected = oracle(root, !fastMetadata);
    const { nodes, dirs, result } = await scan(root, { fastMetadata, needDirs: true });
    assert.deepEqual(relPaths(nodes), expected.files, what);
    const exists = (p) => {
      try {
        return Boolean(fs.lstatSync(p));
      } catch {
        return false;
      }
    };
    assert.ok(nodes.every((n) => n.isFile && !n.absolutePath.includes('\uFFFD') && exists(n.absolutePath)), what);
    assert.ok(dirs.every((d) => !d.absolutePath.includes('\uFFFD')), what);
    assert.equal(result.specialFileCount, expected.special, what);
    assert.equal(result.invalidNameCount, 4, what);
    const byPath = (x, y) => x.path.localeCompare(y.path);
    assert.deepEqual(
      [...result.invalidNameFolders].sort(byPath),
      [...expected.invalid].map(([dir, count]) => ({ path: dir, count })).sort(byPath),
      what,
    );
    // Left-out names make the scan incomplete; nothing was skipped.
    assert.equal(result.complete, false, what);
    assert.deepEqual(result.skippedFolders, [], what);
  }
  // Default mode: the FIFO, the socket and the links to /dev/null and to the FIFO.
  assert.equal(oracle(root, true).special, 4);
});
