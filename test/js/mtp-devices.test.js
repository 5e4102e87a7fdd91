'use strict';
// GetMtpDevices against the WPD test double (under Wine the only WPD there
// is); what the device exports answer past their argument checks, and on Linux.
const test = require('node:test');
const assert = require('node:assert/strict');
const { isWindows, runChild } = require('./helpers');

const ostrel = require('../..');

test('huge ids and paths are answered, not crashed on', async () => {
  const huge = 'x'.repeat(1 << 20);
  for (const p of [ostrel.GetMtpFilesById(huge, huge), ostrel.GetMtpFileById(huge, huge, huge)]) {
    await p.then(() => {}, (e) => assert.ok(e instanceof Error && e.message.length > 0));
  }
});

test('Linux: GetMtpDevices resolves [] whatever it is given; the other three reject "not supported on this platform"', { skip: isWindows }, async () => {
  assert.deepEqual(await ostrel.GetMtpDevices('ignored', 1), []);
  for (const [name, args] of [['GetMtpFilesById', ['d']], ['GetMtpFileById', ['d', 'o', '/tmp/x']], ['GetMtpThumbnailById', ['d', 'o', '/tmp/x']]]) {
    await assert.rejects(ostrel[name](...args), (e) => e instanceof Error && e.message === `${name} is not supported on this platform`);
  }
});

// Failing after taking its callbacks (the signal's addEventListener throws), a call
// once kept them: its destructor took "no reference held" for "environment ended".
test('a call that fails after taking its progress callback releases it', { skip: !isWindows }, () => {
  const r = runChild(`
    const gc = (require('v8').setFlagsFromString('--expose-gc'), require('vm').runInNewContext('gc'));
    const ostrel = require('.');
    const refs = [];
    for (const args of [['d', 'f'], ['d', 'o', 'C:\\\\never-written.bin']]) {
      (() => {
        const onProgress = () => {};
        refs.push(new WeakRef(onProgress));
        const signal = { aborted: false, addEventListener() { throw new Error('no listeners here'); } };
        try {
          ostrel[args.length === 2 ? 'GetMtpFilesById' : 'GetMtpFileById'](...args, { onProgress, signal });
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

const PROPERTIES = [
  'index', 'deviceId', 'deviceName', 'deviceModel', 'deviceProtocol', 'deviceManufacturer', 'deviceSerialNumber',
];

test('GetMtpDevices with the WPD test double', { skip: !isWindows && 'WPD is Windows only' }, async (t) => {
  const { useDevices, phone } = require('./mtp-fixture');
  const camera = { id: 'usb#camera', protocol: 'MSC:', name: 'Camera', model: 'C1', manufacturer: 'Lens', serial: 'C-9' };

  await t.test('only MTP devices, indexed in the manager order, each with its seven properties as given or ""', async () => {
    const devices = [camera, phone({ id: 'usb#téléphone#日本', name: 'Téléphone de Zoë 📱' }), phone({ id: 'm', protocol: 'mtp: 1.00' }),
      phone({ id: 'a', name: 'A', protocol: 'MTP', serial: undefined }), phone({ id: 'fm', failProperty: 'model' }),
      phone({ id: 'fp', failProperty: 'protocol' })];
    useDevices({ devices });
    const list = await ostrel.GetMtpDevices();
    for (const d of list) assert.deepEqual(Object.keys(d), PROPERTIES);
    // A property lacking or unreadable reads as ""; an unreadable protocol leaves the device out.
    const listed = [devices[1], { ...devices[3], serial: '' }, { ...devices[4], model: '' }];
    assert.deepEqual(list.map(Object.values), listed.map((d, i) => [i, d.id, d.name, d.model, d.protocol, d.manufacturer, d.serial]));
  });

  await t.test('the client information, the two GetDevices calls and the key order', async () => {
    const { log } = useDevices({ devices: [phone({ id: 'p' })] });
    await ostrel.GetMtpDevices();
    assert.deepEqual(log(), [
      'getdevices count',
      'getdevices buffer 1',
      'open p name=VARNO DRIVE WPD Application major=0x1 minor=0x0 revision=0x2 qos=0x20000 access=0x80000000',
      'values DEVICE keys=8,7,12,6,9',
      'close',
    ]);
  });

  // In a child, whose standard error gets the module's log.
  const listed = (description) => {
    const { log } = useDevices(description);
    const r = runChild("require('.').GetMtpDevices().then((l) => console.log('LIST ' + JSON.stringify(l.map((d) => [d.index, d.deviceId]))))");
    assert.equal(r.status, 0, r.stderr);
    return { ...r, log };
  };

  await t.test('a device that fails to open is left out and logged; the others are listed', () => {
    const r = listed({ devices: [phone({ id: 'locked', failOpen: '0x80070005' }), phone({ id: 'ok' })] });
    assert.match(r.stdout, /LIST \[\[0,"ok"\]\]/);
    assert.match(r.stderr, /Failed to open device locked, hr = 0x80070005/);
  });

  await t.test('without a values object no client information is set, and this double then refuses the device', () => {
    const r = listed({ failValues: true, devices: [phone({ id: 'p' })] });
    assert.match(r.stdout, /^! Failed to CoCreateInstance CLSID_PortableDeviceValues, hr = 0x80004005$/m);
    assert.doesNotMatch(r.stdout, /Failed to set/);
    assert.ok(r.log().includes('open p none'));
    // This double refuses a client without read access stated.
    assert.match(r.stderr, /Failed to open device p, hr = 0x80070005/);
    assert.match(r.stdout, /LIST \[\]/);
  });

  await t.test('no devices: an empty list; a manager that cannot be created, or a failing GetDevices, rejects', async () => {
    const rows = [
      [{ devices: [] }, []],
      [{ failManager: true, devices: [phone()] }, 'Failed to create the portable device manager, hr = 0x80040154'],
      [{ failGetDevices: true, devices: [phone()] }, 'Failed to get the device list from the system'],
    ];
    for (const [description, expected] of rows) {
      useDevices(description);
      const got = await ostrel.GetMtpDevices().catch((e) => (e instanceof Error ? e.message : e));
      assert.deepEqual(got, expected, JSON.stringify(description));
    }
  });

  await t.test('fifty calls at once all give the same list', async () => {
    useDevices({ devices: [camera, phone({ id: 'a' }), phone({ id: 'b' })] });
    const lists = await Promise.all(Array.from({ length: 50 }, () => ostrel.GetMtpDevices()));
    for (const l of lists) assert.deepEqual(l.map((d) => d.deviceId), ['a', 'b']);
  });
});
