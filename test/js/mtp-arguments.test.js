'use strict';
// The portable-device exports past their argument checks (those are in
// conventions.test.js): huge ids, and on Linux what they answer without a
// device API.
const test = require('node:test');
const assert = require('node:assert/strict');
const { isWindows, runChild } = require('./helpers');

const ostrel = require('../..');

test('huge ids and paths are answered, not crashed on', async () => {
  const huge = 'x'.repeat(1 << 20);
  for (const p of [ostrel.GetMtpFilesById(huge, huge), ostrel.GetMtpFileById(huge, huge, huge)]) {
    assert.ok(p instanceof Promise);
    await p.then(() => {}, (e) => assert.ok(e instanceof Error && e.message.length > 0));
  }
});

test('Linux: GetMtpDevices resolves [] whatever it is given; the other three reject "not supported on this platform"', { skip: isWindows }, async () => {
  assert.deepEqual(await ostrel.GetMtpDevices('ignored', 1), []);
  const never = '/tmp/never-written';
  for (const [name, args] of [['GetMtpFilesById', ['d']], ['GetMtpFileById', ['d', 'o', never]], ['GetMtpThumbnailById', ['d', 'o', never]]]) {
    await assert.rejects(ostrel[name](...args), (e) => e instanceof Error && e.message === `${name} is not supported on this platform`);
  }
});

// A call that fails after it took its callbacks (here the signal's
// addEventListener throws) lets go of them at once. It used to keep the
// progress callback for the life of the environment whenever no other call
// was pending: the state's destructor took "the scheduler holds no
// reference" for "the environment has ended".
test('a call that fails after taking its progress callback releases it', { skip: !isWindows }, () => {
  const r = runChild(`
    const gc = (require('v8').setFlagsFromString('--expose-gc'), require('vm').runInNewContext('gc'));
    const ostrel = require('.');
    const refs = [];
    for (const name of ['GetMtpFilesById', 'GetMtpFileById']) {
      (() => {
        const onProgress = () => {};
        refs.push(new WeakRef(onProgress));
        const signal = { aborted: false, addEventListener() { throw new Error('no listeners here'); } };
        const args = name === 'GetMtpFilesById' ? ['d', 'f'] : ['d', 'o', 'C:\\\\never-written.bin'];
        try {
          ostrel[name](...args, { onProgress, signal });
          console.log('NO THROW ' + name);
        } catch (e) {
          console.log('THREW ' + e.message);
        }
      })();
    }
    setTimeout(() => {
      gc();
      setTimeout(() => console.log('HELD ' + refs.filter((w) => w.deref()).length), 10);
    }, 10);
  `);
  assert.equal(r.status, 0, r.stderr);
  assert.equal(r.stdout.split('THREW no listeners here').length - 1, 2, r.stdout);
  assert.match(r.stdout, /^HELD 0$/m);
});
