'use strict';
// Players at the edges of their life, each case in a child process: dispose
// while the simulator calls back from several threads, dispose twice and
// from inside a listener, the event loop held by an undisposed player, and
// many create/play/dispose cycles with flat memory (process.exit() and
// Workers ending with players alive: lifecycle.test.js).
const test = require('node:test');
const assert = require('node:assert/strict');
const { runChild } = require('./helpers');
const { modulePath, simDir } = require('./media-fixture');

const head = `
  const m = require(${JSON.stringify(modulePath)});
  m.InitCorvexSync({ corvexDir: ${JSON.stringify(simDir('full'))} });
  const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
  process.on('unhandledRejection', (e) => { console.error('UNHANDLED', e); process.exit(3); });
`;
const storm = 'sim://media?duration=600000&storm=6&storm_count=100000000';

function run(body, opts) {
  const r = runChild(`${head}\n${body}`, opts);
  return r;
}
const lines = (r, prefix) => r.stdout.split(/\r?\n/).filter((l) => l.startsWith(prefix));

test('dispose while the simulator calls back from several threads stops every delivery', () => {
  const r = run(`
    (async () => {
      for (let round = 0; round < 10; round++) {
        const p = await m.CreateMediaPlayer();
        let count = 0;
        let after = 0;
        let disposed = false;
        p.addEventListener('buffering_update', () => { count++; if (disposed) after++; });
        await p.play(${JSON.stringify(storm)});
        while (count < 50) await sleep(1);
        disposed = true;
        if (p.dispose() !== true) throw new Error('dispose');
        await sleep(30);
        console.log('ROUND ' + round + ' ' + (count > 0) + ' ' + after);
      }
    })();
  `);
  assert.equal(r.status, 0, r.stderr);
  const rounds = lines(r, 'ROUND ');
  assert.equal(rounds.length, 10, r.stdout + r.stderr);
  for (const l of rounds) assert.match(l, / true 0$/);
});

test('dispose twice, and dispose from inside a listener', () => {
  const r = run(`
    (async () => {
      const p = await m.CreateMediaPlayer();
      let after = 0;
      let disposedInside = false;
      p.addEventListener('buffering_update', () => {
        if (disposedInside) { after++; return; }
        disposedInside = true;
        console.log('INSIDE ' + p.dispose() + ' ' + p.dispose());
      });
      await p.play(${JSON.stringify(storm)});
      await sleep(200);
      console.log('AFTER ' + after + ' ' + p.dispose() + ' ' + p.playing + ' ' + p.currentTime);
    })();
  `);
  assert.equal(r.status, 0, r.stderr);
  assert.match(r.stdout, /^INSIDE true true$/m);
  assert.match(r.stdout, /^AFTER 0 true false 0$/m);
});

test('a notification the SDK sends late after a stop is delivered; after dispose none is', () => {
  const r = run(`
    (async () => {
      for (const disposeFirst of [false, true]) {
        const p = await m.CreateMediaPlayer();
        const seen = [];
        p.addEventListener('stopped', () => seen.push('stopped'));
        p.addEventListener('buffering_update', (e) => seen.push('late:' + e.extra1));
        await p.play('sim://media?duration=600000&late=150');
        p.stop();
        if (disposeFirst) p.dispose();
        await sleep(400);
        console.log('SEEN ' + disposeFirst + ' ' + seen.join(','));
        if (!disposeFirst) p.dispose();
      }
    })();
  `);
  assert.equal(r.status, 0, r.stderr);
  assert.match(r.stdout, /^SEEN false stopped,late:100$/m);
  assert.match(r.stdout, /^SEEN true $/m);
});

test('an undisposed player keeps the process alive; disposing it lets the process end', () => {
  const held = run(`
    m.CreateMediaPlayer().then((p) => { globalThis.p = p; console.log('CREATED'); });
  `, { timeout: 10000 });
  assert.match(held.stdout, /^CREATED$/m);
  assert.notEqual(held.signal, null, 'the process should still have been running');

  const released = run(`
    m.CreateMediaPlayer().then((p) => {
      setTimeout(() => { p.dispose(); console.log('DISPOSED ' + Date.now()); }, 500);
    });
    process.on('exit', () => console.log('EXIT ' + Date.now()));
  `, { timeout: 20000 });
  assert.equal(released.status, 0, released.stderr);
  assert.match(released.stdout, /^DISPOSED \d+$/m);
  assert.match(released.stdout, /^EXIT \d+$/m);
});

test('a player that script no longer references plays on and delivers its events', () => {
  const r = run(`
    const v8 = require('v8');
    v8.setFlagsFromString('--expose-gc');
    const gc = require('vm').runInNewContext('gc');
    (async () => {
      await (async () => {
        const p = await m.CreateMediaPlayer();
        p.addEventListener('playback_complete', () => { console.log('COMPLETE'); process.exit(0); });
        await p.play('sim://media?duration=300');
      })();
      for (let i = 0; i < 5; i++) { gc(); await sleep(20); }
    })();
  `, { timeout: 20000 });
  assert.equal(r.status, 0, r.stderr);
  assert.match(r.stdout, /^COMPLETE$/m);
});

