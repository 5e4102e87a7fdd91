'use strict';
// One measurement in its own process: node child.js <runner> <dir> <result.json>.
// Writes { ok, seconds, files, entries, bytes, peakRssKb, baseRssKb,
// growthKb, extra } (or { ok: false, error }) to the result file; a file
// rather than standard output because node.exe under Wine cannot always
// write to a pipe.
const fs = require('fs');
const os = require('os');
const { RUNNERS, sinkValue } = require('./runners');

async function main() {
  const [name, dir, out] = process.argv.slice(2);
  const runner = RUNNERS[name];
  let result;
  try {
    if (!runner) throw new Error(`unknown runner ${name}`);
    if (runner.prepare) runner.prepare();
    const baseRssKb = Math.round(process.memoryUsage.rss() / 1024);
    let sampledKb = baseRssKb;
    const onSample = () => {
      sampledKb = Math.max(sampledKb, Math.round(process.memoryUsage.rss() / 1024));
    };
    const t0 = process.hrtime.bigint();
    const r = await runner.run(dir, { tmpDir: os.tmpdir(), onSample });
    const seconds = Number(process.hrtime.bigint() - t0) / 1e9;
    // maxRSS is in kilobytes on Linux and on Windows (the peak working set).
    const peakRssKb = runner.external ? r.peakRssKb : process.resourceUsage().maxRSS;
    result = {
      ok: true,
      seconds,
      files: r.files,
      entries: r.entries,
      bytes: r.bytes,
      peakRssKb,
      baseRssKb: runner.external ? 0 : baseRssKb,
      growthKb: runner.external ? null : Math.max(peakRssKb, sampledKb) - baseRssKb,
      extra: r.extra,
      sink: sinkValue() > 0,
    };
  } catch (err) {
    result = { ok: false, error: String((err && err.stack) || err) };
  }
  fs.writeFileSync(out, JSON.stringify(result));
  // ostrel keeps its scan's references until the result callback has run;
  // nothing else is pending, so leave at once.
  process.exit(0);
}

main();
