'use strict';
// Shared pieces of the watch suites: a session that records everything it
// is given, and waiting for events by predicate.
const fs = require('fs');
const os = require('os');
const path = require('path');
const ostrel = require('../..');

// Starts a watch on `root`; resolves once it is ready with
// { events, errors, calls, close, waitFor(predicate, ms) }.
function watch(root, options = {}) {
  return new Promise((resolve, reject) => {
    const events = [];
    const errors = [];
    const waiters = [];
    const check = () => {
      for (let i = waiters.length - 1; i >= 0; i--) {
        if (waiters[i].test()) {
          waiters[i].resolve();
          waiters.splice(i, 1);
        }
      }
    };
    let close;
    const session = {
      events,
      errors,
      calls: 0,
      close: () => close(),
      // Resolves when `test()` holds, rejects after `ms` with what was seen.
      waitFor(test, ms = 10000) {
        return new Promise((res, rej) => {
          if (test()) return res();
          const timer = setTimeout(() => {
            rej(new Error(`timed out; events: ${JSON.stringify(events.map((e) => [e.watchEvent, e.fileName]))} errors: ${JSON.stringify(errors)}`));
          }, ms);
          waiters.push({ test, resolve: () => { clearTimeout(timer); res(); } });
        });
      },
    };
    try {
      close = ostrel.StartFileWatch(
        root,
        (arg) => {
          session.calls++;
          if (Array.isArray(arg)) events.push(...arg);
          else errors.push(arg);
          check();
        },
        () => resolve(session),
        options,
      );
    } catch (e) {
      reject(e);
    }
  });
}

function tempDir(prefix = 'ostrel-watch-') {
  return fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), prefix)));
}

// [event, relative path with "/"] pairs, in delivery order.
const pairs = (events) => events.map((e) => [e.watchEvent, e.fileName.split(path.sep).join('/')]);

module.exports = { ostrel, watch, tempDir, pairs };
