'use strict';
// Loaded into node.exe's test runner under Wine (not into the test files'
// processes): says on standard error how the runner ended, so that a run
// whose runner ended without its report shows whether it left through
// process.exit (node's runner does so on SIGINT or SIGTERM, with status 0
// and no summary, while test processes are still open) or with nothing left
// to wait for, or was cut off with no word at all.
if (!process.env.NODE_TEST_CONTEXT) {
  const fs = require('fs');
  const say = (what) => {
    try {
      fs.writeSync(2, `wine-js runner: ${what}\n`);
    } catch {}
  };
  const open = () => process._getActiveHandles().map((h) => h.constructor.name).join(',') || 'nothing';
  process.on('exit', (code) => say(`exit ${code}, open: ${open()}`));
}
