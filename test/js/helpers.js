'use strict';
// Shared pieces of the JS suites: where the builds are, children of the same
// node, and small waiting helpers.
const path = require('path');
const { spawnSync } = require('child_process');

const root = path.resolve(__dirname, '..', '..');
const isWindows = process.platform === 'win32';

function buildDir() {
  if (process.env.OSTREL_BUILD_DIR) return path.resolve(root, process.env.OSTREL_BUILD_DIR);
  return path.join(root, 'build', isWindows ? 'win32' : 'linux');
}

// The test-only add-on built from the same runtime library as ostrel.node.
function loadProbe() {
  return require(path.join(buildDir(), 'test', 'runtime_probe.node'));
}

// Runs `source` in a child node (this executable), in the repository's folder
// unless `cwd` says otherwise: { status, signal, stdout, stderr }.
function runChild(source, { timeout = 60000, env = {}, maxBuffer = 1024 * 1024, ...spawnOptions } = {}) {
  const r = spawnSync(process.execPath, ['-e', source], {
    cwd: root,
    ...spawnOptions,
    encoding: 'utf8',
    timeout,
    maxBuffer,
    env: { ...process.env, ...env },
  });
  const result = { status: r.status, signal: r.signal, stdout: r.stdout || '', stderr: r.stderr || '' };
  // Under Wine a child that crashed may still end with status 0: Wine's
  // report of the unhandled exception tells (as in scripts/wine-node).
  if (isWindows && wineCrashReport.test(result.stderr + result.stdout)) {
    result.status = null;
    result.signal = 'wine: unhandled exception';
  }
  return result;
}

const wineCrashReport = /^wine: Unhandled |^Unhandled exception: .* in (32|64)-bit code|^wine: .*starting debugger/m;

const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

// Polls `predicate` until it holds; throws naming `what` after `timeoutMs`.
async function waitFor(predicate, what, timeoutMs = 10000) {
  const start = Date.now();
  while (!predicate()) {
    if (Date.now() - start > timeoutMs) throw new Error(`timed out waiting for ${what}`);
    await sleep(5);
  }
}

// A fresh folder under the system's temporary folder.
const tempDir = (prefix) => require('fs').mkdtempSync(path.join(require('os').tmpdir(), prefix));

// 200,000 empty files in 200 folders, made once (test.sh makes them before
// the Wine run, where node.exe would take minutes).
function bigTree() {
  const fs = require('fs');
  const dir = process.env.OSTREL_BIG_TREE || path.join(root, 'build', 'test-fixtures', 'big-200k');
  if (fs.existsSync(path.join(dir, '.complete'))) return dir;
  fs.rmSync(dir, { recursive: true, force: true });
  for (let d = 0; d < 200; d++) {
    const sub = path.join(dir, `d${d}`);
    fs.mkdirSync(sub, { recursive: true });
    for (let f = 0; f < 1000; f++) fs.writeFileSync(path.join(sub, `f${f}.txt`), '');
  }
  fs.writeFileSync(path.join(dir, '.complete'), '');
  return dir;
}

module.exports = { root, isWindows, buildDir, loadProbe, runChild, sleep, waitFor, tempDir, bigTree };
