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

// A fixed-seed generator (mulberry32): the same expressions and names on
// every run and platform.
function random(seed) {
  return () => {
    seed = (seed + 0x6d2b79f5) | 0;
    let t = Math.imul(seed ^ (seed >>> 15), 1 | seed);
    t = (t + Math.imul(t ^ (t >>> 7), 61 | t)) ^ t;
    return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
  };
}

// Names from a small alphabet (so that expressions often match), unique
// whatever the case (Windows file systems ignore it); Linux adds line breaks.
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

// Expressions over the same alphabet: escapes, classes, the dot, groups,
// look-arounds, quantifiers (greedy and lazy), alternation, anchors and
// backreferences. Look-behinds hold fixed-length text and a backreference
// never names a group inside a repetition: the two known gaps, kept as
// named cases below.
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

// What a scan with one ignoreFileRegs expression keeps, against RegExp.
async function checkAgainstRegExp(t, root, names, source) {
  const { nodes, result } = await scan(root, { ignoreFileRegs: [source], fastMetadata: true });
  const kept = names.filter((n) => !fullMatch(source, n));
  assert.deepEqual(nodes.map((n) => n.name).sort(), kept.sort(), `${JSON.stringify(source)}`);
  assert.equal(result.filteredFileCount, names.length - kept.length);
}

test('generated expressions answer as RegExp does on generated names', async (t) => {
  const root = makeTree({ files: Object.fromEntries(NAMES.map((n) => [n, ''])) });
  t.after(() => removeTree(root));
  const all = (await scan(root)).nodes.map((n) => n.name);
  assert.deepEqual([...all].sort(), [...NAMES].sort(), 'the tree holds every name');
  let matched = 0;
  for (const source of PATTERNS) {
    await checkAgainstRegExp(t, root, NAMES, source);
    matched += NAMES.filter((n) => fullMatch(source, n)).length;
  }
  // The generator must stay useful: enough matches to compare.
  assert.ok(matched > PATTERNS.length, `only ${matched} of ${PATTERNS.length * NAMES.length} pairs match`);
});

test('known differences from RegExp, and the forms JavaScript keeps for old pages', async (t) => {
  const names = ['aba', 'ab', 'b', '{x}', 'a{2', '[y]', 'akb', 'A', 'a', 'aa', 'aaa', 'x😀.png', '😀.png', 'u{41}', 'Ax4',
    'A8', 'aehlpAzQEG', '<>`\'', ':]', 'a{,2}', 'x{2,3', 'a{b}', '}]', 'abcdefghijj', '1-z', '123', 'é', 'àbü', 'foo bar',
    'foobar', 'ébar', 'abc-abc'].filter((n) => !isWindows || !/[<>:]/.test(n))
    // Windows names ignore case: 'A' and 'a' would be one file.
    .filter((n, i, all) => !isWindows || all.findIndex((m) => m.toLowerCase() === n.toLowerCase()) === i);
  const root = makeTree({ files: Object.fromEntries(names.map((n) => [n, ''])) });
  t.after(() => removeTree(root));
  for (const source of ['{x}', 'a{2', '[[]y]', 'a\\kb', '\\101', '.\\.png', '..\\.png', '\\ud83d\\ude00\\.png', 'x\\ud83d.*',
    '\\u{41}', 'u{41}', '\\x41\\x4', '\\101\\8', '\\a\\e\\h\\l\\p\\A\\z\\Q\\E\\G', "\\<\\>\\`\\'", '[[:alpha:]]+',
    'a{,2}', 'x{2,3', 'a{b}', '}]', 'a{0,100001}', 'a{2}?', '(a)(b)(c)(d)(e)(f)(g)(h)(i)(j)\\10', '\\k<x>(?<x>a)',
    '(a\\1)', '[\\d-z]+', '[^a\\D]+', '[\\u00e0-\\u00fc]+', '\\bfoo\\b.*', '.*\\bbar', '(.*)-\\1']) {
    await t.test(`as RegExp: ${JSON.stringify(source)}`, () => checkAgainstRegExp(t, root, names, source));
  }
  await t.test('a group repeated keeps what an earlier round took, where RegExp empties it', async () => {
    assert.equal(fullMatch('(?:(a)|b)*\\1', 'aba'), false);
    const { nodes } = await scan(root, { ignoreFileRegs: ['(?:(a)|b)*\\1'], fastMetadata: true });
    assert.ok(!nodes.some((n) => n.name === 'aba'));
  });
  await t.test('a look-behind of varying length is refused', () => {
    assert.ok(new RegExp('(?<=a+)b'));
    assert.throws(() => ostrel.ScanAllSubFiles(root, () => {}, () => {}, { ignoreFileRegs: ['(?<=a+)b'] }), /invalid regular expression/);
  });
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
