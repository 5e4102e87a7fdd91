'use strict';
// CorvexMediaPlayer against the simulator SDK: properties, commands and their
// edge cases, listeners and the order of events, request headers, the
// statistics and the "corvex_stat" fact, ReadMediaDuration and the texture
// check.
const test = require('node:test');
const assert = require('node:assert/strict');
const path = require('path');
const { isMainThread } = require('worker_threads');
const { modulePath, simDir, writeWav, tempDir, statCategory, isWindows } = require('./media-fixture');

const m = require(modulePath);
const records = [];
const facts = [];
m.RegisterTvkReporter({ report: (r) => records.push(r) });
m.RegisterFact({ corvex: (name, attrs) => facts.push([name, attrs]) });
m.InitCorvexSync({ corvexDir: simDir('full') });
// A player left undisposed keeps the process alive: a failing case would
// leave its player behind and hang the file instead of failing it.
const players = [];
test.after(() => {
  for (const p of players) p.dispose();
  m.UnRegisterTvkReporters();
});

const { sleep, waitFor } = require('./helpers');
const stats = (name) => records.filter((r) => r.category === statCategory && r.msg === name);

// A player whose every event is recorded as [listener name, payload] (one
// listener per code, the last added).
async function recordedPlayer() {
  const p = await m.CreateMediaPlayer();
  players.push(p);
  const events = [];
  for (const name of ['prepared', 'playback_complete', 'buffering_update', 'seek_complete', 'started', 'paused', 'stopped', 'error', 'info']) {
    p.addEventListener(name, () => events.push(['replaced', name]));
    p.addEventListener(name, function (e) {
      assert.ok(isMainThread);
      assert.equal(this, p);
      events.push([name, e]);
    });
  }
  return { p, events };
}

// The next volume the simulator was given (it echoes it as info 9100).
async function nextVolume(events, from) {
  await waitFor(() => events.slice(from).some(([, e]) => e.extra1 === 9100), 'a volume echo');
  return Number(events.slice(from).find(([, e]) => e.extra1 === 9100)[1].info.left);
}

test('the class: construction, properties before any source, read-only properties, the creation statistic', async () => {
  const n = stats('CreateUniqueMediaPlayer').length;
  const p = new m.CorvexMediaPlayer();
  const props = ['version', 'currentTime', 'duration', 'playableDuration', 'paused', 'playing', 'buffering'];
  assert.deepEqual(props.map((k) => p[k]), ['corvex-sim 1.0 placebo-291', 0, 0, 0, false, false, false]);
  p.duration = 5;
  p.paused = true;
  assert.equal(p.duration, 0);
  assert.equal(p.paused, false);
  assert.equal(p.dispose(), true);
  assert.equal(p.dispose(), true);
  (await m.CreateMediaPlayer()).dispose();
  await waitFor(() => stats('CreateUniqueMediaPlayer').length === n + 2, 'a record per player');
  const s = stats('CreateUniqueMediaPlayer').at(-1);
  assert.deepEqual([s.w_succ, s.bl1, s.c2, s.message], [1, 'corvex-sim 1.0 placebo-291', '0', 'CreateUniqueMediaPlayer']);
  // Methods and getters called on anything but a player throw.
  const proto = m.CorvexMediaPlayer.prototype;
  for (const name of Object.getOwnPropertyNames(proto).filter((k) => k !== 'constructor')) {
    const d = Object.getOwnPropertyDescriptor(proto, name);
    for (const self of [{}, null, 5, Object.create(proto)]) {
      assert.throws(() => (d.get ? d.get.call(self) : d.value.call(self, 'sim://media')), Error, name);
    }
  }
});

test('prepare and play: argument checks, "not init" before a source and after stop', async () => {
  const { p } = await recordedPlayer();
  for (const args of [[], [5], [null], ['a\0b'], [{}]]) {
    await assert.rejects(p.prepare(...args), { message: 'invalid arguments' }, JSON.stringify(args));
  }
  await assert.rejects(p.play(7), { message: 'invalid arguments' });
  await assert.rejects(p.play(), { message: 'not init' });
  await p.prepare('sim://media?duration=400');
  assert.equal(p.duration, 400);
  await p.play();
  assert.equal(p.playing, true);
  assert.equal(p.stop(), true);
  await assert.rejects(p.play(), { message: 'not init' });
  await assert.rejects(p.prepare('sim://media?prepare=fail'), { message: 'prepare failed' });
  await assert.rejects(p.play('sim://media?prepare=fail'), { message: 'play failed' });
  await assert.rejects(p.play(), { message: 'not init' });
  p.dispose();
  await assert.rejects(p.play('sim://media'), { message: 'not init' });
  await assert.rejects(p.prepare('sim://media'), { message: 'not init' });
});

