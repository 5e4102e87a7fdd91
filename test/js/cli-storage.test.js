'use strict';
// ostrel drives and ostrel disks, run as children of this node: the tables,
// --json with the module's objects, --timeout, and wrong usage.
const test = require('node:test');
const assert = require('node:assert/strict');
const path = require('path');
const { spawnSync } = require('child_process');
const { root, buildDir } = require('./helpers');
const { drivesTable, disksTable } = require('../../lib/cli/storage');

const bin = path.join(root, 'bin', 'ostrel.js');

function cli(args) {
  const r = spawnSync(process.execPath, [bin, ...args], {
    cwd: root,
    encoding: 'utf8',
    timeout: 120000,
    env: { ...process.env, OSTREL_BUILD_DIR: buildDir() },
  });
  return { status: r.status, stdout: r.stdout || '', stderr: r.stderr || '' };
}

test('drives and disks as tables: a header and one line per entry, nothing else on standard output', () => {
  for (const [command, header] of [['drives', /^MOUNTED +TYPE +SIZE +USED +FREE +DESCRIPTION$/],
    ['disks', /^MOUNTED +STORAGE +DISK +TYPE +FS +SIZE +FREE +INTERFACE +MEDIA +MODEL$/]]) {
    const r = cli([command]);
    assert.equal(r.status, 0, r.stderr);
    const lines = r.stdout.trimEnd().split('\n');
    assert.match(lines[0], header);
    assert.ok(lines.length >= 2, r.stdout);
    assert.doesNotMatch(r.stdout, /Ostrel /);  // the module's log lines go to standard error
  }
});

test('--json prints the module\'s objects; --timeout bounds the call', () => {
  const drives = JSON.parse(cli(['drives', '--json', '--timeout', '60000']).stdout);
  assert.ok(drives.length >= 1);
  assert.deepEqual(Object.keys(drives[0]), ['mounted', 'available', 'blocks', 'used', 'capacity', 'filesystem',
    'drivetype']);
  const disks = JSON.parse(cli(['disks', '--json']).stdout);
  assert.deepEqual(disks.map((d) => d.mounted), drives.map((d) => d.mounted));
  const none = cli(['disks', '--json', '--timeout', '0']);
  assert.equal(none.status, 0);
  assert.ok(Array.isArray(JSON.parse(none.stdout)));
});

test('wrong usage exits with status 2 and says why', () => {
  for (const [args, message] of [
    [['drives', '--timeout', 'soon'], /--timeout needs a number of milliseconds/],
    [['disks', '--timeout', '-5'], /--timeout/],
    [['disks', '--timeout', '99999999999'], /--timeout needs/],
    [['drives', 'C:'], /./],
    [['disks', '--fast'], /--fast/],
  ]) {
    const r = cli(args);
    assert.equal(r.status, 2, `${args.join(' ')}: ${r.stderr}`);
    assert.match(r.stderr, message);
    assert.equal(r.stdout, '');
  }
});

test('table layout: numbers right-aligned, an unknown disk number shown as -', () => {
  const drives = drivesTable([
    { mounted: 'C:', available: 400e9, blocks: 1000e9, used: 600e9, capacity: '', filesystem: 'Local Fixed Disk', drivetype: 3 },
    { mounted: 'Z:', available: 0, blocks: 0, used: 0, capacity: '', filesystem: 'Network Connection', drivetype: 4 },
  ]);
  assert.equal(drives, [
    'MOUNTED  TYPE       SIZE      USED      FREE  DESCRIPTION',
    'C:       local    1.0 TB  600.0 GB  400.0 GB  Local Fixed Disk',
    'Z:       network     0 B       0 B       0 B  Network Connection',
    '',
  ].join('\n'));
  const disks = disksTable([{ mounted: 'Z:', storageType: 'Unknown', diskNumber: -1000, driveType: 4, fileSystem: '',
    freeSpace: 0, size: 0, interfaceType: '', mediaType: '', model: '' }]);
  assert.match(disks.split('\n')[1], /^Z: +Unknown +- +network +0 B +0 B$/);
});
