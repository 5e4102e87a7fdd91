'use strict';
// Name expressions against this node's RegExp (full match, `^(?:source)$`),
// then the scan's filter options: which files each keeps, what it counts.
const test = require('node:test');
const assert = require('node:assert/strict');
const path = require('path');
const { isWindows } = require('./helpers');
const { scan, makeTree, removeTree, relPaths, random, childScan } = require('./scan-fixture');

const fullMatch = (source, name) => new RegExp(`^(?:${source})$`).test(name);

// A small alphabet, so that expressions often match; Linux adds line breaks.
function generatedNames(rnd, count) {
  const chars = ['a', 'b', 'c', 'A', '1', '_', ' ', '.', '-', 'é', '😀', '\u00a0', ...(isWindows ? [] : ['\n', '\r'])];
  const names = new Map();
  while (names.size < count) {
    let n = '';
    for (let len = 1 + Math.floor(rnd() * 3); n.length < len; ) n += chars[Math.floor(rnd() * chars.length)];
    if (n.trim() !== n || n.endsWith('.') || n === '..') continue; // names Windows trims or refuses
    names.set(n.toLowerCase(), n);
  }
  return [...names.values()];
}

// Look-behinds hold fixed-length text and a backreference never names a
// group inside a repetition: the two known gaps (named cases below).
function generatedExpression(rnd) {
  const pick = (list) => list[Math.floor(rnd() * list.length)];
  let groups = 0;
  const atom = (depth) => {
    const r = rnd();
    if (r < 0.3) return pick(['a', 'b', 'c', 'A', '1', '_', ' ', '-', 'é', '😀', '\\.', '\\$', '\\u0061', '\\x62', '\\ud83d']);
    if (r < 0.5) return pick(['\\d', '\\D', '\\w', '\\W', '\\s', '\\S', '.', '\\b', '\\B', '^', '$']);
    if (r < 0.65) return pick(['[abc]', '[^a-c]', '[\\d_]', '[a-]', '[\\s.]', '[😀]', '[^\\w]', '[]', '[^]', '[\\u00a0b]']);
    if (depth > 2) return 'a';
    if (r < 0.72) return `(?=${sequence(depth + 1)})`;
    if (r < 0.76) return `(?!${sequence(depth + 1)})`;
    if (r < 0.8) return `(?${pick(['<=', '<!'])}${pick(['a', 'b.', '\\d', '[ab]c'])})`;
    if (r < 0.9) return `(?:${alternation(depth + 1)})`;
    groups++;
    return `(${alternation(depth + 1)})`;
  };
  const quantified = (depth) => {
    const before = groups;
    const a = atom(depth);
    if (rnd() < 0.4 || /^(\^|\$|\\[bB]|\(\?[=!<])/.test(a)) return a;
    const q = pick(['*', '*', '+', '+', '?', '{2}', '{1,}', '{0,2}']) + (rnd() < 0.3 ? '?' : '');
    // A group repeated cannot be named by a backreference (see above).
    for (let g = before + 1; g <= groups; g++) repeatedGroups.add(g);
    return a + q;
  };
  const repeatedGroups = new Set();
  const sequence = (depth) => {
    let s = '';
    for (let n = 1 + Math.floor(rnd() * 3); n > 0; n--) {
      const usable = [...Array(groups).keys()].map((i) => i + 1).filter((g) => !repeatedGroups.has(g));
      s += usable.length && rnd() < 0.1 ? `\\${pick(usable)}` : quantified(depth);
    }
    return s;
  };
  const alternation = (depth) => (rnd() < 0.25 ? `${sequence(depth)}|${sequence(depth)}` : sequence(depth));
  return alternation(0);
}

const SEED = 21;
const rnd = random(SEED);
const NAMES = generatedNames(rnd, 400);
const PATTERNS = Array.from({ length: 120 }, () => generatedExpression(rnd));

// `names` as files, and below "##" as folders each holding the file "x".
function namesTree(names) {
  return makeTree({ files: Object.fromEntries(names.flatMap((n) => [[n, ''], [`##/${n}/x`, '']])) });
}

// One expression as ignoreFileRegs and ignoreDirRegs; returns the names matched.
async function checkAgainstRegExp(root, names, source) {
  const { nodes, result } = await scan(root, { ignoreFileRegs: [source], ignoreDirRegs: [source], fastMetadata: true });
  const m = (name) => fullMatch(source, name);
  const files = names.filter((n) => !m(n));
  const inFolders = m('##') || m('x') ? [] : names.filter((n) => !m(n)).map((n) => `##/${n}/x`);
  assert.deepEqual(relPaths(nodes), [...files, ...inFolders].sort(), JSON.stringify(source));
  const filtered = names.length - files.length + (m('##') || !m('x') ? 0 : names.filter((n) => !m(n)).length);
  assert.equal(result.filteredFileCount, filtered, JSON.stringify(source));
  return names.length - files.length;
}

test('generated expressions answer as RegExp does on generated names, for files and folders', async (t) => {
  const root = namesTree(NAMES);
  t.after(() => removeTree(root));
  assert.equal((await scan(root)).nodes.length, 2 * NAMES.length, 'the tree holds every name');
  let matched = 0;
  for (const source of PATTERNS) matched += await checkAgainstRegExp(root, NAMES, source);
  // The generator must stay useful: enough matches to compare.
  assert.ok(matched > PATTERNS.length, `only ${matched} of ${PATTERNS.length * NAMES.length} pairs match`);
});

test('known differences from RegExp, and the forms JavaScript keeps for old pages', async (t) => {
  const names = ['aba', 'ab', 'b', '{x}', 'a{2', '[y]', 'akb', 'A', 'a', 'aa', 'aaa', 'x😀.png', '😀.png', 'u{41}', 'Ax4',
    'A8', 'aehlpAzQEG', '<>`\'', ':]', 'a{,2}', 'x{2,3', 'a{b}', '}]', 'abcdefghijj', '1-z', '123', 'é', 'àbü', 'foo bar',
    'foobar', 'ébar', 'abc-abc'].filter((n) => !isWindows || !/[<>:]/.test(n))
    // Windows names ignore case: 'A' and 'a' would be one file.
    .filter((n, i, all) => !isWindows || all.findIndex((m) => m.toLowerCase() === n.toLowerCase()) === i);
  const root = namesTree(names);
  t.after(() => removeTree(root));
  for (const source of ['{x}', 'a{2', '[[]y]', 'a\\kb', '\\101', '.\\.png', '..\\.png', '\\ud83d\\ude00\\.png', 'x\\ud83d.*',
    '\\u{41}', 'u{41}', '\\x41\\x4', '\\101\\8', '\\a\\e\\h\\l\\p\\A\\z\\Q\\E\\G', "\\<\\>\\`\\'", '[[:alpha:]]+',
    'a{,2}', 'x{2,3', 'a{b}', '}]', 'a{0,100001}', 'a{2}?', '(a)(b)(c)(d)(e)(f)(g)(h)(i)(j)\\10', '\\k<x>(?<x>a)',
    '(a\\1)', '[\\d-z]+', '[^a\\D]+', '[\\u00e0-\\u00fc]+', '\\bfoo\\b.*', '.*\\bbar', '(.*)-\\1']) {
    await t.test(`as RegExp: ${JSON.stringify(source)}`, () => checkAgainstRegExp(root, names, source));
  }
  await t.test('a group repeated keeps what an earlier round took, where RegExp empties it', async () => {
    assert.equal(fullMatch('(?:(a)|b)*\\1', 'aba'), false);
    const { nodes } = await scan(root, { ignoreFileRegs: ['(?:(a)|b)*\\1'], fastMetadata: true });
    assert.ok(!nodes.some((n) => n.name === 'aba'));
  });
});

// Names on which (a+)+$ backtracks 2^40 times in a plain backtracking engine.
const HOPELESS = Array.from({ length: 40 }, (_, i) => `${'a'.repeat(40)}!${i}`);

// In a child: hopeless expressions count as no match, the scan goes on past
// a callback that throws; a scan closed at its start sends nothing.
test('an expression that backtracks without end, a throwing callback, a scan closed at once', (t) => {
  const files = { aaaa: '', 'b.txt': '', [`${'a'.repeat(40)}/x.txt`]: '', [`${'a'.repeat(40)}!/y.txt`]: '' };
  for (const name of HOPELESS) files[name] = '';
  for (let i = 0; i < 1500; i++) files[`d${i % 10}/f${i}.txt`] = '';
  const root = makeTree({ files });
  t.after(() => removeTree(root));
  const r = childScan(
    `const root = ${JSON.stringify(root)};
     const names = [];
     ostrel.ScanAllSubFiles(root, (u) => {
       names.push(...u.nodes.map((n) => n.name));
       throw new Error('boom');
     }, (res) => {
       report({ names, res });
       ostrel.ScanAllSubFiles(root, () => console.log('UPDATE'), () => console.log('RESULT late'), { ignoreFileRegs: ['(a*)*$'] })();
       console.log('CLOSED ' + Date.now());
       process.on('exit', () => console.log('EXIT'));
     }, { ignoreFileRegs: ['(a+)+$'], ignoreDirRegs: ['(a|aa)+'] });`,
  );
  const exitMs = Date.now() - Number((/^CLOSED (\d+)/m.exec(r.stdout) || [])[1]);
  assert.equal(r.status, 0, r.stderr);
  // The folder of a's is left out; the one ending in "!" is walked.
  const expected = ['b.txt', 'y.txt', ...HOPELESS, ...Array.from({ length: 1500 }, (_, i) => `f${i}.txt`)];
  assert.deepEqual(r.names.sort(), expected.sort());
  assert.deepEqual([r.res.totalFileCount, r.res.filteredFileCount], [expected.length + 1, 1]); // aaaa
  assert.match(r.stdout, /Caught Napi::Error in ScanFileUpdate: boom/);
  assert.equal(r.stderr.split(/\r?\n/).filter((l) => /expression "(\(a\+\)\+\$|\(a\|aa\)\+)" is too complex/.test(l)).length, 2, r.stderr);
  assert.doesNotMatch(r.stdout, /UPDATE|RESULT late/);
  assert.match(r.stdout, /^EXIT/m);
  assert.ok(exitMs < 1000, `the process took ${exitMs} ms to end after close()`);
});

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
  ['excludes, once given, win over includes', { extFilter: { includes: ['jpg'], excludes: ['jpg'] } }, (f) => !jpg(f)],
  ['an empty includes entry keeps names without extension', { extFilter: { includes: [''] } }, ['.gitignore', 'README']],
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
  // Windows: any case, either separator.
  ['ignoreDirRegs and leaveDirs skip whole sub-trees, uncounted', { ignoreDirRegs: ['node_modules'], leaveDirs: [isWindows ? 'PHOTOS/KEEP/' : 'photos/keep/'] },
    (f) => !/^(node_modules|photos\/keep)\//.test(f), { total: ALL - 2, filtered: 0 }],
  ['leaveFiles by relative or absolute path, uncounted', { leaveFiles: ['docs/x.txt', path.join(root, 'README'), path.join(path.parse(root).root, 'notes.txt')] },
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
