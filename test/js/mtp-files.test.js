'use strict';
// Device listings and copies against the WPD test double (Windows; under
// Wine the double is the only WPD there is).
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const { isWindows, runChild, tempDir: helperTempDir } = require('./helpers');

const FILE_PROPERTIES = ['objectId', 'parentId', 'name', 'contentType', 'size', 'createdMs', 'modifiedMs', 'storageId'];

// Two storages: hand-made objects of every kind, and 3,000 generated ones.
function tree() {
  return {
    id: 'phone', protocol: 'MTP: 1.00', name: 'Phone',
    objects: [
      { id: 's1', type: 'storage', name: 'Internal shared storage', children: [
        { id: 'dcim', type: 'folder', name: 'DCIM', children: [
          { id: 'p1', type: 'image', name: 'IMG_1.JPG', data: 'jpeg bytes', thumbnail: 'tiny', created: 1600000000000, modified: 1700000000000 },
          { id: 'v1', type: 'video', name: 'VID_1.MP4', dataSize: 300000 },
          { id: 'big', type: 'video', name: 'BIG.MP4', dataSize: 64 * 1024 * 1024 },
          { id: 'broken', type: 'image', name: 'BROKEN.JPG', dataSize: 200000, breakAt: 100000 },
          { id: 'sub', type: 'folder', name: 'Sub', children: [
            { id: 'p2', type: 'image', name: 'IMG_2.JPG', size: 777 },
            { id: 'p2é', type: 'document', name: 'Zoë.txt', data: 'ü' },
          ] },
        ] },
        { id: 'm1', type: 'audio', name: 'song.mp3', size: 5 },
        { id: 'd1', type: 'document', name: 'notes.txt', size: 6 },
        { id: 'x1', name: 'no type', size: 7 },
        { id: 'bad', type: 'image', name: 'unreadable.jpg', failProperties: true },
      ] },
      { id: 's2', type: 'storage', name: 'SD card' },
    ],
    generate: { storage: 's2', folders: 3, filesPerFolder: 1000, videoEvery: 10 },
  };
}

// An unlistable service, folders listing themselves or their ancestors,
// control characters, the device's clock, a stream that ends early.
const CONTROL_NAME = 'evil\u001b[31mred\u0007\r\nIMAGE  fake.jpg';
function hostile(over = {}) {
  return {
    id: 'hostile', protocol: 'MTP: 1.00', name: 'Hostile',
    objects: [
      { id: 'svc', type: 'storage', name: 'Messages', failEnum: '0x80070032' },
      { id: 'hs', type: 'storage', name: 'Storage', children: [
        { id: 'self', type: 'folder', name: 'Self', links: ['self'], children: [{ id: 'a', type: 'image', name: 'a.jpg', size: 1 }] },
        { id: 'loop', type: 'folder', name: 'Loop', children: [{ id: 'inner', type: 'folder', name: 'Inner', links: ['loop', 'hs', 'a'] }] },
        { id: 'ctl', type: 'image', name: CONTROL_NAME, size: 2 },
        { id: 'dated', type: 'image', name: 'd.jpg', created: '2023-11-14T22:13:20', modified: '1899-12-29T06:00:00' },
        { id: 'short', type: 'video', name: 'S.MP4', dataSize: 300000, shortAt: 120000 },
      ] },
    ],
    ...over,
  };
}

const tempDir = () => helperTempDir('ostrel-mtp-');

