'use strict';
// GetDriveList and GetHardwareDisk at the script boundary: this machine's
// lists, machines described through the runtime probe, a dead share.
const test = require('node:test');
const assert = require('node:assert/strict');
const { spawnSync } = require('child_process');
const path = require('path');
const { isWindows, root, runChild, buildDir } = require('./helpers');
const { makeTree, removeTree } = require('./scan-fixture');
const { mountStallfs, skipReason } = require('../fixtures/stallfs/mount');

const ostrel = require('../..');

// df (statvfs) as the oracle; null for a mount it cannot answer within 5 s.
function df(mounted) {
  const r = spawnSync('df', ['-B1', '--output=size,avail', mounted], { encoding: 'utf8', timeout: 5000 });
  if (r.status !== 0) return null;
  const [size, avail] = r.stdout.trim().split('\n')[1].trim().split(/\s+/).map(Number);
  return { size, avail };
}

// Strings are BSTRs, bigints unsigned 64-bit values, numbers 32-bit integers.
test('over described machines: concurrent calls give back every COM initialisation; the time limit; a size that does not convert', () => {
  const probePath = path.join(buildDir(), 'test', 'runtime_probe.node');
  const r = runChild(`
    const probe = require(${JSON.stringify(probePath)});
    const disk = (id, size) => ({ Caption: id, DeviceID: id, Size: size, FreeSpace: '4', DriveType: 3 });
    (async () => {
      const many = probe.storageMachine({ nextDelayMs: 2, logicalDisks: [disk('C:', '1000'), disk('D:', 2n ** 64n - 1n)] });
      const calls = [];
      for (let i = 0; i < 100; ++i) calls.push(probe.storageList('drives', many), probe.storageList('disks', many));
      const lists = await Promise.all(calls);
      const concurrent = { mounted: [...new Set(lists.map((l) => l.map((d) => d.mounted).join()))],
        sizes: [lists[0][1].blocks, lists[1][1].size], counts: probe.storageCounts(many) };
      const rows = [...Array(50).keys()].map((i) => disk('X' + i, '1'));
      const slow = probe.storageMachine({ nextDelayMs: 100, logicalDisks: rows });
      const drives = await probe.storageList('drives', slow, { timeoutMs: 350 });
      const disks = await probe.storageList('disks', slow, { timeoutMs: 350 });
      const quick = await probe.storageList('drives', probe.storageMachine({ logicalDisks: rows }), { timeoutMs: 600000 });
      const bad = probe.storageMachine({ logicalDisks: [disk('C:', '10'), disk('D:', 'many'), disk('E:', '10')] });
      const cut = await probe.storageList('drives', bad);
      console.log('RESULT ' + JSON.stringify({ concurrent, drives: drives.map((d) => d.mounted), disks: disks.length,
        quick: quick.length, cut: cut.map((d) => d.mounted), counts: probe.storageCounts(bad) }));
    })();
  `);
  const line = r.stdout.split('\n').find((l) => l.startsWith('RESULT '));
  assert.ok(line, `${r.status}\n${r.stdout}\n${r.stderr}`);
  const result = JSON.parse(line.slice(7));
  const { mounted, sizes, counts: many } = result.concurrent;
  assert.deepEqual(mounted, ['C:,D:']);
  assert.deepEqual(sizes, [2 ** 64, 2 ** 64]);
  // Two initialisations a job, all given back; a guard whose security step
  // COM refused (set before) ends with one extra CoUninitialize.
  assert.equal(many.initialize, 400);
  assert.equal(many.uninitialize - many.unbalancedUninitialize, 400);
  assert.equal(many.uninitializedCalls, 0);
  assert.equal(many.liveObjects, 0);
  assert.ok(many.comGuards <= 0);
  const n = result.drives.length;
  assert.ok(n >= 1 && n < 50, `drives ${n}`);
  assert.deepEqual(result.drives, [...Array(n).keys()].map((i) => 'X' + i));
  assert.equal(result.disks, 0);  // the limit ran out inside the first query, which ends the disk list
  assert.equal(result.quick, 50);  // a job that ends first does not wait for the limit
  assert.match(r.stderr, /GetDriveList: the time limit of 350 ms ran out; resolving with the \d+ entries read so far/);
  assert.match(r.stderr, /GetHardwareDisk: the time limit of 350 ms ran out; resolving with the 0 entries read so far/);
  assert.match(r.stderr, /WMI enumeration stopped \(the time limit ran out\)/);
  assert.deepEqual(result.cut, ['C:']);
  assert.match(r.stdout, /Ostrel Spawn Exception invalid stoull argument/);
  assert.equal(result.counts.liveObjects, 0);
  assert.equal(result.counts.initialize, result.counts.uninitialize);
});

