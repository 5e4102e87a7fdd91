'use strict';
// GetDriveList and GetHardwareDisk over machines we do not have: the
// runtime probe starts the same calls over COM results, WMI rows and volume
// answers described here (strings are BSTRs, bigints unsigned 64-bit
// values, numbers 32-bit integers, null VT_NULL, a missing property a
// failing Get). Cases that read the log lines run in a child process.
const test = require('node:test');
const assert = require('node:assert/strict');
const path = require('path');
const { isWindows, runChild, loadProbe, root, buildDir } = require('./helpers');

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

test('drives and disks: each failing WMI step is logged in hexadecimal and gives an empty list', () => {
  const { result, stderr } = inChild(`async (probe) => {
    const rows = [{ Caption: 'C:', DeviceID: 'C:', Size: '1', FreeSpace: '1', DriveType: 3 }];
    const out = [];
    for (const fail of [{ createLocator: 0x80040154 }, { connect: 0x8004100E }, { proxyBlanket: 0x80070005 },
                        { queryErrors: { Win32_LogicalDisk: 0x80041017 } }]) {
      const m = probe.storageMachine({ logicalDisks: rows, ...fail });
      const drives = await probe.storageList('drives', m);
      const disks = await probe.storageList('disks', m);
      out.push([drives.length, disks.length, probe.storageCounts(m).liveObjects]);
    }
    return out;
  }`);
  assert.deepEqual(result, Array(4).fill([0, 0, 0]));
  for (const line of ['CoCreateInstance failed', 'ConnectServer() failure:8004100E',
    'Could not set proxy blanket. Error code = 0x80070005', 'ExecQuery() failure:80041017', 'WMI query failed.']) {
    assert.ok(stderr.includes(line), `${line}\n${stderr}`);
  }
});

test('COM security already set by the host: logged, and the query still runs with COM on its thread', () => {
  // The fake counts COM's initialisations per thread as COM does: the
  // guard's failure path gives its initialisation back, and the query
  // needs one of its own.
  const { result, stderr } = inChild(`async (probe) => {
    const m = probe.storageMachine({ securityAlreadySet: true,
      logicalDisks: [{ Caption: 'C:', DeviceID: 'C:', Size: '1', FreeSpace: '1', DriveType: 3, VolumeSerialNumber: 's' }] });
    const drives = await probe.storageList('drives', m);
    const disks = await probe.storageList('disks', m);
    return { drives: drives.map((d) => d.mounted), disks: disks.map((d) => d.mounted),
      counts: probe.storageCounts(m), guards: probe.storageComGuards() };
  }`);
  assert.deepEqual(result.drives, ['C:']);
  assert.deepEqual(result.disks, ['C:']);
  assert.equal(result.counts.queries, 3);
  // Asked once: the counter, set back to 0 and then decremented by the
  // end, keeps every later guard from asking again.
  assert.equal(result.counts.security, 1);
  assert.equal(result.guards, -1);
  assert.equal(result.counts.uninitializedCalls, 0);
  // Each job: the guard's and the query's initialisations; the guard's
  // given back after the failure (first job only) and again at its end.
  assert.equal(result.counts.initialize, 4);
  assert.equal(result.counts.uninitialize, 5);
  assert.equal(result.counts.unbalancedUninitialize, 1);
  assert.match(stderr, /^Failed to initialize security\. Error code = 0x80010119$/m);
});

test('disks: numbers, storage types and the join with the physical disks', () => {
  const { result, stdout, stderr } = inChild(`async (probe) => {
    const machine = ${JSON.stringify({
      logicalDisks: [
        logical('C:', '1000', '400', 3), logical('D:', '2000', '100', 3), logical('E:', '10', '1', 3),
        logical('Z:', null, null, 4, { FileSystem: 'NTFS' }), logical('S:', '50', '5', 3),
      ],
      diskDrives: [physical(11, 'SCSI', 'Eleven'), physical(1, 'IDE', 'WDC WD40'), physical(0, 'SCSI', 'Samsung SSD')],
      volumes: {
        'C:': volumeOn(0, { seekPenalty: false }), 'D:': volumeOn(1, { trimEnabled: false }),
        'E:': volumeOn(11), 'S:': volumeOn(0, { extentsError: 234, seekPenalty: true }),
      },
    }, (k, v) => (typeof v === 'bigint' ? `BIG:${v}` : v)).replace(/"BIG:(\d+)"/g, '$1n')};
    return await probe.storageList('disks', probe.storageMachine(machine));
  }`);
  const brief = result.map((d) => [d.mounted, d.storageType, d.diskNumber, d.model, d.interfaceType]);
  assert.deepEqual(brief, [
    ['C:', 'SSD', 0, 'Samsung SSD', 'SCSI'],
    ['D:', 'HDD', 1, 'WDC WD40', 'IDE'],
    ['E:', 'Unknown', 11, 'Eleven', 'SCSI'],   // answers neither property query
    ['Z:', 'Unknown', -1000, '', ''],          // network drive: the volume does not open
    ['S:', 'HDD', -1000, '', ''],              // spanned: one extent does not fit
  ]);
  assert.deepEqual(Object.keys(result[0]), ['mounted', 'storageType', 'diskNumber', 'driveType', 'fileSystem',
    'freeSpace', 'size', 'interfaceType', 'mediaType', 'model']);
  assert.equal(result[0].size, 1000);  // the logical disk's size and free space
  assert.equal(result[0].freeSpace, 400);
  assert.equal(result[0].fileSystem, 'NTFS');
  assert.equal(result[3].driveType, 4);
  assert.match(stdout, /Error opening volume: 2/);
  assert.match(stdout, /DeviceIoControl failed: 234/);
  assert.match(stderr, /Failed to get GetDiskNumberFromMountedDrive by DeviceID/);
});

