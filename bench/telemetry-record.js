'use strict';
// Recording call statistics: 1,000,000 records from native worker threads
// with a tracer registered. Prints the cost per record, the script calls
// the tracer received (one span per name per flush), and ratios against
// peers in the same run: the least a shared aggregate can cost (one mutex
// and one map, nothing else) and one script call per record from native
// code (what forwarding each record to script would cost).
//   node bench/telemetry-record.js [records, default 1000000] [threads, default 4] [runs, default 5]
//   scripts/wine-node bench/telemetry-record.js
const path = require('path');
const { buildDir } = require('../test/js/helpers');

const probe = require(path.join(buildDir(), 'test', 'runtime_probe.node'));
const records = Number(process.argv[2] || 1000000);
const threads = Number(process.argv[3] || 4);
const runs = Number(process.argv[4] || 5);
const names = ['CreateFileW', 'FindFirstFileExW', 'FindNextFileW', 'GetFileInformationByHandleEx',
  'ReadDirectoryChangesW', 'CreateFileW(WatchLoop)', 'DeviceIoControl', 'CorvexStatInfo'];

const median = (xs) => [...xs].sort((a, b) => a - b)[Math.floor(xs.length / 2)];
const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

// Counts what the module calls on it; keeps the recorded total to know when
// every record has been flushed.
const tracer = {
  spans: 0,
  flushedRecords: 0,
  flushTimes: [],
  startSpan() {
    this.spans++;
    const now = performance.now();
    const last = this.flushTimes[this.flushTimes.length - 1];
    if (last === undefined || now - last > 50) this.flushTimes.push(now);
    return {
      setAttribute: (key, value) => {
        if (key === 'indsum_0') this.flushedRecords += value;
      },
      end() {},
    };
  },
};

async function flushedAll(expected) {
  const start = Date.now();
  while (tracer.flushedRecords < expected) {
    if (Date.now() - start > 10000) throw new Error(`only ${tracer.flushedRecords} of ${expected} records flushed`);
    await sleep(5);
  }
}

(async () => {
  probe.RegisterTracer(tracer);
  const perThread = Math.floor(records / threads);
  const total = perThread * threads;
  // Warm-up: maps, threads, allocator.
  await probe.recordFromThreads(threads, 20000, names, 'telemetry');
  await probe.recordFromThreads(threads, 20000, names, 'bare');
  await flushedAll(threads * 20000);

  const result = { telemetry: [], bare: [], single: [], spans: [], flushes: [] };
  for (let i = 0; i < runs; i++) {
    // Start right after a flush, as a steady stream would.
    tracer.flushedRecords = 0;
    tracer.spans = 0;
    tracer.flushTimes = [];
    const t = await probe.recordFromThreads(threads, perThread, names, 'telemetry');
    await flushedAll(total);
    result.telemetry.push(t.ns / total);
    result.spans.push(tracer.spans);
    result.flushes.push(tracer.flushTimes.length);
    result.bare.push((await probe.recordFromThreads(threads, perThread, names, 'bare')).ns / total);
    tracer.flushedRecords = 0;
    const s = await probe.recordFromThreads(1, total, names, 'telemetry');
    await flushedAll(total);
    result.single.push(s.ns / total);
  }
  const calls = Math.min(total, 200000);
  const scriptNs = [];
  for (let i = 0; i < runs; i++) scriptNs.push(probe.callScript(() => {}, calls) / calls);
  probe.UnRegisterTracers();

  const tel = median(result.telemetry);
  const rows = [
    [`ostrel record_stat, ${threads} threads`, tel],
    ['ostrel record_stat, 1 thread', median(result.single)],
    [`bare mutex + map, ${threads} threads`, median(result.bare)],
    ['one script call per record (main thread)', median(scriptNs)],
  ];
  console.log(`statistics recording, ${total} records, median of ${runs} runs, ${process.platform} node ${process.version}`);
  console.log('recorder                                     ns/record (wall)   ratio to ostrel');
  for (const [name, ns] of rows) console.log(`${name.padEnd(44)} ${ns.toFixed(1).padStart(16)}   ${(ns / tel).toFixed(2)}`);
  const spans = median(result.spans);
  const flushes = median(result.flushes);
  console.log(`script calls made for ${total} records: ${spans} spans in ${flushes} flush(es) over ${names.length} names ` +
    `(${(spans / (flushes * names.length)).toFixed(2)} span per name per flush)`);
})();
