'use strict';
// Shared pieces of the watch suites: a session that records everything it
// is given, and waiting for events by predicate.
const fs = require('fs');
const path = require('path');
const ostrel = require('../..');
const helpers = require('./helpers');

// Starts a watch on `root`; resolves once it is ready with
// { events, errors, calls, close, waitFor(predicate, ms) }.
function watch(root, options = {}) {
  return new Promise((resolve, reject) => {
    let close;
    const session = {
      events: [],
      errors: [],
      calls: 0,
      close: () => close(),
      // Resolves when `test()` holds, rejects after `ms` with what was seen.
      waitFor: (test, ms = 10000) => helpers.waitFor(test, 'events', ms).catch((e) => {
        const seen = session.events.map((ev) => [ev.watchEvent, ev.fileName]);
        throw new Error(`${e.message}; events: ${JSON.stringify(seen)} errors: ${JSON.stringify(session.errors)}`);
      }),
    };
    try {
      close = ostrel.StartFileWatch(
        root,
        (arg) => {
          session.calls++;
          if (Array.isArray(arg)) session.events.push(...arg);
          else session.errors.push(arg);
        },
        () => resolve(session),
        options,
      );
    } catch (e) {
      reject(e);
    }
  });
}

const tempDir = (prefix = 'ostrel-watch-') => fs.realpathSync(helpers.tempDir(prefix));

// A session on `root` that test `t` closes when it ends, removing `remove`
// then (Wine may still hold a folder for a moment after the watch closed).
async function watched(t, root = tempDir(), options = {}, remove = root) {
  const w = await watch(root, options);
  t.after(() => {
    w.close();
    fs.rmSync(remove, { recursive: true, force: true, maxRetries: 10 });
  });
  return w;
}

// [event, relative path with "/"] pairs, in delivery order.
const pairs = (events) => events.map((e) => [e.watchEvent, e.fileName.split(path.sep).join('/')]);

module.exports = { ostrel, watch, watched, tempDir, pairs };
