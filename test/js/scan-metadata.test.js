'use strict';
// Metadata the generated tree of scan-walk.test.js cannot give: hidden and
// system files on Windows, and a file whose metadata cannot be read.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { spawnSync, execFileSync } = require('child_process');
const { isWindows, root: repoRoot } = require('./helpers');
const { scan, makeTree, removeTree, childScan } = require('./scan-fixture');

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

// A file listed whose metadata query is denied comes with the listing's
// kind, readable false and every number 0, beside a readable one.
function checkDenied(nodes, r) {
  const byName = Object.fromEntries(nodes.map((n) => [n.name, n]));
  assert.equal(byName['open.txt'].readable, true);
  assert.ok(byName['open.txt'].size > 0);
  const { readable, isFile, size, ino, mtimeMs, ctimeMs, birthtimeMs } = byName['secret.txt'] || {};
  assert.deepEqual({ readable, isFile, size, ino, mtimeMs, ctimeMs, birthtimeMs },
    { readable: false, isFile: true, size: 0, ino: 0, mtimeMs: 0, ctimeMs: 0, birthtimeMs: 0 }, JSON.stringify(nodes));
  assert.equal(r.totalFileCount, 2);
}

// Windows: scripts/test.sh makes a file without any permission and runs
// the Wine server without the DAC override, so CreateFileW gets access
// denied. Linux: a folder that can be listed but not searched (mode r--)
// lets the walk see its entries while statx on them fails with EACCES, and
// one that cannot be opened (mode ---) is left out; as root that cannot
// happen, so the scan runs in a child as "nobody".
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
