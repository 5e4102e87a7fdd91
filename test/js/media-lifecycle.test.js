'use strict';
// Players at the edges of their life, each case in a child process: dispose
// while the simulator calls back from several threads (from inside a
// listener too), the event loop held by an undisposed player, many
// create/play/dispose cycles with flat memory, a slow or refused creation,
// a source the SDK never finishes (process.exit() and Workers ending with
// players alive, closing inside the first callback with other work in
// flight: lifecycle.test.js).
const test = require('node:test');
const assert = require('node:assert/strict');
const { runChild } = require('./helpers');
const { modulePath, simDir } = require('./media-fixture');

const head = `
  const m = require(${JSON.stringify(modulePath)});
  m.InitCorvexSync({ corvexDir: ${JSON.stringify(simDir('full'))} });
  const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
  const gc = (require('v8').setFlagsFromString('--expose-gc'), require('vm').runInNewContext('gc'));
  process.on('unhandledRejection', (e) => { console.error('UNHANDLED', e); process.exit(3); });
`;
const storm = 'sim://media?duration=600000&storm=6&storm_count=100000000';
const storm2 = 'sim://media?duration=600000&storm=2&storm_count=2000';

const run = (body, opts) => runChild(`${head}\n${body}`, opts);
const lines = (r, prefix) => r.stdout.split(/\r?\n/).filter((l) => l.startsWith(prefix));

test('dispose stops every delivery, while the simulator calls back from several threads and inside a listener; a late one after a stop is delivered; a poisoned Object.prototype', () => {
  // Ten rounds of one player (disposed twice from inside its listener in
  // the odd ones), then thirty players disposed together; then a
  // notification the SDK sends late after a stop, with and without dispose.
  const r = run(`
    (async () => {
      for (let round = 0; round < 11; round++) {
        const players = await Promise.all(Array.from({ length: round < 10 ? 1 : 30 }, () => m.CreateMediaPlayer()));
        const inside = round % 2 === 1 && round < 10;
        const answers = [];
        let count = 0;
        let after = 0;
        let disposed = false;
        const dispose = () => {
          disposed = true;
          for (const p of players) answers.push(p.dispose(), p.dispose(), p.playing === false, p.currentTime === 0);
        };
        for (const p of players) {
          p.addEventListener('buffering_update', () => {
            count++;
            if (disposed) after++;
            else if (inside && count === 50) dispose();
          });
        }
        await Promise.all(players.map((p) => p.play(round < 10 ? ${JSON.stringify(storm)} : ${JSON.stringify(storm2)})));
        while (count < 50 * players.length) await sleep(1);
        if (!inside) dispose();
        await sleep(30);
        console.log('ROUND ' + round + ' ' + answers.every((a) => a === true) + ' ' + after);
      }
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
      // A getter or setter on Object.prototype under an info key neither
      // breaks delivery nor holds the process.
      for (const key of ['Referer', 'what', 'info']) {
        Object.defineProperty(Object.prototype, key, {
          get() { throw new Error('getter ' + key); }, set(v) { throw new Error('setter ' + key); }, configurable: true });
      }
      const p = await m.CreateMediaPlayer();
      p.addEventListener('prepared', (e) => console.log('PREPARED ' + JSON.stringify([e.what, Object.keys(e.info), e.info.Referer])));
      await p.prepare('sim://media', { headers: { Referer: 'r', __proto__x: 'y' } });
      await sleep(100);
      p.dispose();
    })();
  `);
  assert.equal(r.status, 0, r.stderr);
  assert.match(r.stdout, /^PREPARED \[1,\["Referer","__proto__x"\],"r"\]$/m);
  const rounds = lines(r, 'ROUND ');
  assert.equal(rounds.length, 11, r.stdout + r.stderr);
  for (const l of rounds) assert.match(l, / true 0$/);
  assert.match(r.stdout, /^SEEN false stopped,late:100$/m);
  assert.match(r.stdout, /^SEEN true $/m);
});

