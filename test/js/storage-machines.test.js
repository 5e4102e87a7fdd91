'use strict';
// GetDriveList and GetHardwareDisk over machines we do not have: the
// runtime probe starts the same calls over COM results, WMI rows and volume
// answers described here (strings are BSTRs, bigints unsigned 64-bit
// values, numbers 32-bit integers, null VT_NULL, a missing property a
// failing Get). Cases that read the log lines run in a child process.
const test = require('node:test');
const assert = require('node:assert/strict');
const path = require('path');
const { runChild, loadProbe, buildDir } = require('./helpers');

const probePath = path.join(buildDir(), 'test', 'runtime_probe.node');

function logical(id, size, free, driveType, extra = {}) {
  return { Caption: id, DeviceID: id, Size: size, FreeSpace: free, DriveType: driveType,
    Description: 'Local Fixed Disk', VolumeSerialNumber: 'ABCD1234', FileSystem: 'NTFS', ...extra };
}
function physical(n, interfaceType, model) {
  return { DeviceID: `\\\\.\\PHYSICALDRIVE${n}`, Model: model, Size: 1000n, Status: 'OK', SerialNumber: 'S',
    InterfaceType: interfaceType, MediaType: 'Fixed hard disk media' };
}
let volumeSerial = 0;
function volumeOn(diskNumber, answers = {}) {
  return { diskNumber, volumeName: `\\\\?\\Volume{${++volumeSerial}}\\`, ...answers };
}

// Runs `body` (an async function source taking (probe, machine)) in a child
// and returns its JSON result with the child's output.
function inChild(body) {
  const r = runChild(`
    const probe = require(${JSON.stringify(probePath)});
    const BIG = (x) => BigInt(x);
    (async () => { const out = await (${body})(probe); console.log('RESULT ' + JSON.stringify(out)); })()
      .catch((e) => { console.log('FAILED ' + (e && e.stack || e)); process.exitCode = 9; });
  `);
  const line = r.stdout.split('\n').find((l) => l.startsWith('RESULT '));
  assert.ok(line, `no result; status ${r.status}\n${r.stdout}\n${r.stderr}`);
  return { result: JSON.parse(line.slice(7)), stdout: r.stdout, stderr: r.stderr, status: r.status };
}

test('drives: readings of every variant kind, in WMI order', async () => {
  const probe = loadProbe();
  const m = probe.storageMachine({
    logicalDisks: [
      logical('C:', '1000', '400', 3),
      logical('D:', null, null, 2, { Description: 'Removable Disk' }),  // no media
      logical('E:', 100n, 300n, 3),                                       // free space larger than size
      logical('F:', 2n ** 64n - 1n, 0n, 3),
      { Caption: 7, DriveType: null, Size: true },                       // nothing readable
    ],
  });
  const drives = await probe.storageList('drives', m);
  assert.deepEqual(drives.map((d) => Object.keys(d)),
    Array(5).fill(['mounted', 'available', 'blocks', 'used', 'capacity', 'filesystem', 'drivetype']));
  assert.deepEqual(drives[0], { mounted: 'C:', available: 400, blocks: 1000, used: 600, capacity: '',
    filesystem: 'Local Fixed Disk', drivetype: 3 });
  assert.deepEqual(drives[1], { mounted: 'D:', available: 0, blocks: 0, used: 0, capacity: '',
    filesystem: 'Removable Disk', drivetype: 2 });
  assert.equal(drives[2].used, Number(2n ** 64n - 200n));  // wrapped, as the list always reported it
  assert.equal(drives[3].blocks, Number(2n ** 64n - 1n));
  assert.deepEqual(drives[4], { mounted: 'unknown', available: 0, blocks: 0, used: 0, capacity: '',
    filesystem: 'unknown', drivetype: 0 });
  const counts = probe.storageCounts(m);
  assert.equal(counts.liveObjects, 0);
  assert.equal(counts.initialize, counts.uninitialize);
});

