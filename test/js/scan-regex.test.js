'use strict';
// Name expressions as script writes them: every answer is checked against
// this node's own RegExp (full match, as `^(?:source)$`), huge expressions
// compile or are refused without harming the process, and an expression
// that backtracks without end costs milliseconds, not minutes.
const test = require('node:test');
const assert = require('node:assert/strict');
const { isWindows, root: repoRoot, buildDir, runChild } = require('./helpers');
const { ostrel, scan, makeTree, removeTree, relPaths } = require('./scan-fixture');

const fullMatch = (source, name) => new RegExp(`^(?:${source})$`).test(name);

// Names that differ by more than case (Windows file systems ignore it) and
// that Windows accepts; Linux adds line breaks and a backslash.
const NAMES = [
  'IMG_12.jpg', 'IMG_12a.jpg', 'img_7.png', 'IMG_.jpg', 'report.docx', '~$report.docx', 'notes.tmp',
  'notes.tmp.bak', 'archive.tar.gz', 'café.txt', 'cafe.txt', 'фото_1.jpg', '😀.png', 'x😀.png', '😀😀',
  'a b.txt', 'a\u00a0b.txt', 'a\u3000b', 'a-b', 'a_b', 'ab', 'abc', 'aXbYc', 'acb', 'price$', '{x}', '[y]',
  'a{2}', 'aa', 'aaa', 'Readme.md', '12345', '\u0663', 'abcabc', 'abc-abc', 'a\u2028b.tmp', 'x.y.z',
  ...(isWindows ? [] : ['line\nbreak.tmp', 'a\rb.tmp', 'back\\slash', 'colon:x']),
];

const PATTERNS = [
  // literals, lists and ".*" (the direct matcher)
  'abc', 'ab|abc|aa', '^(ab|abc)$', '(?:aa|aaa)', '.*\\.tmp', '~\\$.*', 'a.*b.*', 'notes\\.tmp|archive\\..*', 'price\\$',
  // classes and escapes as JavaScript reads them
  'IMG_\\d+\\.jpg', 'img_\\d+\\.png', '\\w+\\.\\w+', '.*\\s.*', '[^.]+', '[a-c]+', '[^a-z.]+', '\\D+', '\\d+',
  '[\\s\\d]+', '[\\S]+', '[\\w-]+', '\\x41.*', 'caf\\u00e9\\.txt', '\\u0444.*', '[]', '[^]*', '\\bb.*', '.*\\b\\.txt',
  '\\{x\\}', '{x}', '\\[y\\]', '[[]y]', 'a{2}', 'a{2', 'a{2,}',
  // the dot, anchors inside, alternation, look-arounds, backreferences
  'a.b', 'a.b.*', '.*\\u2028.*', 'a^b', 'ab|^abc$', '(IMG|img)_[0-9]{1,2}\\..*', '(?=.*\\.jpg)IMG.*', '(?!IMG).*\\.jpg',
  '.*(?<=\\.gz)', '(a)\\1', '(abc)-\\1', '(.+)\\1', '(?<w>a+)\\k<w>',
  // beyond the Basic Multilingual Plane: UTF-16 units, as in JavaScript
  '😀\\..*', '.\\.png', '..\\.png', '[😀]+', 'x\\ud83d\\ude00\\.png', '.{2}',
  // case is kept
  'readme\\.md', 'Readme\\.md', 'CAF.*', 'IMG_12\\.JPG',
];

test('expressions answer as RegExp does', async (t) => {
  const root = makeTree({ files: Object.fromEntries(NAMES.map((n) => [n, ''])) });
  t.after(() => removeTree(root));
  const all = (await scan(root)).nodes.map((n) => n.name);
  assert.deepEqual([...all].sort(), [...NAMES].sort(), 'the tree holds every name');

  for (const source of PATTERNS) {
    await t.test(`ignoreFileRegs: ${JSON.stringify(source)}`, async () => {
      const { nodes, result } = await scan(root, { ignoreFileRegs: [source], fastMetadata: true });
      const kept = NAMES.filter((n) => !fullMatch(source, n));
      assert.deepEqual(nodes.map((n) => n.name).sort(), kept.sort());
      assert.equal(result.filteredFileCount, NAMES.length - kept.length);
    });
  }
});

