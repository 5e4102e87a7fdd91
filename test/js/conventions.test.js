'use strict';
// The argument conventions of every export in one table, one row per check:
// a refused call throws at once with its exact class and message, returns
// nothing and starts nothing.
const test = require('node:test');
const assert = require('node:assert/strict');
const { inspect } = require('util');
const ostrel = require('../..');

const f = () => {};
const WN = [Error, 'Wrong number of arguments'];
const WA = [Error, 'Wrong arguments'];
const TWN = [TypeError, 'Wrong number of arguments'];
const TWA = [TypeError, 'Wrong arguments'];
const STR = [Error, 'A string was expected'];
const nul = (name) => [Error, `${name}: the path must not contain a NUL character`];
const MTP_COPIES = ['GetMtpFileById', 'GetMtpThumbnailById'];

// Option objects that fail when read, whose error must pass on unchanged.
const getterThrows = (key) => ({ get [key]() { throw new Error('hostile getter'); } });
const proxyThrows = () => new Proxy({}, new Proxy({}, { get: () => () => { throw new Error('hostile getter'); } }));
const HOSTILE = [Error, /hostile getter/];

// [export, arguments, [class, message or pattern]]; f becomes a spy.
const rows = [
  ['StartFileWatch', ['/tmp', f], WN],
  ['StartFileWatch', ['/tmp', f, f, {}, 5], WN],
  ['StartFileWatch', [1, f, f], WA],
  ['StartFileWatch', ['/tmp', 'x', f], WA],
  ['StartFileWatch', ['/tmp', f, null], WA],
  ['StartFileWatch', ['/tmp\0x', f, f], nul('StartFileWatch')],
  ['StartFileWatch', ['/tmp', f, f, { ignoreDirRegs: ['('] }], [Error, /^StartFileWatch: .*ignoreDirRegs\[0\]/]],
  ['StartFileWatch', ['/tmp', f, f, getterThrows('ignoreDirRegs')], HOSTILE],
  ['StartFileWatch', ['/tmp', f, f, proxyThrows()], HOSTILE],

  ['ScanAllSubFiles', ['/tmp', f, f], WA],
  ['ScanAllSubFiles', [42, f, f, {}], WA],
  ['ScanAllSubFiles', ['/tmp', f, 'x', {}], WA],
  ['ScanAllSubFiles', ['/tmp', f, f, null], WA],
  ['ScanAllSubFiles', ['/tmp/a\0/evil', f, f, {}], nul('ScanAllSubFiles')],
  ['ScanAllSubFiles', ['/tmp', f, f, { ignoreFileRegs: ['ok', '(unclosed'] }],
    [Error, /^ScanAllSubFiles: invalid regular expression "\(unclosed": .*Unterminated group.* in ignoreFileRegs\[1\]$/]],
  ['ScanAllSubFiles', ['/tmp', f, f, { fineGrainedDirs: [{ relativeDirPathRegList: [], omits: [], covers: [{ fileNameReg: '[', extList: [] }] }] }],
    [Error, /^ScanAllSubFiles: invalid regular expression "\[": .* in fineGrainedDirs\[0\]\.covers\[0\]\.fileNameReg$/]],
  ['ScanAllSubFiles', ['/tmp', f, f, getterThrows('ignoreFileRegs')], HOSTILE],
  ['ScanAllSubFiles', ['/tmp', f, f, proxyThrows()], HOSTILE],

  ...['GetDriveList', 'GetHardwareDisk'].flatMap((name) => [
    ...['100', -1, NaN, Infinity, 2 ** 31, 10n, null, {}].map((timeoutMs) => [name, [{ timeoutMs }], [TypeError, /timeoutMs must be/]]),
    [name, [getterThrows('timeoutMs')], HOSTILE],
    [name, [proxyThrows()], HOSTILE],
  ]),

  ['GetMtpFilesById', [], WN],
  ['GetMtpFilesById', ['d', 'f', {}, 1], WN],
  ['GetMtpFilesById', [1], WA],
  ['GetMtpFilesById', [''], WA],
  ['GetMtpFilesById', ['d', 5], WA],
  ['GetMtpFilesById', ['d', 'f', 'options'], WA],
  ['GetMtpFilesById', ['d', 'f', []], WA],
  ['GetMtpFilesById', ['d', 'f', { recursive: 'yes' }], WA],
  ['GetMtpFilesById', ['d', 'f', { onProgress: 1 }], WA],
  ['GetMtpFilesById', ['d', 'f', { signal: {} }], WA],
  ['GetMtpFilesById', ['d\0evil'], nul('GetMtpFilesById')],
  ['GetMtpFilesById', ['d', 'f', getterThrows('recursive')], HOSTILE],
  ...MTP_COPIES.flatMap((name) => [
    [name, ['d', 'o'], WN],
    [name, ['d', 'o', 'p', {}, 1], WN],
    [name, ['d', null, 'p'], WA],
    [name, ['d', 'o', 7], WA],
    [name, ['d', 'o', ''], WA],
    [name, ['d', 'o', 'p', { overwrite: 1 }], WA],
    [name, ['d', 'o', 'p\0q'], nul(name)],
  ]),

  // (Its type checks come after the SDK search: media-player.test.js.)
  ['ReadMediaDuration', [], WN],
  ['ReadMediaDuration', ['a', 'b'], WN],
  ['CorvexMediaPlayer', [], [TypeError, "Class constructors cannot be invoked without 'new'"]],
  // A refused InitCorvexSync loads nothing: checked below.
  ['InitCorvexSync', [5], STR],
  ['InitCorvexSync', [{ corvexDir: 7 }], STR],
  ['InitCorvexSync', [{ corvexDir: 'a\0b' }], nul('InitCorvexSync')],
  ['InitCorvexSync', [getterThrows('corvexDir')], HOSTILE],

  ['RegisterTvkReporter', [{ report() {} }, {}], TWN],
  ['RegisterTracer', [], TWN],
  ['RegisterFact', [], TWN],
  ['ReportTest', [], TWN],
  ['UnRegisterTvkReporters', [1], TWN],
  ['UnRegisterTracers', [1], TWN],
  ...[1, 'reporter', null, undefined, true].flatMap((bad) => [
    ['RegisterTvkReporter', [bad], TWA],
    ['RegisterTracer', [bad], TWA],
    ['RegisterFact', [bad], TWA],
  ]),
];

