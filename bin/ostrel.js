#!/usr/bin/env node
'use strict';
// The ostrel command line: ostrel <command> [options]. This file only picks
// the command; each command lives in lib/cli/. Exit status: 0 done, 1 the
// command failed, 2 it was called wrongly, 3 a scan finished incomplete
// (folders it could not list; lib/cli/scan.js).
const path = require('path');
const { UsageError, CommandError, HelpRequest } = require('../lib/cli/usage');
const { makeHelp, overview, commandHelp } = require('../lib/cli/help');

const commands = {};
const storage = require('../lib/cli/storage');
const mtp = require('../lib/cli/devices');
for (const c of [
  require('../lib/cli/scan'),
  require('../lib/cli/watch'),
  storage.drives,
  storage.disks,
  mtp.devices,
  mtp.deviceFiles,
  mtp.copyObject,
  require('../lib/cli/version'),
]) {
  commands[c.name] = c;
}
commands.help = makeHelp(commands);
const aliases = { '--help': 'help', '-h': 'help', '--version': 'version', '-v': 'version' };

// The native module writes its progress and some failure lines
// ("Ostrel Initializing ...", "shouldFlush failed again, ...") to standard
// output unless OSTREL_LOG_STDOUT=stderr; the command line keeps standard
// output for its results (JSON lines with --json), so every module line goes
// to standard error here, whatever the caller's environment says.
function loadModule() {
  process.env.OSTREL_LOG_STDOUT = 'stderr';
  try {
    return require(path.join(__dirname, '..'));
  } catch (err) {
    throw new CommandError(err.message);
  }
}

async function main(argv) {
  const io = { stdout: process.stdout, stderr: process.stderr, cwd: process.cwd(), loadModule };
  const [first, ...rest] = argv;
  if (first === undefined) {
    process.stderr.write(overview(commands));
    return 2;
  }
  const name = aliases[first] || first;
  const command = commands[name];
  try {
    if (!command) throw new UsageError(`unknown command '${first}'`);
    return await command.run(rest, io);
  } catch (err) {
    if (err instanceof HelpRequest) {
      process.stdout.write(commandHelp(commands[err.command]));
      return 0;
    }
    if (err instanceof UsageError) {
      const hint = err.command ? `usage: ${commands[err.command].usage}` : "Run 'ostrel help' for the commands.";
      process.stderr.write(`ostrel${err.command ? ` ${err.command}` : ''}: ${err.message}\n${hint}\n`);
      return 2;
    }
    if (err instanceof CommandError) {
      process.stderr.write(`ostrel ${name}: ${err.message}\n`);
      return 1;
    }
    throw err;
  }
}

main(process.argv.slice(2)).then(
  (code) => {
    process.exitCode = code;
  },
  (err) => {
    process.stderr.write(`ostrel: internal error: ${(err && err.stack) || err}\n`);
    process.exitCode = 1;
  },
);
