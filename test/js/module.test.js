'use strict';
// The module as script sees it: its version, and (for the Windows build)
// what it imports.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { execFileSync } = require('child_process');
const { root, isWindows, buildDir } = require('./helpers');

test('index.js re-exports the binary unchanged, whose version is 1.5.14', () => {
  const ostrel = require('../..');
  assert.equal(require(path.join(buildDir(), 'ostrel.node')), ostrel);
  assert.equal(ostrel.getVersion(), '1.5.14');
});

test('the Windows build imports only system DLLs, binds node.exe lazily and exports its two registration symbols', { skip: isWindows && 'objdump runs on the Linux side' }, () => {
  const file = path.join(root, 'build', 'win32', 'ostrel.node');
  if (!fs.existsSync(file)) return;
  const dump = execFileSync('x86_64-w64-mingw32-objdump', ['-p', file], { encoding: 'utf8', maxBuffer: 64 * 1024 * 1024 });
  const dlls = [...dump.matchAll(/DLL Name: (\S+)/g)].map((m) => m[1].toLowerCase());
  // No C++ runtime (linked statically) and no node.exe: it is bound through
  // the delay-load table, not the import table.
  const system = new Set(['kernel32.dll', 'msvcrt.dll', 'ws2_32.dll', 'ntdll.dll', 'user32.dll', 'advapi32.dll',
    'ole32.dll', 'oleaut32.dll', 'shell32.dll', 'shlwapi.dll', 'version.dll', 'd3d11.dll', 'dxgi.dll',
    'setupapi.dll', 'cfgmgr32.dll', 'portabledeviceapi.dll', 'bcrypt.dll', 'api-ms-win-crt-runtime-l1-1-0.dll']);
  for (const dll of dlls) assert.ok(system.has(dll), `unexpected import ${dll}`);
  assert.ok(fs.readFileSync(file).includes(Buffer.from('node.exe\0')), 'no delay-load import of node.exe');
  const exportsTable = dump.slice(dump.indexOf('[Ordinal/Name Pointer] Table'));
  const names = [...exportsTable.matchAll(/^\s+\[\s*\d+\] (\S+)$/gm)].map((m) => m[1]);
  // The static registration, and the entry point node calls when the module,
  // pinned by a first load, is loaded again.
  assert.deepEqual(names.sort(), ['_register_ostrel_', 'napi_register_module_v1']);
});
