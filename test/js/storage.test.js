'use strict';
// GetDriveList and GetHardwareDisk on this machine (Linux natively, Wine's
// WMI under Wine): the objects' shape and property order, the options
// object, many calls at once, and a share that never answers (the process
// or a Worker ending with calls in flight: lifecycle.test.js).
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { isWindows, root, runChild } = require('./helpers');
const { makeTree, removeTree } = require('./scan-fixture');
const { mountStallfs, skipReason } = require('../fixtures/stallfs/mount');

const ostrel = require('../..');

// Property names, order and types: typings.test.js, against index.d.ts.
function checkDrive(d) {
  assert.equal(d.capacity, '');
  assert.ok(Number.isInteger(d.drivetype) && d.drivetype >= 0);
  assert.ok(d.available >= 0 && d.blocks >= 0 && d.used >= 0);
}

function checkDisk(d) {
  assert.ok(['SSD', 'HDD', 'USB', 'Unknown'].includes(d.storageType), d.storageType);
  assert.ok(d.diskNumber === -1000 || (Number.isInteger(d.diskNumber) && d.diskNumber >= 0));
}

test('GetDriveList lists this machine', async () => {
  const drives = await ostrel.GetDriveList();
  assert.ok(Array.isArray(drives));
  assert.ok(drives.length > 0, 'at least one drive');
  drives.forEach(checkDrive);
  if (isWindows) {
    // Wine's WMI: letters with a colon; its drive types are integers.
    for (const d of drives) assert.match(d.mounted, /^[A-Z]:$/);
  } else {
    const root = drives.find((d) => d.mounted === '/');
    assert.ok(root, 'the root file system');
    // statvfs through node's fs: the size exactly, the free space as it was
    // a moment ago (other processes write meanwhile).
    const fsStats = fs.statfsSync('/');
    assert.equal(root.blocks, fsStats.blocks * fsStats.bsize);
    assert.ok(Math.abs(root.available - fsStats.bavail * fsStats.bsize) < root.blocks / 100, 'free space');
    assert.equal(root.filesystem, 'Local Fixed Disk');
  }
});

test('GetHardwareDisk lists this machine', async () => {
  const disks = await ostrel.GetHardwareDisk();
  assert.ok(disks.length > 0);
  disks.forEach(checkDisk);
  const drives = await ostrel.GetDriveList();
  assert.deepEqual(disks.map((d) => d.mounted), drives.map((d) => d.mounted));
  if (isWindows) {
    // Under Wine opening \\.\X: fails and the property queries are refused.
    for (const d of disks) assert.ok(d.storageType === 'Unknown' || d.diskNumber >= 0);
  }
});

test('a time limit of 0 resolves at once with what was read', async () => {
  for (const fn of ['GetDriveList', 'GetHardwareDisk']) {
    const [cut, all] = await Promise.all([ostrel[fn]({ timeoutMs: 0 }), ostrel[fn]()]);
    // What was read before the limit: the first entries of the whole list.
    assert.deepEqual(cut.map((d) => d.mounted), all.slice(0, cut.length).map((d) => d.mounted), fn);
    cut.forEach(fn === 'GetDriveList' ? checkDrive : checkDisk);
  }
});

test('100 concurrent calls of each export settle with the same answer', async () => {
  const [drives, disks] = await Promise.all([ostrel.GetDriveList(), ostrel.GetHardwareDisk()]);
  const calls = [];
  for (let i = 0; i < 100; ++i) calls.push(ostrel.GetDriveList(), ostrel.GetHardwareDisk());
  const results = await Promise.all(calls);
  for (let i = 0; i < results.length; i += 2) {
    assert.deepEqual(results[i].map((d) => d.mounted), drives.map((d) => d.mounted));
    assert.deepEqual(results[i + 1].map((d) => d.mounted), disks.map((d) => d.mounted));
  }
});

