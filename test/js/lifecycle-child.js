'use strict';
// The child side of lifecycle.test.js: a subsystem's work (a row) is started,
// then the process or a Worker ends at a chosen moment (an ending). Run as
// `require(this file)(scenario)`; its Workers load this same file.
const { Worker, isMainThread, workerData, parentPort } = require('worker_threads');
const fs = require('fs');
const path = require('path');

const spin = (ms) => {
  const end = Date.now() + ms;
  while (Date.now() < end);
};
const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

// Each row: load(d) the module (index.js when not given); start(o, d, inside)
// work that stays in flight, calling inside() from its callbacks and
// returning (or resolving with) what closes it, if anything; again(o, d) one
// more call after a Worker's end, resolving with what the test expects.
const rows = {
  scan: {
    start: (o, d, inside) => o.ScanAllSubFiles(d.big, inside, inside, {}),
    again: (o, d) => new Promise((resolve) => o.ScanAllSubFiles(d.small, () => {}, (r) => resolve(r.totalFileCount), {})),
  },
  watch: {
    start: (o, d, inside) => {
      const closes = [0, 1, 2].map((i) =>
        o.StartFileWatch(d.dir, inside, () => fs.writeFileSync(path.join(d.dir, `w${i}-${process.pid}`), 'x'), {}));
      return () => closes.forEach((close) => close());
    },
    again: (o, d) => new Promise((resolve) => {
      const close = o.StartFileWatch(d.dir, (evs) => {
        if (Array.isArray(evs) && evs.some((e) => e.fileName === 'again.txt')) {
          close();
          resolve('seen');
        }
      }, () => fs.writeFileSync(path.join(d.dir, 'again.txt'), 'x'), {});
    }),
  },
  // The disk lists' long limit keeps them in turn under Wine, whose WMI
  // crashes node.exe on concurrent queries (a short one lets a job waiting
  // half of it query alongside).
  storage: {
    start: (o, d, inside) => {
      for (let i = 0; i < 10; ++i) o.GetHardwareDisk({ timeoutMs: 600000 });
      o.GetDriveList().then(inside);
    },
    again: (o) => o.GetDriveList().then((l) => l.length > 0),
  },
  // The probe's storage lists over a slow machine description.
  'storage over slow WMI': {
    load: (d) => require(d.probe),
    start: (p, d, inside) => {
      const m = p.storageMachine({ nextDelayMs: 300, logicalDisks: d.rows });
      for (let i = 0; i < 10; ++i) p.storageList('disks', m);
      p.storageList('drives', m, { timeoutMs: 100 }).then(inside);
    },
  },
  // Windows: listings and copies from the WPD double; Linux: the empty list.
  devices: {
    start: (o, d, inside) => {
      if (!d.copies) {
        for (let i = 0; i < 20; i++) o.GetMtpDevices();
        o.GetMtpDevices().then(inside);
        return;
      }
      for (let i = 0; i < 5; i++) o.GetMtpFileById('phone', 'big', path.join(d.copies, `big${i}`)).catch(() => {});
      o.GetMtpFilesById('phone', null, { onProgress: inside }).catch(() => {});
    },
    again: (o, d) => (d.copies ? o.GetMtpFilesById('phone', 'dcim').then((l) => l.fileList.length) : o.GetMtpDevices().then((l) => l.length)),
  },
  media: {
    load: (d) => {
      const m = require(d.module);
      m.InitCorvexSync({ corvexDir: d.sim });
      return m;
    },
    start: async (m, d, inside) => {
      const players = [];
      for (let i = 0; i < 3; i++) players.push(await m.CreateMediaPlayer());
      const settled = () => {};  // fails once its player is disposed
      players[0].prepare('sim://media?prepare_ms=60000').catch(settled);
      players[1].addEventListener('buffering_update', inside);
      players[1].play(d.storm).catch(settled);
      players[2].play('sim://media?duration=600000&buffering=1').catch(settled);
      m.ReadMediaDuration('sim://media?prepare_ms=60000').catch(settled);
      return () => players.forEach((p) => p.dispose());
    },
    again: async (m) => {
      const p = await m.CreateMediaPlayer();
      const duration = await m.ReadMediaDuration('sim://media?duration=77');
      return p.dispose() && duration;
    },
  },
  telemetry: {
    start: (o, d, inside) => {
      // Records from native threads too: the probe (one thread only) has
      // registries of its own.
      const p = isMainThread ? require(d.probe) : null;
      for (const m of p ? [o, p] : [o]) {
        m.RegisterTvkReporter({ report: inside });
        m.RegisterTracer({ startSpan: () => ({ setAttribute() {}, end: inside }) });
        m.RegisterFact({ corvex() {} }); // cannot be unregistered
      }
      if (p) p.recordFromThreads(4, 50000, ['x', 'y'], 'telemetry');
      for (let i = 0; i < 50; i++) {
        o.ReportTest(i);
        if (p) p.reportEvent(1, 'e', [], true);
        if (p) p.postFact('f', {}, true);
      }
    },
    again: (o) => new Promise((resolve) => {
      o.RegisterTracer({ startSpan: () => ({ setAttribute() {}, end() { o.UnRegisterTracers(); resolve('span'); } }) });
      o.ReportTest({});
    }),
  },
};

