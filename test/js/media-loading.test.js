'use strict';
// Finding, loading and initialising the media SDK (the simulator): the
// development and installed layouts, InitCorvexSync, load failures and
// their texts, and the statistics of each attempt. Each case runs in a
// child: the SDK's state is the process's and never reset.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { execFileSync, spawnSync } = require('child_process');
const { modulePath, simDir, libNames, tempDir, copySim, runMedia, isWindows } = require('./media-fixture');

const sep = isWindows ? '\\' : '/';
const full = simDir('full');
const platformDir = isWindows ? 'win' : 'linux';
// The installer's uninstall keys: the user's, and the machine's 32-bit one.
const uninstallKeys = ['HKCU\\SOFTWARE', 'HKLM\\SOFTWARE\\WOW6432Node'].map(
  (k) => `${k}\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\{5d0e7a31-9c42-4b1f-8e67-2a9f13c4d0b8}_is1`);
const clearRegistry = () => uninstallKeys.forEach((k) => spawnSync('reg', ['delete', k, '/f'], { stdio: 'ignore' }));

// A copy of the module at `dir`/<parts...>/ostrel.node.
function placeModule(dir, ...parts) {
  const target = path.join(dir, ...parts);
  fs.mkdirSync(target, { recursive: true });
  const file = path.join(target, 'ostrel.node');
  fs.copyFileSync(modulePath, file);
  return file;
}

test('without an SDK every call searches again and fails with its own message', () => {
  const r = runMedia(`
    await m.CreateMediaPlayer().then(() => out('created'), (e) => out('create', e.message));
    await m.ReadMediaDuration('x.wav').then(() => out('read'), (e) => out('read', e.message));
    for (const args of [[], ['a', 'b']]) {
      try { m.ReadMediaDuration(...args); } catch (e) { out('count' + args.length, e.message); }
    }
  `);
  assert.equal(r.outs.create, 'CreateMediaPlayer failed: corvex not initialized');
  assert.equal(r.outs.read, 'ReadMediaDuration failed: Corvex not inited');
  assert.equal(r.outs.count0, 'Wrong number of arguments');
  assert.equal(r.outs.count2, 'Wrong number of arguments');
  // Four searches: one per call, the throwing ones included.
  assert.equal(r.stdout.match(/^Start Init Corvex\.\.\.$/gm).length, 4);
  // The module sits in build/<preset>/: the development layout, whose last
  // candidate is P3/corvex_lib/<platform>/lib/x86_64.
  const lastTried = path.join(path.dirname(path.dirname(path.dirname(modulePath))), 'corvex_lib', platformDir, 'lib', 'x86_64');
  const stats = r.stats('InitCorvex').map((s) => [s.w_succ, s.bl1, s.bl2, s.c2 === s.code, s.message]);
  assert.deepEqual(stats, Array(4).fill([0, path.normalize(modulePath), lastTried, true, 'Init Corvex']));
  assert.ok(r.stdout.includes(`End Init Corvex from ${lastTried} 0 `), r.stdout);
});

// Each row: InitCorvexSync's network options, and its statistic of the
// binding (c2: a BigInt given, c3: available, c4: the simulator's status).
// The folder is given with a trailing separator (the library paths joined
// to it: media_test.cc, MediaPaths); a second call does nothing. Windows:
// the simulator's decoder imports libcorvexsim_codec.dll from beside it, and
// a planted copy in the current directory and PATH (the first row), never
// to be loaded, would say so in the version text.
test('InitCorvexSync loads from a folder once and binds the network library only with a BigInt and znetAvailable true', () => {
  const rows = [
    ['{ znetPointer: 0x7bn, znetAvailable: true }', 'true', 'true', '0', 'BindZNetPointer Succeed'],
    ['{ znetPointer: 5n, znetAvailable: false }', 'true', 'false', '0', 'BindZNetPointer Unavailable'],
    ['{ znetPointer: 5, znetAvailable: true }', 'false', 'true', '0', 'BindZNetPointer Unavailable'],
    ['{}', 'false', 'false', '0', 'BindZNetPointer Unavailable'],
    ["{ znetPointer: 5n, znetAvailable: 'yes' }", 'true', 'false', '0', 'A boolean was expected'],
    // The simulator refuses a null pointer: its status is reported.
    ['{ znetPointer: 0n, znetAvailable: true }', 'true', 'true', '-2', ''],
  ];
  const planted = simDir('planted');
  const nearPlanted = isWindows ? { cwd: planted, env: { PATH: `${planted};${process.env.PATH}` } } : {};
  for (const [extra, c2, c3, c4, bl1] of rows) {
    const r = runMedia(`
      m.InitCorvexSync({ corvexDir: ${JSON.stringify(full + sep)}, ...${extra} });
      m.InitCorvexSync({ corvexDir: 'elsewhere', znetPointer: 0x99n, znetAvailable: true });
      const p = await m.CreateMediaPlayer();
      out('version', p.version);
      p.dispose();
    `, extra === rows[0][0] ? nearPlanted : {});
    assert.match(r.stdout, /^Corvex inited\. corvex_source: $/m);
    assert.ok(r.stdout.includes(`End Init Corvex from ${full}${sep} 1 0`), r.stdout);
    assert.match(r.stdout, /^Corvex already inited\.$/m);
    assert.equal(r.outs.version, 'corvex-sim 1.0 placebo-291');
    const v2 = r.stats('InitCorvexV2');
    assert.deepEqual(v2.map((s) => [s.w_succ, s.bl1, s.bl2, s.bl3, s.c2]), [[1, '', '', '', '0']], extra);
    const binds = r.stats('CorvexbindZNetPointer');
    assert.deepEqual(binds.map((b) => [b.c2, b.c3, b.c4, b.bl1, b.w_succ]), [[c2, c3, c4, bl1, 1]], extra);
    // The simulator is called once, with the pointer given, only then.
    const pointer = /znetPointer: (\w+)n/.exec(extra);
    const called = c2 === 'true' && c3 === 'true' ? [`corvex-sim: bind network library 0x${BigInt(pointer[1]).toString(16)}`] : [];
    assert.deepEqual(r.stdout.match(/^corvex-sim: bind network library.*$/gm) || [], called, extra);
    assert.equal(/^BindZNetPointer Failed $/m.test(r.stdout), c4 === '-2', extra);
    assert.deepEqual(r.stats('CreateUniqueMediaPlayer').map((x) => x.w_succ), [1], extra);
  }
});