test('1,000 create/play/dispose cycles: no crash, flat memory, every disposed player collected; an undisposed one holds the process', () => {
  // A reporter takes the statistics' event records, which would otherwise
  // wait (and grow) until one registers.
  const r = run(`
    let collected = 0;
    const registry = new FinalizationRegistry(() => { collected++; });
    m.RegisterTvkReporter({ report() {} });
    (async () => {
      // Its listeners refer to the player, one added after dispose too.
      const cycle = async (i) => {
        const p = await m.CreateMediaPlayer();
        p.addEventListener('started', () => p.pause());
        p.addEventListener('info', function () { return this === p; });
        registry.register(p, i);
        if (i % 2) await p.play('sim://media?duration=20&buffering=1');
        p.dispose();
        p.addEventListener('paused', () => p.play());
      };
      for (let i = 0; i < 200; i++) await cycle(i);
      await sleep(200);
      const base = process.memoryUsage().rss;
      for (let i = 200; i < 1000; i++) await cycle(i);
      await sleep(200);
      const end = process.memoryUsage().rss;
      for (let round = 0; round < 50 && collected < 1000; round++) { gc(); await sleep(20); }
      console.log('RSS ' + base + ' ' + end + ' ' + collected);
      m.UnRegisterTvkReporters();
      // A player script no longer references plays on and holds the process
      // (the timer, unreferenced, fires only in a process held otherwise).
      await (async () => {
        const p = await m.CreateMediaPlayer();
        p.addEventListener('playback_complete', () => console.log('COMPLETE'));
        await p.play('sim://media?duration=300');
      })();
      for (let i = 0; i < 5; i++) { gc(); await sleep(20); }
      setTimeout(() => { console.log('HELD'); process.exit(0); }, 3000).unref();
    })();
  `, { timeout: 300000 });
  assert.equal(r.status, 0, r.stderr);
  const [, base, end, collected] = lines(r, 'RSS ')[0].split(' ').map(Number);
  assert.equal(collected, 1000);
  assert.match(r.stdout, /^COMPLETE$/m);
  assert.match(r.stdout, /^HELD$/m);
  // The sanitizers hold memory of their own (AddressSanitizer's quarantine
  // of freed blocks, ThreadSanitizer's state for every thread that ever ran,
  // and each cycle starts a few): memory is judged on the plain builds.
  if (!/asan|tsan/.test(process.env.OSTREL_TEST_PRESET || '')) {
    assert.ok(end - base < 16 * 1024 * 1024, `rss grew from ${base} to ${end}`);
  }
});

// The SDK takes 2 s to create its player, then gives none.
test('a slow creation runs off the event loop; a refused one resolves with a player whose commands fail, holding nothing', () => {
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
      const q = new m.CorvexMediaPlayer();
      const got = [p instanceof m.CorvexMediaPlayer, await p.play('sim://media').catch((e) => e.message),
        await q.prepare('sim://media').catch((e) => e.message), p.pause(), p.seekTo(0), p.dispose()];
      console.log('RESULT ' + JSON.stringify({ took, ticks, worst, got }));
    })();
  `, { env: { CORVEXSIM_CREATE_MS: '2000', CORVEXSIM_CREATE: 'fail' }, timeout: 30000 });
  // The process ends by itself: neither player holds the event loop.
  assert.equal(r.status, 0, r.stdout + r.stderr);
  const res = JSON.parse(lines(r, 'RESULT ')[0].slice(7));
  assert.ok(res.took >= 1900, JSON.stringify(res));
  // The loop went on while the SDK created its player (a blocked loop shows
  // one gap of 2 s and a handful of ticks).
  assert.ok(res.worst < 1000, JSON.stringify(res));
  assert.ok(res.ticks >= 40, JSON.stringify(res));
  assert.deepEqual(res.got, [true, 'not init', 'not init', false, false, true]);
  assert.equal(r.stderr.match(/^CreateUniqueMediaPlayer failed$/gm).length, 2, r.stderr);
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
