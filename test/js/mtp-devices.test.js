'use strict';
// GetMtpDevices against the WPD test double (Windows; under Wine the double
// is the only WPD there is).
const test = require('node:test');
const assert = require('node:assert/strict');
const { isWindows, runChild } = require('./helpers');

const PROPERTIES = [
  'index', 'deviceId', 'deviceName', 'deviceModel', 'deviceProtocol', 'deviceManufacturer', 'deviceSerialNumber',
];

test('GetMtpDevices with the WPD test double', { skip: !isWindows && 'WPD is Windows only' }, async (t) => {
  const { useDevices, phone } = require('./mtp-fixture');
  const ostrel = require('../..');
  const camera = { id: 'usb#camera', protocol: 'MSC:', name: 'Camera', model: 'C1', manufacturer: 'Lens', serial: 'C-9' };

  await t.test('no devices, or no description at all: an empty list', async () => {
    useDevices({ devices: [] });
    assert.deepEqual(await ostrel.GetMtpDevices(), []);
    useDevices({});
    assert.deepEqual(await ostrel.GetMtpDevices(), []);
  });

  await t.test('a mass-storage camera and an MTP phone: only the phone, with index 0', async () => {
    useDevices({ devices: [camera, phone()] });
    const list = await ostrel.GetMtpDevices();
    assert.equal(list.length, 1);
    assert.deepEqual(list[0], {
      index: 0,
      deviceId: phone().id,
      deviceName: 'Pixel',
      deviceModel: 'P7',
      deviceProtocol: 'MTP: 1.00',
      deviceManufacturer: 'Acme',
      deviceSerialNumber: 'SN-1',
    });
  });

  await t.test('two MTP devices after a non-MTP one get indexes 0 and 1, in the manager order', async () => {
    useDevices({ devices: [camera, phone({ id: 'b', name: 'B' }), phone({ id: 'a', name: 'A' })] });
    const list = await ostrel.GetMtpDevices();
    assert.deepEqual(list.map((d) => [d.index, d.deviceId, d.deviceName]), [[0, 'b', 'B'], [1, 'a', 'A']]);
  });

  await t.test('every device object has exactly the seven properties, in order', async () => {
    useDevices({ devices: [phone({ id: 'x' }), phone({ id: 'y', serial: undefined })] });
    for (const d of await ostrel.GetMtpDevices()) assert.deepEqual(Object.keys(d), PROPERTIES);
  });

  await t.test('the protocol test is three exact, case-sensitive wide characters', async () => {
    const protocols = ['MTP: 1.00', 'MTP', 'mtp: 1.00', 'MT', 'PTP', ' MTP', 'MTPX', 'Mtp'];
    useDevices({ devices: protocols.map((p, i) => phone({ id: `d${i}`, protocol: p })) });
    const list = await ostrel.GetMtpDevices();
    assert.deepEqual(list.map((d) => d.deviceProtocol), ['MTP: 1.00', 'MTP', 'MTPX']);
    assert.deepEqual(list.map((d) => d.index), [0, 1, 2]);
  });

  await t.test('names and ids beyond ASCII come back as they are', async () => {
    useDevices({ devices: [phone({ id: 'usb#téléphone#日本', name: 'Téléphone de Zoë 📱' })] });
    const [d] = await ostrel.GetMtpDevices();
    assert.equal(d.deviceId, 'usb#téléphone#日本');
    assert.equal(d.deviceName, 'Téléphone de Zoë 📱');
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

  await t.test('a property that cannot be read is ""; a protocol that cannot be read leaves the device out', async () => {
    useDevices({
      devices: [phone({ id: 'm', failProperty: 'model' }), phone({ id: 'p', failProperty: 'protocol' }), phone({ id: 'q' })],
    });
    const list = await ostrel.GetMtpDevices();
    assert.deepEqual(list.map((d) => [d.index, d.deviceId, d.deviceModel]), [[0, 'm', ''], [1, 'q', 'P7']]);
    assert.equal(list[0].deviceName, 'Pixel');
  });

  await t.test('a device that fails to open is left out and logged; the others are listed', () => {
    const { file } = useDevices({ devices: [phone({ id: 'locked', failOpen: '0x80070005' }), phone({ id: 'ok' })] });
    const r = runChild(
      "require('.').GetMtpDevices().then((l) => console.log('LIST ' + JSON.stringify(l.map((d) => [d.index, d.deviceId]))))",
      { env: { OSTREL_WPD_DOUBLE: file } },
    );
    assert.equal(r.status, 0, r.stderr);
    assert.match(r.stdout, /LIST \[\[0,"ok"\]\]/);
    assert.match(r.stderr, /Failed to open device locked, hr = 0x80070005/);
  });

  await t.test('client-information keys that cannot be set are logged one by one and the others still set', () => {
    const list = "require('.').GetMtpDevices().then((l) => console.log('LIST ' + JSON.stringify(l.map((d) => d.deviceId))))";
    const keys = useDevices({ failClientKeys: [2, 5], devices: [phone({ id: 'p' })] });
    let r = runChild(list, { env: { OSTREL_WPD_DOUBLE: keys.file } });
    assert.equal(r.status, 0, r.stderr);
    assert.match(r.stdout, /^! Failed to set WPD_CLIENT_NAME, hr = 0x80004005$/m);
    assert.match(r.stdout, /^! Failed to set WPD_CLIENT_REVISION, hr = 0x80004005$/m);
    assert.doesNotMatch(r.stdout, /Failed to set WPD_CLIENT_(MAJOR|MINOR|SECURITY|DESIRED)/);
    assert.match(r.stdout, /LIST \["p"\]/);
    assert.ok(keys.log().includes('open p major=0x1 minor=0x0 qos=0x20000 access=0x80000000'), keys.log().join('\n'));

    const values = useDevices({ failValues: true, devices: [phone({ id: 'p' })] });
    r = runChild(list, { env: { OSTREL_WPD_DOUBLE: values.file } });
    assert.equal(r.status, 0, r.stderr);
    assert.match(r.stdout, /^! Failed to CoCreateInstance CLSID_PortableDeviceValues, hr = 0x80004005$/m);
    assert.doesNotMatch(r.stdout, /Failed to set/);
    assert.ok(values.log().includes('open p none'));
    // This double refuses a client without read access stated: the device is left out.
    assert.match(r.stderr, /Failed to open device p, hr = 0x80070005/);
    assert.match(r.stdout, /LIST \[\]/);
  });

  await t.test('a manager that cannot be created, or a failing GetDevices, rejects', async () => {
    useDevices({ failManager: true, devices: [phone()] });
    await assert.rejects(ostrel.GetMtpDevices(), {
      message: 'Failed to create the portable device manager, hr = 0x80040154',
    });
    useDevices({ failGetDevices: true, devices: [phone()] });
    await assert.rejects(ostrel.GetMtpDevices(), (e) => e instanceof Error && e.message === 'Failed to get the device list from the system');
  });

  await t.test('fifty calls at once all give the same list', async () => {
    useDevices({ devices: [camera, phone({ id: 'a' }), phone({ id: 'b' })] });
    const lists = await Promise.all(Array.from({ length: 50 }, () => ostrel.GetMtpDevices()));
    for (const l of lists) assert.deepEqual(l.map((d) => d.deviceId), ['a', 'b']);
  });
});
