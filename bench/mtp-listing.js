'use strict';
// GetMtpFilesById over 50,000 objects of the WPD test double (Windows; run
// with node.exe under Wine: scripts/wine-node bench/mtp-listing.js).
// Prints the listing's time, its rate, the main-thread hops it made
// (progress reports + the result), the longest stall of the main thread,
// the memory it took, and the ratio to the
// floor every listing pays: building the same 50,000 result objects in
// script.
//   --objects N (default 50000)  --rounds N (default 3)  --no-bulk (one
//   property read per object, as for a device without bulk requests)
const path = require('path');
const { monitorEventLoopDelay } = require('perf_hooks');

const args = process.argv.slice(2);
const option = (name, fallback) => {
  const i = args.indexOf(`--${name}`);
  return i >= 0 ? Number(args[i + 1]) : fallback;
};
const objects = option('objects', 50000);
const rounds = option('rounds', 3);

if (process.platform !== 'win32') {
  console.log('mtp-listing: WPD is Windows only; run it with scripts/wine-node');
  process.exit(0);
}

const { useDevices } = require(path.join(__dirname, '..', 'test', 'js', 'mtp-fixture'));
const ostrel = require('..');

const perFolder = 1000;
useDevices({
  devices: [
    {
      id: 'bench-phone',
      protocol: 'MTP: 1.00',
      noBulk: args.includes('--no-bulk'),
      objects: [{ id: 's1', type: 'storage', name: 'Internal' }],
      generate: { storage: 's1', folders: Math.ceil(objects / perFolder), filesPerFolder: perFolder },
    },
  ],
});

function floor(list) {
  const start = process.hrtime.bigint();
  const copy = list.map((f) => ({
    objectId: `${f.objectId}`, parentId: `${f.parentId}`, name: `${f.name}`, contentType: f.contentType,
    size: f.size, createdMs: f.createdMs, modifiedMs: f.modifiedMs, storageId: `${f.storageId}`,
  }));
  return [Number(process.hrtime.bigint() - start) / 1e6, copy.length];
}

(async () => {
  const mb = (n) => (n / 1048576).toFixed(1);
  for (let round = 1; round <= rounds; round++) {
    global.gc?.();
    const before = process.memoryUsage();
    let hops = 1;
    const delay = monitorEventLoopDelay({ resolution: 10 });
    delay.enable();
    const start = process.hrtime.bigint();
    const r = await ostrel.GetMtpFilesById('bench-phone', null, { onProgress: () => hops++ });
    const ms = Number(process.hrtime.bigint() - start) / 1e6;
    delay.disable();
    const after = process.memoryUsage();
    const [floorMs] = floor(r.fileList);
    console.log(
      `round ${round}: ${r.fileList.length} objects in ${ms.toFixed(0)} ms ` +
        `(${Math.round(r.fileList.length / (ms / 1000))} objects/s), ${hops} main-thread hops, ` +
        `longest main-thread stall ${(delay.max / 1e6).toFixed(0)} ms, ` +
        `rss +${mb(after.rss - before.rss)} MiB, heap +${mb(after.heapUsed - before.heapUsed)} MiB; ` +
        `script floor ${floorMs.toFixed(0)} ms, ratio ${(ms / floorMs).toFixed(1)}x`,
    );
  }
})();
