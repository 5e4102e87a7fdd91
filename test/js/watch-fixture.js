'use strict';
// A watch session that records everything it is given.
const fs = require('fs');
const path = require('path');
const ostrel = require('../..');
const helpers = require('./helpers');

// Resolves once ready with { events, errors, calls, close, waitFor(predicate, ms) }.
function watch(root, options = {}) {
  const session = {
    events: [],
    errors: [],
    calls: 0,
    waitFor: (test, ms = 10000) => helpers.waitFor(test, 'events', ms).catch((e) => {
      const seen = session.events.map((ev) => [ev.watchEvent, ev.fileName]);
      throw new Error(`${e.message}; events: ${JSON.stringify(seen)} errors: ${JSON.stringify(session.errors)}`);
    }),
  };
  const record = (arg) => {
    session.calls++;
    if (Array.isArray(arg)) session.events.push(...arg);
    else session.errors.push(arg);
  };
  // A refusal thrown here rejects the promise.
  return new Promise((resolve) => {
    session.close = ostrel.StartFileWatch(root, record, () => resolve(session), options);
  });
}

const tempDir = (prefix = 'ostrel-watch-') => fs.realpathSync(helpers.tempDir(prefix));

// Closed when test `t` ends; `remove` then removed (with retries: Wine holds it a moment).
async function watched(t, root = tempDir(), options = {}, remove = root) {
  const w = await watch(root, options);
  t.after(() => {
    w.close();
    fs.rmSync(remove, { recursive: true, force: true, maxRetries: 10 });
  });
  return w;
}

const pairs = (events) => events.map((e) => [e.watchEvent, e.fileName.split(path.sep).join('/')]);

const wine = process.platform === 'win32' && (!!process.env.WINEPREFIX || fs.existsSync('Z:\\etc\\passwd'));
const isRoot = process.platform === 'linux' && process.getuid() === 0;
const index = JSON.stringify(path.join(helpers.root, 'index.js'));

module.exports = { ostrel, watch, watched, tempDir, pairs, wine, isRoot, index };