test('several environments initialising at once load the SDK once and bind the network library once', () => {
  const r = runMedia(`
    const { Worker } = require('worker_threads');
    const src = \`
      const { workerData, parentPort } = require('worker_threads');
      const m = require(workerData.module);
      m.InitCorvexSync({ corvexDir: workerData.dir, znetPointer: BigInt(workerData.i + 1), znetAvailable: true });
      (async () => {
        const p = await m.CreateMediaPlayer();
        await p.play('sim://media?duration=50');
        const d = await m.ReadMediaDuration('sim://media?duration=' + (100 + workerData.i));
        p.dispose();
        parentPort.postMessage(d);
      })();
    \`;
    const results = await Promise.all(Array.from({ length: 4 }, (_, i) => new Promise((resolve, reject) => {
      const w = new Worker(src, { eval: true, workerData: { module: ${JSON.stringify(modulePath)}, dir: ${JSON.stringify(full)}, i } });
      w.once('message', resolve);
      w.once('error', reject);
    })));
    out('durations', results);
  `);
  assert.deepEqual(r.outs.durations, [100, 101, 102, 103]);
  assert.equal(r.stdout.match(/^corvex-sim: bind network library/gm).length, 1, r.stdout);
  assert.equal(r.stdout.match(/^Start Init Corvex\.\.\.$/gm).length, 1, r.stdout);
});

test('a player library without the entry point fails once, then counts as loaded without a table', () => {
  const r = runMedia(`
    m.InitCorvexSync({ corvexDir: ${JSON.stringify(simDir('noentry'))} });
    m.InitCorvexSync({ corvexDir: 'anywhere-at-all', znetPointer: 1n, znetAvailable: true });
    await m.CreateMediaPlayer().then(() => out('created'), (e) => out('create', e.message));
    out('version', new m.CorvexMediaPlayer().version);
  `);
  assert.deepEqual(r.stats('InitCorvexV2').map((s) => [s.w_succ, s.bl3]), [[0, 'Error code: -1 '], [1, '']]);
  assert.ok(r.stdout.includes('End Init Corvex from anywhere-at-all 1 0'), r.stdout);
  assert.deepEqual(r.stats('CorvexbindZNetPointer').map((b) => b.c4), ['0', '-1']);
  // The SDK gave no player: CreateMediaPlayer still resolves, with a player
  // whose commands all fail (as media-lifecycle.test.js checks).
  assert.equal(r.outs.created, null);
  assert.match(r.stderr, /^CreateUniqueMediaPlayer failed$/m);
  assert.ok(r.stats('CreateUniqueMediaPlayer').every((s) => s.w_succ === 0));
  assert.equal(r.outs.version, '');
});

