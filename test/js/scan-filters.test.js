'use strict';
// The scan's options as script gives them, one table: which files each
// filter keeps and what the result counts. The filters' own rules (stems
// and extensions, omits against covers, full match) are scan_filters_test.cc's,
// name expressions scan-regex.test.js'; here the reading of the options:
// scan-level lists lower-cased, rule-level ones as given, an excludes list
// given empty, entries and rules missing a part, values of the wrong type,
// the rules' descent and what each filter counts.
const test = require('node:test');
const assert = require('node:assert/strict');
const path = require('path');
const { scan, makeTree, removeTree, relPaths } = require('./scan-fixture');

// Names differ by more than case: Windows file systems ignore it.
const FILES = [
  'a.jpg', 'b.JPG', 'README', 'notes.txt', 'archive.tar.gz', '.gitignore', '~$report.docx', 'report.docx',
  'photos/IMG_12.jpg', 'photos/IMG_12a.jpg', 'photos/lower/img_12.jpg', 'photos/IMG_7.png', 'photos/keep/IMG_3.jpg',
  'docs/x.txt', 'node_modules/pkg/index.js',
];
const ALL = FILES.length;
const rule = ({ dirs = [], omits = [], covers = [], ...rest }) => ({ relativeDirPathRegList: dirs, omits, covers, ...rest });
const entry = (fileNameReg, extList = []) => ({ fileNameReg, extList });
const jpg = (f) => /\.jpg$/i.test(f);

// [what, options, the files kept (a list or a test), { total, filtered }]
const ROWS = (root) => [
  ['scan-level includes are lower-cased', { extFilter: { includes: ['JPG'] } }, jpg, { total: ALL, filtered: ALL - 6 }],
  ['rule-level includes are kept as given', { fineGrainedDirs: [rule({ extFilter: { includes: ['JPG'] } })] }, []],
  ['rule-level includes in lower case', { fineGrainedDirs: [rule({ extFilter: { includes: ['jpg'] } })] }, jpg],
  ['an extFilter without lists rejects everything', { extFilter: {} }, []],
  ['an empty excludes list rejects nothing', { extFilter: { excludes: [] } }, () => true],
  ['an empty excludes entry drops names without extension', { extFilter: { excludes: [''] } },
    (f) => !['README', '.gitignore'].includes(f)],
  ['covers take stem and extension; .gitignore is all stem',
    { fineGrainedDirs: [rule({ covers: [entry('archive\\.tar', ['gz']), entry('\\.gitignore', [''])] })] },
    ['.gitignore', 'archive.tar.gz']],
  ['an omit beats a cover', { fineGrainedDirs: [rule({ dirs: ['photos'], omits: [entry('.*')], covers: [entry('IMG_\\d+', ['jpg'])] })] },
    [], { total: 5, filtered: 5 }],
  ['the descent follows relativeDirPathRegList level by level', { fineGrainedDirs: [rule({ dirs: ['pho.*', 'keep'] })] },
    ['photos/keep/IMG_3.jpg']],
  ['the descent is case-sensitive', { fineGrainedDirs: [rule({ dirs: ['Photos'] })] }, []],
  ['ignoreDirRegs and leaveDirs skip whole sub-trees, uncounted', { ignoreDirRegs: ['node_modules'], leaveDirs: ['photos/keep'] },
    (f) => !/^(node_modules|photos\/keep)\//.test(f), { total: ALL - 2, filtered: 0 }],
  ['leaveFiles by relative or absolute path, uncounted', { leaveFiles: ['docs/x.txt', path.join(root, 'README')] },
    (f) => !['docs/x.txt', 'README'].includes(f), { total: ALL - 2, filtered: 0 }],
  ['values of the wrong type count as absent',
    { extFilter: 'jpg', ignoreFileRegs: [42, null], needDirs: 'yes', fineGrainedDirs: [{}, rule({ covers: [{ fileNameReg: 'a' }] })] },
    () => true],
];

test('filters', async (t) => {
  const root = makeTree({ files: Object.fromEntries(FILES.map((f) => [f, ''])) });
  t.after(() => removeTree(root));
  for (const [what, options, kept, counts] of ROWS(root)) {
    await t.test(what, async () => {
      const { nodes, dirs, result } = await scan(root, options);
      assert.deepEqual(relPaths(nodes), Array.isArray(kept) ? kept : FILES.filter(kept).sort());
      assert.deepEqual(dirs, []);
      if (counts) assert.deepEqual({ total: result.totalFileCount, filtered: result.filteredFileCount }, counts);
    });
  }
});
