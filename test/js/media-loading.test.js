'use strict';
// Finding, loading and initialising the media SDK (the simulator): layouts,
// InitCorvexSync, load failures and the statistics of each attempt.
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

test('without an SDK every call searches again and fails with its own message', () => {
  const r = runMedia(`
    await m.CreateMediaPlayer().then(() => out('created'), (e) => out('create', e.message));
    await m.ReadMediaDuration('x.wav').then(() => out('read'), (e) => out('read', e.message));
    try { m.ReadMediaDuration(); } catch (e) { out('count', e.message); }
  `);
  assert.deepEqual([r.outs.create, r.outs.read, r.outs.count],
    ['CreateMediaPlayer failed: corvex not initialized', 'ReadMediaDuration failed: Corvex not inited', 'Wrong number of arguments']);
  // A search per call, the throwing one too; build/<preset>/: the last candidate is P3/corvex_lib/...
  assert.equal(r.stdout.match(/^Start Init Corvex\.\.\.$/gm).length, 3);
  const lastTried = path.join(path.dirname(path.dirname(path.dirname(modulePath))), 'corvex_lib', platformDir, 'lib', 'x86_64');
  const stats = r.stats('InitCorvex').map((s) => [s.w_succ, s.bl1, s.bl2, s.c2 === s.code, s.message]);
  assert.deepEqual(stats, Array(3).fill([0, path.normalize(modulePath), lastTried, true, 'Init Corvex']));
  assert.ok(r.stdout.includes(`End Init Corvex from ${lastTried} 0 `), r.stdout);
});

// Each row: the options, the binding's statistic (c2: a BigInt given, c3:
// available, c4: the simulator's status). Windows: the decoder's import comes
// from beside it, never the planted copy in the current folder and PATH.
test('InitCorvexSync loads from a folder once and binds the network library only with a BigInt and znetAvailable true', () => {
  const rows = [
    ['{ znetPointer: 0x7bn, znetAvailable: true }', 'true', 'true', '0', 'BindZNetPointer Succeed'],
    ['{ znetPointer: 5n, znetAvailable: false }', 'true', 'false', '0', 'BindZNetPointer Unavailable'],
    ['{ znetPointer: 5, znetAvailable: true }', 'false', 'true', '0', 'BindZNetPointer Unavailable'],
    ["{ znetPointer: 5n, znetAvailable: 'yes' }", 'true', 'false', '0', 'A boolean was expected'],
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
    const called = c2 === 'true' && c3 === 'true' ? [`0x${BigInt(/znetPointer: (\w+)n/.exec(extra)[1]).toString(16)}`] : [];
    assert.deepEqual((r.stdout.match(/^corvex-sim: bind network library .*$/gm) || []).map((l) => l.split(' ').at(-1)), called, extra);
    assert.equal(/^BindZNetPointer Failed $/m.test(r.stdout), c4 === '-2', extra);
  }
});

test('several environments initialising at once load the SDK once and bind the network library once', () => {
  const r = runMedia(`
    const { Worker } = require('worker_threads');
    const src = \`
      const { workerData, parentPort } = require('worker_threads');
      const m = require(workerData.module);
      m.InitCorvexSync({ corvexDir: workerData.dir, znetPointer: BigInt(workerData.i + 1), znetAvailable: true });
      m.ReadMediaDuration('sim://media?duration=' + (100 + workerData.i)).then((d) => parentPort.postMessage(d));
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
  // No player from the SDK: CreateMediaPlayer still resolves.
  assert.equal(r.outs.created, null);
  assert.match(r.stderr, /^CreateUniqueMediaPlayer failed$/m);
  assert.ok(r.stats('CreateUniqueMediaPlayer').every((s) => s.w_succ === 0));
  assert.equal(r.outs.version, '');
});

// The renderer missing (the decoder is released again), a relative folder
// (anyone's copy would load), the player cut inside its loaded segments (it
// used to crash the process with SIGBUS).
test('a load that fails creates nothing, releases what it loaded, names the library and lets the process live', () => {
  const cut = copySim(tempDir('cut'));
  const player = path.join(cut, libNames[2]);
  fs.writeFileSync(player, fs.readFileSync(player).subarray(0, 4096));
  const noplacebo = simDir('noplacebo');
  const inCwd = { cwd: isWindows ? full : path.dirname(full), env: isWindows ? {} : { LD_LIBRARY_PATH: full } };
  const rows = [
    { dir: noplacebo, lib: path.join(noplacebo, libNames[1]), error: isWindows ? '126' : '' },
    { dir: path.basename(full), opts: inCwd, lib: `${path.basename(full)}${sep}${libNames[0]}`, refused: true,
      error: isWindows ? '87' : 'the folder is not an absolute path', code: isWindows ? '87' : '22' },
    { dir: cut, lib: player, error: isWindows ? '' : 'not a complete ELF object for this machine' },
  ];
  for (const row of rows) {
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
    const [b] = r.stats('CorvexbindZNetPointer');
    assert.deepEqual([b.c4, b.bl1], ['-1', s.bl3.replace('Error code: -1 ', '')], what);
  }
});

// Each row: the module, the SDK (beside the rows before), the candidate that
// loads, the installed layout's key (Windows: the user's, else the machine's).
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
    const module = path.join(root, ...at, 'ostrel.node');
    fs.mkdirSync(path.dirname(module), { recursive: true });
    fs.copyFileSync(modulePath, module);
    const r = runMedia(`out('ok', (await m.CreateMediaPlayer()).dispose());`, { module, env });
    assert.equal(r.outs.ok, true, label);
    assert.ok(r.stdout.includes(`Corvex inited. corvex_source: ${label}\n`), r.stdout);
    assert.ok(r.stdout.includes(`End Init Corvex from ${path.join(root, ...sdk)} 1 0`), r.stdout);
    const [s] = r.stats('InitCorvex');
    assert.deepEqual([s.w_succ, s.bl1, s.bl2, s.c2], [1, '', '', '0']);
  }
});
