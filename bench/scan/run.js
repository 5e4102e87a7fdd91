'use strict';
// Scan benchmark: ostrel's ScanAllSubFiles against other folder walkers on a
// generated tree, interleaved in one run (A B C A B C ...), warm cache, each
// measurement in its own child process; prints the median files/s, each
// runner's rate relative to ostrel, and peak RSS.
//
//   node bench/scan/run.js [--files N | --1m] [--rounds N] [--only a,b] [--skip a,b]
//                          [--seed N] [--generate-only] [--no-warmup] [--json out.json] [--markdown]
//   scripts/wine-node bench/scan/run.js        (Windows node.exe under Wine;
//                                               generate the tree natively first)
const fs = require('fs');
const os = require('os');
const path = require('path');
const { spawnSync } = require('child_process');
const { ensureTree } = require('./tree');
const { RUNNERS } = require('./runners');

const root = path.resolve(__dirname, '..', '..');

const USAGE = `usage: node bench/scan/run.js [--files N | --1m] [--rounds N] [--only a,b] [--skip a,b]
                                [--seed N] [--generate-only] [--no-warmup] [--json out.json] [--markdown]
runners: ${Object.keys(RUNNERS).join(', ')}`;

function parseArgs(argv) {
  const opts = {
    files: 100000,
    rounds: null,
    only: null,
    skip: [],
    seed: 1,
    generateOnly: false,
    warmup: true,
    json: null,
    markdown: false,
  };
  for (let i = 0; i < argv.length; i++) {
    const a = argv[i];
    const value = () => {
      if (i + 1 >= argv.length) throw new Error(`${a} needs a value`);
      return argv[++i];
    };
    const count = () => {
      const n = Number(value());
      if (!Number.isInteger(n) || n < 1) throw new Error(`${a} needs a positive whole number`);
      return n;
    };
    if (a === '--files') opts.files = count();
    else if (a === '--1m') opts.files = 1000000;
    else if (a === '--rounds') opts.rounds = count();
    else if (a === '--seed') opts.seed = count();
    else if (a === '--only') opts.only = value().split(',');
    else if (a === '--skip') opts.skip = value().split(',');
    else if (a === '--generate-only') opts.generateOnly = true;
    else if (a === '--no-warmup') opts.warmup = false;
    else if (a === '--json') opts.json = value();
    else if (a === '--markdown') opts.markdown = true;
    else if (a === '--help' || a === '-h') {
      console.log(USAGE);
      process.exit(0);
    } else throw new Error(`unknown argument ${a}`);
  }
  for (const n of [...(opts.only || []), ...opts.skip]) {
    if (!RUNNERS[n]) throw new Error(`unknown runner ${n}`);
  }
  return opts;
}

const median = (xs) => {
  const s = [...xs].sort((a, b) => a - b);
  const m = s.length >> 1;
  return s.length % 2 ? s[m] : (s[m - 1] + s[m]) / 2;
};

function measure(name, dir) {
  const out = path.join(os.tmpdir(), `ostrel-bench-${process.pid}-${name}.json`);
  fs.rmSync(out, { force: true });
  const r = spawnSync(process.execPath, [path.join(__dirname, 'child.js'), name, dir, out], {
    stdio: ['ignore', 'ignore', 'inherit'],
    timeout: 60 * 60 * 1000,
  });
  let result;
  try {
    result = JSON.parse(fs.readFileSync(out, 'utf8'));
  } catch {
    result = { ok: false, error: `child ended with status ${r.status}${r.signal ? ` (${r.signal})` : ''} and no result` };
  }
  fs.rmSync(out, { force: true });
  return result;
}

// Files seen by a run: runners that list folders too (find, the snapshot)
// report entries, from which the tree's folders and its root are taken off.
function filesOf(result, tree) {
  if (typeof result.files === 'number') return result.files;
  return result.entries - tree.folders - 1;
}

const pad = (s, n) => String(s).padEnd(n);
const lpad = (s, n) => String(s).padStart(n);
const mb = (kb) => (kb == null ? '-' : (kb / 1024).toFixed(0));
const rate = (x) => (x >= 1e6 ? `${(x / 1e6).toFixed(2)}M` : `${(x / 1e3).toFixed(1)}k`);

function printTable(rows, tree) {
  const ostrel = rows.find((r) => r.name === 'ostrel' && r.rate);
  const head = ['runner', 'files/s', 'vs ostrel', 'median s', 'peak RSS MB', 'RSS growth MB', 'files seen'];
  const widths = [26, 9, 10, 9, 12, 14, 11];
  console.log(head.map((h, i) => (i ? lpad(h, widths[i]) : pad(h, widths[i]))).join(' '));
  for (const r of rows) {
    if (!r.rate) {
      console.log(`${pad(r.label, widths[0])} not measured: ${r.error}`);
      continue;
    }
    const cells = [
      r.label,
      rate(r.rate),
      ostrel ? `${(r.rate / ostrel.rate).toFixed(2)}x` : '-',
      r.seconds.toFixed(3),
      mb(r.peakRssKb),
      mb(r.growthKb),
      `${r.files}${r.files === tree.files ? '' : ' (!)'}`,
    ];
    console.log(cells.map((c, i) => (i ? lpad(c, widths[i]) : pad(c, widths[i]))).join(' '));
  }
  console.log('vs ostrel: the runner\'s files/s divided by ostrel\'s (below 1.00x: slower than ostrel).');
  console.log('(!): the runner saw a different number of files than the tree holds.');
}

