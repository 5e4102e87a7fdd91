'use strict';
// Metadata of the file objects: folders against files, times with their
// sub-millisecond parts, the second rounding, hidden-and-system files on
// Windows, and a file whose metadata cannot be read.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const os = require('os');
const path = require('path');
const { spawnSync, execFileSync } = require('child_process');
const { isWindows, root: repoRoot, buildDir } = require('./helpers');
const { scan, makeTree, removeTree } = require('./scan-fixture');

// A time with a sub-millisecond part (in seconds, as utimes takes it).
const FRACTIONAL = 1600000000.1234567;

test('formatMsToSecond rounds ctimeMs and mtimeMs down to whole seconds, not birthtimeMs', async (t) => {
  const root = makeTree({ files: { 'a.txt': 'x' } });
  t.after(() => removeTree(root));
  const file = path.join(root, 'a.txt');
  fs.utimesSync(file, FRACTIONAL, FRACTIONAL);
  const st = fs.statSync(file);
  const { nodes } = await scan(root, { formatMsToSecond: true });
  const [n] = nodes;
  assert.equal(n.mtimeMs, Math.floor(st.mtimeMs / 1000) * 1000);
  assert.equal(n.ctimeMs, Math.floor(st.ctimeMs / 1000) * 1000);
  assert.equal(n.birthtimeMs, st.birthtimeMs);
  if (st.birthtimeMs % 1000 !== 0) assert.notEqual(n.birthtimeMs % 1000, 0);
});

test('hidden files', async (t) => {
  if (!isWindows) {
    await t.test('a name starting with "." is hidden, never system', async () => {
      const root = makeTree({ files: { '.hidden': '', visible: '' } });
      t.after(() => removeTree(root));
      const { nodes, result } = await scan(root);
      const byName = Object.fromEntries(nodes.map((n) => [n.name, n]));
      assert.equal(byName['.hidden'].hidden, true);
      assert.equal(byName.visible.hidden, false);
      assert.equal(byName['.hidden'].isSystem, false);
      assert.equal(result.hiddenSystemFileCount, 0);
    });
    return;
  }
  await t.test('hidden+system files are dropped and counted; hidden-only and system-only are kept', async () => {
    const root = makeTree({ files: { 'both.txt': '', 'hidden.txt': '', 'system.txt': '', 'plain.txt': '' }, folders: ['hsdir'] });
    t.after(() => removeTree(root));
    // Wine's attrib takes one attribute per call.
    const attrib = (flags, name) => {
      for (const f of flags) execFileSync('attrib', [f, path.join(root, name)]);
    };
    attrib(['+h', '+s'], 'both.txt');
    attrib(['+h'], 'hidden.txt');
    attrib(['+s'], 'system.txt');
    attrib(['+h', '+s'], 'hsdir');
    const { nodes, dirs, result } = await scan(root, { needDirs: true });
    const names = nodes.map((n) => n.name).sort();
    assert.deepEqual(names, ['hidden.txt', 'plain.txt', 'system.txt']);
    assert.deepEqual(dirs.map((d) => d.name), [], 'a hidden+system folder is dropped too');
    const byName = Object.fromEntries(nodes.map((n) => [n.name, n]));
    assert.equal(byName['hidden.txt'].hidden, true);
    assert.equal(byName['system.txt'].isSystem, true);
    assert.deepEqual(result, {
      fileCountBeyondLimit: false,
      totalFileCount: 4,
      filteredFileCount: 1,
      hiddenSystemFileCount: 1,
      specialFileCount: 0,
      invalidNameCount: 0,
      complete: true,
      skippedFolders: [],
      loopedFolders: [],
      invalidNameFolders: [],
    });
  });
});

// Linux: a folder that can be listed but not searched (mode r--) lets the
// walk see its entries while statx on them fails with EACCES. As root that
// cannot happen, so the scan runs in a child as "nobody".
test('a file whose metadata may not be read is delivered unreadable', (t) => {
  if (isWindows) {
    // scripts/test.sh makes a file without any permission and runs the Wine
    // server without the DAC override, so CreateFileW gets access denied.
    const fixture = process.env.OSTREL_DENIED_FIXTURE;
    if (!fixture) {
      t.skip('needs OSTREL_DENIED_FIXTURE and a Wine server without DAC override (scripts/test.sh sets both)');
      return;
    }
    return new Promise((resolve, reject) => {
      const nodes = [];
      require(repoRoot).ScanAllSubFiles(path.resolve(repoRoot, fixture), (u) => nodes.push(...u.nodes), (r) => {
        try {
          const byName = Object.fromEntries(nodes.map((n) => [n.name, n]));
          assert.equal(byName['open.txt'].readable, true);
          assert.equal(byName['open.txt'].size, 5);
          const secret = byName['secret.txt'];
          assert.ok(secret, JSON.stringify(nodes));
          assert.equal(secret.readable, false);
          assert.equal(secret.isFile, true);
          for (const k of ['size', 'ino', 'mtimeMs', 'ctimeMs', 'birthtimeMs']) assert.equal(secret[k], 0, k);
          assert.equal(r.totalFileCount, 2);
          resolve();
        } catch (e) {
          reject(e);
        }
      }, {});
    });
  }
  const canDrop = process.getuid() !== 0 || spawnSync('setpriv', ['--help']).status === 0;
  if (!canDrop) {
    t.skip('setpriv is not available to run the scan as an unprivileged user');
    return;
  }
  const root = fs.mkdtempSync(path.join(os.tmpdir(), 'ostrel-scan-denied-'));
  t.after(() => {
    fs.chmodSync(path.join(root, 'locked'), 0o755);
    removeTree(root);
  });
  fs.chmodSync(root, 0o755);
  fs.mkdirSync(path.join(root, 'locked'));
  fs.writeFileSync(path.join(root, 'locked', 'secret.txt'), 'secret');
  fs.writeFileSync(path.join(root, 'open.txt'), 'open');
  fs.chmodSync(path.join(root, 'locked'), 0o444);
  const source = `
    process.env.OSTREL_BUILD_DIR = ${JSON.stringify(buildDir())};
    const o = require(${JSON.stringify(repoRoot)});
    const nodes = [];
    o.ScanAllSubFiles(${JSON.stringify(root)}, (u) => nodes.push(...u.nodes), (r) => {
      process.stdout.write('RESULT ' + JSON.stringify({ nodes, r }) + '\\n');
    }, {});`;
  const args = process.getuid() === 0
    ? ['setpriv', '--reuid=nobody', '--regid=nogroup', '--clear-groups', process.execPath, '-e', source]
    : [process.execPath, '-e', source];
  const r = spawnSync(args[0], args.slice(1), { encoding: 'utf8', timeout: 60000 });
  const line = (r.stdout || '').split('\n').find((l) => l.startsWith('RESULT '));
  assert.ok(line, `no result: ${r.status} ${r.stdout} ${r.stderr}`);
  const { nodes, r: result } = JSON.parse(line.slice(7));
  const byName = Object.fromEntries(nodes.map((n) => [n.name, n]));
  assert.equal(byName['open.txt'].readable, true);
  const secret = byName['secret.txt'];
  assert.ok(secret, JSON.stringify(nodes));
  assert.equal(secret.readable, false);
  assert.equal(secret.size, 0);
  assert.equal(secret.ino, 0);
  assert.equal(secret.mtimeMs, 0);
  assert.equal(secret.ctimeMs, 0);
  assert.equal(secret.birthtimeMs, 0);
  assert.equal(result.totalFileCount, 2);
});
