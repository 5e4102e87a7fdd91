'use strict';
// ostrel devices, device-files and copy-object, run as children of this
// node: on Linux (no device API) and, on Windows, against the WPD test
// double.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const os = require('os');
const path = require('path');
const { spawnSync } = require('child_process');
const { root, buildDir, isWindows } = require('./helpers');

const bin = path.join(root, 'bin', 'ostrel.js');

function cli(args, env = {}) {
  const r = spawnSync(process.execPath, [bin, ...args], {
    cwd: root,
    encoding: 'utf8',
    timeout: 120000,
    env: { ...process.env, OSTREL_BUILD_DIR: buildDir(), ...env },
  });
  return { status: r.status, stdout: r.stdout || '', stderr: r.stderr || '' };
}

test('usage errors of the device commands', () => {
  const cases = [
    [['device-files'], /a device id is needed/],
    [['device-files', 'a', 'b', 'c'], /unexpected argument 'c'/],
    [['copy-object', 'a', 'b'], /a device id, an object id and a destination are needed/],
    [['copy-object', 'a', 'b', 'c', '--bogus'], /unknown option '--bogus'/],
    [['devices', 'extra'], /unexpected argument 'extra'/],
  ];
  for (const [args, message] of cases) {
    const r = cli(args);
    assert.equal(r.status, 2, args.join(' '));
    assert.match(r.stderr, message);
    assert.match(r.stderr, /usage: ostrel /);
  }
  const help = cli(['help', 'copy-object']);
  assert.equal(help.status, 0);
  assert.match(help.stdout, /--thumbnail/);
});

test('Linux: no devices, and the device commands fail clearly', { skip: isWindows }, () => {
  assert.deepEqual(
    [cli(['devices']).stdout, cli(['devices', '--json']).stdout],
    ['no MTP devices attached\n', '[]\n'],
  );
  const files = cli(['device-files', 'x']);
  assert.equal(files.status, 1);
  assert.match(files.stderr, /ostrel device-files: GetMtpFilesById is not supported on this platform/);
  const copy = cli(['copy-object', 'x', 'o', path.join(os.tmpdir(), 'never-written')]);
  assert.equal(copy.status, 1);
  assert.match(copy.stderr, /GetMtpFileById is not supported on this platform/);
});

test('Windows: the device commands against the WPD test double', { skip: !isWindows && 'WPD is Windows only' }, () => {
  const { useDevices, phone } = require('./mtp-fixture');
  const { file } = useDevices({
    devices: [
      { id: 'cam', protocol: 'MSC:' },
      phone({
        id: 'p',
        objects: [{ id: 's1', type: 'storage', name: 'Internal', children: [
          { id: 'a', type: 'image', name: 'a.jpg', data: 'abc', thumbnail: 't' },
          { id: 'v', type: 'video', name: 'v.mp4', size: 10 },
          { id: 'e\u001b', type: 'document', name: 'x\u001b[2J\u0007\r\nIMAGE fake\u202e.txt', size: 0 },
        ] }],
      }),
    ],
  });
  const env = { OSTREL_WPD_DOUBLE: file };

  const list = cli(['devices'], env);
  assert.equal(list.status, 0, list.stderr);
  assert.match(list.stdout, /^0 {2}Pixel {2}Acme P7 {2}MTP: 1\.00 {2}serial SN-1\n {3}id: p\n$/);
  assert.deepEqual(JSON.parse(cli(['devices', '--json'], env).stdout).map((d) => d.deviceId), ['p']);

  const files = cli(['device-files', 'p'], env);
  assert.equal(files.status, 0, files.stderr);
  assert.match(files.stdout, /^FOLDER .* s1 {2}Internal$/m);
  assert.match(files.stdout, /^IMAGE .* a {2}a\.jpg$/m);
  assert.match(files.stdout, /^4 objects in [0-9.]+ s: 1 photos, 1 videos, 13 B$/m);
  // A name cannot write control characters to the terminal or pose as a line.
  assert.doesNotMatch(files.stdout, /[\u0000-\u0009\u000b-\u001f\u007f-\u009f\u202e]/);
  assert.match(files.stdout, /^UNKNOW .* e\\x1b {2}x\\x1b\[2J\\x07\\x0d\\x0aIMAGE fake\\u202e\.txt$/m);
  assert.equal(files.stdout.split('\n').filter((l) => l.startsWith('IMAGE')).length, 1);
  const json = cli(['device-files', 'p', 's1', '--json'], env);
  assert.deepEqual(json.stdout.trim().split('\n').map((l) => JSON.parse(l).objectId), ['a', 'v', 'e\u001b']);
  const missing = cli(['device-files', 'p', 'nope'], env);
  assert.equal(missing.status, 1);
  assert.match(missing.stderr, /Object not found on the device: nope/);

  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'ostrel-cli-mtp-'));
  const dest = path.join(dir, 'a.jpg');
  const copy = cli(['copy-object', 'p', 'a', dest], env);
  assert.equal(copy.status, 0, copy.stderr);
  assert.equal(copy.stdout, `copied 3 bytes to ${dest}\n`);
  assert.equal(fs.readFileSync(dest, 'utf8'), 'abc');
  const again = cli(['copy-object', 'p', 'a', dest], env);
  assert.equal(again.status, 1);
  assert.match(again.stderr, /The destination already exists/);
  const thumb = cli(['copy-object', 'p', 'a', dest, '--thumbnail', '--overwrite'], env);
  assert.equal(thumb.status, 0, thumb.stderr);
  assert.equal(fs.readFileSync(dest, 'utf8'), 't');
  fs.rmSync(dir, { recursive: true, force: true });
});
