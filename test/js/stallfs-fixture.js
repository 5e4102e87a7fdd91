'use strict';
// A share that stops answering: mounts stallfs (test/fixtures/stallfs), a
// FUSE passthrough of a fresh folder whose operations can be told, per path,
// to answer, to be slow or to never answer. Natively and under Wine, where
// the share is seen under Z: and through a drive letter of the test prefix.
//
//   const share = await mountStallfs(t);   // unmounted when t ends, whatever happens
//   fs.writeFileSync(path.join(share.source, 'a.txt'), '');  // the real folder
//   await share.set({ '/': 'never' });     // '/x': 'answer' | 'never' | milliseconds
//   share.path, share.drivePath            // the share as this node sees it
//   await share.waitFor((s) => s.waiting >= 1);
//
// stallfs itself ends the mount when told to stop, when this process is
// gone (natively), or after OSTREL_STALLFS_LIFETIME seconds (default 900),
// so no mount outlives a crashed run for long; scripts/test.sh also detaches
// any left over.
const fs = require('fs');
const path = require('path');
const cp = require('child_process');
const { root, sleep } = require('./helpers');

// Wine: a Linux host under a Windows node. Paths of the host are under Z:.
const wine = process.platform === 'win32' && !!(process.env.WINECONFIGDIR || process.env.WINEPREFIX);
const native = (unixPath) => (wine ? 'Z:' + unixPath.split('/').join('\\') : unixPath);
const unix = (nodePath) => (wine ? nodePath.replace(/^[zZ]:/, '').split('\\').join('/') : nodePath);

// Wine shows no device files: it lists them, though.
function exists(unixPath) {
  try {
    return fs.readdirSync(native(path.posix.dirname(unixPath))).includes(path.posix.basename(unixPath));
  } catch {
    return false;
  }
}

function binary() {
  const presets = [process.env.OSTREL_TEST_PRESET, 'linux', 'linux-asan', 'linux-tsan'].filter(Boolean);
  if (process.env.OSTREL_STALLFS) return process.env.OSTREL_STALLFS;
  for (const p of presets) {
    const candidate = path.join(root, 'build', p, 'test', 'stallfs');
    if (fs.existsSync(candidate)) return candidate;
  }
  return null;
}

// Why the dead-share cases cannot run here, or false when they can (the
// value of node:test's skip option).
function skipReason() {
  if (process.platform !== 'linux' && !wine) return 'needs a Linux host with FUSE';
  if (!exists('/dev/fuse')) return '/dev/fuse is missing';
  if (!['/usr/bin/fusermount3', '/bin/fusermount3'].some(exists))
    return 'fusermount3 is missing (Debian package fuse3)';
  if (!binary()) return 'stallfs is not built (libfuse3-dev was missing when the build was configured)';
  if (wine && !dosdevices()) return 'the Wine prefix has no dosdevices folder';
  return false;
}

function dosdevices() {
  const prefix = (process.env.WINECONFIGDIR || '').replace(/^\\\?\?\\/, '') || native(process.env.WINEPREFIX || '');
  const dir = path.join(prefix, 'dosdevices');
  return fs.existsSync(dir) ? dir : null;
}

// A drive letter that the prefix does not use yet.
function freeDrive() {
  const dir = dosdevices();
  for (const letter of 'rstuvwxy') {
    try {
      fs.lstatSync(path.join(dir, `${letter}:`));
    } catch {
      return { letter, link: unix(path.join(dir, `${letter}:`)) };
    }
  }
  throw new Error('no free drive letter in the Wine prefix');
}

function parseStatus(text) {
  const s = { mounted: false, ended: false, failed: false, rules: 0, waiting: 0, held: 0, calls: 0 };
  for (const line of text.split('\n')) {
    const [key, value] = line.split(' ');
    if (key in s) s[key] = value === undefined ? true : Number(value);
  }
  return s;
}

function isMounted(unixMount) {
  try {
    return fs.readFileSync(native('/proc/mounts'), 'utf8').split('\n').some((l) => l.split(' ')[1] === unixMount);
  } catch {
    return false;
  }
}

const open = new Set();
process.on('exit', () => {
  for (const share of open) share.closeSync();
});