test('many players at once, each calling back from several threads, disposed together', () => {
  const r = run(`
    (async () => {
      const players = await Promise.all(Array.from({ length: 30 }, () => m.CreateMediaPlayer()));
      let events = 0;
      for (const p of players) p.addEventListener('buffering_update', () => events++);
      await Promise.all(players.map((p) => p.play('sim://media?duration=600000&storm=2&storm_count=2000')));
      while (events < 1000) await sleep(5);
      console.log('DISPOSED ' + players.map((p) => p.dispose()).every(Boolean));
    })();
  `, { timeout: 60000 });
  assert.equal(r.status, 0, r.stderr);
  assert.match(r.stdout, /^DISPOSED true$/m);
});

test('1,000 create/play/dispose cycles: no crash and flat memory', () => {
  // A reporter takes the statistics' event records, which would otherwise
  // wait (and grow) until one registers.
  const r = run(`
    m.RegisterTvkReporter({ report() {} });
    (async () => {
      const cycle = async () => {
        const p = await m.CreateMediaPlayer();
        p.addEventListener('started', () => {});
        await p.play('sim://media?duration=20&buffering=1');
        p.dispose();
      };
      for (let i = 0; i < 200; i++) await cycle();
      await sleep(200);
      const base = process.memoryUsage().rss;
      for (let i = 0; i < 800; i++) await cycle();
      await sleep(200);
      const end = process.memoryUsage().rss;
      console.log('RSS ' + base + ' ' + end);
      m.UnRegisterTvkReporters();
    })();
  `, { timeout: 300000 });
  assert.equal(r.status, 0, r.stderr);
  const [, base, end] = lines(r, 'RSS ')[0].split(' ').map(Number);
  // The sanitizers hold memory of their own (AddressSanitizer's quarantine
  // of freed blocks, ThreadSanitizer's state for every thread that ever ran,
  // and each cycle starts a few): memory is judged on the plain builds.
  if (!/asan|tsan/.test(process.env.OSTREL_TEST_PRESET || '')) {
    assert.ok(end - base < 16 * 1024 * 1024, `rss grew from ${base} to ${end}`);
  }
});

test('creating the SDK player takes 2 s off the event loop: a 10 ms timer keeps firing', () => {
  const r = run(`
    let ticks = 0;
    let last = Date.now();
    let worst = 0;
    const timer = setInterval(() => { const now = Date.now(); worst = Math.max(worst, now - last); last = now; ticks++; }, 10);
    (async () => {
      const start = Date.now();
      const p = await m.CreateMediaPlayer();
      const took = Date.now() - start;
      clearInterval(timer);
      await p.play('sim://media?duration=50');
      console.log('RESULT ' + JSON.stringify({ took, ticks, worst, version: p.version }));
      p.dispose();
    })();
  `, { env: { CORVEXSIM_CREATE_MS: '2000' }, timeout: 30000 });
  assert.equal(r.status, 0, r.stdout + r.stderr);
  const res = JSON.parse(lines(r, 'RESULT ')[0].slice(7));
  assert.ok(res.took >= 1900, JSON.stringify(res));
  // The loop went on while the SDK created its player (a blocked loop shows
  // one gap of 2 s and a handful of ticks).
  assert.ok(res.worst < 1000, JSON.stringify(res));
  assert.ok(res.ticks >= 40, JSON.stringify(res));
});

test('a creation the SDK refuses resolves with a player whose commands fail, and holds nothing', () => {
  const r = run(`
    (async () => {
      const p = await m.CreateMediaPlayer();
      const q = new m.CorvexMediaPlayer();
      const got = [p instanceof m.CorvexMediaPlayer, await p.play('sim://media').catch((e) => e.message),
        await q.prepare('sim://media').catch((e) => e.message), p.pause(), p.seekTo(0), p.dispose()];
      console.log('RESULT ' + JSON.stringify(got));
    })();
  `, { env: { CORVEXSIM_CREATE: 'fail' }, timeout: 20000 });
  // The process ends by itself: neither player holds the event loop.
  assert.equal(r.status, 0, r.stdout + r.stderr);
  assert.deepEqual(JSON.parse(lines(r, 'RESULT ')[0].slice(7)), [true, 'not init', 'not init', false, false, true]);
  assert.equal(r.stderr.match(/^CreateUniqueMediaPlayer failed$/gm).length, 2, r.stderr);
});

