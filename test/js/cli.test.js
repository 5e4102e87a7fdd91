'use strict';
// The ostrel command line, run as a child of this node: usage errors, the
// version command, scans of a small tree whose files are known, and scans
// that cannot list their root or some folder.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const os = require('os');
const path = require('path');
const { spawnSync } = require('child_process');
const { root, buildDir, isWindows } = require('./helpers');
const { ProgressLine, bytes } = require('../../lib/cli/format');
const scanCommand = require('../../lib/cli/scan');
const { UsageError } = require('../../lib/cli/usage');

const bin = path.join(root, 'bin', 'ostrel.js');

function cli(args, { cwd = root, env = {} } = {}) {
  const r = spawnSync(process.execPath, [bin, ...args], {
    cwd,
    encoding: 'utf8',
    timeout: 120000,
    env: { ...process.env, OSTREL_BUILD_DIR: buildDir(), ...env },
  });
  return { status: r.status, stdout: r.stdout || '', stderr: r.stderr || '' };
}

// The module's own log lines ("Ostrel Initializing ..."), which the command
// line asks the module to write to standard error.
const MODULE_LOG = /^(Ostrel |ScanData::|RegisterTracer end$)/m;
const outputLines = (stdout) => stdout.split('\n').filter((l) => l);

// name -> size; folders are made as needed.
const TREE = {
  'a.jpg': 3,
  'b.JPG': 5,
  'c.txt': 7,
  README: 0,
  '.hidden.png': 2,
  'sub/d.jpg': 11,
  'sub/café.jpg': 1,
  'sub/deep/x/y/z/e.png': 13,
  'skipme/f.jpg': 4,
  'skipme/inner/g.txt': 6,
  '.cache/h.md': 9,
  'ünï/写真.jpg': 8,
};
const native = (rel) => rel.split('/').join(path.sep);
let tree;

test.before(() => {
  tree = fs.mkdtempSync(path.join(os.tmpdir(), 'ostrel-cli-'));
  for (const [rel, size] of Object.entries(TREE)) {
    const file = path.join(tree, native(rel));
    fs.mkdirSync(path.dirname(file), { recursive: true });
    fs.writeFileSync(file, Buffer.alloc(size, 'x'));
  }
  fs.mkdirSync(path.join(tree, 'empty'));
});

test.after(() => {
  if (tree) fs.rmSync(tree, { recursive: true, force: true });
});

function counts(text) {
  const get = (name) => {
    const m = new RegExp(`${name}\\s+(\\S+)`).exec(text);
    assert.ok(m, `no ${name} in:\n${text}`);
    return m[1];
  };
  const delivered = /(\d+) files delivered/.exec(text);
  assert.ok(delivered, `no delivered count in:\n${text}`);
  return {
    delivered: Number(delivered[1]),
    total: Number(get('totalFileCount')),
    filtered: Number(get('filteredFileCount')),
    hiddenSystem: Number(get('hiddenSystemFileCount')),
    beyondLimit: get('fileCountBeyondLimit'),
    complete: get('complete'),
  };
}

function jsonFiles(stdout) {
  return outputLines(stdout).map((l) => {
    try {
      return JSON.parse(l);
    } catch {
      assert.fail(`not a JSON line: ${l}`);
    }
  });
}

test('usage errors exit with status 2 and say what is wrong', () => {
  const cases = [
    [[], /usage: ostrel <command>/],
    [['frob'], /unknown command 'frob'/],
    [['scan', '--bogus'], /unknown option '--bogus'/],
    [['scan', 'a', 'b'], /unexpected argument 'b'/],
    [['scan', '--ext'], /--ext/],
    [['scan', '--ext', ''], /--ext needs a list/],
    [['scan', '--ignore', '('], /invalid regular expression '\('/],
    [['version', 'extra'], /unexpected argument 'extra'/],
    [['help', 'frob'], /unknown command 'frob'/],
  ];
  for (const [args, message] of cases) {
    const r = cli(args);
    assert.equal(r.status, 2, `${args.join(' ')}: ${r.stderr}`);
    assert.match(r.stderr, message, args.join(' '));
    assert.equal(outputLines(r.stdout).length, 0, `${args.join(' ')} printed: ${r.stdout}`);
  }
});