// Mounts a fresh share; `t` (a node:test context, optional) unmounts it when
// the test ends, passed or failed. Rules as for set().
async function mountStallfs(t, { rules = {}, lifetime } = {}) {
  // Under build/, where nothing else lists folders.
  const parent = path.join(root, 'build', 'stallfs');
  fs.mkdirSync(parent, { recursive: true });
  const base = fs.mkdtempSync(path.join(parent, 'share-'));
  const dirs = { source: path.join(base, 'source'), mount: path.join(base, 'mount') };
  fs.mkdirSync(dirs.source);
  fs.mkdirSync(dirs.mount);
  const control = path.join(base, 'control');
  const statusFile = path.join(base, 'status');
  // Under Wine the wineserver opens files for every Wine process on its one
  // thread: were it to wait on the share, every thread of every Wine process
  // would stop, which no Windows machine does. It is always answered; the
  // share stalls the callers that would stall on Windows.
  const rulesText = (r) =>
    [...(wine ? ['exempt wineserver', 'exempt wineserver64'] : []),
      ...Object.entries(r).map(([p, m]) => (typeof m === 'number' ? `slow ${p} ${m}` : `${m} ${p}`))].join('\n') + '\n';
  fs.writeFileSync(control, rulesText(rules));
  const seconds = String(lifetime || Number(process.env.OSTREL_STALLFS_LIFETIME) || 900);
  const drive = wine ? freeDrive() : null;
  const args = ['--lifetime', seconds, ...(drive ? ['--link', drive.link] : [])];
  let child = null;
  if (wine) {
    // node.exe cannot start a Linux program itself (libuv's job object
    // fails on it and aborts); Wine's start /unix can, detached.
    args.push(...[dirs.source, dirs.mount, control, statusFile].map(unix));
    const r = cp.spawnSync(path.join(process.env.SystemRoot || 'C:\\windows', 'system32', 'cmd.exe'),
      ['/c', 'start', '/b', '/unix', unix(binary()), ...args], { stdio: 'ignore' });
    if (r.status !== 0) throw new Error(`start /unix stallfs failed: ${r.status} ${r.error}`);
  } else {
    args.push('--owner', String(process.pid), dirs.source, dirs.mount, control, statusFile);
    const log = fs.openSync(path.join(base, 'stallfs.log'), 'w');
    const env = { ...process.env };
    delete env.LD_PRELOAD;  // a sanitizer runtime meant for node
    child = cp.spawn(binary(), args, { stdio: ['ignore', log, log], env });
    fs.closeSync(log);
    child.unref();
  }

  const read = () => {
    try {
      return parseStatus(fs.readFileSync(statusFile, 'utf8'));
    } catch {
      return parseStatus('');
    }
  };
  let closed = false;
  const share = {
    base,
    source: dirs.source,
    // The mount as this node sees it, and through a drive letter under Wine.
    path: dirs.mount,
    drive: drive ? `${drive.letter.toUpperCase()}:` : null,
    drivePath: drive ? `${drive.letter.toUpperCase()}:\\` : null,
    status: read,
    async waitFor(test, ms = 15000) {
      const end = Date.now() + ms;
      for (;;) {
        const s = read();
        if (test(s)) return s;
        if (Date.now() > end) throw new Error(`stallfs status not reached in ${ms} ms: ${JSON.stringify(s)}`);
        await sleep(20);
      }
    },
    // Replaces the rules; resolves once stallfs has read them.
    async set(newRules) {
      const before = read().rules;
      fs.writeFileSync(control + '.new', rulesText(newRules));
      fs.renameSync(control + '.new', control);
      await share.waitFor((s) => s.rules > before || s.ended, 5000);
    },
    // Lets everything waiting go, unmounts, and removes the folders.
    async close() {
      if (closed) return;
      try {
        fs.writeFileSync(control + '.new', 'stop\n');
        fs.renameSync(control + '.new', control);
        await share.waitFor((s) => s.ended || s.failed, 5000).catch(() => {});
      } finally {
        share.closeSync();
      }
    },
    closeSync() {
      if (closed) return;
      closed = true;
      open.delete(share);
      try {
        fs.writeFileSync(control, 'stop\n');
      } catch {}
      const mount = unix(dirs.mount);
      if (!wine && isMounted(mount)) cp.spawnSync('fusermount3', ['-uz', mount], { stdio: 'ignore', timeout: 5000 });
      if (child && child.exitCode === null) {
        try {
          child.kill('SIGKILL');
        } catch {}
      }
      // Never walk into a mount that is still there.
      if (!isMounted(mount)) fs.rmSync(base, { recursive: true, force: true, maxRetries: 3 });
    },
  };
  open.add(share);
  if (t) t.after(() => share.close());
  const s = await share.waitFor((st) => st.mounted || st.failed || st.ended, 15000).catch((e) => {
    share.closeSync();
    throw e;
  });
  if (!s.mounted) {
    share.closeSync();
    throw new Error(`stallfs did not mount: ${JSON.stringify(s)}`);
  }
  return share;
}

module.exports = { mountStallfs, skipReason, wine };
