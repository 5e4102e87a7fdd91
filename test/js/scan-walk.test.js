'use strict';
// The walk: a missing root, "." and "..", folders in "dirs" on request,
// empty folders, and the result object.
const test = require('node:test');
const assert = require('node:assert/strict');
const path = require('path');
const { scan, makeTree, removeTree, relPaths } = require('./scan-fixture');

test('a root that does not exist, or is a file, ends silently with zero counts', async (t) => {
  const root = makeTree({ files: { 'f.txt': '' } });
  t.after(() => removeTree(root));
  for (const missing of [path.join(root, 'nope'), path.join(root, 'nope', 'deeper'), path.join(root, 'f.txt')]) {
    const { updates, result } = await scan(missing);
    assert.equal(updates.length, 0);
    assert.deepEqual(result, { fileCountBeyondLimit: false, totalFileCount: 0, filteredFileCount: 0, hiddenSystemFileCount: 0 });
  }
});

test('walk', async (t) => {
  const root = makeTree({
    files: { 'a.txt': '', 'sub/b.txt': '', 'sub/inner/c.txt': '', '.dotdir/d.txt': '' },
    folders: ['empty', 'sub/empty2', 'only-folders/x'],
  });
  t.after(() => removeTree(root));

  await t.test('"." and ".." never appear; every file appears once', async () => {
    const { nodes, dirs, result } = await scan(root, { needDirs: true });
    const all = [...nodes, ...dirs];
    assert.ok(!all.some((o) => o.name === '.' || o.name === '..'));
    assert.deepEqual(relPaths(nodes), ['.dotdir/d.txt', 'a.txt', 'sub/b.txt', 'sub/inner/c.txt']);
    assert.equal(result.totalFileCount, 4);
  });

  await t.test('needDirs delivers every folder below the root in "dirs"', async () => {
    const { dirs } = await scan(root, { needDirs: true });
    assert.deepEqual(relPaths(dirs), ['.dotdir', 'empty', 'only-folders', 'only-folders/x', 'sub', 'sub/empty2', 'sub/inner']);
    assert.ok(dirs.every((d) => d.isFile === false));
  });

  await t.test('without needDirs no folder is delivered', async () => {
    const { dirs } = await scan(root);
    assert.deepEqual(dirs, []);
  });

  await t.test('returnEmptyFolder delivers folders that hold no entry at all', async () => {
    const { dirs, nodes } = await scan(root, { returnEmptyFolder: true });
    assert.deepEqual(relPaths(dirs), ['empty', 'only-folders/x', 'sub/empty2']);
    assert.equal(nodes.length, 4);
  });

  await t.test('a folder ignored by name is skipped with its whole sub-tree', async () => {
    const { nodes, dirs } = await scan(root, { ignoreDirRegs: ['sub'], needDirs: true });
    assert.deepEqual(relPaths(nodes), ['.dotdir/d.txt', 'a.txt']);
    assert.ok(!dirs.some((d) => d.name === 'sub' || d.name === 'inner'));
  });
});