const load = (row, d) => (row.load ? row.load(d) : require(d.index));

let exiting = false;
function exit(code) {
  exiting = true;
  console.log(`EXITING ${Date.now()}`);
  process.exit(code);
}
const guard = (fn) => (...args) => {
  if (exiting) console.log('LATE CALLBACK');
  return fn(...args);
};

const inProcess = {
  'process.exit() inside a callback': (row, o, d) => row.start(o, d, guard(() => exit(7))),
  // Callbacks slower than the work: the work waits for script when exit comes.
  'process.exit() with work in flight, script not keeping up': (row, o, d) => {
    row.start(o, d, guard(() => spin(200)));
    setTimeout(() => exit(7), 1500);
  },
  // Nothing reaches script afterwards, and the process ends by itself.
  'closed twice inside its first callback': (row, o, d) => {
    let close = null;
    let state = 'open';
    const shut = () => {
      close();
      close();
      state = 'closed';
      console.log('CLOSED');
    };
    const started = row.start(o, d, guard(() => {
      if (state === 'closed') console.log('CALLBACK AFTER CLOSE');
      else if (state === 'open') close ? shut() : (state = 'asked');
    }));
    Promise.resolve(started).then((c) => {
      close = c;
      if (state === 'asked') shut();
    });
  },
  'an uncaught error with work in flight': (row, o, d) => {
    row.start(o, d, guard(() => {}));
    setTimeout(() => {
      throw new Error('boom in script');
    }, 300);
  },
};

// The endings of a Worker: what it does inside its first callback, and what
// the main thread does when told so.
const inWorker = {
  'a Worker terminated while a callback spins': { inside: () => spin(1e9), onInside: (w) => w.terminate() },
  'a Worker ending by process.exit() inside a callback': { inside: () => process.exit(0) },
  'a Worker whose callback throws, terminated': {
    inside: () => {
      throw new Error('worker callback failed');
    },
    onInside: (w) => setTimeout(() => w.terminate(), 300),
  },
  // Six at once: one ends itself after starting the work, one is terminated
  // as it comes online, two inside their first callback (callbacks spin 20
  // ms), one 20-100 ms after it was created (most faults were there: e31923f),
  // one at any moment in its first 700 ms.
  'Workers ended at random moments, 10 rounds of 6': {
    rounds: 10,
    random: true,
    each: () => spin(20),
    inside: () => {},
    onInside: (w, k) => (k === 2 || k === 3) && w.terminate(),
  },
  // Its end unloads the module with work in flight; the main thread reloads it.
  'a Worker that alone loaded the module terminated inside a callback, then a new load': {
    alone: true, inside: () => spin(1e9), onInside: (w) => w.terminate(),
  },
};

function workerSide({ rowName, ending, d, k }) {
  const row = rows[rowName];
  const e = inWorker[ending];
  const o = load(row, d);
  let told = false;
  row.start(o, d, () => {
    if (e.each) e.each();
    if (told) return;
    told = true;
    parentPort.postMessage('inside');
    e.inside();
  });
  if (e.random && k === 0) process.exit(0);
}

async function mainSide(scenario) {
  const { rowName, ending, d } = scenario;
  const row = rows[rowName];
  process.on('unhandledRejection', (err) => {
    console.error('UNHANDLED', err);
    process.exit(3);
  });
  if (inProcess[ending]) {
    inProcess[ending](row, load(row, d), d);
    return;
  }
  const e = inWorker[ending];
  if (!e.alone) load(row, d);
  const one = async (k) => {
    const w = new Worker(__filename, { workerData: { lifecycle: { ...scenario, k } } });
    w.on('error', (err) => console.log(`WORKER ERROR ${err.message}`));
    if (e.onInside) w.once('message', () => e.onInside(w, k));
    if (e.random && k === 1) w.on('online', () => w.terminate());
    const ms = 20 + Math.random() * (k === 4 ? 80 : 680);
    const timer = e.random && k > 3 ? setTimeout(() => w.terminate(), ms) : null;
    const code = await new Promise((resolve) => w.on('exit', resolve));
    clearTimeout(timer);
    console.log(`WORKER EXIT ${code}`);
  };
  for (let round = 0; round < (e.rounds || 1); round++) await Promise.all((e.random ? [0, 1, 2, 3, 4, 5] : [0]).map(one));
  if (e.alone) await sleep(500);
  console.log(`AGAIN ${JSON.stringify(await row.again(load(row, d), d))}`);
}

if (!isMainThread && workerData && workerData.lifecycle) workerSide(workerData.lifecycle);

module.exports = mainSide;
