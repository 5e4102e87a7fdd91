'use strict';
// Shared pieces of the scan suites: a scan that collects everything it is
// given, and small trees written into a fresh temporary folder.
const fs = require('fs');
const os = require('os');
const path = require('path');
const ostrel = require('../..');

const sep = path.sep;

// Runs ScanAllSubFiles to its result; resolves with every update, the
// delivered file and folder objects, and the result object.
function scan(root, options = {}) {
  return new Promise((resolve, reject) => {
    const updates = [];
    const nodes = [];
    const dirs = [];
    try {
      ostrel.ScanAllSubFiles(
        root,
        (u) => {
          updates.push({ nodes: u.nodes.length, dirs: u.dirs.length });
          nodes.push(...u.nodes);
          dirs.push(...u.dirs);
        },
        (result) => resolve({ updates, nodes, dirs, result }),
        options,
      );
    } catch (err) {
      reject(err);
    }
  });
}

// A fresh folder holding `files` (relative paths with "/"; a value that is
// a string is the content) and `folders` (empty ones).
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

// Relative paths with "/" whatever the platform, sorted.
function relPaths(objects) {
  return objects.map((o) => o.relativePath.split(sep).join('/')).sort();
}

module.exports = { ostrel, scan, makeTree, removeTree, relPaths, sep };
