'use strict';
// Shared pieces of the scan suites.
const assert = require('node:assert/strict');
const fs = require('fs');
const os = require('os');
const path = require('path');
const { spawnSync } = require('child_process');
const { root: repoRoot, buildDir, runChild } = require('./helpers');
const ostrel = require('../..');

const sep = path.sep;

// ScanAllSubFiles to its result: { nodes, dirs, result }.
function scan(root, options = {}) {
  return new Promise((resolve) => {
    const nodes = [];
    const dirs = [];
    const update = (u) => {
      nodes.push(...u.nodes);
      dirs.push(...u.dirs);
    };
    ostrel.ScanAllSubFiles(root, update, (result) => resolve({ nodes, dirs, result }), options);  // a throw rejects
  });
}

// A fresh folder: `files` (relative path with "/" -> content), empty `folders`.
function makeTree({ files = {}, folders = [] } = {}) {
  const root = fs.mkdtempSync(path.join(os.tmpdir(), 'ostrel-scan-'));
  for (const rel of folders) fs.mkdirSync(path.join(root, ...rel.split('/')), { recursive: true });
  for (const [rel, content] of Object.entries(files)) {
    const p = path.join(root, ...rel.split('/'));
    fs.mkdirSync(path.dirname(p), { recursive: true });
    fs.writeFileSync(p, typeof content === 'string' ? content : '');
  }
  return root;
}

function removeTree(root) {
  fs.rmSync(root, { recursive: true, force: true, maxRetries: 5 });
}

// A fixed-seed generator (mulberry32) of numbers in [0, 1).
function random(seed) {
  return () => {
    seed = (seed + 0x6d2b79f5) | 0;
    let t = Math.imul(seed ^ (seed >>> 15), 1 | seed);
    t = (t + Math.imul(t ^ (t >>> 7), 61 | t)) ^ t;
    return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
  };
}

function relPaths(objects) {
  return objects.map((o) => o.relativePath.split(sep).join('/')).sort();
}

// Folders of 240-character names below `base`, each holding f.txt, made
// under a short name then renamed so that the deepest lie past the path
// limit (renamed back at the end, to be removed). Returns the files.
function longChain(t, base) {
  const long = (i) => `d${i}_`.padEnd(240, 'x');
  const short = path.join(base, 't');
  const renamed = path.join(base, long(99));
  t.after(() => {
    try {
      fs.renameSync(renamed, short);
    } catch {
      // not renamed yet
    }
    removeTree(base);
  });
  fs.mkdirSync(short);
  fs.writeFileSync(path.join(short, 'top.txt'), '');
  const files = [`${long(99)}/top.txt`];
  for (let i = 0, dir = short, rel = long(99); i < 20; i++) {
    const next = path.join(dir, long(i));
    try {
      fs.mkdirSync(next);
      fs.writeFileSync(path.join(next, 'f.txt'), '');
    } catch {
      break;  // the path limit of the system calls
    }
    [dir, rel] = [next, `${rel}/${long(i)}`];
    files.push(`${rel}/f.txt`);
  }
  fs.renameSync(short, renamed);
  return files;
}

// `body` in a child with `ostrel`, `scanAll(root, options)` -> { nodes, r }
// and `report(value)`; `prefix`: a command it runs under. Returns the
// reported value with the child's stdout, stderr and status.
function childScan(body, { prefix = [], args = [], timeout = 120000 } = {}) {
  const source = `process.env.OSTREL_BUILD_DIR = ${JSON.stringify(buildDir())};
    const ostrel = require(${JSON.stringify(repoRoot)});
    const report = (value) => console.log('RESULT ' + JSON.stringify(value));
    const scanAll = (root, options = {}) => new Promise((resolve) => {
      const nodes = [];
      ostrel.ScanAllSubFiles(root, (u) => nodes.push(...u.nodes), (r) => resolve({ nodes, r }), options);
    });
    ${body}`;
  let r;
  if (prefix.length) {
    const s = spawnSync(prefix[0], [...prefix.slice(1), process.execPath, '-e', source, ...args], { encoding: 'utf8', timeout });
    r = { status: s.status, stdout: s.stdout || '', stderr: s.stderr || '' };
  } else {
    r = runChild(source, { timeout });
  }
  const line = r.stdout.split(/\r?\n/).reverse().find((l) => l.startsWith('RESULT '));
  assert.ok(line, `status ${r.status}: ${r.stdout.slice(-2000)} ${r.stderr.slice(-2000)}`);
  return { ...JSON.parse(line.slice(7)), stdout: r.stdout, stderr: r.stderr, status: r.status };
}

module.exports = { ostrel, scan, makeTree, removeTree, relPaths, sep, random, longChain, childScan };