test('folder and rule expressions use the same reading', async (t) => {
  const DIRS = ['node_modules', '.git', 'build-1', 'Build_2', 'фото', 'photos', 'x.y'];
  const files = {};
  for (const d of DIRS) {
    files[`${d}/IMG_1.jpg`] = '';
    files[`${d}/other.txt`] = '';
  }
  const root = makeTree({ files });
  t.after(() => removeTree(root));

  for (const source of ['\\.git', 'build-\\d', '[A-Z]\\w+', 'node_.*', '\\u0444\\S+', '\\w+\\.\\w', '(?!p)[a-z_]+']) {
    await t.test(`ignoreDirRegs: ${JSON.stringify(source)}`, async () => {
      const { nodes } = await scan(root, { ignoreDirRegs: [source], fastMetadata: true });
      const kept = DIRS.filter((d) => !fullMatch(source, d));
      const expected = kept.flatMap((d) => [`${d}/IMG_1.jpg`, `${d}/other.txt`]).sort();
      assert.deepEqual(relPaths(nodes), expected);
    });
  }

  await t.test('a rule walks folders and takes stems by expression', async () => {
    const rule = {
      relativeDirPathRegList: ['(?:ph|\\u0444)\\S+'],
      omits: [],
      covers: [{ fileNameReg: '[A-Z]{3}_\\d', extList: [] }],
    };
    const { nodes } = await scan(root, { fineGrainedDirs: [rule], fastMetadata: true });
    assert.deepEqual(relPaths(nodes), ['photos/IMG_1.jpg', 'фото/IMG_1.jpg']);
  });
});

test('refused expressions throw synchronously, naming the option and the reason', async (t) => {
  const root = makeTree({ files: { 'a.txt': '' } });
  t.after(() => removeTree(root));
  const cb = () => {};
  const cases = [
    [{ ignoreFileRegs: ['ok', '(unclosed'] }, 'ignoreFileRegs[1]', '(unclosed', 'Unterminated group'],
    [{ ignoreDirRegs: ['a**'] }, 'ignoreDirRegs[0]', 'a**', 'Nothing to repeat'],
    [{ ignoreFileRegs: ['(?i)abc'] }, 'ignoreFileRegs[0]', '(?i)abc', 'Invalid group'],
    [{ ignoreFileRegs: ['[z-a]'] }, 'ignoreFileRegs[0]', '[z-a]', 'Range out of order'],
    [{ ignoreFileRegs: ['a{3,2}'] }, 'ignoreFileRegs[0]', 'a{3,2}', 'numbers out of order'],
    [{ ignoreFileRegs: ['(?<n>a)\\k<m>'] }, 'ignoreFileRegs[0]', '(?<n>a)\\k<m>', 'Invalid named capture'],
    [
      { fineGrainedDirs: [{ relativeDirPathRegList: [], omits: [], covers: [{ fileNameReg: 'x)', extList: [] }] }] },
      'fineGrainedDirs[0].covers[0].fileNameReg',
      'x)',
      "Unmatched ')'",
    ],
  ];
  for (const [options, where, source, reason] of cases) {
    await t.test(where + ' ' + source, () => {
      assert.throws(() => new RegExp(source), SyntaxError, 'JavaScript refuses it too');
      assert.throws(
        () => ostrel.ScanAllSubFiles(root, cb, cb, options),
        (err) => {
          assert.ok(err instanceof Error);
          assert.ok(err.message.startsWith(`ScanAllSubFiles: invalid regular expression "${source}": `), err.message);
          assert.ok(err.message.includes(reason), err.message);
          assert.ok(err.message.endsWith(` in ${where}`), err.message);
          return true;
        },
      );
    });
  }
});

// Child scripts: each loads the module from the build under test and prints
// one line of JSON (among the module's progress lines).
function child(body, env = {}) {
  return runChild(
    `process.env.OSTREL_BUILD_DIR = ${JSON.stringify(buildDir())};
     const ostrel = require(${JSON.stringify(repoRoot)});
     const scanNames = (root, options) => new Promise((resolve) => {
       const names = [];
       ostrel.ScanAllSubFiles(root, (u) => names.push(...u.nodes.map((n) => n.name)), (r) => resolve({ names: names.sort(), r }), options);
     });
     ${body}`,
    { timeout: 120000, env },
  );
}

const childJson = (stdout) => JSON.parse(stdout.split(/\r?\n/).filter((l) => l.startsWith('{')).pop());