// Which names a listener may take ("Prepared" is an info listener):
// media_test.cc (MediaNames).
test('events reach the listeners in order, on the main thread, with their payload, past one that throws; playDemo', async () => {
  const { p, events } = await recordedPlayer();
  p.addEventListener('prepared', (e) => {
    events.push(['prepared', e]);
    throw new Error('listener failure');
  });
  assert.throws(() => p.addEventListener('started'), { message: 'Wrong arguments' });
  assert.throws(() => p.addEventListener(1, () => {}), { message: 'Wrong arguments' });
  await p.play('sim://media?duration=150&buffering=1');
  await waitFor(() => events.some(([n]) => n === 'playback_complete'), 'the end');
  const seen = events.map(([n, e]) => (n === 'info' ? `info:${e.extra1}` : n === 'buffering_update' ? `buf:${e.extra1}` : n));
  assert.deepEqual(seen, ['prepared', 'started', 'info:701', 'buf:50', 'buf:100', 'info:702', 'playback_complete']);
  const [, prepared] = events[0];
  assert.deepEqual(prepared, { what: 1, name: 'MEDIA_PREPARED', extra1: 0, extra2: 0, info: {} });
  const [, start] = events.find(([, e]) => e.extra1 === 701);
  assert.deepEqual(start, { what: 200, name: 'MEDIA_INFO', extra1: 701, extra2: 0, infoName: 'MEDIA_INFO_BUFFERING_START' });
  // Playback complete leaves the player paused and not buffering.
  assert.equal(p.paused, true);
  assert.equal(p.buffering, false);
  assert.equal(p.playing, false);
  assert.equal(p.currentTime, 150);
  // playDemo plays the demo stream (a 60 s network source in the simulator).
  const n = events.length;
  await p.playDemo();
  assert.deepEqual([p.playing, p.duration], [true, 60000]);
  await waitFor(() => events.slice(n).some(([, e]) => e.extra1 === 702), 'buffering end');
  p.dispose();
  await assert.rejects(p.playDemo(), { message: 'not init' });
});

test('pause, resume, seek bounds and the state properties', async () => {
  const { p, events } = await recordedPlayer();
  assert.equal(p.pause(), false); // nothing playing
  await p.play('sim://media?duration=60000');
  await waitFor(() => events.some(([n]) => n === 'started'), 'started');
  assert.equal(p.paused, false);
  assert.equal(p.pause(), true);
  await waitFor(() => p.paused, 'paused');
  assert.equal(p.playing, false);
  await p.play();
  await waitFor(() => !p.paused, 'resumed');
  assert.equal(p.seekTo(-1), false);
  assert.equal(p.seekTo(p.duration + 1), false);
  assert.equal(p.seekTo(p.duration), true);
  assert.equal(p.seekTo(1000), true);
  await waitFor(() => events.some(([n, e]) => n === 'seek_complete' && e.extra1 === 1000), 'seek complete');
  assert.ok(p.playableDuration >= p.currentTime);
  assert.throws(() => p.seekTo('1'), { message: 'A number was expected' });
  p.dispose();
  assert.equal(p.seekTo(0), false);
  assert.equal(p.currentTime, 0);
  assert.equal(p.pause(), false);
});

