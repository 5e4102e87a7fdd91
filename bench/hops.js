'use strict';
// Main-thread hops: worker -> main thread -> worker round trips per second
// and their latency, through ostrel's scheduler and through Node-API's
// thread-safe functions, in the same run, interleaved.
//   node bench/hops.js [round trips per run, default 20000] [runs, default 5]
//   scripts/wine-node bench/hops.js
const path = require('path');
const { buildDir } = require('../test/js/helpers');

const probe = require(path.join(buildDir(), 'test', 'runtime_probe.node'));
const hops = Number(process.argv[2] || 20000);
const runs = Number(process.argv[3] || 5);

const median = (xs) => [...xs].sort((a, b) => a - b)[Math.floor(xs.length / 2)];

(async () => {
  const results = { scheduler: [], tsfn: [] };
  await probe.schedulerHops(1000); // warm-up
  await probe.tsfnHops(1000);
  for (let i = 0; i < runs; i++) {
    results.scheduler.push(await probe.schedulerHops(hops));
    results.tsfn.push(await probe.tsfnHops(hops));
  }
  const row = (name, rs) => ({
    name,
    perSecond: median(rs.map((r) => r.perSecond)),
    p50us: median(rs.map((r) => r.p50us)),
    p99us: median(rs.map((r) => r.p99us)),
  });
  const s = row('ostrel scheduler', results.scheduler);
  const t = row('napi threadsafe function', results.tsfn);
  console.log(`main-thread round trips, ${hops} per run, median of ${runs} runs, ${process.platform} node ${process.version}`);
  console.log('runner                      round trips/s   p50 us   p99 us   ratio to ostrel');
  for (const r of [s, t]) {
    console.log(
      `${r.name.padEnd(27)} ${r.perSecond.toFixed(0).padStart(13)} ${r.p50us.toFixed(1).padStart(8)} ${r.p99us.toFixed(1).padStart(8)}   ${(r.perSecond / s.perSecond).toFixed(2)}`,
    );
  }
})();