test('drives: a size that does not convert is logged and the promise resolves with the rows before it', () => {
  const { result, stdout, stderr } = inChild(`async (probe) => {
    const m = probe.storageMachine({ logicalDisks: [
      { Caption: 'C:', Size: '10', FreeSpace: '4', DriveType: 3, Description: 'x', VolumeSerialNumber: 'v' },
      { Caption: 'D:', Size: 'many', FreeSpace: '4', DriveType: 3, Description: 'x', VolumeSerialNumber: 'v' },
      { Caption: 'E:', Size: '10', FreeSpace: '4', DriveType: 3, Description: 'x', VolumeSerialNumber: 'v' }] });
    const big = probe.storageMachine({ logicalDisks: [
      { Caption: 'C:', Size: '99999999999999999999999', FreeSpace: '4', DriveType: 3 }] });
    const a = await probe.storageList('drives', m);
    const b = await probe.storageList('drives', big);
    return { a: a.map((d) => d.mounted), b: b.length, live: probe.storageCounts(m).liveObjects };
  }`);
  assert.deepEqual(result, { a: ['C:'], b: 0, live: 0 });
  assert.match(stdout, /Ostrel Spawn Exception invalid stoull argument/);
  assert.match(stdout, /Ostrel Spawn Exception stoull argument out of range/);
});

test('100 concurrent calls of each export settle and leave no COM initialisation behind', async () => {
  const probe = loadProbe();
  const m = probe.storageMachine({
    nextDelayMs: 2,
    logicalDisks: [logical('C:', '1000', '400', 3), logical('D:', '10', '1', 2)],
    diskDrives: [physical(0, 'SCSI', 'Disk')],
    volumes: { 'C:': volumeOn(0, { seekPenalty: false }), 'D:': volumeOn(0, { trimEnabled: true }) },
  });
  const calls = [];
  for (let i = 0; i < 100; ++i) calls.push(probe.storageList('drives', m), probe.storageList('disks', m));
  const results = await Promise.all(calls);
  for (const r of results) assert.equal(r.length, 2);
  const counts = probe.storageCounts(m);
  // Each job: the guard's initialisation and the query's own, every one
  // given back. A job that started when no other was alive asked for
  // security again, which COM refuses once it is set: that guard's end is
  // the one extra CoUninitialize, which COM ignores.
  assert.equal(counts.initialize, 400);
  assert.equal(counts.uninitialize - counts.unbalancedUninitialize, 400);
  assert.equal(counts.uninitializedCalls, 0);
  assert.equal(counts.liveObjects, 0);
  assert.ok(probe.storageComGuards() <= 0);
});

test('{ timeoutMs } resolves at the limit with the rows read so far, and a log line says so', () => {
  const { result, stderr } = inChild(`async (probe) => {
    const rows = [];
    for (let i = 0; i < 50; ++i) rows.push({ Caption: 'X' + i, Size: '1', FreeSpace: '1', DriveType: 3, DeviceID: 'X' + i });
    const slow = probe.storageMachine({ nextDelayMs: 100, logicalDisks: rows });
    const t0 = Date.now();
    const drives = await probe.storageList('drives', slow, { timeoutMs: 350 });
    const disks = await probe.storageList('disks', slow, { timeoutMs: 350 });
    const quick = await probe.storageList('drives', probe.storageMachine({ logicalDisks: rows }), { timeoutMs: 600000 });
    return { drives: drives.length, disks: disks.length, quick: quick.length, first: drives[0] && drives[0].mounted,
             elapsed: Date.now() - t0 };
  }`);
  assert.ok(result.drives >= 1 && result.drives < 50, `drives ${result.drives}`);
  assert.equal(result.first, 'X0');
  assert.equal(result.disks, 0);  // the limit ran out inside the first query
  assert.equal(result.quick, 50);  // a job that ends first does not wait for the limit
  assert.ok(result.elapsed < 60000);
  assert.match(stderr, /GetDriveList: the time limit of 350 ms ran out; resolving with the \d+ entries read so far/);
  assert.match(stderr, /GetHardwareDisk: the time limit of 350 ms ran out; resolving with the 0 entries read so far/);
});
