'use strict';
// Watch benchmark: ostrel against @parcel/watcher and chokidar, each in its
// own child process, on the generated benchmark tree (bench/scan/tree.js).
// For each watcher: start time and RSS growth until ready, write->callback
// latency over 50 single writes (median, p95), events received and lag
// after the writer for a burst of creations and one of deletions, renames,
// and CPU used while idle. Prints a table with ratios to ostrel.
//
//   node bench/watch/run.js [--files 100000] [--burst 10000] [--only ostrel,parcel,chokidar] [--markdown]
// Under Wine (scripts/wine-node bench/watch/run.js) the Windows builds of the
// peers run; generate the tree natively first.
const fs = require('fs');
const path = require('path');
const { spawnSync } = require('child_process');
const { ensureTree } = require('../scan/tree');

const root = path.resolve(__dirname, '..', '..');
const benchModules = path.join(root, 'bench', 'node_modules');
const args = process.argv.slice(2);
const opt = (name, fallback) => {
  const i = args.indexOf(name);
  return i >= 0 ? args[i + 1] : fallback;
};
const files = Number(opt('--files', 100000));
const burst = Number(opt('--burst', 10000));
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

// ------------------------------------------------------------------ child --
// Every watcher as { start(dir, onEvent) -> Promise<stop> }, onEvent(kind, path)
// with kind 'add' | 'unlink' | 'change' | 'rename' | 'other'.
const watchers = {
  ostrel: {
    start(dir, onEvent) {
      const o = require(root);
      return new Promise((resolve) => {
        const close = o.StartFileWatch(dir, (evs) => {
          if (!Array.isArray(evs)) return;
          for (const e of evs) {
            const kind = { add: 'add', unlink: 'unlink', change: 'change', rename: 'rename' }[e.watchEvent] || 'other';
            onEvent(kind, e.fileStat.absolutePath);
          }
        }, () => resolve(async () => close()), {});
      });
    },
  },
  parcel: {
    async start(dir, onEvent) {
      const watcher = require(path.join(benchModules, '@parcel', 'watcher'));
      const sub = await watcher.subscribe(dir, (err, events) => {
        if (err) return;
        for (const e of events) onEvent({ create: 'add', delete: 'unlink', update: 'change' }[e.type] || 'other', e.path);
      });
      return () => sub.unsubscribe();
    },
  },
  chokidar: {
    start(dir, onEvent) {
      const chokidar = require(path.join(benchModules, 'chokidar'));
      const w = chokidar.watch(dir, { ignoreInitial: true });
      w.on('add', (p) => onEvent('add', p));
      w.on('unlink', (p) => onEvent('unlink', p));
      w.on('change', (p) => onEvent('change', p));
      return new Promise((resolve) => w.on('ready', () => resolve(() => w.close())));
    },
  },
};

