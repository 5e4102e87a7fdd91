'use strict';
// GetDriveList and GetHardwareDisk on this machine (Linux natively, Wine's
// WMI under Wine): the objects' shape and property order, the options
// object, hostile arguments, many calls at once, and the process or a
// Worker ending while calls are in flight.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const { isWindows, runChild } = require('./helpers');

const ostrel = require('../..');

const DRIVE_KEYS = ['mounted', 'available', 'blocks', 'used', 'capacity', 'filesystem', 'drivetype'];
const DISK_KEYS = [
  'mounted', 'storageType', 'diskNumber', 'driveType', 'fileSystem', 'freeSpace', 'size',
  'interfaceType', 'mediaType', 'model',
];
const DRIVE_TYPES = { mounted: 'string', available: 'number', blocks: 'number', used: 'number',
  capacity: 'string', filesystem: 'string', drivetype: 'number' };
const DISK_TYPES = { mounted: 'string', storageType: 'string', diskNumber: 'number', driveType: 'number',
  fileSystem: 'string', freeSpace: 'number', size: 'number', interfaceType: 'string', mediaType: 'string',
  model: 'string' };

function checkDrive(d) {
  assert.deepEqual(Object.keys(d), DRIVE_KEYS);
  for (const [k, type] of Object.entries(DRIVE_TYPES)) assert.equal(typeof d[k], type, k);
  assert.equal(d.capacity, '');
  assert.ok(Number.isInteger(d.drivetype) && d.drivetype >= 0);
  assert.ok(d.available >= 0 && d.blocks >= 0 && d.used >= 0);
}

function checkDisk(d) {
  assert.deepEqual(Object.keys(d), DISK_KEYS);
  for (const [k, type] of Object.entries(DISK_TYPES)) assert.equal(typeof d[k], type, k);
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

test('arguments: extra ones are ignored, a bad time limit is refused', async () => {
  for (const fn of ['GetDriveList', 'GetHardwareDisk']) {
    for (const args of [[1, 'x'], [null], [() => {}], ['\0'], [{}], [{ timeoutMs: undefined }], [{ timeoutMs: 60000 }]]) {
      const list = await ostrel[fn](...args);
      assert.ok(Array.isArray(list), `${fn}(${args.map(String)})`);
    }
    for (const timeoutMs of ['100', -1, NaN, Infinity, 2 ** 31, 10n, null, {}]) {
      assert.throws(() => ostrel[fn]({ timeoutMs }), (e) => e instanceof TypeError && /timeoutMs must be/.test(e.message),
        `${fn} timeoutMs ${String(timeoutMs)}`);
    }
    const hostile = { get timeoutMs() { throw new Error('getter says no'); } };
    assert.throws(() => ostrel[fn](hostile), /getter says no/);
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

test('process.exit() with calls in flight ends the process cleanly', () => {
  const r = runChild(`
    const ostrel = require('.');
    for (let i = 0; i < 20; ++i) { ostrel.GetDriveList(); ostrel.GetHardwareDisk({ timeoutMs: 5000 }); }
    setImmediate(() => process.exit(7));
  `);
  assert.equal(r.status, 7, r.stderr);
  assert.doesNotMatch(r.stderr, /Spawn|Assertion|Segmentation|abort|promise dropped/i);
});

test('an uncaught error with calls in flight ends the process with its own report', () => {
  const r = runChild(`
    const ostrel = require('.');
    ostrel.GetDriveList(); ostrel.GetHardwareDisk();
    setImmediate(() => { throw new Error('boom in script'); });
  `);
  assert.equal(r.status, 1);
  assert.match(r.stderr, /boom in script/);
  assert.doesNotMatch(r.stderr, /Spawn|Assertion|Segmentation|promise dropped/);
});

test('a Worker terminated while its calls are pending, and one terminated inside the callback', () => {
  const r = runChild(`
    const { Worker } = require('worker_threads');
    const src = \`
      const { parentPort } = require('worker_threads');
      const ostrel = require(\${JSON.stringify(process.cwd())});
      for (let i = 0; i < 10; ++i) ostrel.GetHardwareDisk();
      ostrel.GetDriveList().then((list) => { parentPort.postMessage(list.length); while (true) {} });
    \`;
    const ostrel = require('.');
    let ended = 0;
    for (let i = 0; i < 4; ++i) {
      const w = new Worker(src, { eval: true });
      w.on('message', () => w.terminate());
      if (i % 2) setTimeout(() => w.terminate(), 5);
      w.on('exit', () => { if (++ended === 4) ostrel.GetDriveList().then((l) => console.log('main', l.length)); });
    }
  `);
  assert.equal(r.status, 0, r.stderr);
  assert.match(r.stdout, /main \d+/);
  assert.doesNotMatch(r.stderr, /Spawn|Assertion|Segmentation|promise dropped/);
});
