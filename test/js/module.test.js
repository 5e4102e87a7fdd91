'use strict';
// The module as script sees it: its exports, its version, its log lines at
// load and at exit, and (for the Windows build) what it imports.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { execFileSync } = require('child_process');
const { root, isWindows, buildDir, runChild } = require('./helpers');

const EXPORTS = [
  'StartFileWatch', 'GetMtpDevices', 'GetMtpFilesById', 'GetMtpFileById', 'GetMtpThumbnailById',
  'ScanAllSubFiles', 'GetHardwareDisk', 'CheckExternalTextureSupport', 'GetDriveList',
  'CorvexMediaPlayer', 'CreateMediaPlayer', 'ReadMediaDuration', 'RegisterTvkReporter', 'ReportTest',
  'UnRegisterTvkReporters', 'RegisterTracer', 'UnRegisterTracers', 'RegisterFact', 'getVersion',
  'InitCorvexSync',
];

test('exports and version', async (t) => {
  const ostrel = require('../..');

  await t.test('exactly the twenty exports, in table order', () => {
    assert.deepEqual(Object.keys(ostrel), EXPORTS);
    for (const name of EXPORTS) assert.equal(typeof ostrel[name], 'function', name);
  });

  await t.test('getVersion answers 1.5.14 whatever it is given', () => {
    assert.equal(ostrel.getVersion(), '1.5.14');
    assert.equal(ostrel.getVersion(1, 'x', {}), '1.5.14');
  });

  await t.test('index.js re-exports the binary unchanged', () => {
    const direct = require(path.join(buildDir(), 'ostrel.node'));
    assert.equal(direct, ostrel);
  });
});

test('log lines at load and at exit', () => {
  const r = runChild("require('.'); console.log('LOADED');");
  assert.equal(r.status, 0, r.stderr);
  const lines = r.stdout.split(/\r?\n/);
  const init = lines.indexOf('Ostrel Initializing ...');
  const done = lines.indexOf('Ostrel Initialized.');
  const loaded = lines.indexOf('LOADED');
  const cleaning = lines.filter((l) => l === 'Ostrel Cleaning ...');
  assert.ok(init >= 0 && done > init && loaded > done, r.stdout);
  assert.equal(cleaning.length, 1, r.stdout);
  assert.ok(lines.indexOf('Ostrel Cleaning ...') > loaded);
});

test('a second require of the same path does not initialise again', () => {
  const r = runChild("require('.'); require('.'); delete require.cache[require.resolve('.')]; require('.');");
  assert.equal(r.status, 0, r.stderr);
  assert.equal(r.stdout.split('Ostrel Initialized.').length - 1, 1, r.stdout);
});

test('the Windows build imports only system DLLs, binds node.exe lazily and exports its two registration symbols', { skip: isWindows && 'objdump runs on the Linux side' }, () => {
  const file = path.join(root, 'build', 'win32', 'ostrel.node');
  if (!fs.existsSync(file)) return;
  const dump = execFileSync('x86_64-w64-mingw32-objdump', ['-p', file], { encoding: 'utf8', maxBuffer: 64 * 1024 * 1024 });
  const dlls = [...dump.matchAll(/DLL Name: (\S+)/g)].map((m) => m[1].toLowerCase());
  const system = new Set(['kernel32.dll', 'msvcrt.dll', 'ws2_32.dll', 'ntdll.dll', 'user32.dll', 'advapi32.dll',
    'ole32.dll', 'oleaut32.dll', 'shell32.dll', 'shlwapi.dll', 'version.dll', 'd3d11.dll', 'dxgi.dll',
    'setupapi.dll', 'cfgmgr32.dll', 'portabledeviceapi.dll', 'bcrypt.dll', 'api-ms-win-crt-runtime-l1-1-0.dll']);
  for (const dll of dlls) assert.ok(system.has(dll), `unexpected import ${dll}`);
  assert.ok(!dlls.some((d) => /libstdc|libgcc|libwinpthread/.test(d)), 'C++ runtime must be linked statically');
  // node.exe is bound through the delay-load table, not the import table.
  assert.ok(!dlls.includes('node.exe'));
  assert.ok(fs.readFileSync(file).includes(Buffer.from('node.exe\0')), 'no delay-load import of node.exe');
  const exportsTable = dump.slice(dump.indexOf('[Ordinal/Name Pointer] Table'));
  const names = [...exportsTable.matchAll(/^\s+\[\s*\d+\] (\S+)$/gm)].map((m) => m[1]);
  // The static registration, and the entry point node calls when the module,
  // pinned by a first load, is loaded again.
  assert.deepEqual(names.sort(), ['_register_ostrel_', 'napi_register_module_v1']);
});
