'use strict';
// The ostrel command line, run as a child of this node: one table of
// commands, then scans, watch, the device commands and the formatting.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const os = require('os');
const path = require('path');
const { spawn, spawnSync } = require('child_process');
const { root, buildDir, isWindows, tempDir } = require('./helpers');
const { makeTree, removeTree } = require('./scan-fixture');
const { ProgressLine, bytes } = require('../../lib/cli/format');
const { drivesTable, disksTable } = require('../../lib/cli/storage');
const { EXIT_INCOMPLETE } = require('../../lib/cli/scan');

const bin = path.join(root, 'bin', 'ostrel.js');
const env0 = () => ({ ...process.env, OSTREL_BUILD_DIR: buildDir() });

// `prefix`: a command it runs under.
function cli(args, { cwd = root, env = {}, prefix = [], bin: script = [bin] } = {}) {
  const cmd = [...prefix, process.execPath, ...script, ...args];
  const r = spawnSync(cmd[0], cmd.slice(1), { cwd, encoding: 'utf8', timeout: 120000, env: { ...env0(), ...env } });
  return { status: r.status, stdout: r.stdout || '', stderr: r.stderr || '' };
}

const outputLines = (stdout) => stdout.split('\n').filter((l) => l);
const escape = (s) => s.replace(/[\\^$.*+?()[\]{}|]/g, '\\$&');

// name -> size; folders are made as needed.
const TREE = {
  'a.jpg': 3, 'b.JPG': 5, 'c.txt': 7, README: 0, '.hidden.png': 2, 'sub/d.jpg': 11, 'sub/café.jpg': 1, 'sub/deep/x/y/z/e.png': 13,
  'skipme/f.jpg': 4, 'skipme/inner/g.txt': 6, '.cache/h.md': 9, 'ünï/写真.jpg': 8,
};
const N = Object.keys(TREE).length;
const tree = makeTree({ files: Object.fromEntries(Object.entries(TREE).map(([rel, size]) => [rel, 'x'.repeat(size)])), folders: ['empty'] });
test.after(() => removeTree(tree));

// [arguments, exit status, standard output, standard error]: each a pattern,
// an exact text or a check. A usage error: "ostrel <command>: <why>", usage.
const COMMANDS = [
  [[], 2, '', /usage: ostrel <command>/],
  [['frob'], 2, '', /unknown command 'frob'/],
  [['help', 'frob'], 2, '', /unknown command 'frob'/],
  [['scan', '--bogus'], 2, '', /unknown option '--bogus'/],
  [['scan', 'a', 'b'], 2, '', /unexpected argument 'b'/],
  [['scan', '--ext'], 2, '', /--ext/],
  [['scan', '--ext', ''], 2, '', /--ext needs a list/],
  [['scan', '--ignore', '('], 2, '', /invalid regular expression '\('/],
  // A pattern JavaScript takes and the module refuses: a usage error too.
  [['scan', '--ignore', '(?<=a+)b', tree], 2, '', /^ostrel scan: --ignore: invalid regular expression '\(\?<=a\+\)b': .*lookbehind/m],
  [['drives', '--timeout', 'soon'], 2, '', /--timeout needs a number of milliseconds/],
  [['disks', '--timeout', '99999999999'], 2, '', /--timeout needs/],
  [['device-files'], 2, '', /a device id is needed/],
  [['device-files', 'a', 'b', 'c'], 2, '', /unexpected argument 'c'/],
  [['copy-object', 'a', 'b'], 2, '', /a device id, an object id and a destination are needed/],
  [['watch', '--ignore', '('], 2, '', /invalid regular expression/],
  [['scan', path.join(tree, 'no-such-folder')], 1, '', /no such folder: .*no-such-folder/],
  [['scan', path.join(tree, 'a.jpg')], 1, '', /not a folder/],
  [['help'], 0, (out) => ['scan', 'version', 'help'].forEach((n) => assert.match(out, new RegExp(`^  ${n} `, 'm'))), ''],
  [['scan', '--help'], 0, /^usage: ostrel scan \[dir\][^]*--ignore REGEX/, ''],
  // The module's log lines go to standard error.
  [['--version'], 0, `${require(root).getVersion()}\n`, /^Ostrel Initializing \.\.\.$/m],
  [['drives'], 0, /^MOUNTED +TYPE +SIZE +USED +FREE +DESCRIPTION\n.+\n/, /^Ostrel /m],
  [['disks'], 0, /^MOUNTED +STORAGE +DISK +TYPE +FS +SIZE +FREE +INTERFACE +MEDIA +MODEL\n.+\n/, /^Ostrel /m],
  // --json prints the module's objects; --timeout bounds the call.
  [['drives', '--json', '--timeout', '60000'], 0, (out) => assert.deepEqual(Object.keys(JSON.parse(out)[0]),
    ['mounted', 'available', 'blocks', 'used', 'capacity', 'filesystem', 'drivetype']), /^Ostrel /m],
  [['disks', '--json', '--timeout', '0'], 0, (out) => assert.ok(Array.isArray(JSON.parse(out))), /^Ostrel /m],
  ...(isWindows ? [] : [
    [['devices'], 0, 'no MTP devices attached\n', /^Ostrel /m],
    [['devices', '--json'], 0, '[]\n', /^Ostrel /m],
    [['copy-object', 'x', 'o', path.join(os.tmpdir(), 'never-written')], 1, '', /GetMtpFileById is not supported on this platform/],
  ]),
];
const COMMAND_NAMES = ['scan', 'version', 'drives', 'disks', 'devices', 'device-files', 'copy-object', 'watch'];