test('huge expressions compile or are refused, in a process that goes on', async (t) => {
  const root = makeTree({ files: { n0: '', n19999: '', n20000: '', n5x: '', 'n7.txt': '', 'n20000.txt': '', [`${'a'.repeat(200)}.txt`]: '' } });
  t.after(() => removeTree(root));
  const r = child(
    `(async () => {
       const root = ${JSON.stringify(root)};
       const out = {};
       out.literal = await scanNames(root, { ignoreFileRegs: ['a'.repeat(90000), 'a'.repeat(200) + '\\\\.txt'] });
       try {
         ostrel.ScanAllSubFiles(root, () => {}, () => {}, { ignoreFileRegs: ['('.repeat(20000) + 'a' + ')'.repeat(20000)] });
         out.nested = 'compiled';
       } catch (e) { out.nested = e.message; }
       const list = Array.from({ length: 20000 }, (_, i) => 'n' + i).join('|');
       out.list = await scanNames(root, { ignoreFileRegs: [list] });
       out.grouped = await scanNames(root, { ignoreDirRegs: ['(' + list + ')'], ignoreFileRegs: ['(' + list + ')\\\\.txt'] });
       console.log(JSON.stringify(out));
     })();`,
  );
  assert.equal(r.signal, null, r.stderr);
  assert.equal(r.status, 0, r.stderr);
  const out = childJson(r.stdout);
  assert.deepEqual(out.literal.names, ['n0', 'n19999', 'n20000', 'n20000.txt', 'n5x', 'n7.txt']);
  assert.match(out.nested, /^ScanAllSubFiles: invalid regular expression "\(+\.\.\. \(40001 characters\)": groups nested deeper than 256 in ignoreFileRegs\[0\]$/);
  assert.deepEqual(out.list.names, [`${'a'.repeat(200)}.txt`, 'n20000', 'n20000.txt', 'n5x', 'n7.txt']);
  assert.deepEqual(out.grouped.names, [`${'a'.repeat(200)}.txt`, 'n0', 'n19999', 'n20000', 'n20000.txt', 'n5x']);
  assert.doesNotMatch(r.stderr, /too complex/);
});

// Names on which (a+)+$ backtracks 2^40 times in a plain backtracking engine.
const HOPELESS = 40;
const hopelessName = (i) => `${'a'.repeat(40)}!${i}`;

test('an expression that backtracks without end', async (t) => {
  const files = { aaaa: '', 'b.txt': '', [`${'a'.repeat(40)}/x.txt`]: '', [`${'a'.repeat(40)}!/y.txt`]: '' };
  for (let i = 0; i < HOPELESS; i++) files[hopelessName(i)] = '';
  const root = makeTree({ files });
  t.after(() => removeTree(root));

  await t.test('counts as no match, said once per expression on standard error', () => {
    const r = child(
      `scanNames(${JSON.stringify(root)}, { ignoreFileRegs: ['(a+)+$'], ignoreDirRegs: ['(a|aa)+'] })
         .then((out) => console.log(JSON.stringify(out)));`,
    );
    assert.equal(r.signal, null, r.stderr);
    assert.equal(r.status, 0, r.stderr);
    const { names, r: result } = childJson(r.stdout);
    const hopeless = Array.from({ length: HOPELESS }, (_, i) => hopelessName(i));
    // The folder of a's is left out; the one ending in "!" is walked.
    assert.deepEqual(names, ['b.txt', ...hopeless, 'y.txt'].sort());
    assert.equal(result.filteredFileCount, 1); // aaaa
    const lines = r.stderr.split(/\r?\n/).filter((l) => l.includes('too complex'));
    assert.equal(lines.length, 2, r.stderr);
    assert.ok(lines.some((l) => l.startsWith('name filter: the regular expression "(a+)+$" is too complex for "aaaa')), r.stderr);
    assert.ok(lines.some((l) => l.startsWith('name filter: the regular expression "(a|aa)+" is too complex for "aaaa')), r.stderr);
    assert.ok(lines.every((l) => l.endsWith('; treated as no match (not reported again for this expression)')), r.stderr);
  });

  await t.test('close() and process.exit() right after the start end the process at once', () => {
    const r = child(
      `const close = ostrel.ScanAllSubFiles(${JSON.stringify(root)}, () => {}, () => {}, { ignoreFileRegs: ['(a+)+$'] });
       setImmediate(() => {
         close();
         require('fs').writeSync(1, 'exiting ' + Date.now() + '\\n');
         process.exit(3);
       });`,
    );
    const ended = Date.now();
    assert.equal(r.signal, null, r.stderr);
    assert.equal(r.status, 3, r.stderr);
    const m = /exiting (\d+)/.exec(r.stdout);
    assert.ok(m, r.stdout);
    const exitMs = ended - Number(m[1]);
    assert.ok(exitMs < 1000, `the process took ${exitMs} ms to exit`);
  });
});