test('100 disposed players whose listeners refer to them are all collected', () => {
  const r = run(`
    const v8 = require('v8');
    v8.setFlagsFromString('--expose-gc');
    const gc = require('vm').runInNewContext('gc');
    let collected = 0;
    const registry = new FinalizationRegistry(() => { collected++; });
    (async () => {
      for (let i = 0; i < 100; i++) {
        const p = await m.CreateMediaPlayer();
        p.addEventListener('started', () => p.pause());
        p.addEventListener('info', function () { return this === p; });
        registry.register(p, i);
        if (i % 2) await p.play('sim://media?duration=20');
        p.dispose();
        // A listener added after dispose is not kept either.
        p.addEventListener('paused', () => p.play());
      }
      for (let round = 0; round < 50 && collected < 100; round++) { gc(); await sleep(20); }
      console.log('COLLECTED ' + collected);
    })();
  `, { timeout: 60000 });
  assert.equal(r.status, 0, r.stderr);
  assert.match(r.stdout, /^COLLECTED 100$/m);
});

test('a getter or setter on Object.prototype under an info key neither breaks delivery nor holds the process', () => {
  const r = run(`
    for (const key of ['Referer', 'what', 'info']) {
      Object.defineProperty(Object.prototype, key, {
        get() { throw new Error('getter ' + key); }, set(v) { throw new Error('setter ' + key); }, configurable: true });
    }
    (async () => {
      const p = await m.CreateMediaPlayer();
      const seen = [];
      p.addEventListener('prepared', (e) => seen.push([e.what, Object.keys(e.info), e.info.Referer]));
      await p.prepare('sim://media', { headers: { Referer: 'r', __proto__x: 'y' } });
      await sleep(100);
      console.log('SEEN ' + JSON.stringify(seen));
      p.dispose();
    })();
  `, { timeout: 20000 });
  // The process ends by itself once the player is disposed.
  assert.equal(r.status, 0, r.stdout + r.stderr);
  assert.deepEqual(JSON.parse(lines(r, 'SEEN ')[0].slice(5)), [[1, ['Referer', '__proto__x'], 'r']]);
});

// A source on which the SDK's preparation never ends: natively a FIFO with
// no writer (the simulator's decoder blocks opening it, holding the
// player's lock, as a file on a share that stopped answering would); under
// Wine a WAV file whose chunk size sends the decoder back to the same chunk
// for good.
function stuckSource(dir) {
  const fs = require('fs');
  const path = require('path');
  if (process.platform === 'win32' || require('./helpers').isWindows) {
    const file = path.join(dir, 'looping.wav');
    const h = Buffer.alloc(28);
    h.write('RIFF', 0);
    h.writeUInt32LE(20, 4);
    h.write('WAVE', 8);
    h.write('LIST', 12);
    h.writeUInt32LE(0xfffffff8, 16); // seeks back 8 bytes: this chunk again
    fs.writeFileSync(file, h);
    return file;
  }
  const file = path.join(dir, 'nobody-writes');
  require('child_process').execFileSync('mkfifo', [file]);
  return file;
}

test('ReadMediaDuration settles within its bound whatever the SDK does; prepare then dispose settles', () => {
  const dir = require('fs').mkdtempSync(require('path').join(require('os').tmpdir(), 'ostrel-media-stuck-'));
  const source = stuckSource(dir);
  const r = run(`
    (async () => {
      const start = Date.now();
      const probes = [m.ReadMediaDuration(${JSON.stringify(source)}), m.ReadMediaDuration(${JSON.stringify(source)})];
      // Meanwhile the rest of the module goes on: a player plays.
      const p = await m.CreateMediaPlayer();
      await p.play('sim://media?duration=30');
      const played = Date.now() - start;
      const outcomes = await Promise.all(probes.map((x) => x.then((d) => 'resolved ' + d, (e) => e.message)));
      const took = Date.now() - start;
      p.dispose();
      const q = await m.CreateMediaPlayer();
      const prepared = q.prepare(${JSON.stringify(source)}).then(() => 'resolved', (e) => e.message);
      await sleep(300);
      const disposedAt = Date.now();
      q.dispose();
      const settled = await prepared;
      console.log('RESULT ' + JSON.stringify({ outcomes, took, played, settled, afterDispose: Date.now() - disposedAt }));
    })();
  `, { timeout: 60000 });
  assert.equal(r.status, 0, r.stdout + r.stderr);
  const res = JSON.parse(lines(r, 'RESULT ')[0].slice(7));
  assert.deepEqual(res.outcomes, ['ReadMediaDurationAsync failed', 'ReadMediaDurationAsync failed']);
  assert.ok(res.took >= 9500 && res.took < 11000, JSON.stringify(res));
  assert.ok(res.played < 5000, JSON.stringify(res));
  assert.equal(res.settled, 'prepare failed');
  assert.ok(res.afterDispose < 1000, JSON.stringify(res));
});
