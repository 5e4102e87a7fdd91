'use strict';
// CorvexMediaPlayer against the simulator SDK: commands, events, headers,
// statistics, ReadMediaDuration and the texture check.
const test = require('node:test');
const assert = require('node:assert/strict');
const { isMainThread } = require('worker_threads');
const { modulePath, simDir, statCategory, isWindows } = require('./media-fixture');
const { sleep, waitFor } = require('./helpers');

const m = require(modulePath);
const records = [];
const facts = [];
m.RegisterTvkReporter({ report: (r) => records.push(r) });
m.RegisterFact({ corvex: (name, attrs) => facts.push([name, attrs]) });
m.InitCorvexSync({ corvexDir: simDir('full') });
// An undisposed player holds the process: a failing case would hang the file.
const players = [];
test.after(() => {
  for (const p of players) p.dispose();
  m.UnRegisterTvkReporters();
});
const stats = (name) => records.filter((r) => r.category === statCategory && r.msg === name);

// Every event recorded as [listener name, payload] (the last listener added counts).
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

// The payload of the first event from `from` on that passes `pass`, waited for.
async function next(events, from, pass) {
  await waitFor(() => events.slice(from).some(pass), String(pass));
  return events.slice(from).find(pass)[1];
}
const prepared = ([name]) => name === 'prepared';
const volumeEcho = ([, e]) => e.extra1 === 9100; // the simulator echoes the volume given

test('the class: construction, properties before any source, read-only properties, the creation statistic', async () => {
  const n = stats('CreateUniqueMediaPlayer').length;
  const p = new m.CorvexMediaPlayer();
  const props = ['version', 'currentTime', 'duration', 'playableDuration', 'paused', 'playing', 'buffering'];
  assert.deepEqual(props.map((k) => p[k]), ['corvex-sim 1.0 placebo-291', 0, 0, 0, false, false, false]);
  p.duration = 5;
  p.paused = true;
  assert.deepEqual([p.duration, p.paused, p.dispose(), p.dispose()], [0, false, true, true]);
  (await m.CreateMediaPlayer()).dispose();
  await waitFor(() => stats('CreateUniqueMediaPlayer').length === n + 2, 'a record per player');
  const s = stats('CreateUniqueMediaPlayer').at(-1);
  assert.deepEqual([s.w_succ, s.bl1, s.c2, s.message], [1, 'corvex-sim 1.0 placebo-291', '0', 'CreateUniqueMediaPlayer']);
  const proto = m.CorvexMediaPlayer.prototype;
  for (const name of Object.getOwnPropertyNames(proto).filter((k) => k !== 'constructor')) {
    const d = Object.getOwnPropertyDescriptor(proto, name);
    for (const self of [{}, null, 5, Object.create(proto)]) {
      assert.throws(() => (d.get ? d.get.call(self) : d.value.call(self, 'sim://media')), Error, name);
    }
  }
});

test('commands: argument checks; pause, resume and seek bounds; "not init" before a source, after stop and after dispose', async () => {
  const { p, events } = await recordedPlayer();
  for (const args of [[], [5], [null], ['a\0b'], [{}]]) {
    await assert.rejects(p.prepare(...args), { message: 'invalid arguments' }, JSON.stringify(args));
  }
  await assert.rejects(p.play(7), { message: 'invalid arguments' });
  await assert.rejects(p.play(), { message: 'not init' });
  assert.equal(p.pause(), false); // nothing playing
  await p.prepare('sim://media?duration=60000');
  await p.play();
  await next(events, 0, ([n]) => n === 'started');
  assert.deepEqual([p.duration, p.playing, p.paused, p.pause()], [60000, true, false, true]);
  await waitFor(() => p.paused && !p.playing, 'paused');
  await p.play();
  await waitFor(() => !p.paused, 'resumed');
  assert.deepEqual([p.seekTo(-1), p.seekTo(p.duration + 1), p.seekTo(p.duration), p.seekTo(1000)], [false, false, true, true]);
  await next(events, 0, ([n, e]) => n === 'seek_complete' && e.extra1 === 1000);
  assert.ok(p.playableDuration >= p.currentTime);
  assert.throws(() => p.seekTo('1'), { message: 'A number was expected' });
  assert.equal(p.stop(), true);
  await assert.rejects(p.play(), { message: 'not init' });
  await assert.rejects(p.prepare('sim://media?prepare=fail'), { message: 'prepare failed' });
  await assert.rejects(p.play('sim://media?prepare=fail'), { message: 'play failed' });
  await assert.rejects(p.play(), { message: 'not init' });
  p.dispose();
  assert.deepEqual([p.seekTo(0), p.currentTime, p.pause()], [false, 0, false]);
  await assert.rejects(p.play('sim://media'), { message: 'not init' });
  await assert.rejects(p.prepare('sim://media'), { message: 'not init' });
});

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
  assert.deepEqual(events[0][1], { what: 1, name: 'MEDIA_PREPARED', extra1: 0, extra2: 0, info: {} });
  assert.deepEqual(await next(events, 0, ([, e]) => e.extra1 === 701),
    { what: 200, name: 'MEDIA_INFO', extra1: 701, extra2: 0, infoName: 'MEDIA_INFO_BUFFERING_START' });
  assert.deepEqual([p.paused, p.buffering, p.playing, p.currentTime], [true, false, false, 150]);
  // The demo stream: a 60 s network source in the simulator.
  const n = events.length;
  await p.playDemo();
  assert.deepEqual([p.playing, p.duration], [true, 60000]);
  await next(events, n, ([, e]) => e.extra1 === 702);
  p.dispose();
  await assert.rejects(p.playDemo(), { message: 'not init' });
});