test('disks: 31 disks record the big-list statistic once per process', () => {
  const { result } = inChild(`async (probe) => {
    const records = [];
    probe.RegisterTvkReporter({ report(r) { records.push(r); } });
    const rows = [];
    for (let i = 0; i < 31; ++i) rows.push({ DeviceID: 'C:', Size: '1', FreeSpace: '1', DriveType: 3 });
    const m = probe.storageMachine({ logicalDisks: rows });
    const small = probe.storageMachine({ logicalDisks: rows.slice(0, 30) });
    const first = await probe.storageList('disks', small);
    const second = await probe.storageList('disks', m);
    const third = await probe.storageList('disks', m);
    await new Promise((r) => setTimeout(r, 500));
    const big = records.filter((r) => r.c20 === 'ostrel:hardwaredisk:biglist');
    return { sizes: [first.length, second.length, third.length], big: big.map((r) => [r.category, r.wl_avgv1]) };
  }`);
  assert.deepEqual(result, { sizes: [30, 31, 31], big: [[194, 31]] });
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

test('process.exit() and Worker termination while slow jobs run', () => {
  const r = runChild(`
    const { Worker } = require('worker_threads');
    const probe = require(${JSON.stringify(probePath)});
    const rows = [{ Caption: 'C:', Size: '1', FreeSpace: '1', DriveType: 3 }, { Caption: 'D:', Size: '1', FreeSpace: '1', DriveType: 3 }];
    const m = probe.storageMachine({ nextDelayMs: 300, logicalDisks: rows });
    for (let i = 0; i < 10; ++i) { probe.storageList('drives', m); probe.storageList('disks', m, { timeoutMs: 100 }); }
    const w = new Worker(\`
      const probe = require(\${JSON.stringify(${JSON.stringify(probePath)})});
      const m = probe.storageMachine({ nextDelayMs: 300, logicalDisks: [{ Caption: 'C:' }] });
      probe.storageList('drives', m, { timeoutMs: 100 }).then(() => require('worker_threads').parentPort.postMessage('x'));
      probe.storageList('disks', m);
    \`, { eval: true });
    w.on('message', () => w.terminate());
    w.on('exit', () => setTimeout(() => process.exit(5), 50));
  `);
  assert.equal(r.status, 5, r.stdout + r.stderr);
  assert.doesNotMatch(r.stdout + r.stderr, /Spawn|Assertion|Segmentation|abort|promise dropped/i);
});

test('Linux: the mounts, sizes and sysfs of a desktop fixture', { skip: isWindows && 'Linux facts' }, async () => {
  const probe = loadProbe();
  const fixtures = path.join(root, 'test', 'fixtures', 'storage');
  const source = { mountinfo: path.join(fixtures, 'mountinfo-desktop'), sysfs: path.join(fixtures, 'sys'),
    space: { '/': [1000, 250], '/media/user/STICK': [64, 60] } };
  const drives = await probe.storageList('drives', source);
  const disks = await probe.storageList('disks', source);
  assert.equal(drives.length, 12);
  assert.deepEqual(drives[0], { mounted: '/', available: 250, blocks: 1000, used: 750, capacity: '',
    filesystem: 'Local Fixed Disk', drivetype: 3 });
  const stick = disks.find((d) => d.mounted === '/media/user/STICK');
  assert.deepEqual(stick, { mounted: '/media/user/STICK', storageType: 'USB', diskNumber: 2, driveType: 2,
    fileSystem: 'vfat', freeSpace: 60, size: 64, interfaceType: 'USB', mediaType: 'Removable Media',
    model: 'Cruzer Blade' });
  assert.equal(disks.find((d) => d.mounted === '/mnt/nas').diskNumber, -1000);
});