test('every command: exit status, standard output and standard error', async (t) => {
  for (const [args, status, stdout, stderr] of COMMANDS) {
    await t.test(`ostrel ${args.join(' ')}`, () => {
      const r = cli(args);
      const said = `status ${r.status}\n${r.stdout}\n${r.stderr}`;
      assert.equal(r.status, status, said);
      if (typeof stdout === 'string') assert.equal(r.stdout, stdout, said);
      else if (typeof stdout === 'function') stdout(r.stdout);
      else assert.match(r.stdout, stdout, said);
      if (typeof stderr === 'string') assert.equal(r.stderr, stderr, said);
      else assert.match(r.stderr, stderr, said);
      if (status === 2 && COMMAND_NAMES.includes(args[0])) {
        assert.match(r.stderr, new RegExp(`^ostrel ${args[0]}: [^]*\\nusage: ostrel ${args[0]}( |$)`, 'm'), said);
      }
    });
  }
  assert.equal(cli(['help', 'scan']).stdout, cli(['scan', '--help']).stdout);
});

// The summary's counts: "N files delivered" and the result's fields.
function counts(text) {
  const get = (re) => (re.exec(text) || assert.fail(`no ${re} in:\n${text}`))[1];
  const field = (name) => get(new RegExp(`${name}\\s+(\\S+)`));
  return {
    delivered: Number(get(/(\d+) files delivered/)), total: Number(field('totalFileCount')), filtered: Number(field('filteredFileCount')),
    hiddenSystem: Number(field('hiddenSystemFileCount')), beyondLimit: field('fileCountBeyondLimit'), complete: field('complete'),
  };
}

const relOf = (f) => f.relativePath.split(path.sep).join('/');
const treeWhere = (keep) => Object.keys(TREE).filter(keep).sort();

