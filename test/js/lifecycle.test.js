'use strict';
// Every subsystem on every way out of a process or a Worker, one table; the
// child side is lifecycle-child.js, each case in a child process of its own.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { root, isWindows, buildDir, runChild, tempDir, bigTree } = require('./helpers');
const { makeTree, removeTree } = require('./scan-fixture');
const { modulePath, simDir } = require('./media-fixture');
const { useDevices } = require('./mtp-fixture');

const child = path.join(__dirname, 'lifecycle-child.js');
const crashed = /FATAL ERROR|Segmentation|Assertion|Abort|free\(\)|corrupt|promise dropped|open handles/i;

const PHONE = {
  id: 'phone', protocol: 'MTP: 1.00', name: 'Phone', slowMs: 10,
  objects: [{ id: 's1', type: 'storage', name: 'S', children: [{ id: 'dcim', type: 'folder', name: 'DCIM', children: [
    { id: 'big', type: 'video', name: 'BIG.MP4', dataSize: 64 * 1024 * 1024 },
    { id: 'p1', type: 'image', name: 'IMG_1.JPG', size: 5 },
  ] }] }],
  generate: { storage: 's1', folders: 30, filesPerFolder: 200 },
};

const endings = {
  'process.exit() inside a callback': { status: 7 },
  'process.exit() with work in flight, script not keeping up': { status: 7 },
  'closed twice inside its first callback': { stdout: /^CLOSED$/m },
  'an uncaught error with work in flight': { status: 1, stderr: /boom in script/ },
  'a Worker terminated while a callback spins': { workers: 1 },
  'a Worker ending by process.exit() inside a callback': { workers: 1 },
  'a Worker whose callback throws, terminated': { workers: 1, workerErrors: true },
  'Workers ended at random moments, 10 rounds of 6': { workers: 60 },
  'a Worker that alone loaded the module terminated inside a callback, then a new load': { workers: 1 },
};

const small = makeTree({ files: { 'a.txt': 'a', 'b/c.txt': 'c', 'b/d.txt': 'd' } });
const dir = tempDir('ostrel-lifecycle-');
const copies = isWindows ? tempDir('ostrel-lifecycle-copies-') : null;
// One malloc arena and no per-thread caches: memory freed too early is reused
// at once, and the allocator aborts instead of the fault passing unseen.
const env = isWindows
  ? { OSTREL_WPD_DOUBLE: useDevices({ devices: [PHONE] }).file }
  : { GLIBC_TUNABLES: 'glibc.malloc.tcache_count=0:glibc.malloc.arena_max=1' };
const d = {
  index: path.join(root, 'index.js'),
  probe: path.join(buildDir(), 'test', 'runtime_probe.node'),
  module: modulePath,
  sim: simDir('full'),
  storm: 'sim://media?duration=600000&storm=6&storm_count=100000000',
  big: bigTree(),
  small,
  dir,
  copies,
  rows: [{ Caption: 'C:', Size: '1', FreeSpace: '1', DriveType: 3 }, { Caption: 'D:', Size: '1', FreeSpace: '1', DriveType: 3 }],
};
test.after(() => [small, dir, copies].filter(Boolean).forEach(removeTree));

// Each row: what `again` answers after a Worker ending, the endings it leaves
// out, and what it checks afterwards.
const alone = 'a Worker that alone loaded the module terminated inside a callback, then a new load';
const closed = 'closed twice inside its first callback'; // for what can be closed
const inWorkers = Object.keys(endings).filter((e) => endings[e].workers);
const table = {
  scan: { again: 3 },
  watch: { again: 'seen', leave: [alone] },
  storage: { again: true, leave: [alone, closed] },
  'storage over slow WMI': { leave: [...inWorkers, closed] },
  // A copy ended with its process leaves no partial file.
  devices: { again: isWindows ? 2 : 0, leave: [alone, closed], after: () => copies && assert.deepEqual(fs.readdirSync(copies), []) },
  media: { again: 77, leave: [alone] },
  // Telemetry has no close of that kind; the probe's runtime cleans up too.
  telemetry: { again: 'span', leave: [alone, closed], cleanings: 2 },
};

for (const [rowName, row] of Object.entries(table)) {
  for (const kind of ['leaving the process', 'ending a Worker']) {
    const inProcess = kind === 'leaving the process';
    const mine = Object.entries(endings).filter(([e, want]) => !(row.leave || []).includes(e) && !want.workers === inProcess);
    if (!mine.length) continue;
    test(`${rowName}: ${kind}`, { timeout: 900000 }, async (t) => {
      for (const [ending, want] of mine) {
        await t.test(ending, () => {
          const r = runChild(`require(${JSON.stringify(child)})(${JSON.stringify({ rowName, ending, d })});`, { env, timeout: 120000 });
          const ended = Date.now();
          const said = `status ${r.status} signal ${r.signal}\n${r.stdout.slice(-1500)}\n${r.stderr.slice(-1500)}`;
          assert.equal(r.signal, null, said);
          assert.equal(r.status, want.status || 0, said);
          assert.doesNotMatch(r.stderr, crashed, said);
          assert.doesNotMatch(r.stdout, /LATE CALLBACK|CALLBACK AFTER CLOSE|UNHANDLED/, said);
          if (want.stderr) assert.match(r.stderr, want.stderr, said);
          if (want.stdout) assert.match(r.stdout, want.stdout, said);
          if (want.status === 7) {
            const exitAt = Number((/^EXITING (\d+)$/m.exec(r.stdout) || [])[1]);
            assert.ok(ended - exitAt < 20000, `the process ended ${ended - exitAt} ms after process.exit()\n${said}`);
          }
          if (!want.workers) {
            assert.equal(r.stdout.split('Ostrel Cleaning ...').length - 1, row.cleanings || 1, said);
          } else {
            assert.equal(r.stdout.match(/^WORKER EXIT -?\d+$/gm).length, want.workers, said);
            if (!want.workerErrors) assert.doesNotMatch(r.stdout, /WORKER ERROR/, said);
            assert.match(r.stdout, new RegExp(`^AGAIN ${JSON.stringify(row.again)}$`, 'm'), said);
          }
          if (row.after) row.after();
        });
      }
    });
  }
}