// Patterns the command line's own check lets through can still be refused
// by the module, which throws synchronously and names its option. That is
// a usage error too (status 2), naming the command line's option. Run in
// this process with a double of the module that refuses every pattern.
test('a pattern the module refuses is a usage error naming --ignore', async () => {
  const refusal = (where, re = '(?<=x") in y') =>
    new Error(`ScanAllSubFiles: invalid regular expression "${re}": Invalid group in ${where}`);
  const cases = [
    ['ignoreFileRegs[0]', "--ignore: invalid regular expression '(?<=x\") in y': Invalid group"],
    ['ignoreDirRegs[2]', "--ignore: invalid regular expression '(?<=x\") in y': Invalid group"],
    ['fineGrainedDirs[0].omits[1].fileNameReg', "fineGrainedDirs: invalid regular expression '(?<=x\") in y': Invalid group"],
  ];
  for (const [where, message] of cases) {
    const err = scanCommand.refusedPattern(refusal(where));
    assert.ok(err instanceof UsageError, where);
    assert.equal(err.command, 'scan');
    assert.equal(err.message, message);
  }
  assert.equal(scanCommand.refusedPattern(new Error('something else')), null);

  const double = {
    RegisterTracer() {},
    UnRegisterTracers() {},
    ScanAllSubFiles() {
      throw refusal('ignoreFileRegs[0]', '(?<=b)a');  // JS takes it; this module does not
    },
  };
  const sink = { write() {}, isTTY: false, on() {}, removeListener() {} };
  const io = { stdout: sink, stderr: sink, cwd: tree, loadModule: () => double };
  await assert.rejects(() => scanCommand.run(['--ignore', '(?<=b)a', tree], io), (err) => {
    assert.ok(err instanceof UsageError);
    assert.equal(err.message, "--ignore: invalid regular expression '(?<=b)a': Invalid group");
    return true;
  });
});

test('help lists the commands and shows a command\'s options', () => {
  const all = cli(['help']);
  assert.equal(all.status, 0);
  for (const name of ['scan', 'version', 'help']) assert.match(all.stdout, new RegExp(`^  ${name} `, 'm'));
  const scan = cli(['scan', '--help']);
  assert.equal(scan.status, 0);
  assert.match(scan.stdout, /^usage: ostrel scan \[dir\]/);
  assert.match(scan.stdout, /--ignore REGEX/);
  assert.equal(cli(['help', 'scan']).stdout, scan.stdout);
});

test('version prints the module version', () => {
  const expected = require(root).getVersion();
  for (const args of [['version'], ['--version']]) {
    const r = cli(args);
    assert.equal(r.status, 0, r.stderr);
    assert.deepEqual(outputLines(r.stdout), [expected]);
  }
});

test('standard output holds only the command\'s own output', () => {
  const r = cli(['version']);
  assert.equal(r.stdout, `${require(root).getVersion()}\n`);
  assert.match(r.stderr, MODULE_LOG);
  const scan = cli(['scan', tree, '--json']);
  for (const l of scan.stdout.split('\n').filter(Boolean)) assert.doesNotThrow(() => JSON.parse(l), l);
});

test('a folder that cannot be scanned is an error with status 1', () => {
  const missing = cli(['scan', path.join(tree, 'no-such-folder')]);
  assert.equal(missing.status, 1);
  assert.match(missing.stderr, /no such folder: .*no-such-folder/);
  const file = cli(['scan', path.join(tree, 'a.jpg')]);
  assert.equal(file.status, 1);
  assert.match(file.stderr, /not a folder/);
});

// Linux: as root the permission bits are not checked; without the DAC
// capabilities they are, as for any user.
test('a root that may not be listed is an error with status 1, said on standard error', { skip: isWindows && 'needs Unix permissions' }, (t) => {
  const probe = spawnSync('setpriv', ['--bounding-set=-dac_override,-dac_read_search', 'true']);
  if (probe.status !== 0 || process.getuid() !== 0) {
    t.skip('needs setpriv as root');
    return;
  }
  const denied = fs.mkdtempSync(path.join(os.tmpdir(), 'ostrel-cli-denied-'));
  fs.writeFileSync(path.join(denied, 'secret.txt'), 'x');
  fs.chmodSync(denied, 0o000);
  t.after(() => {
    fs.chmodSync(denied, 0o700);
    fs.rmSync(denied, { recursive: true, force: true });
  });
  const r = spawnSync('setpriv', ['--bounding-set=-dac_override,-dac_read_search', process.execPath, bin, 'scan', denied], {
    encoding: 'utf8',
    timeout: 120000,
    env: { ...process.env, OSTREL_BUILD_DIR: buildDir() },
  });
  assert.equal(r.status, 1, r.stderr);
  assert.match(r.stderr, new RegExp(`^ostrel scan: cannot list ${denied}: Permission denied \\(error 13\\)$`, 'm'));
  assert.doesNotMatch(r.stdout, /files delivered/);
});

