'use strict';
// ostrel watch: the ready line, one line per change, JSON lines, usage
// errors, and Ctrl-C ending it with status 130.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { spawn, spawnSync } = require('child_process');
const { root } = require('./helpers');
const { tempDir } = require('./watch-fixture');

const bin = path.join(root, 'bin', 'ostrel.js');

// Runs `ostrel watch` until `until(stdout)` holds, acting on the ready line,
// then interrupts it; resolves with { code, stdout, stderr }.
function watchCli(args, act, until) {
  return new Promise((resolve, reject) => {
    const child = spawn(process.execPath, [bin, 'watch', ...args], { stdio: ['ignore', 'pipe', 'pipe'] });
    let stdout = '';
    let stderr = '';
    let acted = false;
    let interrupted = false;
    const timer = setTimeout(() => {
      child.kill('SIGKILL');
      reject(new Error(`timed out\nstdout: ${stdout}\nstderr: ${stderr}`));
    }, 20000);
    child.stdout.on('data', (d) => {
      stdout += d;
      if (!interrupted && until(stdout)) {
        interrupted = true;
        child.kill('SIGINT');
      }
    });
    child.stderr.on('data', (d) => {
      stderr += d;
      if (!acted && /^watching /m.test(stderr)) {
        acted = true;
        act();
      }
    });
    child.on('exit', (code) => {
      clearTimeout(timer);
      resolve({ code, stdout, stderr });
    });
  });
}

test('ostrel watch prints changes until Ctrl-C (status 130)', { skip: process.platform === 'win32' && 'signals to node.exe under Wine' }, async () => {
  const dir = tempDir();
  try {
    const r = await watchCli([dir, '--ignore', 'skipme'], () => {
      fs.mkdirSync(path.join(dir, 'skipme'));
      fs.writeFileSync(path.join(dir, 'skipme', 'no.txt'), 'x');
      fs.writeFileSync(path.join(dir, 'hello.txt'), 'x');
    }, (out) => /add +hello\.txt/.test(out));
    assert.equal(r.code, 130, r.stderr);
    assert.match(r.stdout, /^\d\d:\d\d:\d\d\.\d{3} add +hello\.txt$/m);
    assert.doesNotMatch(r.stdout, /skipme/);
    const json = await watchCli([dir, '--json'], () => fs.writeFileSync(path.join(dir, 'j.txt'), 'x'), (out) => /"j\.txt"/.test(out));
    const line = json.stdout.split('\n').find((l) => l.includes('"j.txt"'));
    assert.equal(JSON.parse(line).fileName, 'j.txt');
  } finally {
    fs.rmSync(dir, { recursive: true, force: true });
  }
});

test('ostrel watch usage errors exit 2, a missing folder 1', () => {
  for (const [args, status, pattern] of [
    [['--ignore', '('], 2, /invalid regular expression/],
    [['--nope'], 2, /unknown option/],
    [[path.join(root, 'no-such-folder-here')], 1, /no such folder/],
  ]) {
    const r = spawnSync(process.execPath, [bin, 'watch', ...args], { encoding: 'utf8', timeout: 20000 });
    assert.equal(r.status, status, `${args}: ${r.stderr}`);
    assert.match(r.stderr, pattern);
  }
});

test('ostrel watch --json keeps every module line off standard output, whatever OSTREL_LOG_STDOUT says', async () => {
  const dir = tempDir();
  try {
    const r = await new Promise((resolve, reject) => {
      // A caller's environment asking for the module's lines on standard
      // output must not mix them into the JSON lines.
      const child = spawn(process.execPath, [bin, 'watch', '--json', dir], {
        stdio: ['ignore', 'pipe', 'pipe'],
        env: { ...process.env, OSTREL_LOG_STDOUT: 'stdout' },
      });
      let stdout = '';
      let stderr = '';
      let written = false;
      const timer = setTimeout(() => {
        child.kill('SIGKILL');
        reject(new Error(`timed out\nstdout: ${stdout}\nstderr: ${stderr}`));
      }, 30000);
      const check = () => {
        if (!written && /^watching /m.test(stderr)) {
          written = true;
          fs.writeFileSync(path.join(dir, 'one.txt'), 'x');
        }
        // The statistics of the watch's calls find no tracer registered: the
        // module gives up flushing them with a failure line.
        if (/"one\.txt"/.test(stdout) && /shouldFlush failed again/.test(stderr)) child.kill();
      };
      child.stdout.on('data', (d) => {
        stdout += d;
        check();
      });
      child.stderr.on('data', (d) => {
        stderr += d;
        check();
      });
      child.on('exit', () => {
        clearTimeout(timer);
        resolve({ stdout, stderr });
      });
    });
    const lines = r.stdout.split('\n').filter(Boolean);
    assert.ok(lines.length > 0, r.stderr);
    for (const line of lines) assert.doesNotThrow(() => JSON.parse(line), `not a JSON line on standard output: ${line}`);
    assert.match(r.stderr, /^Ostrel Initializing \.\.\.$/m);
    assert.match(r.stderr, /^shouldFlush failed again, the current time duration is \d+$/m);
  } finally {
    fs.rmSync(dir, { recursive: true, force: true });
  }
});