// A mounted share that never answers (stallfs): the list settles within its
// time limit and other work goes on meanwhile, at its usual speed (judged
// against the same work before, with a generous factor).
// Not under Wine: there a drive whose root never answers stops Wine itself
// (it stats every drive's root to turn any Linux path into a drive path).
const wineDeadDrive = isWindows && 'under Wine a drive whose root never answers stops all of Wine, not only the list';
test('GetDriveList with a share that never answers settles within its time limit and stalls nothing', { skip: skipReason() || wineDeadDrive, timeout: 300000 }, async (t) => {
  const share = await mountStallfs(t);
  const files = {};
  for (let i = 0; i < (isWindows ? 1500 : 5000); i++) files[`d${i % 10}/f${i}.txt`] = '';
  const tree = makeTree({ files });
  t.after(() => removeTree(tree));
  const FACTOR = Number(process.env.OSTREL_DEADSHARE_FACTOR) || 4;
  const LIMIT = 3000;
  const mounted = share.drive || share.path;
  const control = path.join(share.base, 'control');
  const r = runChild(`const o = require(${JSON.stringify(path.join(root, 'index.js'))});
    const fs = require('fs');
    const report = (k, v) => console.log(k + ' ' + JSON.stringify(v));
    const timedScan = () => new Promise((res) => { const t0 = Date.now(); o.ScanAllSubFiles(${JSON.stringify(tree)}, () => {}, (r) => res({ ms: Date.now() - t0, files: r.totalFileCount }), {}); });
    const timedList = (options) => { const t0 = Date.now(); return o.GetDriveList(options).then((l) => ({ ms: Date.now() - t0, share: l.some((d) => d.mounted === ${JSON.stringify(mounted)}), count: l.length })); };
    (async () => {
      await timedScan();
      const scanBefore = await timedScan();
      const listBefore = await timedList({});
      report('BEFORE', { scan: scanBefore, list: listBefore });
      fs.writeFileSync(${JSON.stringify(control)} + '.new', 'never /\\n');
      fs.renameSync(${JSON.stringify(control)} + '.new', ${JSON.stringify(control)});
      await new Promise((r) => setTimeout(r, 200));  // stallfs reads its rules every 20 ms
      let last = Date.now(), gap = 0;
      const iv = setInterval(() => { const now = Date.now(); gap = Math.max(gap, now - last); last = now; }, 20);
      const [list, scan] = await Promise.all([timedList({ timeoutMs: ${LIMIT} }), timedScan()]);
      clearInterval(iv);
      report('DURING', { list, scan, gap });
      fs.writeFileSync(${JSON.stringify(control)} + '.new', '');
      fs.renameSync(${JSON.stringify(control)} + '.new', ${JSON.stringify(control)});
    })();`, { timeout: 120000 });
  const res = Object.fromEntries(r.stdout.split('\n').filter((l) => /^(BEFORE|DURING) /.test(l)).map((l) => [l.slice(0, 6).trim(), JSON.parse(l.slice(l.indexOf(' ') + 1))]));
  t.diagnostic(JSON.stringify(res));
  t.diagnostic(`share: ${JSON.stringify(share.status())}`);
  assert.equal(r.status, 0, `${r.status} ${r.signal} ${r.stderr.slice(-2000)}`);
  const { BEFORE: b, DURING: d } = res;
  assert.ok(b && d, r.stdout);
  assert.ok(b.list.share, `the share (${mounted}) is not in the list while it answers`);
  assert.ok(share.status().held >= 1, 'the list never asked the share');
  assert.ok(d.list.ms <= LIMIT + FACTOR * b.list.ms + 1000, `the list settled after ${d.list.ms} ms (limit ${LIMIT} ms)`);
  assert.equal(d.scan.files, b.scan.files);
  assert.ok(d.scan.ms <= FACTOR * b.scan.ms + 100, `a scan took ${d.scan.ms} ms beside the list, ${b.scan.ms} ms before`);
  assert.ok(d.gap <= FACTOR * 100, `timers stopped for ${d.gap} ms`);
});