// Linux: the walk holds a descriptor per folder level, so with a low limit
// of open files the deep folders cannot be opened. Under Wine, whose paths
// become Unix paths of at most 4,096 bytes, folders nested past that cannot
// be listed.
function incompleteTree(t) {
  const base = fs.mkdtempSync(path.join(os.tmpdir(), 'ostrel-cli-deep-'));
  fs.writeFileSync(path.join(base, 'top.txt'), 'x');
  const long = (i) => `d${i}_`.padEnd(isWindows ? 240 : 1, 'x');
  const short = path.join(base, 't');
  const renamed = path.join(base, long(99));
  t.after(() => {
    try {
      fs.renameSync(renamed, short);  // the long paths cannot be removed
    } catch {
      // not renamed
    }
    fs.rmSync(base, { recursive: true, force: true });
  });
  let dir = short;
  fs.mkdirSync(dir);
  for (let i = 0; i < (isWindows ? 20 : 120); i++) {
    const next = path.join(dir, long(i));
    try {
      fs.mkdirSync(next);
      fs.writeFileSync(path.join(next, 'f.txt'), 'x');
    } catch {
      break;
    }
    dir = next;
  }
  fs.renameSync(short, renamed);
  return base;
}

test('a scan that could not list some folders names them and exits with status 3', (t) => {
  const underWine = isWindows && Boolean(process.env.WINELOADER);
  if (isWindows && !underWine) {
    t.skip('Windows lists paths of any length');
    return;
  }
  const base = incompleteTree(t);
  const r = isWindows
    ? cli(['scan', base])
    : spawnSync('sh', ['-c', 'ulimit -n 64 && exec "$@"', 'sh', process.execPath, bin, 'scan', base], {
        encoding: 'utf8',
        timeout: 120000,
        env: { ...process.env, OSTREL_BUILD_DIR: buildDir() },
      });
  assert.equal(r.status, scanCommand.EXIT_INCOMPLETE, r.stderr);
  const c = counts(r.stdout);
  assert.equal(c.complete, 'false');
  assert.ok(c.delivered >= 2, 'the files before the failing folder are delivered');
  const listed = r.stdout.split('skipped folders (1), their files are missing:\n')[1];
  assert.ok(listed, r.stdout);
  assert.match(listed, new RegExp(`^    ${base.replace(/[\\^$.*+?()[\]{}|]/g, '\\$&')}.+: .+ \\(error \\d+\\)$`, 'm'));
  assert.match(r.stderr, /^ostrel scan: warning: incomplete scan: 1 folder could not be listed/m);
});

test('scan names the folders holding names that are not UTF-8, counts special files and exits with status 3 (Linux)', {
  skip: isWindows && 'Linux only',
}, (t) => {
  const base = fs.mkdtempSync(path.join(os.tmpdir(), 'ostrel-cli-names-'));
  t.after(() => fs.rmSync(base, { recursive: true, force: true }));
  fs.writeFileSync(path.join(base, 'good.txt'), 'x');
  fs.mkdirSync(path.join(base, 'sub'));
  fs.writeFileSync(Buffer.concat([Buffer.from(path.join(base, 'sub', 'bad')), Buffer.from([0xff])]), 'x');
  assert.equal(spawnSync('mkfifo', [path.join(base, 'fifo')]).status, 0, 'mkfifo');
  const r = cli(['scan', base]);
  assert.equal(r.status, scanCommand.EXIT_INCOMPLETE, r.stderr);
  assert.match(r.stdout, /^ {2}specialFileCount +1$/m);
  assert.match(r.stdout, /^ {2}invalidNameCount +1$/m);
  assert.equal(counts(r.stdout).delivered, 1);
  assert.equal(counts(r.stdout).complete, 'false');
  const listed = r.stdout.split('folders holding names that are not valid Unicode (1), those entries are missing:\n')[1];
  assert.ok(listed, r.stdout);
  assert.equal(listed.split('\n')[0], `    ${path.join(base, 'sub')}: 1 name`);
  assert.match(r.stderr, /^ostrel scan: warning: incomplete scan: 1 name is not valid Unicode/m);
  assert.doesNotMatch(r.stderr, /could not be listed/);
});

test('scan prints the counts of the tree', () => {
  const r = cli(['scan', tree]);
  assert.equal(r.status, 0, r.stderr);
  const n = Object.keys(TREE).length;
  assert.deepEqual(counts(r.stdout), {
    delivered: n,
    total: n,
    filtered: 0,
    hiddenSystem: 0,
    beyondLimit: 'false',
    complete: 'true',
  });
  assert.doesNotMatch(r.stdout, /skipped folders/);
  assert.doesNotMatch(r.stderr, /warning/);
  assert.match(r.stdout, new RegExp(`scanned ${tree.replace(/[\\^$.*+?()[\]{}|]/g, '\\$&')} in [0-9.]+ s`));
  const size = Object.values(TREE).reduce((a, b) => a + b, 0);
  assert.match(r.stdout, new RegExp(`\\(${bytes(size)}\\)`));
});

