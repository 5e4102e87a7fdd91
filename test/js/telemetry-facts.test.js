'use strict';
// Facts and fact sinks, through the probe's native producer.
const test = require('node:test');
const assert = require('node:assert/strict');
const { runChild } = require('./helpers');
const { probePath } = require('./telemetry-helpers');

test('facts', async (t) => {
  // Fact sinks cannot be unregistered, so every case runs in its own child.
  const run = (body) => {
    const r = runChild(`
      const p = require(${JSON.stringify(probePath)});
      const got = [];
      const sink = (tag) => ({ corvex(name, attrs) { got.push([tag, name, attrs]); } });
      const done = () => { console.log('GOT ' + JSON.stringify(got)); p.UnRegisterTracers(); };
      ${body}
    `);
    assert.equal(r.status, 0, r.stderr);
    const line = r.stdout.split(/\r?\n/).find((l) => l.startsWith('GOT '));
    assert.ok(line, r.stdout);
    return { got: JSON.parse(line.slice(4)), stdout: r.stdout, stderr: r.stderr };
  };

  await t.test('a fact posted with no sink is dropped', () => {
    const { got, stdout } = run(`
      p.postFact('early', { a: '1' }, false);
      p.postFact('early-thread', { a: '2' }, true);
      setTimeout(() => {
        p.RegisterFact(sink('S'));
        p.postFact('late', { b: '2' }, false);
        setTimeout(done, 200);
      }, 100);
    `);
    assert.deepEqual(got, [['S', 'late', { b: '2' }]]);
    assert.match(stdout, /^RegisterFact end$/m);
  });

  await t.test('every sink, in registration order, gets each fact with its attributes in key order', () => {
    const { got } = run(`
      p.RegisterFact(sink('S1'));
      p.RegisterFact(sink('S2'));
      p.postFact('corvex_stat', { zeta: 'z', alpha: 'ä 中 😀', mid: '' }, false);
      setTimeout(done, 200);
    `);
    assert.equal(got.length, 2);
    assert.deepEqual(got.map((g) => g[0]), ['S1', 'S2']);
    for (const [, name, attrs] of got) {
      assert.equal(name, 'corvex_stat');
      assert.deepEqual(Object.keys(attrs), ['alpha', 'mid', 'zeta']);
      assert.equal(attrs.alpha, 'ä 中 😀');
    }
  });

  await t.test('facts from native threads arrive while the loop is held, none lost', () => {
    const { got } = run(`
      p.RegisterTracer({ startSpan() {} });  // the host always has one: it keeps the loop running
      p.RegisterFact(sink('S'));
      for (let i = 0; i < 100; i++) p.postFact('f' + i, { i: String(i) }, true);
      setTimeout(done, 300);
    `);
    assert.deepEqual(got.map((g) => g[1]), [...Array(100).keys()].map((i) => 'f' + i));
  });

  await t.test('a sink without corvex is logged and does not stop later facts', () => {
    const { got, stdout } = run(`
      p.RegisterFact({ corvex: 42 });
      p.postFact('one', {}, false);
      setTimeout(() => {
        p.RegisterFact(sink('S'));
        p.postFact('two', {}, false);
        setTimeout(done, 200);
      }, 100);
    `);
    // Logged once per delivery; the sink after the broken one still gets its fact.
    assert.equal(stdout.match(/^Ostrel Spawn Exception corvex is not function$/gm).length, 2);
    assert.deepEqual(got, [['S', 'two', {}]]);
  });
});

