'use strict';
// ostrel scan [dir] [--json] [--ext jpg,png] [--ignore REGEX]... [--fast]
// Walks a folder tree with ScanAllSubFiles. On a terminal a progress line
// (files/s, files, bytes) is rewritten in place; at the end a summary gives
// the scan's counts and the elapsed time. --json prints every file object as
// one JSON line on standard output and the summary on standard error.
// A root that cannot be listed fails the command (status 1, the reason on
// standard error); folders below it that cannot be listed, and entries whose
// names are not valid Unicode, make the scan incomplete (status 3): the
// summary names the folders and a warning goes to standard error.
const { UsageError, CommandError, parseCommandArgs, folderArgument } = require('./usage');
const format = require('./format');
const { collectStats } = require('./stats');

// Statistics reach the tracer at most every 500 ms; waiting this long after
// the scan lets the last flush arrive.
const STATS_SETTLE_MS = 1000;

// The scan finished, but folders it could not list are missing from it.
const EXIT_INCOMPLETE = 3;

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

exit status: 0 done; 1 the folder cannot be scanned (missing, no folder, may not be listed);
2 wrong usage; 3 the scan is incomplete: folders that could not be listed, or that hold
names that are not valid Unicode, are named in the summary, and those files are missing
from the output; 130 interrupted.
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

// The module's own refusal of a pattern, thrown synchronously:
// 'ScanAllSubFiles: invalid regular expression "<re>": <reason> in ignoreFileRegs[0]'.
// It is a usage error like any pattern that does not compile: the message
// names the command line's option instead of the module's.
const OPTION_OF = { ignoreFileRegs: '--ignore', ignoreDirRegs: '--ignore' };
function refusedPattern(err) {
  const message = String((err && err.message) || err);
  if (!message.includes('invalid regular expression')) return null;
  const m = /invalid regular expression "([\s\S]*)": ([\s\S]*) in ([A-Za-z]+)(?:\[\d+\])?\S*$/.exec(message);
  if (!m) return new UsageError(message, 'scan');
  const option = OPTION_OF[m[3]] || m[3];
  return new UsageError(`${option}: invalid regular expression '${m[1]}': ${m[2]}`, 'scan');
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

const describeSkip = (s) => `${s.path}: ${s.reason} (error ${s.code})`;

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
      `  specialFileCount       ${result.specialFileCount || 0}`,
      `  invalidNameCount       ${result.invalidNameCount || 0}`,
      `  fileCountBeyondLimit   ${result.fileCountBeyondLimit}`,
      `  complete               ${result.complete}`,
    );
    const skipped = result.skippedFolders || [];
    const looped = result.loopedFolders || [];
    if (skipped.length) {
      lines.push(`  skipped folders (${skipped.length}), their files are missing:`);
      for (const s of skipped) lines.push(`    ${describeSkip(s)}`);
    }
    const invalid = result.invalidNameFolders || [];
    if (invalid.length) {
      lines.push(`  folders holding names that are not valid Unicode (${invalid.length}), those entries are missing:`);
      for (const f of invalid) lines.push(`    ${f.path}: ${f.count} ${f.count === 1 ? 'name' : 'names'}`);
    }
    if (looped.length) {
      lines.push(`  folders leading back to an ancestor, not walked again (${looped.length}):`);
      for (const l of looped) lines.push(`    ${l.path} -> ${l.sameAs}`);
    }
  }
  return `${lines.join('\n')}\n`;
}

function run(args, io) {
  const { values, positionals } = parseCommandArgs('scan', args, OPTIONS, { positionals: 1 });
  const options = scanOptions(values);
  const dir = folderArgument(positionals[0], io.cwd);
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

    // An incomplete scan is said on standard error whatever else goes
    // there; the summary names the folders.
    const warnIncomplete = (r) => {
      const n = (r.skippedFolders || []).length;
      if (n) {
        io.stderr.write(
          `ostrel scan: warning: incomplete scan: ${n} folder${n === 1 ? '' : 's'} could not be listed ` +
            '(see the summary); their files are missing from the output\n',
        );
      }
      const bad = r.invalidNameCount || 0;
      if (bad) {
        io.stderr.write(
          `ostrel scan: warning: incomplete scan: ${bad} name${bad === 1 ? ' is' : 's are'} not valid Unicode ` +
            '(see the summary); those entries are missing from the output\n',
        );
      }
    };
    const finish = (code, result, { interrupted = false, quiet = false } = {}) => {
      if (finished) return;
      finished = true;
      process.removeListener('SIGINT', onInterrupt);
      data.removeListener('error', onOutputError);
      if (progress) progress.clear();
      if (!quiet) report.write(summary(dir, stats, result, elapsed(), interrupted));
      if (result && !quiet && result.complete === false) warnIncomplete(result);
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
    const result = (r) => {
      const root = (r.skippedFolders || []).find((s) => s.path === dir);
      if (root && r.totalFileCount === 0 && stats.files === 0) {
        // The root could not be listed: the command could not do its work.
        if (progress) progress.clear();
        io.stderr.write(`ostrel scan: cannot list ${describeSkip(root)}\n`);
        finish(1, r, { quiet: true });
        return;
      }
      finish(r.complete === false ? EXIT_INCOMPLETE : 0, r);
    };
    if (progress) progress.update(line, true);
    try {
      close = ostrel.ScanAllSubFiles(dir, update, result, options);
    } catch (err) {
      if (progress) progress.clear();
      calls.stop();
      finished = true;
      process.removeListener('SIGINT', onInterrupt);
      data.removeListener('error', onOutputError);
      throw refusedPattern(err) || new CommandError(err.message);
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
  refusedPattern,
  EXIT_INCOMPLETE,
};