test('volume (capped at 1, no lower bound, mute; stop unmutes and restores 1.0) and options', async () => {
  const { p, events } = await recordedPlayer();
  // Each row: a command, what it returns, the volume then given (null: none).
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
    [() => p.setPlaySpeed({ toString: () => '3' }), true],
    [() => p.setPlaySpeed('fast'), false],
    [() => p.setPlaySpeed('2\0'), false],
  ];
  for (const [step, returns, volume] of steps) {
    const n = events.length;
    const done = step();
    if (returns !== undefined) assert.equal(done, returns, String(step));
    if (typeof volume === 'number') assert.equal(Number((await next(events, n, volumeEcho)).info.left), volume, String(step));
    if (volume === null) await sleep(100).then(() => assert.ok(!events.slice(n).some(volumeEcho), String(step)));
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
  // Many headers and a huge URL (the last row) arrive whole.
  const many = Object.fromEntries(Array.from({ length: 500 }, (_, i) => [`h${i}`, 'v'.repeat(i)]));
  const cases = [
    [{ headers: { Referer: 'r', n: 1, b: true } }, { Referer: 'r', n: '1', b: 'true' }],
    [{ headers: Object.assign(Object.create({ inherited: 'x' }), { own: 'y' }) }, { own: 'y' }],
    [Object.assign(() => {}, { headers: { f: 'fn' } }), { f: 'fn' }],
    [{ headers: 'not an object' }, {}],
    ['not an object', {}],
    [{ headers: many }, many, 'sim://media?duration=321&pad=' + 'x'.repeat(4 * 1024 * 1024)],
  ];
  for (const [options, expected, url = 'sim://media'] of cases) {
    const n = events.length;
    await p.prepare(url, options);
    assert.deepEqual((await next(events, n, prepared)).info, expected);
  }
  assert.equal(p.duration, 321);
  // A NUL would cut the SDK's C strings.
  await assert.rejects(p.prepare('sim://media', { headers: { a: 'x\0y' } }), { message: 'invalid arguments' });
  await assert.rejects(p.play('sim://media', { headers: { 'a\0': 'x' } }), { message: 'invalid arguments' });
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
  const t3 = stats('CorvexT3').slice(before.t3).map((x) => [x.bl1, x.wl_avgv2, x.cost, x.w_succ, x.message]);
  assert.deepEqual(t3, [['startMs=1000,url=sim://media?duration=100&t3=1,note=a@b,endMs=1250,', 42, '250', 1, 'CorvexT3']]);
  const info = stats('CorvexStatInfo').slice(before.info);
  assert.deepEqual(info.map((x) => [x.w_succ, x.a_result]), [[1, '0'], [0, '3']]);
  assert.deepEqual([info[0].cost, info[0].an_ac_n, info[0].corvex_stat], ['300', '1', '1']);
  // Unreadable numbers: one onNotifyError each (T3 and the statistics map).
  const bad = stats('onNotifyError').slice(before.bad).map((x) => [x.w_succ, x.cost, x.message]);
  assert.deepEqual(bad, Array(2).fill([0, '0', 'onNotifyError']));
  const err = stats('CorvexError').slice(before.err);
  assert.deepEqual([err[0].w_succ, err[0].cost, err[0].c2], [0, '0', '-1010']);
  // The fact: every statistics map, whole, the unreadable one too.
  const got = facts.slice(before.facts);
  assert.deepEqual([got.length, got[2][1].an_f_start], [3, 'later']);
  assert.deepEqual(got[0], ['corvex_stat', { a_result: '0', an_ac_n: '1', an_f_start: '2000', an_t3: '2300', corvex_stat: '1' }]);
});

// (The path goes to the SDK as it is: which files it reads is the simulator's.)
test('ReadMediaDuration: a source, failures, many at once, the statistics', async () => {
  assert.equal(await m.ReadMediaDuration('sim://media?duration=1234'), 1234);
  for (const bad of ['sim://media?prepare=fail', '']) {
    await assert.rejects(m.ReadMediaDuration(bad), { message: 'ReadMediaDurationAsync failed' }, bad);
  }
  assert.throws(() => m.ReadMediaDuration(5), { message: 'A string was expected' });
  assert.throws(() => m.ReadMediaDuration('a\0b'), { message: 'ReadMediaDuration: the path must not contain a NUL character' });
  const many = await Promise.all(Array.from({ length: 50 }, (_, i) => m.ReadMediaDuration(`sim://media?duration=${i + 1}`)));
  assert.deepEqual(many, Array.from({ length: 50 }, (_, i) => i + 1));
  await waitFor(() => stats('ReadMediaDuration').length >= 53, 'the statistics');
  const all = stats('ReadMediaDuration').map((x) => [x.w_succ, x.message, x.bl1]);
  assert.deepEqual([all[0], all[1]], [[1, 'ReadMediaDuration', ''], [0, 'prepare failed', 'prepare failed']]);
});

test('CheckExternalTextureSupport answers once per process and reports once', async () => {
  const a = m.CheckExternalTextureSupport();
  assert.deepEqual([typeof a, m.CheckExternalTextureSupport(1, 2)], ['boolean', a]);
  if (isWindows) assert.equal(a, true); // Wine reports a Windows later than 6.2
  await sleep(300);
  assert.deepEqual(records.filter((x) => x.category === 310), [{ category: 310, msg: a ? 'Flutter' : 'Web', w_succ: a ? 1 : 0 }]);
});
