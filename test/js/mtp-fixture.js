'use strict';
// The WPD test double (test/fixtures/wpd_double.cc; docs/mtp.md): registered
// in the test Wine prefix, given the attached devices.
const fs = require('fs');
const os = require('os');
const path = require('path');
const { spawnSync } = require('child_process');
const { buildDir } = require('./helpers');

const CLASSES = [
  '0AF10CEC-2ECD-4B92-9581-34F6AE0637F3', // PortableDeviceManager
  'F7C0039A-4762-488A-B4B3-760EF9A1BA9B', // PortableDeviceFTM
  '0C15D503-D017-47CE-9016-7B3F978721CC', // PortableDeviceValues
  'DE2D022D-2480-43BE-97F0-D1FA2CF98F4F', // PortableDeviceKeyCollection
  '08A99E2F-6D6D-4B80-AF5A-BAF2BCBE4CB9', // PortableDevicePropVariantCollection
];

const dll = () => path.join(buildDir(), 'test', 'wpd_double.dll');

// Under HKLM (Wine ignores HKCU\Software\Classes for in-process servers).
let registered = false;
function registerDouble() {
  if (registered) return;
  if (!fs.existsSync(dll())) throw new Error(`the WPD test double is not built: ${dll()}`);
  const escaped = dll().replace(/\\/g, '\\\\');
  const lines = ['REGEDIT4', ''];
  for (const clsid of CLASSES) {
    lines.push(`[HKEY_LOCAL_MACHINE\\Software\\Classes\\CLSID\\{${clsid}}\\InprocServer32]`);
    lines.push(`@="${escaped}"`, '"ThreadingModel"="Both"', '');
  }
  const file = path.join(os.tmpdir(), `ostrel-wpd-double-${process.pid}.reg`);
  fs.writeFileSync(file, lines.join('\r\n'));
  const r = spawnSync('reg', ['import', file], { stdio: 'ignore' });
  fs.rmSync(file, { force: true });
  if (r.status !== 0) throw new Error(`reg import failed: ${r.status} ${r.error || ''}`);
  registered = true;
}

let counter = 0;
// The devices of this process and its children; the double's log.
function useDevices(description) {
  registerDouble();
  const file = path.join(os.tmpdir(), `ostrel-wpd-${process.pid}-${counter++}.json`);
  fs.writeFileSync(file, JSON.stringify(description));
  fs.rmSync(`${file}.log`, { force: true });
  process.env.OSTREL_WPD_DOUBLE = file;
  return {
    file,
    log: () => (fs.existsSync(`${file}.log`) ? fs.readFileSync(`${file}.log`, 'utf8').split('\n').filter(Boolean) : []),
  };
}

// The bytes of the double's `dataSize` objects.
function patternBytes(size) {
  const b = Buffer.alloc(size);
  for (let i = 0; i < size; i++) b[i] = (i * 31 + 7) & 0xff;
  return b;
}

const phone = (over = {}) => ({
  id: '\\\\?\\usb#vid_0001&pid_0002#phone#{6ac27878-a6fa-4155-ba85-f98f491d4f33}',
  protocol: 'MTP: 1.00', name: 'Pixel', model: 'P7', manufacturer: 'Acme', serial: 'SN-1', ...over,
});

module.exports = { useDevices, patternBytes, phone };
