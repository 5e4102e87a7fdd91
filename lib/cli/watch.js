'use strict';
// ostrel watch [dir] [--json] [--ignore REGEX]... [--ext a,b] [--report-overflow]
// Watches a folder tree with StartFileWatch and prints one line per change
// (time, event, relative path), or one JSON line per event with --json.
// Error events go to standard error, "watching <dir>" once the watch is
// armed. Ends on Ctrl-C with status 130.
const { UsageError, parseCommandArgs, folderArgument } = require('./usage');

const OPTIONS = {
  json: { type: 'boolean' },
  ext: { type: 'string' },
  ignore: { type: 'string', multiple: true },
  'report-overflow': { type: 'boolean' },
};

const DETAILS = `Watches the folder tree under <dir> (default: the current folder) and prints its changes
until interrupted (Ctrl-C, exit status 130).

options:
  --json              print each event object as one JSON line
  --ignore REGEX      drop changes under folders (and of items) whose whole name matches REGEX
                      (ECMAScript syntax, case-sensitive), at any depth; may be given more than once
  --ext LIST          keep only files with these extensions, comma-separated, without dots
  --report-overflow   report lost changes (the system's change buffer overflowed) as an error
`;

function watchOptions(values) {
  const options = {};
  if (values.ignore) {
    for (const pattern of values.ignore) {
      try {
        new RegExp(pattern);
      } catch (err) {
        throw new UsageError(`--ignore: invalid regular expression '${pattern}': ${err.message}`, 'watch');
      }
    }
    options.ignoreDirRegs = values.ignore;
  }
  if (values.ext !== undefined) {
    if (!values.ext.trim()) throw new UsageError('--ext needs a list of extensions, for example --ext jpg,png', 'watch');
    options.extFilter = { includes: values.ext.split(',').map((e) => e.trim().replace(/^\./, '').toLowerCase()) };
  }
  if (values['report-overflow']) options.reportOverflow = true;
  return options;
}

const time = () => new Date().toISOString().slice(11, 23);

function run(args, io) {
  const { values, positionals } = parseCommandArgs('watch', args, OPTIONS, { positionals: 1 });
  const options = watchOptions(values);
  const dir = folderArgument(positionals[0], io.cwd);
  const ostrel = io.loadModule();
  return new Promise((resolve) => {
    let close;
    const onEvent = (arg) => {
      if (!Array.isArray(arg)) {
        io.stderr.write(`${time()} error ${arg.errorCode}${arg.code ? ` ${arg.code}` : ''}: ${arg.errorReason}\n`);
        return;
      }
      for (const e of arg) {
        io.stdout.write(values.json ? `${JSON.stringify(e)}\n` : `${time()} ${e.watchEvent.padEnd(12)} ${e.fileName}\n`);
      }
    };
    try {
      close = ostrel.StartFileWatch(dir, onEvent, () => io.stderr.write(`watching ${dir}\n`), options);
    } catch (err) {
      throw new UsageError(err.message, 'watch');
    }
    // Every Ctrl-C is taken here (a second one while closing must not kill
    // the process half-way).
    process.on('SIGINT', () => {
      close();
      resolve(130);
    });
  });
}

module.exports = {
  name: 'watch',
  usage: 'ostrel watch [dir] [--json] [--ignore REGEX]... [--ext LIST] [--report-overflow]',
  summary: 'print the changes of a folder tree as they happen',
  details: DETAILS,
  run,
};
