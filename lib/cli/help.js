'use strict';
// ostrel help [command]: the list of commands, or one command's usage.
const { UsageError, parseCommandArgs } = require('./usage');

function overview(commands) {
  const width = Math.max(...Object.keys(commands).map((n) => n.length));
  const lines = Object.values(commands).map((c) => `  ${c.name.padEnd(width)}  ${c.summary}`);
  return `usage: ostrel <command> [options]\n\ncommands:\n${lines.join('\n')}\n\nRun 'ostrel help <command>' for a command's options.\n`;
}

function commandHelp(command) {
  return `usage: ${command.usage}\n${command.details ? `\n${command.details}` : ''}`;
}

function makeHelp(commands) {
  return {
    name: 'help',
    summary: "show the commands, or one command's options",
    usage: 'ostrel help [command]',
    run(args, io) {
      const { positionals } = parseCommandArgs('help', args, {}, { positionals: 1 });
      if (!positionals.length) {
        io.stdout.write(overview(commands));
        return 0;
      }
      const command = commands[positionals[0]];
      if (!command) throw new UsageError(`unknown command '${positionals[0]}'`);
      io.stdout.write(commandHelp(command));
      return 0;
    },
  };
}

module.exports = { makeHelp, overview, commandHelp };