test('scan of the known tree: counts, JSON lines, and each option against the tree', () => {
  const r = cli(['scan', tree]);
  assert.equal(r.status, 0, r.stderr);
  assert.deepEqual(counts(r.stdout), { delivered: N, total: N, filtered: 0, hiddenSystem: 0, beyondLimit: 'false', complete: 'true' });
  assert.doesNotMatch(r.stdout, /skipped folders|native calls/);
  assert.doesNotMatch(r.stderr, /warning/);
  assert.match(r.stdout, new RegExp(`scanned ${escape(tree)} in [0-9.]+ s`));
  assert.match(r.stdout, new RegExp(`\\(${escape(bytes(Object.values(TREE).reduce((a, b) => a + b, 0)))}\\)`));

  // Without a folder: the current one.
  assert.equal(counts(cli(['scan'], { cwd: path.join(tree, 'sub') }).stdout).total, treeWhere((k) => k.startsWith('sub/')).length);

  // --json: the module's objects, the summary on standard error.
  for (const [args, keep] of [
    [[], () => true],
    [['--ext', 'jpg'], (k) => /\.jpg$/i.test(k)],
    [['--ext', '.PNG,txt'], (k) => /\.(png|txt)$/.test(k)],
    [['--ignore', 'skipme', '--ignore', '.*\\.txt'], (k) => !k.startsWith('skipme/') && !k.endsWith('.txt')],
  ]) {
    const json = cli(['scan', tree, '--json', ...args]);
    assert.equal(json.status, 0, json.stderr);
    assert.deepEqual(outputLines(json.stdout).map((l) => JSON.parse(l)).map((f) => [relOf(f), f.size, f.absolutePath]).sort(),
      treeWhere(keep).map((rel) => [rel, TREE[rel], path.join(tree, ...rel.split('/'))]), args.join(' '));
    const summary = counts(json.stderr);
    assert.equal(summary.delivered, treeWhere(keep).length);
    if (args[0] !== '--ignore') assert.equal(summary.filtered, N - treeWhere(keep).length, args.join(' '));
  }

  // --stats: the native calls of the scan, one query per file.
  const [, table] = cli(['scan', tree, '--stats']).stdout.split('native calls:\n');
  assert.ok(table);
  assert.equal(table.split('\n').filter((l) => new RegExp(`^  \\S+ +${N} calls `).test(l)).length, 1, table);
});

// With two descriptors to spare (the scan's start and the root), folders y
// and z fail with EMFILE, one taken ahead by the helper thread, which hands
// it back: status 3, named. With one, the root cannot be listed: status 1.
test('a scan that could not list its root exits with status 1, some folders or names with status 3', {
  skip: (isWindows && 'Linux descriptors') || (/asan|tsan/.test(process.env.LD_PRELOAD || '') && 'sanitizers need descriptors'),
}, (t) => {
  const base = makeTree({ files: { 'top.txt': 'x', 'top2.txt': 'x', 'y/f.txt': 'x', 'z/f.txt': 'x' } });
  t.after(() => removeTree(base));
  fs.writeFileSync(Buffer.concat([Buffer.from(path.join(base, 'bad')), Buffer.from([0xff])]), 'x');
  assert.equal(spawnSync('mkfifo', [path.join(base, 'fifo')]).status, 0, 'mkfifo');
  // The module (and its runtime) is loaded before the descriptors are taken.
  const starved = (spare) => cli(['-e', `const fs = require('fs');
    require(${JSON.stringify(root)});
    const held = [];
    try { for (;;) held.push(fs.openSync('/dev/null', 'r')); } catch (e) { if (e.code !== 'EMFILE') throw e; }
    for (let i = 0; i < ${spare}; i++) fs.closeSync(held.pop());
    process.argv = [process.argv[0], ${JSON.stringify(bin)}, 'scan', ${JSON.stringify(base)}];
    require(${JSON.stringify(bin)});`], { prefix: ['sh', '-c', 'ulimit -n 64 && exec "$@"', 'sh'], bin: [] });
  const rootless = starved(1);
  assert.equal(rootless.status, 1, rootless.stderr);
  assert.match(rootless.stderr, new RegExp(`^ostrel scan: cannot list ${escape(base)}: Too many open files \\(error 24\\)$`, 'm'));
  assert.doesNotMatch(rootless.stdout, /files delivered/);
  const r = starved(2);
  assert.equal(r.status, EXIT_INCOMPLETE, r.stderr);
  const c = counts(r.stdout);
  assert.deepEqual([c.complete, c.delivered], ['false', 2]);
  const listed = (r.stdout.split('skipped folders (2), their files are missing:\n')[1] || '').split('\n').slice(0, 2);
  assert.deepEqual(listed.sort(), ['y', 'z'].map((d) => `    ${path.join(base, d)}: Too many open files (error 24)`), r.stdout);
  assert.match(r.stderr, /^ostrel scan: warning: incomplete scan: 2 folders could not be listed/m);
  assert.match(r.stdout, /^ {2}specialFileCount +1\n {2}invalidNameCount +1$/m);
  const names = r.stdout.split('folders holding names that are not valid Unicode (1), those entries are missing:\n')[1];
  assert.equal((names || '').split('\n')[0], `    ${base}: 1 name`, r.stdout);
  assert.match(r.stderr, /^ostrel scan: warning: incomplete scan: 1 name is not valid Unicode/m);
});

