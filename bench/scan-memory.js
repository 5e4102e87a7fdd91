'use strict';
// Resident memory after repeated scans of one big tree in one process:
// the growth over the starting RSS after each scan (after a full garbage
// collection), with the allocator as the module sets it and, for
// comparison, with a single malloc arena (MALLOC_ARENA_MAX=1, Linux only)
// and with the pure-script cost of building as many objects.
//
//   node bench/scan-memory.js [--files 200000] [--scans 10]
const path = require('path');
const { spawnSync } = require('child_process');
const { ensureTree } = require('./scan/tree');

const args = process.argv.slice(2);
const option = (name, fallback) => {
  const i = args.indexOf(name);
  return i >= 0 ? Number(args[i + 1]) : fallback;
};
const files = option('--files', 200000);
const scans = option('--scans', 10);
const repoRoot = path.resolve(__dirname, '..');

if (process.env.OSTREL_MEMORY_CHILD) {
  // One measured run: scans (or builds objects) and prints the growth.
  const dir = process.env.OSTREL_MEMORY_CHILD;
  const pureScript = process.env.OSTREL_MEMORY_PURE === '1';
  const o = pureScript ? null : require(repoRoot);
  const mb = (n) => Math.round(n / 1048576);
  const scanOnce = () =>
    new Promise((resolve) => {
      if (pureScript) {
        let kept = 0;
        for (let i = 0; i < files; i += 8192) {
          const batch = [];
          for (let j = i; j < Math.min(files, i + 8192); j++) {
            batch.push({ absolutePath: `${dir}/d${j % 997}/file-${j}.txt`, name: `file-${j}.txt`, size: j, mtimeMs: j });
          }
          kept += batch.length;
        }
        setImmediate(() => resolve(kept));
        return;
      }
      let n = 0;
      o.ScanAllSubFiles(dir, (u) => { n += u.nodes.length; }, () => resolve(n), {});
    });
  (async () => {
    global.gc();
    const base = process.memoryUsage().rss;
    const growth = [];
    for (let i = 0; i < scans; i++) {
      await scanOnce();
      global.gc();
      await new Promise((r) => setTimeout(r, 200));
      growth.push(mb(process.memoryUsage().rss - base));
    }
    process.stdout.write(`GROWTH ${growth.join(' ')}\n`);
  })();
  return;
}

const tree = ensureTree({ repoRoot, files, log: (m) => console.error(m) });
const run = (label, env) => {
  const r = spawnSync(process.execPath, ['--expose-gc', __filename, ...args], {
    env: { ...process.env, OSTREL_MEMORY_CHILD: tree.dir, OSTREL_LOG_STDOUT: 'stderr', ...env },
    encoding: 'utf8',
    maxBuffer: 64 * 1024 * 1024,
  });
  const m = /^GROWTH (.*)$/m.exec(r.stdout || '');
  return { label, growth: m ? m[1].split(' ').map(Number) : null, error: m ? null : r.stderr.slice(-500) };
};
const rows = [run('ostrel, allocator as the module sets it', {})];
if (process.platform === 'linux') rows.push(run('ostrel, MALLOC_ARENA_MAX=1', { MALLOC_ARENA_MAX: '1' }));
rows.push(run('script only: as many objects, no scan', { OSTREL_MEMORY_PURE: '1' }));
console.log(`RSS growth in MB after each of ${scans} scans of ${files} files (${process.platform}, node ${process.version})`);
for (const r of rows) {
  console.log(`${r.label.padEnd(44)} ${r.growth ? r.growth.join(' ') : 'failed: ' + r.error}`);
}