// stallfs: a scan beside four such lists ends long before their limit.
// Not under Wine, which stats every drive's root to map any Linux path.
const wineDeadDrive = isWindows && 'under Wine a drive whose root never answers stops all of Wine, not only the list';
test('GetDriveList with a share that never answers settles within its time limit and stalls nothing', { skip: skipReason() || wineDeadDrive, timeout: 300000 }, async (t) => {
  const share = await mountStallfs(t);
  const files = {};
  for (let i = 0; i < 5000; i++) files[`d${i % 10}/f${i}.txt`] = '';
  const tree = makeTree({ files });
  t.after(() => removeTree(tree));
  const LIMIT = 3000;
  const mounted = share.drive || share.path;
  const control = path.join(share.base, 'control');
  const r = runChild(`const o = require(${JSON.stringify(path.join(root, 'index.js'))});
    const fs = require('fs');
    const report = (k, v) => console.log(k + ' ' + JSON.stringify(v));
    const timed = (start) => { const t0 = Date.now(); return start().then((v) => ({ ms: Date.now() - t0, v })); };
    const scan = () => new Promise((res) => o.ScanAllSubFiles(${JSON.stringify(tree)}, () => {}, (r) => res(r.totalFileCount), {}));
    const hasShare = (l) => l.some((d) => d.mounted === ${JSON.stringify(mounted)});
    (async () => {
      report('BEFORE', hasShare(await o.GetDriveList()));
      fs.writeFileSync(${JSON.stringify(control)} + '.new', 'never /\\n');
      fs.renameSync(${JSON.stringify(control)} + '.new', ${JSON.stringify(control)});
      await new Promise((r) => setTimeout(r, 200));  // stallfs reads its rules every 20 ms
      let last = Date.now(), gap = 0;
      const iv = setInterval(() => { const now = Date.now(); gap = Math.max(gap, now - last); last = now; }, 20);
      // Four lists at once: more than the CPU pool's threads, which none may hold.
      const lists = Array.from({ length: 4 }, () => timed(() => o.GetDriveList({ timeoutMs: ${LIMIT} })));
      const [list, files] = await Promise.all([Promise.all(lists).then((l) => l.at(-1)), timed(scan)]);
      clearInterval(iv);
      report('DURING', { list: { ms: list.ms, share: hasShare(list.v) }, files, gap });
      fs.writeFileSync(${JSON.stringify(control)} + '.new', '');
      fs.renameSync(${JSON.stringify(control)} + '.new', ${JSON.stringify(control)});
    })();`, { timeout: 120000 });
  const res = Object.fromEntries(r.stdout.split('\n').filter((l) => /^(BEFORE|DURING) /.test(l)).map((l) => [l.slice(0, 6).trim(), JSON.parse(l.slice(l.indexOf(' ') + 1))]));
  t.diagnostic(`${JSON.stringify(res)}; share: ${JSON.stringify(share.status())}`);
  assert.equal(r.status, 0, `${r.status} ${r.signal} ${r.stderr.slice(-2000)}`);
  const { BEFORE: shareListed, DURING: d } = res;
  assert.ok(shareListed, `the share (${mounted}) is not in the list while it answers\n${r.stdout}`);
  assert.ok(share.status().held >= 1, 'the list never asked the share');
  assert.ok(d.list.ms <= LIMIT + 1000, `the list settled after ${d.list.ms} ms (limit ${LIMIT} ms)`);
  // Behind the dead share the scan would wait for the list's limit.
  assert.deepEqual([d.files.v, d.files.ms < LIMIT / 2], [5000, true], `the scan beside the list: ${JSON.stringify(d.files)}`);
  assert.ok(d.gap < 1000, `timers stopped for ${d.gap} ms`);
});

// Last: the 200 calls must take turns at WMI, which under Wine crashes
// node.exe on concurrent queries (it did on a loaded machine, docs/testing.md).
test('the lists of this machine, what a time limit of 0 read of them, 100 concurrent calls of each', async () => {
  const [drives, disks, drivesCut, disksCut] = await Promise.all([ostrel.GetDriveList(), ostrel.GetHardwareDisk(),
    ostrel.GetDriveList({ timeoutMs: 0 }), ostrel.GetHardwareDisk({ timeoutMs: 0 })]);
  assert.ok(drives.length > 0, 'at least one drive');
  const mounted = drives.map((d) => d.mounted);
  assert.deepEqual(disks.map((d) => d.mounted), mounted);
  // What was read before the limit: the first entries of the whole list.
  for (const cut of [drivesCut, disksCut]) assert.deepEqual(cut.map((d) => d.mounted), mounted.slice(0, cut.length));
  for (const d of disks) {
    assert.ok(['SSD', 'HDD', 'USB', 'Unknown'].includes(d.storageType), d.storageType);
    assert.ok(d.diskNumber === -1000 || (Number.isInteger(d.diskNumber) && d.diskNumber >= 0));
  }
  const concurrent = Array.from({ length: 200 }, (_, i) => (i % 2 ? ostrel.GetHardwareDisk() : ostrel.GetDriveList()));
  for (const r of await Promise.all(concurrent)) assert.deepEqual(r.map((d) => d.mounted), mounted);
  if (isWindows) {
    // Wine's WMI: letters with a colon; opening \\.\X: fails there.
    for (const d of drives) assert.match(d.mounted, /^[A-Z]:$/);
    return;
  }
  assert.ok(drives.some((d) => d.mounted === '/'), 'the root file system');
  let compared = 0;
  for (const [i, d] of drives.entries()) {
    const o = df(d.mounted);
    if (!o) continue;
    compared++;
    // The size exactly, the free space as it was a moment ago.
    assert.equal(d.blocks, o.size, d.mounted);
    assert.equal(disks[i].size, o.size, d.mounted);
    for (const free of [d.available, disks[i].freeSpace]) {
      assert.ok(Math.abs(free - o.avail) <= o.size / 100, `${d.mounted}: free ${free}, df ${o.avail}`);
    }
  }
  assert.ok(compared > 0);
});