test('volume (capped at 1, no lower bound, mute; stop unmutes and restores 1.0) and options', async () => {
  const { p, events } = await recordedPlayer();
  // Each row: a command, what it returns (undefined: not checked), and the
  // volume the simulator is then given (null: none; undefined: not checked).
  const steps = [
    [() => p.setVolume(5), true, 1],
    [() => p.setVolume(-3), true, -3],
    [() => p.setVolume(0.5), true, 0.5],
    [() => p.setMute(true), true, 0],
    [() => p.setVolume(0.75), true, null], // muted: only stored
    [() => p.stop()],
    [() => p.setVolume(0.25), true, 0.25], // unmuted by the stop: applied at once
    [() => p.stop()],
    [() => p.setMute(false), true, 1], // the volume back at 1.0
    [() => p.setCorvexStr('x=1'), true],
    [() => p.setCorvexStr('fail'), false],
    [() => p.setCorvexStr('a\0b'), false],
    [() => p.setPlaySpeed(2), true],
    [() => p.setPlaySpeed('1.5'), true],
    [() => p.setPlaySpeed({ toString: () => '3' }), true],
    [() => p.setPlaySpeed('fast'), false],
    [() => p.setPlaySpeed('2\0'), false],
    [() => p.setPlaySpeed(undefined), false],
  ];
  for (const [step, returns, volume] of steps) {
    const n = events.length;
    const done = step();
    if (returns !== undefined) assert.equal(done, returns, String(step));
    if (volume === undefined) continue;
    if (volume !== null) {
      assert.equal(await nextVolume(events, n), volume, String(step));
      continue;
    }
    await sleep(100);
    assert.ok(!events.slice(n).some(([, e]) => e.extra1 === 9100));
  }
  assert.throws(() => p.setVolume('1'), { message: 'A number was expected' });
  assert.throws(() => p.setMute(1), { message: 'A boolean was expected' });
  assert.throws(() => p.setCorvexStr(5), { message: 'A string was expected' });
  assert.throws(() => p.setPlaySpeed(Symbol('s')), TypeError);
  p.dispose();
  assert.deepEqual([p.setMute(true), p.setCorvexStr('x')], [false, false]);
});

test('request headers: the own enumerable properties of options.headers, as strings', async () => {
  const { p, events } = await recordedPlayer();
  const cases = [
    [{ headers: { Referer: 'r', n: 1, b: true } }, { Referer: 'r', n: '1', b: 'true' }],
    [{ headers: Object.assign(Object.create({ inherited: 'x' }), { own: 'y' }) }, { own: 'y' }],
    [Object.assign(() => {}, { headers: { f: 'fn' } }), { f: 'fn' }],
    [{ headers: 'not an object' }, {}],
    ['not an object', {}],
    [undefined, {}],
  ];
  for (const [options, expected] of cases) {
    const n = events.length;
    await p.prepare('sim://media', options);
    await waitFor(() => events.slice(n).some(([name]) => name === 'prepared'), 'prepared');
    assert.deepEqual(events.slice(n).find(([name]) => name === 'prepared')[1].info, expected);
  }
  // A NUL would be cut off at the SDK's C strings: refused.
  await assert.rejects(p.prepare('sim://media', { headers: { a: 'x\0y' } }), { message: 'invalid arguments' });
  await assert.rejects(p.play('sim://media', { headers: { 'a\0': 'x' } }), { message: 'invalid arguments' });
  // Many headers and a huge URL arrive whole.
  const many = Object.fromEntries(Array.from({ length: 500 }, (_, i) => [`h${i}`, 'v'.repeat(i)]));
  const huge = 'sim://media?duration=321&pad=' + 'x'.repeat(4 * 1024 * 1024);
  const n = events.length;
  await p.prepare(huge, { headers: many });
  assert.equal(p.duration, 321);
  await waitFor(() => events.slice(n).some(([name]) => name === 'prepared'), 'prepared');
  assert.deepEqual(events.slice(n).find(([name]) => name === 'prepared')[1].info, many);
  // A throwing getter is the script's own error, thrown at once.
  assert.throws(() => p.prepare('sim://media', { headers: { get bad() { throw new Error('getter'); } } }), { message: 'getter' });
  p.dispose();
});

