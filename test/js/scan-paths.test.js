'use strict';
// Path fields of the file objects: root level, a first-level folder named
// .cache, deep and long paths, Unicode names, and the fixed property order.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { scan, makeTree, removeTree, sep } = require('./scan-fixture');

const ORDER = [
  'absolutePath', 'name', 'relativeDir', 'relativePath', 'dirPath', 'isFile', 'hidden', 'isSystem',
  'size', 'ino', 'ctimeMs', 'mtimeMs', 'birthtimeMs', 'readable',
];

test('path fields', async (t) => {
  const longA = 'a'.repeat(120);
  const longB = 'b'.repeat(120);
  const root = makeTree({
    files: {
      'top.txt': 'x',
      '.cache/inner.bin': '',
      '.cache/sub/deeper.bin': '',
      'd1/d2/d3/d4/d5/d6/deep.txt': '',
      [`${longA}/${longB}/long-file-name.txt`]: 'long',
      'café/фото 写真 😀.jpg': '',
    },
  });
  t.after(() => removeTree(root));
  const { nodes } = await scan(root);
  const byName = new Map(nodes.map((n) => [n.name, n]));
  assert.equal(nodes.length, 6);

  await t.test('objects have their properties in the fixed order', () => {
    for (const n of nodes) assert.deepEqual(Object.keys(n), ORDER);
  });

  await t.test('root level: empty relativeDir, relativePath is the name, dirPath is the root as given', () => {
    const top = byName.get('top.txt');
    assert.equal(top.relativeDir, '');
    assert.equal(top.relativePath, 'top.txt');
    assert.equal(top.dirPath, root);
    assert.equal(top.absolutePath, path.join(root, 'top.txt'));
  });

  await t.test('a first-level folder named .cache reports relativeDir "cache"', () => {
    assert.equal(byName.get('inner.bin').relativeDir, 'cache');
    assert.equal(byName.get('inner.bin').relativePath, ['.cache', 'inner.bin'].join(sep));
    assert.equal(byName.get('deeper.bin').relativeDir, ['cache', 'sub'].join(sep));
  });

  await t.test('deep paths use the platform separator', () => {
    const deep = byName.get('deep.txt');
    assert.equal(deep.relativeDir, ['d1', 'd2', 'd3', 'd4', 'd5', 'd6'].join(sep));
    assert.equal(deep.relativePath, ['d1', 'd2', 'd3', 'd4', 'd5', 'd6', 'deep.txt'].join(sep));
  });

  await t.test('paths longer than 260 characters are listed and queried', () => {
    const long = byName.get('long-file-name.txt');
    assert.ok(long.absolutePath.length > 260, `${long.absolutePath.length}`);
    assert.equal(long.relativeDir, [longA, longB].join(sep));
    assert.equal(long.size, 4);
    assert.ok(long.mtimeMs > 0);
    assert.equal(long.readable, true);
  });

  await t.test('Unicode names round-trip', () => {
    const u = byName.get('фото 写真 😀.jpg');
    assert.ok(u, [...byName.keys()].join(', '));
    assert.equal(u.relativeDir, 'café');
    assert.equal(u.absolutePath, path.join(root, 'café', 'фото 写真 😀.jpg'));
    assert.ok(fs.existsSync(u.absolutePath));
  });
});

test('a relative root is resolved for absolutePath and kept as given in dirPath', async (t) => {
  const root = makeTree({ files: { 'a.txt': '' } });
  t.after(() => removeTree(root));
  const relative = path.relative(process.cwd(), root);
  const { nodes } = await scan(relative);
  assert.equal(nodes.length, 1);
  assert.equal(nodes[0].dirPath, relative);
  assert.equal(nodes[0].absolutePath, path.join(root, 'a.txt'));
});

test('a root in the \\\\?\\ form lists like the plain one', { skip: process.platform !== 'win32' && 'Windows paths' }, async (t) => {
  const root = makeTree({ files: { 'a.txt': 'a', 'sub/b.txt': 'bb' } });
  t.after(() => removeTree(root));
  const plain = await scan(root);
  for (const given of ['\\\\?\\' + root, '\\\\?\\' + root + '\\']) {
    const prefixed = await scan(given);
    assert.deepEqual(prefixed.nodes.map((n) => n.relativePath).sort(), plain.nodes.map((n) => n.relativePath).sort(), given);
    for (const n of prefixed.nodes) {
      assert.ok(n.absolutePath.startsWith('\\\\?\\'), n.absolutePath);
      assert.equal(n.readable, true);
      assert.ok(n.size > 0);
    }
  }
});
