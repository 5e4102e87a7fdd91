'use strict';
// GetDriveList and GetHardwareDisk against what a script would do without
// the add-on: asking the system's own tool in a child process (df on Linux;
// wmic on Windows, which runs the same WMI query). Prints the mean time per
// list and the ratio peer / ostrel (above 1: ostrel is faster).
//
//   node bench/storage.js [rounds]          # default 20
//   scripts/wine-node bench/storage.js      # under Wine
const { execFileSync } = require('child_process');
const ostrel = require('..');

const rounds = Number(process.argv[2] || 20);
const isWindows = process.platform === 'win32';

async function timeAsync(fn) {
  const t0 = process.hrtime.bigint();
  for (let i = 0; i < rounds; ++i) await fn();
  return Number(process.hrtime.bigint() - t0) / 1e6 / rounds;
}

function peer() {
  if (isWindows) {
    execFileSync('wmic', ['logicaldisk', 'get', 'Caption,FreeSpace,Size,DriveType'],
      { stdio: ['ignore', 'pipe', 'ignore'] });
  } else {
    execFileSync('df', ['-B1', '--output=target,size,used,avail,fstype'], { stdio: ['ignore', 'pipe', 'ignore'] });
  }
}

(async () => {
  await ostrel.GetDriveList();  // warm up: COM, the first WMI connection
  const drives = await timeAsync(() => ostrel.GetDriveList());
  const disks = await timeAsync(() => ostrel.GetHardwareDisk());
  const concurrent = await timeAsync(() => Promise.all(Array.from({ length: 10 }, () => ostrel.GetDriveList())));
  let peerMs = NaN;
  try {
    peerMs = await timeAsync(async () => peer());
  } catch (err) {
    console.log(`peer not available: ${err.message.split('\n')[0]}`);
  }
  const name = isWindows ? 'wmic logicaldisk' : 'df';
  console.log(`GetDriveList     ${drives.toFixed(2)} ms per list`);
  console.log(`GetHardwareDisk  ${disks.toFixed(2)} ms per list`);
  console.log(`10 GetDriveList at once  ${concurrent.toFixed(2)} ms`);
  console.log(`${name.padEnd(16)} ${peerMs.toFixed(2)} ms per list (child process)`);
  console.log(`ratio ${name} / GetDriveList: ${(peerMs / drives).toFixed(2)}`);
})();
