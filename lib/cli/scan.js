'use strict';
// ostrel scan [dir] [--json] [--ext jpg,png] [--ignore REGEX]... [--fast]
// Walks a folder tree with ScanAllSubFiles. On a terminal a progress line
// (files/s, files, bytes) is rewritten in place; at the end a summary gives
// the scan's counts and the elapsed time. --json prints every file object as
// one JSON line on standard output and the summary on standard error.
const fs = require('fs');
const path = require('path');
const { UsageError, CommandError, parseCommandArgs } = require('./usage');
const format = require('./format');
const { collectStats } = require('./stats');

// Statistics reach the tracer at most every 500 ms; waiting this long after
// the scan lets the last flush arrive.
const STATS_SETTLE_MS = 1000;

const OPTIONS = {
  json: { type: 'boolean' },
  ext: { type: 'string' },
  ignore: { type: 'string', multiple: true },
  fast: { type: 'boolean' },
  stats: { type: 'boolean' },
};

const DETAILS = `Walks the folder tree under <dir> (default: the current folder) and reports its files.

options:
  --json          print each file object as one JSON line; the summary goes to standard error
  --ext LIST      keep only files with these extensions, comma-separated, without dots
                  (case-insensitive: --ext jpg,png); an empty entry keeps files without extension
  --ignore REGEX  skip files and folders whose whole name matches REGEX (ECMAScript syntax,
                  case-sensitive); a skipped folder is not entered; may be given more than once
  --fast          read metadata from the directory listing instead of opening each file
                  (faster, most of all on Windows; no 'readable' detection)
  --stats         after the summary, list the module's native calls (count, total and longest time)
`;

function extList(text) {
  if (!text.trim()) throw new UsageError('--ext needs a list of extensions, for example --ext jpg,png', 'scan');
  return text.split(',').map((e) => e.trim().replace(/^\./, ''));
}

function checkPattern(pattern) {
  try {
    new RegExp(pattern);
  } catch (err) {
    throw new UsageError(`--ignore: invalid regular expression '${pattern}': ${err.message}`, 'scan');
  }
  return pattern;
}

// The options object of ScanAllSubFiles for the command line's flags.
function scanOptions(values) {
  const options = {};
  if (values.ext !== undefined) options.extFilter = { includes: extList(values.ext) };
  if (values.ignore) {
    const patterns = values.ignore.map(checkPattern);
    options.ignoreFileRegs = patterns;
    options.ignoreDirRegs = patterns;
  }
  if (values.fast) options.fastMetadata = true;
  return options;
}

function rootFolder(given, cwd) {
  const dir = path.resolve(cwd, given === undefined ? '.' : given);
  let st;
  try {
    st = fs.statSync(dir);
  } catch (err) {
    throw new CommandError(err.code === 'ENOENT' ? `no such folder: ${dir}` : `cannot read ${dir}: ${err.message}`);
  }
  if (!st.isDirectory()) throw new CommandError(`not a folder: ${dir}`);
  return dir;
}

function summary(dir, stats, result, seconds, interrupted) {
  // The rate counts every file the walk produced, kept or filtered out.
  const walked = result ? result.totalFileCount : stats.files;
  const lines = [
    `${interrupted ? 'interrupted scan of' : 'scanned'} ${dir} in ${seconds.toFixed(3)} s ` +
      `(${format.rate(walked / Math.max(seconds, 1e-9))} files/s): ` +
      `${stats.files} files delivered (${format.bytes(stats.bytes)})`,
  ];
  if (result) {
    lines.push(
      `  totalFileCount         ${result.totalFileCount}`,
      `  filteredFileCount      ${result.filteredFileCount}`,
      `  hiddenSystemFileCount  ${result.hiddenSystemFileCount}`,
      `  fileCountBeyondLimit   ${result.fileCountBeyondLimit}`,
    );
  }
  return `${lines.join('\n')}\n`;
}

function run(args, io) {
  const { values, positionals } = parseCommandArgs('scan', args, OPTIONS, { positionals: 1 });
  const options = scanOptions(values);
  const dir = rootFolder(positionals[0], io.cwd);
  const data = io.stdout;
  const report = values.json ? io.stderr : io.stdout;
  // The progress line goes where the summary goes, and only on a terminal
  // that does not also receive the JSON lines.
  const progress = report.isTTY && !(values.json && data.isTTY) ? new format.ProgressLine(report) : null;
  const ostrel = io.loadModule();
  const calls = collectStats(ostrel);

  return new Promise((resolve) => {
    const stats = { files: 0, bytes: 0 };
    const t0 = process.hrtime.bigint();
    const elapsed = () => Number(process.hrtime.bigint() - t0) / 1e9;
    let close = null;
    let finished = false;
    const line = () =>
      `scanning: ${stats.files} files, ${format.bytes(stats.bytes)}, ${format.rate(stats.files / Math.max(elapsed(), 1e-9))} files/s`;

    const finish = (code, result, { interrupted = false, quiet = false } = {}) => {
      if (finished) return;
      finished = true;
      process.removeListener('SIGINT', onInterrupt);
      data.removeListener('error', onOutputError);
      if (progress) progress.clear();
      if (!quiet) report.write(summary(dir, stats, result, elapsed(), interrupted));
      if (!values.stats || quiet || interrupted) {
        calls.stop();
        resolve(code);
        return;
      }
      setTimeout(() => {
        calls.stop();
        report.write(`native calls:\n${calls.table()}`);
        resolve(code);
      }, STATS_SETTLE_MS);
    };
    const stop = () => {
      if (close) close();
    };
    const onInterrupt = () => {
      stop();
      finish(130, null, { interrupted: true });
    };
    // A reader that went away (ostrel scan --json | head) ends the scan quietly.
    const onOutputError = (err) => {
      stop();
      if (err.code === 'EPIPE') return finish(0, null, { quiet: true });
      io.stderr.write(`ostrel scan: cannot write the output: ${err.message}\n`);
      return finish(1, null, { quiet: true });
    };
    process.on('SIGINT', onInterrupt);
    data.on('error', onOutputError);

    const update = (u) => {
      if (finished) return;
      const nodes = u.nodes;
      for (const n of nodes) stats.bytes += n.size;
      stats.files += nodes.length;
      if (values.json && nodes.length) {
        data.write(`${nodes.map((n) => JSON.stringify(n)).join('\n')}\n`);
      }
      if (progress) progress.update(line);
    };
    const result = (r) => finish(0, r);
    if (progress) progress.update(line, true);
    try {
      close = ostrel.ScanAllSubFiles(dir, update, result, options);
    } catch (err) {
      if (progress) progress.clear();
      calls.stop();
      finished = true;
      process.removeListener('SIGINT', onInterrupt);
      data.removeListener('error', onOutputError);
      throw new CommandError(err.message);
    }
  });
}

module.exports = {
  name: 'scan',
  summary: "walk a folder tree and report its files (ostrel's main job)",
  usage: 'ostrel scan [dir] [--json] [--ext jpg,png] [--ignore REGEX] [--fast] [--stats]',
  details: DETAILS,
  run,
  scanOptions,
};
