'use strict';
// Run from a folder where the packed package was installed (scripts/
// install-test.sh copies it there): loads the package as a client does and
// checks its exports, a scan and a watch event. Prints "ok"/"not ok" lines
// and ends with "install: N passed, M failed" (non-zero status on a failure).
const assert = require('assert/strict');
const fs = require('fs');
const os = require('os');
const path = require('path');

const results = [];
async function check(name, fn) {
  try {
    await fn();
    results.push(true);
    console.log(`ok - ${name}`);
  } catch (err) {
    results.push(false);
    console.log(`not ok - ${name}\n  ${String((err && err.stack) || err).replace(/\n/g, '\n  ')}`);
  }
}

const where = process.platform === 'win32' ? 'Windows node.exe' : 'native node';
const pkgDir = path.dirname(require.resolve('ostrel/package.json'));
let ostrel;

async function main() {
  await check(`${where} ${process.version}: require('ostrel') loads the packaged prebuild`, () => {
    ostrel = require('ostrel');
    assert.equal(fs.existsSync(path.join(pkgDir, 'build')), false, 'the package holds no build folder');
    const file = require('node-gyp-build').path(pkgDir);
    assert.equal(path.relative(pkgDir, file), path.join('prebuilds', `${process.platform}-${process.arch}`, 'ostrel.node'));
    assert.equal(require(file), ostrel);
  });
  if (!ostrel) return;

  await check('the twenty exports, in the order the package declares them', () => {
    const declared = [...fs.readFileSync(path.join(pkgDir, 'index.d.ts'), 'utf8').matchAll(/^export (?:function|class) (\w+)/gm)].map((m) => m[1]);
    assert.equal(declared.length, 20);
    assert.deepEqual(Object.keys(ostrel), declared);
    assert.equal(ostrel.getVersion(), require('ostrel/package.json').version);
  });

  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'ostrel-install-'));
  try {
    await check('a scan of a small tree', async () => {
      fs.mkdirSync(path.join(dir, 'sub'));
      fs.writeFileSync(path.join(dir, 'a.txt'), 'aa');
      fs.writeFileSync(path.join(dir, 'sub', 'b.jpg'), 'bbb');
      const nodes = [];
      const result = await new Promise((resolve) => ostrel.ScanAllSubFiles(dir, (u) => nodes.push(...u.nodes), resolve, {}));
      assert.deepEqual(nodes.map((f) => [f.relativePath, f.size]).sort(), [['a.txt', 2], [path.join('sub', 'b.jpg'), 3]]);
      assert.equal(result.totalFileCount, 2);
      assert.equal(result.complete, true);
    });

    await check('a watch event', async () => {
      let close;
      const event = await new Promise((resolve, reject) => {
        const timer = setTimeout(() => reject(new Error('no event within 20 s')), 20000);
        close = ostrel.StartFileWatch(
          dir,
          (arg) => {
            if (!Array.isArray(arg)) return reject(new Error(`watch error ${JSON.stringify(arg)}`));
            const e = arg.find((x) => x.fileName === 'new.txt');
            if (e) {
              clearTimeout(timer);
              resolve(e);
            }
          },
          () => fs.writeFileSync(path.join(dir, 'new.txt'), 'x'),
        );
      });
      close();
      assert.equal(event.watchEvent, 'add');
      assert.equal(event.fileStat.name, 'new.txt');
    });
  } finally {
    fs.rmSync(dir, { recursive: true, force: true });
  }
}

main().then(() => {
  const passed = results.filter(Boolean).length;
  console.log(`install: ${passed} passed, ${results.length - passed} failed`);
  process.exitCode = passed === results.length ? 0 : 1;
});