// Loads that fail, one body: the renderer missing (the decoder, loaded
// before it, is released again), an empty or relative folder refused even
// with the libraries in the current directory (loaded by bare name or
// relative path they would come from the current directory or the system's
// search: anyone's copy; which folders are absolute: media_test.cc), and the
// player library cut short (it used to crash the process with SIGBUS; where
// an ELF object may be cut: media_test.cc, MediaElf).
test('a load that fails creates nothing, releases what it loaded, names the library and lets the process live', () => {
  const cut = copySim(tempDir('cut'));
  const player = path.join(cut, libNames[2]);
  const whole = fs.readFileSync(player);
  const noplacebo = simDir('noplacebo');
  const inCwd = { cwd: isWindows ? full : path.dirname(full), env: isWindows ? {} : { LD_LIBRARY_PATH: full } };
  // Each row: the folder, the library named, the end of the error text, and
  // what InitCorvexSync's statistic gives as its code when checked.
  const rows = [
    { dir: noplacebo, lib: path.join(noplacebo, libNames[1]), error: isWindows ? '126' : '' },
    ...['', path.relative(path.dirname(full), full)].map((dir) => ({
      dir, opts: inCwd, lib: dir === '' ? libNames[0] : `${dir}${sep}${libNames[0]}`, refused: true,
      error: isWindows ? '87' : 'the folder is not an absolute path', code: isWindows ? '87' : '22',
    })),
    // Cut inside the headers, and inside the first section (ELF: inside
    // the loaded segments).
    ...[63, 4096].map((keep) => ({
      dir: cut, lib: player, keep, error: isWindows ? '' : 'not a complete ELF object for this machine',
    })),
  ];
  for (const row of rows) {
    if (row.keep !== undefined) fs.writeFileSync(player, whole.subarray(0, row.keep));
    const what = JSON.stringify(row);
    const r = runMedia(`
      m.InitCorvexSync({ corvexDir: ${JSON.stringify(row.dir)}, znetPointer: 1n, znetAvailable: true });
      await m.CreateMediaPlayer().then((p) => out('created', p.dispose()), (e) => out('create', e.message));
      if (process.platform === 'linux') out('mapped', require('fs').readFileSync('/proc/self/maps', 'utf8').includes('libcorvexffmpeg'));
    `, row.opts);
    assert.equal(r.outs.create, 'CreateMediaPlayer failed: corvex not initialized', what);
    if (!isWindows) assert.equal(r.outs.mapped, false, what);
    assert.equal(r.stats('CreateUniqueMediaPlayer').length, 0, what);
    const [s] = r.stats('InitCorvexV2');
    assert.ok(s.bl3.startsWith(`Error code: -1 open ${row.lib} error:`) && s.bl3.includes(row.error), `${what}: ${s.bl3}`);
    if (row.refused || (isWindows && row.error)) assert.ok(s.bl3.endsWith(`error:${row.error}`), `${what}: ${s.bl3}`);
    assert.equal(s.message, s.bl3, what);
    if (row.code) assert.equal(s.c2, row.code, what);
    assert.ok(r.stdout.includes(`Corvex init failed. corvex_source: ${s.bl3}${row.dir}`), r.stdout);
    assert.equal(r.stderr.includes(`Refusing to load the media SDK from "${row.dir}": the folder must be an absolute path`), !!row.refused, r.stderr);
    // Binding without a table: status -1, message the load error.
    const [b] = r.stats('CorvexbindZNetPointer');
    assert.deepEqual([b.c4, b.bl1], ['-1', s.bl3.replace('Error code: -1 ', '')], what);
  }
});

// Each row: where the module is, where the SDK is put (beside the copies of
// the rows before), the candidate that loads, and for the installed layout
// where its location is read (Windows: the user's uninstall key, or the
// machine's 32-bit one when the user's is absent; elsewhere a variable of the
// environment). "Build" is not "build", and the other choices: media_test.cc.
test('the SDK beside a development checkout, nearest candidate first, or in the install location', (t) => {
  const root = tempDir('layout');
  const deep = ['a', 'b', 'c', 'd', 'e', 'f', 'build', 'Release'];
  const install = path.join(root, 'inst');
  const keys = isWindows ? uninstallKeys : [null];
  const rows = [
    [['app', 'build', 'Release'], ['app', 'corvex_lib', platformDir, 'lib', 'x86_64'], 'win_dev_lib'], // P3
    [deep, ['a', 'assets', 'corvex'], 'win_dev_workspace'], // P8
    [deep, ['a', 'b', 'assets', 'corvex'], 'win_relative_corvex'], // P7, before P8
    ...keys.map((key) => [['inst', 'resources', 'app'], ['inst', 'resources', 'assets', 'corvex'], 'win_absolute_install', key]),
  ];
  if (isWindows) t.after(clearRegistry);
  for (const [at, sdk, label, key] of rows) {
    copySim(path.join(root, ...sdk));
    if (isWindows) clearRegistry();
    if (key) execFileSync('reg', ['add', key, '/v', 'InstallLocation', '/t', 'REG_SZ', '/d', install, '/f']);
    const env = key === null ? { OSTREL_CORVEX_INSTALL_LOCATION: install } : {};
    const r = runMedia(`out('ok', (await m.CreateMediaPlayer()).dispose());`, { module: placeModule(root, ...at), env });
    assert.equal(r.outs.ok, true, label);
    assert.ok(r.stdout.includes(`Corvex inited. corvex_source: ${label}\n`), r.stdout);
    assert.ok(r.stdout.includes(`End Init Corvex from ${path.join(root, ...sdk)} 1 0`), r.stdout);
    const [s] = r.stats('InitCorvex');
    assert.deepEqual([s.w_succ, s.bl1, s.bl2, s.c2], [1, '', '', '0']);
  }
});