// The module's lines stay off standard output whatever the environment
// asks; its failed flush (no tracer) too. Ctrl-C: status 130 (Wine: SIGTERM).
function watchCli(t, args) {
  const dir = tempDir('ostrel-cli-watch-');
  t.after(() => removeTree(dir));
  return new Promise((resolve, reject) => {
    const env = { ...env0(), OSTREL_LOG_STDOUT: 'stdout' };
    const child = spawn(process.execPath, [bin, 'watch', dir, ...args], { stdio: ['ignore', 'pipe', 'pipe'], env });
    const out = { stdout: '', stderr: '' };
    let acted = false;
    const timer = setTimeout(() => {
      child.kill('SIGKILL');
      reject(new Error(`timed out\nstdout: ${out.stdout}\nstderr: ${out.stderr}`));
    }, 30000);
    for (const name of ['stdout', 'stderr']) {
      child[name].on('data', (d) => {
        out[name] += d;
        if (!acted && /^watching /m.test(out.stderr)) {
          acted = true;
          fs.mkdirSync(path.join(dir, 'skipme'));
          fs.writeFileSync(path.join(dir, 'skipme', 'no.txt'), 'x');
          fs.writeFileSync(path.join(dir, 'hello.txt'), 'x');
        }
        if (!child.killed && /hello\.txt/.test(out.stdout) && /shouldFlush failed again/.test(out.stderr)) child.kill(isWindows ? 'SIGTERM' : 'SIGINT');
      });
    }
    child.on('exit', (code) => {
      clearTimeout(timer);
      resolve({ code, ...out });
    });
  });
}

