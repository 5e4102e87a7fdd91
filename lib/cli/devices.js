'use strict';
// The portable-device commands (docs/mtp.md):
//   ostrel devices [--json]
//   ostrel device-files <deviceId> [folderObjectId] [--flat] [--json]
//   ostrel copy-object <deviceId> <objectId> <dest> [--thumbnail] [--overwrite]
// On a terminal, listings and copies show a progress line; Ctrl-C cancels
// them (status 130) and a cancelled copy leaves no file. A device or object
// the module cannot reach fails the command (status 1, the reason on
// standard error).
const path = require('path');
const { UsageError, CommandError, parseCommandArgs } = require('./usage');
const format = require('./format');

// Runs `start(signal)` (a promise) with Ctrl-C wired to an AbortController;
// resolves with { value } or { interrupted: true }, or throws the promise's
// failure as a CommandError.
async function cancellable(start) {
  const ac = new AbortController();
  let interrupted = false;
  const onInterrupt = () => {
    interrupted = true;
    ac.abort();
  };
  process.on('SIGINT', onInterrupt);
  try {
    return { value: await start(ac.signal) };
  } catch (err) {
    if (interrupted) return { interrupted: true };
    throw new CommandError((err && err.message) || String(err));
  } finally {
    process.removeListener('SIGINT', onInterrupt);
  }
}

const devices = {
  name: 'devices',
  summary: 'list the attached MTP devices (phones, cameras)',
  usage: 'ostrel devices [--json]',
  details: `Lists the attached devices that speak MTP, in the system's order.

options:
  --json   print the device objects as one JSON array

exit status: 0 done (also when there is no device); 1 the device list cannot be read; 2 wrong usage.
`,
  async run(args, io) {
    const { values } = parseCommandArgs('devices', args, { json: { type: 'boolean' } });
    const ostrel = io.loadModule();
    const { value: list } = await cancellable(() => ostrel.GetMtpDevices());
    if (values.json) {
      io.stdout.write(`${JSON.stringify(list)}\n`);
      return 0;
    }
    if (!list.length) {
      io.stdout.write('no MTP devices attached\n');
      return 0;
    }
    for (const d of list) {
      const p = format.printable;
      const about = [d.deviceManufacturer, d.deviceModel].filter(Boolean).map(p).join(' ');
      io.stdout.write(
        `${d.index}  ${d.deviceName ? p(d.deviceName) : '(no name)'}${about ? `  ${about}` : ''}  ${p(d.deviceProtocol)}` +
          `${d.deviceSerialNumber ? `  serial ${p(d.deviceSerialNumber)}` : ''}\n   id: ${p(d.deviceId)}\n`,
      );
    }
    return 0;
  },
};

const deviceFiles = {
  name: 'device-files',
  summary: "list a device's objects (photos, videos, folders)",
  usage: 'ostrel device-files <deviceId> [folderObjectId] [--flat] [--json]',
  details: `Lists the objects under a folder of a device (the whole device by default), depth first.
Each line: content type, size, object id, name. A summary follows.

options:
  --flat   list one level only
  --json   print each object as one JSON line; the summary goes to standard error

exit status: 0 done; 1 the device or folder cannot be listed (it went away, it is unknown);
2 wrong usage; 130 interrupted.
`,
  async run(args, io) {
    const { values, positionals } = parseCommandArgs(
      'device-files',
      args,
      { flat: { type: 'boolean' }, json: { type: 'boolean' } },
      { positionals: 2 },
    );
    if (!positionals.length) throw new UsageError('a device id is needed (see ostrel devices)', 'device-files');
    const [deviceId, folder] = positionals;
    const report = values.json ? io.stderr : io.stdout;
    const progress = report.isTTY ? new format.ProgressLine(report) : null;
    const ostrel = io.loadModule();
    const t0 = Date.now();
    const r = await cancellable((signal) =>
      ostrel.GetMtpFilesById(deviceId, folder === undefined ? null : folder, {
        recursive: !values.flat,
        signal,
        onProgress: progress ? (p) => progress.update(() => `listing: ${p.listed} objects`) : undefined,
      }),
    );
    if (progress) progress.clear();
    if (r.interrupted) {
      report.write('interrupted\n');
      return 130;
    }
    const list = r.value;
    if (values.json) {
      for (const f of list.fileList) io.stdout.write(`${JSON.stringify(f)}\n`);
    } else {
      for (const f of list.fileList) {
        io.stdout.write(
          `${f.contentType.padEnd(6)}  ${format.bytes(f.size).padStart(9)}  ${format.printable(f.objectId)}  ` +
            `${format.printable(f.name)}\n`,
        );
      }
    }
    report.write(
      `${list.fileList.length} objects in ${((Date.now() - t0) / 1000).toFixed(3)} s: ${list.photoNum} photos, ` +
        `${list.videoNum} videos, ${format.bytes(list.totalSize)}\n`,
    );
    return 0;
  },
};

const copyObject = {
  name: 'copy-object',
  summary: "copy a device object's data (or thumbnail) to a new local file",
  usage: 'ostrel copy-object <deviceId> <objectId> <dest> [--thumbnail] [--overwrite]',
  details: `Copies the object's data to <dest> through a temporary file; an existing <dest> is refused
unless --overwrite is given. A failed or interrupted copy leaves no file.

options:
  --thumbnail  copy the object's thumbnail instead of its data
  --overwrite  replace an existing <dest>

exit status: 0 done; 1 the copy failed (the reason on standard error); 2 wrong usage; 130 interrupted.
`,
  async run(args, io) {
    const { values, positionals } = parseCommandArgs(
      'copy-object',
      args,
      { thumbnail: { type: 'boolean' }, overwrite: { type: 'boolean' } },
      { positionals: 3 },
    );
    if (positionals.length < 3) {
      throw new UsageError('a device id, an object id and a destination are needed', 'copy-object');
    }
    const [deviceId, objectId, given] = positionals;
    const dest = path.resolve(io.cwd, given);
    const progress = io.stdout.isTTY ? new format.ProgressLine(io.stdout) : null;
    const ostrel = io.loadModule();
    const copy = values.thumbnail ? ostrel.GetMtpThumbnailById : ostrel.GetMtpFileById;
    const r = await cancellable((signal) =>
      copy(deviceId, objectId, dest, {
        overwrite: !!values.overwrite,
        signal,
        onProgress: progress
          ? (p) =>
              progress.update(
                () => `copying: ${format.bytes(p.bytes)}${p.total ? ` of ${format.bytes(p.total)}` : ''}`,
              )
          : undefined,
      }),
    );
    if (progress) progress.clear();
    if (r.interrupted) {
      io.stderr.write('interrupted; nothing was written\n');
      return 130;
    }
    io.stdout.write(`copied ${r.value.bytes} bytes to ${r.value.path}\n`);
    return 0;
  },
};

module.exports = { devices, deviceFiles, copyObject };
