'use strict';
// The scanners the benchmark compares. Each runner walks `dir`, reads (or,
// for the names-only runners, skips) every file's metadata, touches the
// values so that nothing is skipped lazily, and resolves to
// { files, entries, bytes, extra }. They run one per child process (see
// child.js), so module loading and memory stay apart.
const fs = require('fs');
const path = require('path');
const { spawn } = require('child_process');

const root = path.resolve(__dirname, '..', '..');
const benchModules = path.join(root, 'bench', 'node_modules');

function requirePeer(name) {
  try {
    return require(path.join(benchModules, name));
  } catch (err) {
    throw new Error(`${name} is not installed (${err.message.split('\n')[0]}); run: npm run bench:setup`);
  }
}

// Folds a stat-like object into a number so the engine cannot drop the reads.
function touchStat(st) {
  return st.size + st.ino + st.ctimeMs + st.mtimeMs + st.birthtimeMs + (st.isFile() ? 1 : 0);
}

function touchNode(n) {
  return (
    n.absolutePath.length + n.name.length + n.relativeDir.length + n.relativePath.length +
    n.dirPath.length + (n.isFile ? 1 : 0) + (n.hidden ? 2 : 0) + (n.isSystem ? 4 : 0) +
    n.size + n.ino + n.ctimeMs + n.mtimeMs + n.birthtimeMs + (n.readable ? 8 : 0)
  );
}

let sink = 0; // kept module-level: results flow somewhere observable

// GNU find printing path, size, inode, change and write times; its output is
// counted here. Peak RSS is that of find itself, sampled from /proc.
function runFind(dir) {
  return new Promise((resolve, reject) => {
    const child = spawn('find', [dir, '-printf', '%p %s %i %C@ %T@\n'], { stdio: ['ignore', 'pipe', 'inherit'] });
    let lines = 0;
    let peakKb = 0;
    const sample = () => {
      try {
        const m = /VmHWM:\s+(\d+)/.exec(fs.readFileSync(`/proc/${child.pid}/status`, 'utf8'));
        if (m) peakKb = Math.max(peakKb, Number(m[1]));
      } catch {
        // the process has already ended
      }
    };
    const timer = setInterval(sample, 5);
    child.stdout.on('data', (chunk) => {
      for (let i = chunk.indexOf(10); i !== -1; i = chunk.indexOf(10, i + 1)) lines++;
      sample();
    });
    child.on('error', reject);
    child.on('close', (code) => {
      clearInterval(timer);
      if (code !== 0) return reject(new Error(`find exited with ${code}`));
      // find lists the root and every folder too; the caller knows how many.
      resolve({ entries: lines, peakRssKb: peakKb });
    });
  });
}

function runFdirLstat(dir) {
  const { fdir } = requirePeer('fdir');
  const paths = new fdir().withFullPaths().crawl(dir).sync();
  let bytes = 0;
  for (const p of paths) {
    const st = fs.lstatSync(p);
    bytes += st.size;
    sink += touchStat(st);
  }
  return { files: paths.length, bytes };
}

function runFdirNames(dir) {
  const { fdir } = requirePeer('fdir');
  const paths = new fdir().withFullPaths().crawl(dir).sync();
  for (const p of paths) sink += p.length;
  return { files: paths.length };
}

function runReaddirLstat(dir) {
  let files = 0;
  let bytes = 0;
  const walk = (folder) => {
    for (const d of fs.readdirSync(folder, { withFileTypes: true })) {
      const p = path.join(folder, d.name);
      if (d.isDirectory()) {
        walk(p);
      } else {
        const st = fs.lstatSync(p);
        files++;
        bytes += st.size;
        sink += touchStat(st);
      }
    }
  };
  walk(dir);
  return { files, bytes };
}

// @parcel/watcher's snapshot: a native crawl (listing plus metadata of every
// entry) written to a file whose first line is the entry count.
async function runParcel(dir, { tmpDir }) {
  const watcher = requirePeer('@parcel/watcher');
  const snapshot = path.join(tmpDir, `parcel-snapshot-${process.pid}.txt`);
  try {
    await watcher.writeSnapshot(dir, snapshot);
    const fd = fs.openSync(snapshot, 'r');
    const head = Buffer.alloc(32);
    fs.readSync(fd, head, 0, 32, 0);
    fs.closeSync(fd);
    return { entries: parseInt(head.toString('latin1'), 10) };
  } finally {
    fs.rmSync(snapshot, { force: true });
  }
}

// ostrel's ScanAllSubFiles with every field of every file object read in the
// update callback. `options` adds scan options (the fast metadata mode).
function runOstrel(dir, { options = {}, onSample = () => {} } = {}) {
  const ostrel = require(root);
  return new Promise((resolve, reject) => {
    let files = 0;
    let bytes = 0;
    let updates = 0;
    const update = (u) => {
      updates++;
      for (const n of u.nodes) {
        files++;
        bytes += n.size;
        sink += touchNode(n);
      }
      onSample();
    };
    const result = (r) => {
      resolve({ files, bytes, extra: { updates, totalFileCount: r.totalFileCount, filteredFileCount: r.filteredFileCount } });
    };
    try {
      ostrel.ScanAllSubFiles(dir, update, result, options);
    } catch (err) {
      reject(err);
    }
  });
}

// name -> { label, run(dir, ctx), native: true when it measures its own
// child process (find) }. `platforms` limits where a runner exists.
// `prepare` loads the runner's modules before the baseline RSS is taken.
const loadOstrel = () => require(root);
const RUNNERS = {
  ostrel: { label: 'ostrel ScanAllSubFiles', prepare: loadOstrel, run: (dir, ctx) => runOstrel(dir, ctx) },
  'ostrel-fast': {
    label: 'ostrel fastMetadata',
    prepare: loadOstrel,
    run: (dir, ctx) => runOstrel(dir, { ...ctx, options: { fastMetadata: true } }),
  },
  find: { label: 'find -printf', run: runFind, external: true, platforms: ['linux'] },
  'fdir-lstat': { label: 'fdir + lstat', prepare: () => requirePeer('fdir'), run: runFdirLstat },
  'readdir-lstat': { label: 'readdirSync + lstat', run: runReaddirLstat },
  parcel: { label: '@parcel/watcher snapshot', prepare: () => requirePeer('@parcel/watcher'), run: runParcel },
  'fdir-names': { label: 'fdir names only', prepare: () => requirePeer('fdir'), run: runFdirNames },
};

module.exports = { RUNNERS, sinkValue: () => sink };