test('device listings and copies with the WPD test double', { skip: !isWindows && 'WPD is Windows only' }, async (t) => {
  const { useDevices, patternBytes } = require('./mtp-fixture');
  const ostrel = require('../..');

  await t.test('an untrusted object graph: loops listed once, a service that cannot be listed skipped and logged', async () => {
    for (const noBulk of [false, true]) {
      useDevices({ devices: [hostile({ noBulk })] });
      const child = runChild(`require('.').GetMtpFilesById('hostile').then((l) => console.log('LISTED ' + JSON.stringify(l.fileList)));`);
      assert.equal(child.status, 0, child.stderr);
      const list = JSON.parse(/^LISTED (.*)$/m.exec(child.stdout)[1]);
      assert.deepEqual(list.map((f) => f.objectId), ['svc', 'hs', 'self', 'a', 'loop', 'inner', 'ctl', 'dated', 'short']);
      assert.match(child.stderr, /Functional object svc cannot be listed \(Failed to list svc, hr = 0x80070032\); skipped/);
      assert.equal(child.stderr.match(/was listed again by the device/g).length, 4);
      const byId = new Map(list.map((f) => [f.objectId, f]));
      // Names as they are; the device's wall-clock time, not shifted.
      assert.deepEqual([byId.get('ctl').name, byId.get('svc').contentType, byId.get('svc').storageId], [CONTROL_NAME, 'FOLDER', 'svc']);
      assert.deepEqual([byId.get('dated').createdMs, byId.get('dated').modifiedMs],
        [Date.UTC(2023, 10, 14, 22, 13, 20), Date.UTC(1899, 11, 29, 6, 0, 0)]);
      const flat = await ostrel.GetMtpFilesById('hostile', 'self', { recursive: false });
      assert.deepEqual(flat.fileList.map((f) => f.objectId), ['a']);
    }
  });

  await t.test('the whole device and its folders: classification, counts, parents and storages; bulk reads or object by object, the same list', async () => {
    const bulk = useDevices({ devices: [tree()] });
    const r = await ostrel.GetMtpFilesById('phone');
    assert.ok(bulk.log().includes('bulk 1000') && bulk.log().includes('bulk 2'), 'bulk requests, one per folder');
    const single = useDevices({ devices: [{ ...tree(), noBulk: true }] });
    assert.deepEqual(await ostrel.GetMtpFilesById('phone'), r);
    assert.ok(!single.log().some((l) => l.startsWith('bulk')));
    assert.deepEqual(Object.keys(r), ['photoNum', 'videoNum', 'totalSize', 'fileList']);
    const byId = new Map(r.fileList.map((f) => [f.objectId, f]));
    assert.equal(r.fileList.length, 14 + 3 + 3000);
    for (const f of r.fileList) assert.deepEqual(Object.keys(f), FILE_PROPERTIES);
    const kinds = {};
    for (const f of r.fileList) kinds[f.contentType] = (kinds[f.contentType] || 0) + 1;
    assert.deepEqual(kinds, { FOLDER: 2 + 2 + 3, IMAGE: 3 + 2700, VIDEO: 2 + 300, UNKNOW: 5 });
    assert.deepEqual([r.photoNum, r.videoNum], [kinds.IMAGE, kinds.VIDEO]);
    // Generated: three folders of files of 1000 to 1999 bytes.
    assert.equal(r.totalSize, 10 + 300000 + 64 * 1024 * 1024 + 200000 + 777 + 3 * (1000 * 1000 + 999 * 500));
    assert.deepEqual(Object.values(byId.get('p1')), ['p1', 'dcim', 'IMG_1.JPG', 'IMAGE', 10, 1600000000000, 1700000000000, 's1']);
    for (const f of r.fileList) assert.equal(f.storageId, f.objectId.startsWith('g') || f.objectId === 's2' ? 's2' : 's1', f.objectId);
    // Properties that cannot be read: listed as far as known.
    assert.deepEqual(Object.values(byId.get('bad')), ['bad', '', '', 'UNKNOW', 0, null, null, 's1']);
    assert.deepEqual([byId.get('dcim').size, byId.get('v1').createdMs], [0, null]);
    // Depth first, in the device's order.
    const order = r.fileList.map((f) => f.objectId);
    assert.deepEqual(order.slice(0, 8), ['s1', 'dcim', 'p1', 'v1', 'big', 'broken', 'sub', 'p2']);
    assert.ok(order.indexOf('gf0_999') < order.indexOf('gf1'));
    // Folders, recursively or one level, as in the whole listing; one signal keeps no listener.
    const under = (f, id) => f.parentId === id || (byId.has(f.parentId) && under(byId.get(f.parentId), id));
    const { signal } = new AbortController();
    const parts = [['dcim', true], ['dcim', false], ['s2', false], [null, false]];
    const listed = await Promise.all(parts.map(([id, recursive]) => ostrel.GetMtpFilesById('phone', id, { recursive, signal })));
    for (const [i, [id, recursive]] of parts.entries()) {
      const expected = id ? r.fileList.filter((f) => (recursive ? under(f, id) : f.parentId === id)) : [byId.get('s1'), byId.get('s2')];
      assert.deepEqual(listed[i].fileList, expected, id);
    }
    assert.deepEqual([listed[0].photoNum, listed[0].videoNum], [3, 2]);
    assert.equal(require('events').getEventListeners(signal, 'abort').length, 0);
  });

  await t.test('cancelled before the call, or while a bulk request of 20,000 objects is being answered', async () => {
    useDevices({ devices: [{ ...tree(), slowMs: 20, generate: { storage: 's2', folders: 1, filesPerFolder: 20000 } }] });
    await assert.rejects(ostrel.GetMtpFilesById('phone', 'gf0', { signal: AbortSignal.abort() }), { message: 'GetMtpFilesById was cancelled' });
    const ac = new AbortController();
    const started = Date.now();
    await assert.rejects(ostrel.GetMtpFilesById('phone', 'gf0', { signal: ac.signal, onProgress: () => ac.abort() }),
      { message: 'GetMtpFilesById was cancelled' });
    assert.ok(Date.now() - started < 3000, 'the bulk request stopped early');
  });

  await t.test('a bulk request never answered', () => {
    // After 10 s the listing reads object by object.
    useDevices({ devices: [{ ...tree(), bulkMode: 'never' }] });
    const r = runChild(`
      const ostrel = require('.');
      ostrel.GetMtpFilesById('phone', 'dcim').then((l) => {
        console.log('LISTED ' + l.fileList.length);
        // Exit with a request the driver still holds.
        ostrel.GetMtpFilesById('phone', 'dcim');
        setTimeout(() => process.exit(0), 300);
      });
    `);
    assert.equal(r.status, 0, r.stderr);
    assert.match(r.stdout, /LISTED 7/);
    assert.match(r.stderr, /A bulk property request got no answer in 10 s; reading object by object/);
  });

  await t.test('progress while listing, never after the promise settles; a throwing progress callback is only logged', () => {
    useDevices({ devices: [{ ...tree(), slowMs: 10, generate: { storage: 's2', folders: 40, filesPerFolder: 1000 } }] });
    const r = runChild(`
      const reports = [];
      let settled = false;
      let late = 0;
      const onProgress = (p) => {
        if (settled) late++;
        reports.push(p);
        throw new Error('from the callback');
      };
      require('.').GetMtpFilesById('phone', null, { onProgress }).then((l) => {
        settled = true;
        setTimeout(() => console.log('LISTED ' + JSON.stringify({ length: l.fileList.length, reports, late })), 500);
      });
    `);
    assert.equal(r.status, 0, r.stderr);
    const { length, reports, late } = JSON.parse(/^LISTED (.*)$/m.exec(r.stdout)[1]);
    assert.equal(length, 14 + 40 + 40000);
    assert.deepEqual([Object.keys(reports[0]), late], [['listed'], 0]);
    assert.ok(reports.every((p, i) => p.listed >= (reports[i - 1] || p).listed && p.listed <= length), JSON.stringify(reports));
    assert.match(r.stderr, /Caught Napi::Error in onProgress: .*from the callback/);
  });

  await t.test('copies byte for byte; failures, refusals and a cancelled copy with its progress reject clearly, leaving what was there and no partial file', async () => {
    const dir = tempDir();
    const jpeg = Buffer.from('jpeg bytes');
    // 250 characters: the temporary name passes MAX_PATH.
    const deep = path.join(dir, 'd'.repeat(200 - dir.length));
    fs.mkdirSync(deep);
    const deepName = path.join(deep, `${'f'.repeat(250 - deep.length - 1 - 4)}.jpg`);
    assert.equal(deepName.length, 250);
    // Each row: the call (GetMtpFileById unless named), device, object, destination (in
    // `dir`), whether it holds "mine" already, options, the bytes copied or the rejection.
    const exists = (text) => (dest) => `${text}: ${dest}`;
    const ac = new AbortController();
    const reports = [];
    const onProgress = (p) => {
      reports.push(p);
      if (p.bytes > 0) ac.abort();
    };
    const rows = [
      { id: 'p1', dest: 'IMG_1.JPG', bytes: jpeg },
      { id: 'v1', dest: 'v1', bytes: patternBytes(300000) },
      { call: 'GetMtpThumbnailById', id: 'p1', dest: 'thumb', bytes: Buffer.from('tiny') },
      { id: 'p2é', dest: 'Zoë 日本 📷.jpg', bytes: Buffer.from('ü') },
      // The temporary name must not push the last component past 255.
      { id: 'p1', dest: `${'n'.repeat(251)}.jpg`, bytes: jpeg },
      { id: 'p1', dest: deepName, bytes: jpeg },
      { id: 'p1', dest: 'mine', mine: true, error: exists('The destination already exists') },
      { call: 'GetMtpThumbnailById', id: 'p1', dest: 'mine', mine: true, error: exists('The destination already exists') },
      { id: 'p1', dest: 'mine', mine: true, options: { overwrite: true }, bytes: jpeg },
      { id: 'p1', dest: 'nul.txt', error: exists('The destination is a reserved device name') },
      { id: 'p1', dest: 'trailing.', error: exists('The destination name ends with a dot or a space') },
      { id: 'p1', dest: path.join(dir, 'missing', 'out'), error: /^Failed to write .*missing.*out: / },
      { id: 'broken', dest: 'out', error: 'Failed to read object broken after 100000 bytes, hr = 0x80004005' },
      { call: 'GetMtpThumbnailById', id: 'v1', dest: 'out', error: 'The object has no thumbnail: v1' },
      { id: 'gone', dest: 'out', error: 'Object not found on the device: gone' },
      { phone: 'no-such-phone', id: 'p1', dest: 'out', error: 'Failed to open device no-such-phone, hr = 0x80070037' },
      { device: { ...tree(), disconnectAfter: 1 }, id: 'v1', dest: 'out', error: 'The device was disconnected during the copy (hr = 0x8007048f)' },
      { device: hostile(), phone: 'hostile', id: 'short', dest: 'out', error: 'The device ended the copy of short after 120000 of 300000 bytes' },
      { device: { ...tree(), slowMs: 5 }, id: 'big', dest: 'big.mp4', options: { signal: ac.signal, onProgress }, error: 'The copy was cancelled' },
      { call: 'GetMtpFilesById', id: 'nope', error: 'Object not found on the device: nope' },
      { call: 'GetMtpFilesById', phone: 'no-such-phone', error: 'Failed to open device no-such-phone, hr = 0x80070037' },
      // A device removed during a listing: no partial list.
      ...[false, true].map((noBulk) => ({ call: 'GetMtpFilesById', device: { ...tree(), disconnectAfter: 500, noBulk },
        error: 'The device was disconnected during the listing (hr = 0x8007048f)' })),
    ];
    const kept = new Set();
    for (const row of rows) {
      useDevices({ devices: [row.device || tree()] });
      const dest = row.dest && path.resolve(dir, row.dest);
      if (row.mine) {
        fs.writeFileSync(dest, 'mine');
        kept.add(dest);
      }
      const name = row.call || 'GetMtpFileById';
      const what = `${name} ${row.id} ${row.dest}`;
      const args = [row.phone || 'phone', ...(row.id ? [row.id] : []), ...(dest ? [dest] : []), ...(row.options ? [row.options] : [])];
      const call = ostrel[name](...args);
      if (row.bytes) {
        assert.deepEqual(await call, { path: dest, bytes: row.bytes.length }, what);
        assert.ok(fs.readFileSync(dest).equals(row.bytes), what);
        kept.add(dest);
      } else {
        const expected = typeof row.error === 'function' ? row.error(dest) : row.error;
        await assert.rejects(call, (e) => (expected instanceof RegExp ? expected.test(e.message) : e.message === expected) || assert.fail(`${what}: ${e.message}`));
        if (row.mine) assert.equal(fs.readFileSync(dest, 'utf8'), 'mine', what);
      }
      // Nothing else is left: no temporary file, no partial copy.
      const listed = [dir, deep].flatMap((d) => fs.readdirSync(d).map((n) => path.join(d, n))).filter((f) => f !== deep);
      assert.deepEqual(listed.sort(), [...kept].sort(), what);
    }
    // Progress of the cancelled copy: the total known once the object was found (a report may come before).
    assert.deepEqual([Object.keys(reports[0]), reports.at(-1).total], [['bytes', 'total'], 64 * 1024 * 1024]);
    useDevices({ devices: [tree()] });
    const copies = await Promise.all(Array.from({ length: 20 }, (_, i) => ostrel.GetMtpFileById('phone', 'v1', path.join(deep, `v${i}`))));
    assert.ok(copies.every((c) => c.bytes === 300000));
    assert.equal(fs.readdirSync(deep).length, 21);
    fs.rmSync(dir, { recursive: true, force: true });
  });

});

