'use strict';
// The scan's filters as script sees them: extension lists at scan level and
// rule level, the empty excludes entry, omits and covers, name expressions,
// leave lists, and bad input.
const test = require('node:test');
const assert = require('node:assert/strict');
const { ostrel, scan, makeTree, removeTree, relPaths } = require('./scan-fixture');

// Names differ by more than case: Windows file systems ignore it.
const FILES = [
  'a.jpg', 'b.JPG', 'README', 'notes.txt', 'archive.tar.gz', '.gitignore', '~$report.docx', 'report.docx',
  'photos/IMG_12.jpg', 'photos/IMG_12a.jpg', 'photos/lower/img_12.jpg', 'photos/IMG_7.png', 'photos/keep/IMG_3.jpg',
  'docs/x.txt', 'node_modules/pkg/index.js',
];

test('filters', async (t) => {
  const root = makeTree({ files: Object.fromEntries(FILES.map((f) => [f, ''])) });
  t.after(() => removeTree(root));
  const names = async (options) => {
    const { nodes, result } = await scan(root, options);
    return { paths: relPaths(nodes), result };
  };

  await t.test('scan-level includes are lower-cased: JPG keeps a.jpg and b.JPG', async () => {
    const { paths, result } = await names({ extFilter: { includes: ['JPG'] } });
    assert.deepEqual(paths, ['a.jpg', 'b.JPG', 'photos/IMG_12.jpg', 'photos/IMG_12a.jpg', 'photos/keep/IMG_3.jpg', 'photos/lower/img_12.jpg']);
    assert.equal(result.totalFileCount, FILES.length);
    assert.equal(result.filteredFileCount, FILES.length - 6);
    assert.equal(result.hiddenSystemFileCount, 0);
  });

  await t.test('rule-level lists are kept as given: includes JPG keeps nothing', async () => {
    const rule = { relativeDirPathRegList: [], omits: [], covers: [], extFilter: { includes: ['JPG'] } };
    const { paths } = await names({ fineGrainedDirs: [rule] });
    assert.deepEqual(paths, []);
    const lower = { ...rule, extFilter: { includes: ['jpg'] } };
    assert.equal((await names({ fineGrainedDirs: [lower] })).paths.length, 6);
  });

  await t.test('an extFilter without lists rejects everything; an empty excludes rejects nothing', async () => {
    assert.deepEqual((await names({ extFilter: {} })).paths, []);
    assert.equal((await names({ extFilter: { excludes: [] } })).paths.length, FILES.length);
  });

  await t.test('an empty excludes entry drops files without extension', async () => {
    const { paths } = await names({ extFilter: { excludes: [''] } });
    assert.ok(!paths.includes('README'));
    assert.ok(!paths.includes('.gitignore'), '.gitignore has no extension');
    assert.ok(paths.includes('notes.txt'));
    assert.equal(paths.length, FILES.length - 2);
  });

  await t.test('archive.tar.gz has the extension gz; .gitignore keeps its whole name as stem', async () => {
    assert.deepEqual((await names({ extFilter: { includes: ['gz'] } })).paths, ['archive.tar.gz']);
    const rule = {
      relativeDirPathRegList: [],
      omits: [],
      covers: [{ fileNameReg: 'archive\\.tar', extList: ['gz'] }, { fileNameReg: '\\.gitignore', extList: [''] }],
    };
    assert.deepEqual((await names({ fineGrainedDirs: [rule] })).paths, ['.gitignore', 'archive.tar.gz']);
  });

  await t.test('an omit beats a cover', async () => {
    const rule = {
      relativeDirPathRegList: ['photos'],
      omits: [{ fileNameReg: '.*', extList: [] }],
      covers: [{ fileNameReg: 'IMG_\\d+', extList: ['jpg'] }],
    };
    const { paths, result } = await names({ fineGrainedDirs: [rule] });
    assert.deepEqual(paths, []);
    assert.equal(result.totalFileCount, 5);
    assert.equal(result.filteredFileCount, 5);
  });

  await t.test('covers full-match the stem, case-sensitively', async () => {
    const rule = { relativeDirPathRegList: ['photos'], omits: [], covers: [{ fileNameReg: 'IMG_\\d+', extList: ['jpg'] }] };
    const { paths } = await names({ fineGrainedDirs: [rule] });
    assert.deepEqual(paths, ['photos/IMG_12.jpg', 'photos/keep/IMG_3.jpg']);
  });

  await t.test('the descent follows relativeDirPathRegList level by level', async () => {
    const rule = { relativeDirPathRegList: ['pho.*', 'keep'], omits: [], covers: [] };
    assert.deepEqual((await names({ fineGrainedDirs: [rule] })).paths, ['photos/keep/IMG_3.jpg']);
    const none = { relativeDirPathRegList: ['Photos'], omits: [], covers: [] };
    assert.deepEqual((await names({ fineGrainedDirs: [none] })).paths, []);
  });

  await t.test('ignoreFileRegs match the whole name with its extension', async () => {
    const { paths, result } = await names({ ignoreFileRegs: ['~\\$.*', 'notes'] });
    assert.ok(!paths.includes('~$report.docx'));
    assert.ok(paths.includes('report.docx'));
    assert.ok(paths.includes('notes.txt'), '"notes" does not match "notes.txt" whole');
    assert.equal(result.filteredFileCount, 1);
  });

  await t.test('ignoreDirRegs and leaveDirs skip whole sub-trees, uncounted', async () => {
    const { paths, result } = await names({ ignoreDirRegs: ['node_modules'], leaveDirs: ['photos/keep'] });
    assert.ok(!paths.some((p) => p.startsWith('node_modules/') || p.startsWith('photos/keep/')));
    assert.equal(result.totalFileCount, FILES.length - 2);
    assert.equal(result.filteredFileCount, 0);
  });

  await t.test('leaveFiles leaves single files alone, by relative or absolute path', async () => {
    const { paths, result } = await names({ leaveFiles: ['docs/x.txt', require('path').join(root, 'README')] });
    assert.ok(!paths.includes('docs/x.txt') && !paths.includes('README'));
    assert.equal(result.totalFileCount, FILES.length - 2);
  });

  await t.test('values of the wrong type count as absent', async () => {
    const { paths } = await names({ extFilter: 'jpg', ignoreFileRegs: [42, null], needDirs: 'yes', fineGrainedDirs: [{}] });
    assert.equal(paths.length, FILES.length);
  });
});