// The same table in Markdown, for bench/README.md.
function printMarkdown(rows, tree) {
  const ostrel = rows.find((r) => r.name === 'ostrel' && r.rate);
  console.log('| runner | files/s | vs ostrel | median s | peak RSS MB | RSS growth MB |');
  console.log('|---|---:|---:|---:|---:|---:|');
  for (const r of rows.filter((x) => x.rate)) {
    const ratio = ostrel ? `${(r.rate / ostrel.rate).toFixed(2)}x` : '-';
    const files = r.files === tree.files ? '' : ` (${r.files} files)`;
    console.log(
      `| ${r.label}${files} | ${rate(r.rate)} | ${ratio} | ${r.seconds.toFixed(3)} | ${mb(r.peakRssKb)} | ${mb(r.growthKb)} |`,
    );
  }
}

function main() {
  let opts;
  try {
    opts = parseArgs(process.argv.slice(2));
  } catch (err) {
    console.error(`${err.message}\n${USAGE}`);
    process.exit(2);
  }
  const underWindows = process.platform === 'win32';
  const tree = ensureTree({
    repoRoot: root,
    files: opts.files,
    seed: opts.seed,
    generate: !underWindows,
    log: (m) => console.log(m),
  });
  if (opts.generateOnly) {
    console.log(`tree ready: ${tree.dir} (${tree.files} files, ${tree.folders} folders)`);
    return;
  }
  const names = Object.keys(RUNNERS).filter(
    (n) =>
      (!opts.only || opts.only.includes(n)) &&
      !opts.skip.includes(n) &&
      (!RUNNERS[n].platforms || RUNNERS[n].platforms.includes(process.platform)),
  );
  const rounds = opts.rounds || (underWindows || opts.files > 100000 ? 3 : 5);
  console.log(
    `scan benchmark: ${tree.files} files in ${tree.folders} folders (${tree.hiddenFiles} hidden, ` +
      `${(tree.bytes / 1e6).toFixed(0)} MB), node ${process.version} ${process.platform}-${process.arch}, ` +
      `${os.cpus().length} CPUs, ${rounds} rounds, interleaved: ${names.join(' ')}`,
  );

  const runs = Object.fromEntries(names.map((n) => [n, []]));
  const failed = {};
  const active = () => names.filter((n) => !failed[n]);
  const record = (name, result, round) => {
    if (!result.ok) {
      failed[name] = result.error.split('\n')[0];
      console.log(`  ${name}: ${failed[name]}`);
      return;
    }
    const files = filesOf(result, tree);
    runs[name].push({ ...result, files });
    console.log(`  ${round} ${pad(name, 14)} ${result.seconds.toFixed(3)} s  ${rate(files / result.seconds)} files/s`);
  };
  if (opts.warmup) {
    // One unmeasured pass of each runner: warms the caches and drops runners
    // that cannot run here (a missing peer, an export not built yet). Under
    // Windows (Wine) a per-file walker takes minutes, so only the runners
    // that take metadata from the listing warm up there.
    const cheap = (n) => !underWindows || ['ostrel-fast', 'parcel', 'fdir-names'].includes(n);
    for (const n of active().filter(cheap)) {
      const r = measure(n, tree.dir);
      if (!r.ok) record(n, r, 'warm-up');
    }
  }
  for (let round = 1; round <= rounds; round++) {
    for (const n of active()) record(n, measure(n, tree.dir), `round ${round}`);
  }

  const rows = names.map((n) => {
    const list = runs[n];
    if (failed[n] || !list.length) return { name: n, label: RUNNERS[n].label, error: failed[n] || 'no run' };
    const seconds = median(list.map((r) => r.seconds));
    const files = list[list.length - 1].files;
    return {
      name: n,
      label: RUNNERS[n].label,
      seconds,
      files,
      rate: files / seconds,
      peakRssKb: Math.max(...list.map((r) => r.peakRssKb || 0)) || null,
      growthKb: list[0].growthKb == null ? null : Math.max(...list.map((r) => r.growthKb)),
      extra: list[list.length - 1].extra,
    };
  });
  console.log('');
  printTable(rows, tree);
  const ostrelRow = rows.find((r) => r.name === 'ostrel' && r.rate);
  if (ostrelRow) {
    console.log(
      `ostrel: RSS growth during the scan ${mb(ostrelRow.growthKb)} MB over a baseline of ` +
        `${mb(runs.ostrel[0].baseRssKb)} MB; ${ostrelRow.extra ? ostrelRow.extra.updates : '?'} update calls`,
    );
  }
  if (opts.markdown) {
    console.log('');
    printMarkdown(rows, tree);
  }
  if (opts.json) {
    fs.writeFileSync(opts.json, JSON.stringify({ tree, rounds, node: process.version, platform: process.platform, rows, runs }, null, 2));
  }
}

main();