test('statistics of notifications: T3, errors, statistics maps and the corvex_stat fact', async () => {
  const before = { t3: stats('CorvexT3').length, err: stats('CorvexError').length, info: stats('CorvexStatInfo').length, bad: stats('onNotifyError').length, facts: facts.length };
  const run = async (url) => {
    const { p, events } = await recordedPlayer();
    await p.play(url).catch(() => {});
    await waitFor(() => events.some(([n]) => n === 'playback_complete' || n === 'error'), url);
    await sleep(50);
    p.dispose();
  };
  for (const q of ['t3=1', 't3=bad', 'stat=0', 'stat=3', 'stat=bad']) await run(`sim://media?duration=100&${q}`);
  await run('sim://media?duration=1000&error=1');
  await waitFor(() => stats('CorvexError').length > before.err, 'the error statistic');
  const t3 = stats('CorvexT3').slice(before.t3);
  assert.equal(t3.length, 1);
  assert.equal(t3[0].bl1, 'startMs=1000,url=sim://media?duration=100&t3=1,note=a@b,endMs=1250,');
  assert.deepEqual([t3[0].wl_avgv2, t3[0].cost, t3[0].w_succ, t3[0].message], [42, '250', 1, 'CorvexT3']);
  const info = stats('CorvexStatInfo').slice(before.info);
  assert.equal(info.length, 2);
  assert.deepEqual([info[0].w_succ, info[0].cost, info[0].a_result, info[0].an_ac_n, info[0].corvex_stat], [1, '300', '0', '1', '1']);
  assert.deepEqual([info[1].w_succ, info[1].a_result], [0, '3']);
  // Unreadable numbers: one onNotifyError each (T3 and the statistics map).
  const bad = stats('onNotifyError').slice(before.bad);
  assert.equal(bad.length, 2);
  assert.deepEqual([bad[0].w_succ, bad[0].cost, bad[0].message], [0, '0', 'onNotifyError']);
  const err = stats('CorvexError').slice(before.err);
  assert.deepEqual([err[0].w_succ, err[0].cost, err[0].c2], [0, '0', '-1010']);
  // The fact: every statistics map, whole (the unreadable one too).
  const got = facts.slice(before.facts);
  assert.equal(got.length, 3);
  assert.deepEqual(got[0], ['corvex_stat', { a_result: '0', an_ac_n: '1', an_f_start: '2000', an_t3: '2300', corvex_stat: '1' }]);
  assert.equal(got[2][1].an_f_start, 'later');
});

test('ReadMediaDuration: a WAV file, a virtual source, failures', async () => {
  const wav = writeWav(path.join(tempDir('wav'), 'tone.wav'), 2345);
  assert.equal(await m.ReadMediaDuration(wav), 2345);
  assert.equal(await m.ReadMediaDuration('sim://media?duration=1234'), 1234);
  const notWav = path.join(path.dirname(wav), 'not.wav');
  require('fs').writeFileSync(notWav, 'RIFF....AVI ');
  for (const bad of ['sim://media?prepare=fail', notWav, path.join(path.dirname(wav), 'missing.wav'), '']) {
    await assert.rejects(m.ReadMediaDuration(bad), { message: 'ReadMediaDurationAsync failed' }, bad);
  }
  assert.throws(() => m.ReadMediaDuration(5), { message: 'A string was expected' });
  assert.throws(() => m.ReadMediaDuration('a\0b'), { message: 'ReadMediaDuration: the path must not contain a NUL character' });
  // Many at once.
  const many = await Promise.all(Array.from({ length: 50 }, (_, i) => m.ReadMediaDuration(`sim://media?duration=${i + 1}`)));
  assert.deepEqual(many, Array.from({ length: 50 }, (_, i) => i + 1));
  await waitFor(() => stats('ReadMediaDuration').length >= 56, 'the statistics');
  const all = stats('ReadMediaDuration');
  assert.deepEqual([all[0].w_succ, all[0].message, all[0].bl1], [1, 'ReadMediaDuration', '']);
  assert.deepEqual([all[2].w_succ, all[2].message, all[2].bl1], [0, 'prepare failed', 'prepare failed']);
});

test('CheckExternalTextureSupport answers once per process and reports once', async () => {
  const a = m.CheckExternalTextureSupport();
  assert.equal(typeof a, 'boolean');
  assert.equal(m.CheckExternalTextureSupport(1, 2), a);
  // Wine reports a Windows later than 6.2.
  if (isWindows) assert.equal(a, true);
  await sleep(300);
  assert.deepEqual(records.filter((x) => x.category === 310), [{ category: 310, msg: a ? 'Flutter' : 'Web', w_succ: a ? 1 : 0 }]);
});