test('a cancelled bulk request answered late, on the driver\'s thread, after its COM apartment ended', { skip: !isWindows && 'WPD is Windows only' }, () => {
  const { useDevices } = require('./mtp-fixture');
  useDevices({ devices: [{ ...tree(), bulkLateMs: 6500 }] });
  const r = runChild(`
    const fs = require('fs');
    const ostrel = require('.');
    const ac = new AbortController();
    const started = Date.now();
    ostrel.GetMtpFilesById('phone', 'dcim', { signal: ac.signal }).catch((e) => {
      console.log('REJECTED ' + e.message);
      // From now on the device answers at once; the late answer lands meanwhile.
      const d = JSON.parse(fs.readFileSync(process.env.OSTREL_WPD_DOUBLE, 'utf8'));
      delete d.devices[0].bulkLateMs;
      fs.writeFileSync(process.env.OSTREL_WPD_DOUBLE, JSON.stringify(d));
      const again = () => ostrel.GetMtpFilesById('phone', 'dcim').then((l) => {
        if (Date.now() - started < 8000) return again();
        console.log('LISTED ' + l.fileList.length);
      });
      again();
    });
    setTimeout(() => ac.abort(), 300);
  `);
  assert.equal(r.status, 0, r.stderr);
  assert.match(r.stdout, /REJECTED GetMtpFilesById was cancelled\nLISTED 7/);
});
