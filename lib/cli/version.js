'use strict';
// ostrel version: the native module's own version string.
const { parseCommandArgs } = require('./usage');

module.exports = {
  name: 'version',
  summary: 'print the version of the native module',
  usage: 'ostrel version',
  run(args, io) {
    parseCommandArgs('version', args, {});
    io.stdout.write(`${io.loadModule().getVersion()}\n`);
    return 0;
  },
};
