'use strict';
// Errors of the CLI's commands. A UsageError (the command was called wrongly)
// makes the dispatcher print its message with a hint and exit with status 2;
// a CommandError (the command could not do its work) exits with status 1.
class UsageError extends Error {
  constructor(message, command) {
    super(message);
    this.name = 'UsageError';
    this.command = command;
  }
}

class CommandError extends Error {
  constructor(message) {
    super(message);
    this.name = 'CommandError';
  }
}

// --help / -h on any command: the dispatcher prints that command's usage.
class HelpRequest extends Error {
  constructor(command) {
    super(`help for ${command}`);
    this.command = command;
  }
}

// Reads argv with node's parseArgs, turning its errors into UsageError.
function parseCommandArgs(command, args, options, { positionals = 0 } = {}) {
  const { parseArgs } = require('util');
  let parsed;
  try {
    parsed = parseArgs({
      args,
      options: { ...options, help: { type: 'boolean', short: 'h' } },
      allowPositionals: true,
      strict: true,
    });
  } catch (err) {
    const option = /'(-[^' ]*)/.exec(err.message);
    if (err.code === 'ERR_PARSE_ARGS_UNKNOWN_OPTION' && option) {
      throw new UsageError(`unknown option '${option[1]}'`, command);
    }
    throw new UsageError(err.message, command);
  }
  if (parsed.values.help) throw new HelpRequest(command);
  if (parsed.positionals.length > positionals) {
    throw new UsageError(`unexpected argument '${parsed.positionals[positionals]}'`, command);
  }
  return parsed;
}

// The folder a command works on: `given` resolved against `cwd` (the
// current folder when absent); a CommandError when it is missing or not a
// folder.
function folderArgument(given, cwd) {
  const fs = require('fs');
  const path = require('path');
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

module.exports = { UsageError, CommandError, HelpRequest, parseCommandArgs, folderArgument };
