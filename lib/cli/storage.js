'use strict';
// ostrel drives [--json] [--timeout MS] and ostrel disks [--json] [--timeout MS]:
// the machine's logical drives (GetDriveList) and its mounted disks with
// their physical disks (GetHardwareDisk), as a table or, with --json, as the
// module's objects in one JSON document on standard output.
const { UsageError, parseCommandArgs } = require('./usage');
const format = require('./format');

const OPTIONS = {
  json: { type: 'boolean' },
  timeout: { type: 'string' },
};

const DRIVE_TYPES = { 0: 'unknown', 1: 'no root', 2: 'removable', 3: 'local', 4: 'network', 5: 'cd', 6: 'ram disk' };
const driveType = (code) => DRIVE_TYPES[code] || String(code);

function timeoutOption(text, command) {
  if (text === undefined) return {};
  const ms = Number(text);
  if (!/^\d+$/.test(text.trim()) || !Number.isSafeInteger(ms) || ms > 2147483647) {
    throw new UsageError(`--timeout needs a number of milliseconds from 0 to 2147483647, not '${text}'`, command);
  }
  return { timeoutMs: ms };
}

// Left-aligned columns, numbers right-aligned; `rows` are arrays of strings.
function table(headers, rows, numeric) {
  const widths = headers.map((h, i) => Math.max(h.length, ...rows.map((r) => r[i].length)));
  const line = (cells) => cells
    .map((c, i) => (numeric.includes(i) ? c.padStart(widths[i]) : c.padEnd(widths[i])))
    .join('  ')
    .trimEnd();
  return [line(headers), ...rows.map(line)].join('\n') + '\n';
}

function drivesTable(list) {
  return table(
    ['MOUNTED', 'TYPE', 'SIZE', 'USED', 'FREE', 'DESCRIPTION'],
    list.map((d) => [d.mounted, driveType(d.drivetype), format.bytes(d.blocks), format.bytes(d.used),
      format.bytes(d.available), d.filesystem]),
    [2, 3, 4],
  );
}

function disksTable(list) {
  return table(
    ['MOUNTED', 'STORAGE', 'DISK', 'TYPE', 'FS', 'SIZE', 'FREE', 'INTERFACE', 'MEDIA', 'MODEL'],
    list.map((d) => [d.mounted, d.storageType, d.diskNumber === -1000 ? '-' : String(d.diskNumber),
      driveType(d.driveType), d.fileSystem, format.bytes(d.size), format.bytes(d.freeSpace), d.interfaceType,
      d.mediaType, d.model]),
    [2, 5, 6],
  );
}

function command(name, exportName, summary, render, what) {
  return {
    name,
    summary,
    usage: `ostrel ${name} [--json] [--timeout MS]`,
    details: `Lists ${what} (${exportName}).

options:
  --json        print the module's objects as one JSON array on standard output
  --timeout MS  answer after at most MS milliseconds with what was read by then
                (a dead network drive can hold the system's answer for a long time)

exit status: 0 done (an empty list too: failures are logged on standard error); 2 wrong usage.
`,
    async run(args, io) {
      const { values } = parseCommandArgs(name, args, OPTIONS);
      const options = timeoutOption(values.timeout, name);
      const list = await io.loadModule()[exportName](options);
      io.stdout.write(values.json ? `${JSON.stringify(list, null, 2)}\n` : render(list));
      return 0;
    },
  };
}

module.exports = {
  drives: command('drives', 'GetDriveList', 'list the logical drives with their sizes', drivesTable,
    'the logical drives: where each is mounted, its type, size, used and free bytes'),
  disks: command('disks', 'GetHardwareDisk', 'list the mounted disks with their physical disks', disksTable,
    'the mounted disks with the physical disk under each: SSD, HDD or USB, its number, interface and model'),
  drivesTable,
  disksTable,
};