// util.inspect reads neither getters nor a Proxy's traps.
const label = (name, args) => `${name}(${args.map((a) => inspect(a, { breakLength: Infinity })).join(', ')})`;

test('refused calls throw at once, with the documented class and message, and start nothing', async (t) => {
  let called = 0;
  const spy = () => {
    called++;
  };
  for (const [name, args, [cls, message]] of rows) {
    await t.test(label(name, args), () => {
      const given = args.map((a) => (a === f ? spy : a));
      let result = 'not assigned';
      assert.throws(
        () => {
          result = ostrel[name](...given);
        },
        (e) =>
          e.constructor === cls &&
          !('code' in e) &&
          (typeof message === 'string' ? e.message === message : message.test(e.message)),
      );
      assert.equal(result, 'not assigned');
    });
  }
  // A started session or a late rejection would show by now.
  await new Promise((resolve) => setTimeout(resolve, 200));
  assert.equal(called, 0, 'a callback ran after a refused call');
});

test('what the exports accept besides: extra or missing options, functions as options', async () => {
  const ac = new AbortController();
  const settle = (p) => p.then(() => {}, () => {});
  for (const fn of ['GetDriveList', 'GetHardwareDisk']) {
    for (const args of [[1, 'x'], [null], [() => {}], ['\0'], [{}], [{ timeoutMs: undefined }], [{ timeoutMs: 60000 }]]) {
      assert.ok(Array.isArray(await ostrel[fn](...args)), `${fn}(${args.map(String)})`);
    }
  }
  await Promise.all([
    ostrel.GetMtpFilesById('d'),
    ostrel.GetMtpFilesById('d', null),
    ostrel.GetMtpFilesById('d', undefined, undefined),
    ostrel.GetMtpFilesById('d', 'f', { recursive: false, onProgress() {}, signal: ac.signal }),
    ostrel.GetMtpFileById('d', 'o', 'p', undefined),
    ostrel.GetMtpThumbnailById('d', 'o', 'p', { overwrite: true }),
  ].map(settle));
  assert.equal(ostrel.getVersion(1, 'x', {}), ostrel.getVersion());
  // A function is an options object.
  await new Promise((resolve) => {
    const close = ostrel.ScanAllSubFiles(__dirname, () => {}, resolve, () => {});
    assert.equal(typeof close, 'function');
  });
});

// A rejection is a plain Error with the failure text and no code.
test('a refused InitCorvexSync loads nothing', async () => {
  const plain = (e) => e.constructor === Error && e.message === 'CreateMediaPlayer failed: corvex not initialized' && !('code' in e);
  await assert.rejects(ostrel.CreateMediaPlayer(), plain);
});