test('ostrel watch prints changes, and nothing else, until Ctrl-C', async (t) => {
  for (const [mode, line] of [['', /^\d\d:\d\d:\d\d\.\d{3} add +hello\.txt$/], ['--json', /^\{.*"fileName":"hello\.txt"/]]) {
    const r = await watchCli(t, [mode, '--ignore', 'skipme'].filter(Boolean));
    if (!isWindows) assert.equal(r.code, 130, r.stderr);
    assert.match(r.stdout, new RegExp(line.source, 'm'));
    for (const l of outputLines(r.stdout)) {
      if (mode) assert.doesNotThrow(() => JSON.parse(l), `not a JSON line on standard output: ${l}`);
      else assert.match(l, /^\d\d:\d\d:\d\d\.\d{3} \w+ /);
    }
    assert.doesNotMatch(r.stdout, /skipme/);
    assert.match(r.stderr, /^Ostrel Initializing \.\.\.$/m);
    assert.match(r.stderr, /^shouldFlush failed again, the current time duration is \d+$/m);
  }
});

test('the device commands against the WPD test double', { skip: !isWindows && 'WPD is Windows only' }, (t) => {
  const { useDevices, phone } = require('./mtp-fixture');
  const { file } = useDevices({
    devices: [
      { id: 'cam', protocol: 'MSC:' },
      phone({
        id: 'p',
        objects: [{ id: 's1', type: 'storage', name: 'Internal', children: [
          { id: 'a', type: 'image', name: 'a.jpg', data: 'abc', thumbnail: 't' },
          { id: 'v', type: 'video', name: 'v.mp4', size: 10 },
          { id: 'e\u001b', type: 'document', name: 'x\u001b[2J\u0007\r\nIMAGE fake\u202e.txt', size: 0 },
        ] }],
      }),
    ],
  });
  const run = (...args) => cli(args, { env: { OSTREL_WPD_DOUBLE: file } });

  const list = run('devices');
  assert.equal(list.status, 0, list.stderr);
  assert.match(list.stdout, /^0 {2}Pixel {2}Acme P7 {2}MTP: 1\.00 {2}serial SN-1\n {3}id: p\n$/);

  const files = run('device-files', 'p');
  assert.equal(files.status, 0, files.stderr);
  assert.match(files.stdout, /^FOLDER .* s1 {2}Internal$/m);
  assert.match(files.stdout, /^IMAGE .* a {2}a\.jpg$/m);
  assert.match(files.stdout, /^4 objects in [0-9.]+ s: 1 photos, 1 videos, 13 B$/m);
  // A name cannot write control characters to the terminal or pose as a line.
  assert.doesNotMatch(files.stdout, /[\u0000-\u0009\u000b-\u001f\u007f-\u009f\u202e]/);
  assert.match(files.stdout, /^UNKNOW .* e\\x1b {2}x\\x1b\[2J\\x07\\x0d\\x0aIMAGE fake\\u202e\.txt$/m);
  assert.equal(files.stdout.split('\n').filter((l) => l.startsWith('IMAGE')).length, 1);
  assert.deepEqual(run('device-files', 'p', 's1', '--json').stdout.trim().split('\n').map((l) => JSON.parse(l).objectId), ['a', 'v', 'e\u001b']);

  const dir = tempDir('ostrel-cli-mtp-');
  t.after(() => removeTree(dir));
  const dest = path.join(dir, 'a.jpg');
  const copy = run('copy-object', 'p', 'a', dest);
  assert.equal(copy.status, 0, copy.stderr);
  assert.equal(copy.stdout, `copied 3 bytes to ${dest}\n`);
  assert.equal(fs.readFileSync(dest, 'utf8'), 'abc');
  const thumb = run('copy-object', 'p', 'a', dest, '--thumbnail', '--overwrite');
  assert.equal(thumb.status, 0, thumb.stderr);
  assert.equal(fs.readFileSync(dest, 'utf8'), 't');
});

test('formatting: the progress line is throttled, padded and cleared; tables right-align numbers', () => {
  let now = 0;
  const writes = [];
  const p = new ProgressLine({ columns: 20, write: (s) => writes.push(s) }, { intervalMs: 100, now: () => now });
  for (const [at, text, force] of [[0, 'first line', true], [50, 'too soon'], [150, 'x'], [300, 'a line far longer than the terminal']]) {
    now = at;
    p.update(() => text, force);
  }
  p.clear();
  assert.deepEqual(writes, ['\rfirst line', '\rx         ', '\ra line far longer t', `\r${' '.repeat(19)}\r`]);

  assert.equal(drivesTable([
    { mounted: 'C:', available: 400e9, blocks: 1000e9, used: 600e9, capacity: '', filesystem: 'Local Fixed Disk', drivetype: 3 },
    { mounted: 'Z:', available: 0, blocks: 0, used: 0, capacity: '', filesystem: 'Network Connection', drivetype: 4 },
  ]), [
    'MOUNTED  TYPE       SIZE      USED      FREE  DESCRIPTION',
    'C:       local    1.0 TB  600.0 GB  400.0 GB  Local Fixed Disk',
    'Z:       network     0 B       0 B       0 B  Network Connection',
    '',
  ].join('\n'));
  // An unknown disk number is shown as -.
  const disks = disksTable([{ mounted: 'Z:', storageType: 'Unknown', diskNumber: -1000, driveType: 4, fileSystem: '',
    freeSpace: 0, size: 0, interfaceType: '', mediaType: '', model: '' }]);
  assert.match(disks.split('\n')[1], /^Z: +Unknown +- +network +0 B +0 B$/);
});
