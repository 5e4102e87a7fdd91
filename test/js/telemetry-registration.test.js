'use strict';
// The registration exports: their argument checks, their log lines, and how
// registered reporters and tracers keep the process alive until they are
// unregistered.
const test = require('node:test');
const assert = require('node:assert/strict');
const ostrel = require('../..');
const { runChild } = require('./helpers');
const { modulePath } = require('./telemetry-helpers');

test('argument checks', async (t) => {
  await t.test('registrations return their argument and unregistrations undefined', () => {
    const reporter = { report() {} };
    const tracer = { startSpan() {} };
    assert.equal(ostrel.RegisterTvkReporter(reporter), reporter);
    assert.equal(ostrel.RegisterTracer(tracer), tracer);
    assert.equal(ostrel.UnRegisterTvkReporters(), undefined);
    assert.equal(ostrel.UnRegisterTracers(), undefined);
    assert.equal(ostrel.ReportTest('anything'), undefined);
  });
});

test('the event loop', async (t) => {
  // An unref'd timer fires only while something else keeps the loop alive.
  const keepsAlive = (register, unregister) =>
    runChild(`
      const o = require(${JSON.stringify(modulePath)});
      ${register}
      setTimeout(() => { console.log('STILL ALIVE'); ${unregister} }, 300).unref();
    `);

  await t.test('a registered reporter keeps it alive until UnRegisterTvkReporters', () => {
    const r = keepsAlive('o.RegisterTvkReporter({ report() {} }); o.RegisterTvkReporter({ report() {} });', 'o.UnRegisterTvkReporters();');
    assert.equal(r.status, 0, r.stderr);
    assert.match(r.stdout, /^RegisterTvkReporter end$/m);
    assert.match(r.stdout, /^STILL ALIVE$/m);
  });

  await t.test('a registered tracer keeps it alive until UnRegisterTracers', () => {
    const r = keepsAlive('o.RegisterTracer({ startSpan() {} });', 'o.UnRegisterTracers();');
    assert.equal(r.status, 0, r.stderr);
    assert.match(r.stdout, /^RegisterTracer end$/m);
    assert.match(r.stdout, /^STILL ALIVE$/m);
  });

  await t.test('unregistering at once lets the process exit; a fact sink alone never holds it', () => {
    const r = keepsAlive(
      `o.RegisterTvkReporter({ report() {} }); o.RegisterTracer({ startSpan() {} });
       o.RegisterFact({ corvex() {} });
       o.UnRegisterTvkReporters(); o.UnRegisterTracers();`,
      '',
    );
    assert.equal(r.status, 0, r.stderr);
    assert.match(r.stdout, /^RegisterFact end$/m);
    assert.doesNotMatch(r.stdout, /STILL ALIVE/);
  });

});