test('scan without a folder scans the current one', () => {
  const r = cli(['scan'], { cwd: path.join(tree, 'sub') });
  assert.equal(r.status, 0, r.stderr);
  const inSub = Object.keys(TREE).filter((k) => k.startsWith('sub/')).length;
  assert.equal(counts(r.stdout).total, inSub);
});

test('--json prints one file object per line, matching the tree', () => {
  const r = cli(['scan', tree, '--json']);
  assert.equal(r.status, 0, r.stderr);
  const files = jsonFiles(r.stdout);
  const byPath = new Map(files.map((f) => [f.relativePath, f]));
  assert.equal(files.length, Object.keys(TREE).length);
  for (const [rel, size] of Object.entries(TREE)) {
    const f = byPath.get(native(rel));
    assert.ok(f, `missing ${rel}`);
    assert.equal(f.size, size, rel);
    assert.equal(f.isFile, true);
    assert.equal(f.name, path.basename(rel));
    assert.equal(f.absolutePath, path.join(tree, native(rel)));
    assert.equal(f.dirPath, tree);
    assert.equal(typeof f.mtimeMs, 'number');
  }
  assert.deepEqual(Object.keys(files[0]), [
    'absolutePath', 'name', 'relativeDir', 'relativePath', 'dirPath', 'isFile', 'hidden', 'isSystem',
    'size', 'ino', 'ctimeMs', 'mtimeMs', 'birthtimeMs', 'readable',
  ]);
  // The summary goes to standard error, out of the way of the JSON lines.
  assert.equal(counts(r.stderr).total, Object.keys(TREE).length);
});

test('--ext keeps only the listed extensions, in any case', () => {
  const r = cli(['scan', tree, '--json', '--ext', 'jpg']);
  assert.equal(r.status, 0, r.stderr);
  const got = jsonFiles(r.stdout).map((f) => f.name).sort();
  const want = Object.keys(TREE).filter((k) => /\.jpg$/i.test(k)).map((k) => path.basename(k)).sort();
  assert.deepEqual(got, want);
  const c = counts(r.stderr);
  assert.equal(c.total, Object.keys(TREE).length);
  assert.equal(c.filtered, Object.keys(TREE).length - want.length);

  const two = cli(['scan', tree, '--ext', '.PNG,txt']);
  assert.equal(two.status, 0, two.stderr);
  assert.equal(counts(two.stdout).delivered, Object.keys(TREE).filter((k) => /\.(png|txt)$/.test(k)).length);
});

test('--ignore skips matching files and whole folders', () => {
  const r = cli(['scan', tree, '--json', '--ignore', 'skipme', '--ignore', '.*\\.txt']);
  assert.equal(r.status, 0, r.stderr);
  const got = jsonFiles(r.stdout).map((f) => f.relativePath.split(path.sep).join('/')).sort();
  const want = Object.keys(TREE).filter((k) => !k.startsWith('skipme/') && !k.endsWith('.txt')).sort();
  assert.deepEqual(got, want);
  // Full match: a name that only contains the pattern is kept.
  const partial = cli(['scan', tree, '--json', '--ignore', 'skip']);
  assert.equal(jsonFiles(partial.stdout).length, Object.keys(TREE).length);
});

test('--fast delivers the same files with the same sizes', () => {
  const r = cli(['scan', tree, '--json', '--fast']);
  assert.equal(r.status, 0, r.stderr);
  const got = new Map(jsonFiles(r.stdout).map((f) => [f.relativePath, f.size]));
  assert.deepEqual(got, new Map(Object.entries(TREE).map(([k, v]) => [native(k), v])));
});

test('--stats lists the native calls of the scan, one query per file', () => {
  const r = cli(['scan', tree, '--stats']);
  assert.equal(r.status, 0, r.stderr);
  const [, table] = r.stdout.split('native calls:\n');
  assert.ok(table, r.stdout);
  const perFile = table.split('\n').filter((l) => new RegExp(`^  \\S+ +${Object.keys(TREE).length} calls `).test(l));
  assert.equal(perFile.length, 1, table);
  assert.doesNotMatch(cli(['scan', tree]).stdout, /native calls/);
});

test('the progress line is throttled, padded over longer text and cleared', () => {
  let now = 0;
  const writes = [];
  const stream = { columns: 20, write: (s) => writes.push(s) };
  const p = new ProgressLine(stream, { intervalMs: 100, now: () => now });
  p.update(() => 'first line', true);
  now = 50;
  p.update(() => 'too soon');
  now = 150;
  p.update(() => 'x');
  now = 300;
  p.update(() => 'a line far longer than the terminal');
  p.clear();
  assert.deepEqual(writes, [
    '\rfirst line',
    '\rx         ',
    '\ra line far longer t',
    `\r${' '.repeat(19)}\r`,
  ]);
});