async function child(name, dir) {
  const w = watchers[name];
  const work = path.join(dir, `bench-watch-${process.pid}`);
  const seen = new Map(); // path -> { add, unlink } times
  let last = 0;
  let count = 0;
  const onEvent = (kind, p) => {
    last = performance.now();
    count++;
    const rec = seen.get(p) || {};
    if (!rec[kind]) rec[kind] = last;
    seen.set(p, rec);
  };
  const rss0 = process.memoryUsage().rss;
  const t0 = performance.now();
  const stop = await w.start(dir, onEvent);
  const startMs = performance.now() - t0;
  const rssMb = (process.memoryUsage().rss - rss0) / 1048576;
  fs.mkdirSync(work);
  await sleep(500);

  // Latency of single writes.
  const latencies = [];
  for (let i = 0; i < 50; i++) {
    const p = path.join(work, `lat-${i}.txt`);
    const at = performance.now();
    fs.writeFileSync(p, 'x');
    for (let k = 0; k < 200 && !(seen.get(p) || {}).add; k++) await sleep(1);
    const rec = seen.get(p) || {};
    if (rec.add) latencies.push(rec.add - at);
    await sleep(10);
  }
  latencies.sort((a, b) => a - b);

  // A burst of creations, then of deletions; received counts and lag.
  const burstDir = path.join(work, 'burst');
  fs.mkdirSync(burstDir);
  await sleep(300);
  const names = Array.from({ length: burst }, (_, i) => path.join(burstDir, `f${i}.txt`));
  const settle = async (test) => {
    for (let idle = 0; idle < 3000 && !test(); idle += 10) await sleep(10);
  };
  names.forEach((p) => fs.writeFileSync(p, ''));
  const created = performance.now();
  await settle(() => names.every((p) => (seen.get(p) || {}).add));
  const adds = names.filter((p) => (seen.get(p) || {}).add);
  const addLag = adds.length ? Math.max(...adds.map((p) => seen.get(p).add)) - created : NaN;
  names.forEach((p) => fs.unlinkSync(p));
  const deleted = performance.now();
  await settle(() => names.every((p) => (seen.get(p) || {}).unlink));
  const unlinks = names.filter((p) => (seen.get(p) || {}).unlink);
  const unlinkLag = unlinks.length ? Math.max(...unlinks.map((p) => seen.get(p).unlink)) - deleted : NaN;

  // Renames: 1,000 files renamed once each; the new names must be seen.
  const renames = Array.from({ length: 1000 }, (_, i) => [path.join(work, `r${i}.a`), path.join(work, `r${i}.b`)]);
  renames.forEach(([a]) => fs.writeFileSync(a, ''));
  await sleep(500);
  renames.forEach(([a, b]) => fs.renameSync(a, b));
  await settle(() => renames.every(([, b]) => { const r = seen.get(b) || {}; return r.add || r.rename; }));
  const renamed = renames.filter(([, b]) => { const r = seen.get(b) || {}; return r.add || r.rename; }).length;

  // Idle CPU.
  await sleep(500);
  const cpu0 = process.cpuUsage();
  const idleStart = performance.now();
  await sleep(10000);
  const cpu = process.cpuUsage(cpu0);
  const idleCpu = ((cpu.user + cpu.system) / 1000) / (performance.now() - idleStart) * 100;

  await stop();
  fs.rmSync(work, { recursive: true, force: true });
  const pct = (q) => latencies.length ? latencies[Math.min(latencies.length - 1, Math.floor(q * latencies.length))] : NaN;
  process.stdout.write(`RESULT ${JSON.stringify({ name, startMs, rssMb, p50: pct(0.5), p95: pct(0.95), adds: adds.length, addLag,
    unlinks: unlinks.length, unlinkLag, renamed, idleCpu })}\n`);
  process.exit(0);
}

// ----------------------------------------------------------------- parent --
function parent() {
  const only = opt('--only', 'ostrel,parcel,chokidar').split(',');
  const tree = ensureTree({ repoRoot: root, files, generate: process.platform !== 'win32', log: (m) => console.error(m) });
  const rows = [];
  for (const name of only) {
    const r = spawnSync(process.execPath, [__filename, '--child', name, '--dir', tree.dir, '--burst', String(burst)], {
      encoding: 'utf8', env: { ...process.env, OSTREL_LOG_STDOUT: 'stderr' }, timeout: 600000, maxBuffer: 64 << 20,
    });
    const m = /^RESULT (.*)$/m.exec(r.stdout || '');
    rows.push(m ? JSON.parse(m[1]) : { name, error: (r.stderr || '').slice(-300) || `status ${r.status}` });
  }
  const base = rows.find((r) => r.name === 'ostrel' && !r.error);
  const f = (v, d = 0) => (Number.isFinite(v) ? v.toFixed(d) : '-');
  const ratio = (r, k) => (base && Number.isFinite(r[k]) && base[k] ? ` (${(r[k] / base[k]).toFixed(1)}x)` : '');
  const md = args.includes('--markdown');
  const head = ['watcher', 'start ms', 'RSS MB', 'p50 ms', 'p95 ms', `adds/${burst}`, 'add lag ms', `unlinks/${burst}`,
    'unlink lag ms', 'renames/1000', 'idle CPU %'];
  console.log(`watch benchmark, ${files}-file tree, ${process.platform} node ${process.version}`);
  if (md) console.log(`| ${head.join(' | ')} |\n|${head.map(() => '---').join('|')}|`);
  else console.log(head.join('\t'));
  for (const r of rows) {
    const cells = r.error
      ? [r.name, `failed: ${r.error.replace(/\s+/g, ' ')}`]
      : [r.name, f(r.startMs) + ratio(r, 'startMs'), f(r.rssMb) + ratio(r, 'rssMb'), f(r.p50, 1) + ratio(r, 'p50'),
        f(r.p95, 1), String(r.adds), f(r.addLag) + ratio(r, 'addLag'), String(r.unlinks), f(r.unlinkLag), String(r.renamed),
        f(r.idleCpu, 2)];
    console.log(md ? `| ${cells.join(' | ')} |` : cells.join('\t'));
  }
}

if (args[0] === '--child') child(args[1], args[3]).catch((e) => { console.error(e); process.exit(1); });
else parent();
