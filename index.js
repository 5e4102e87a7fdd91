'use strict';
// Loads the native module built for this platform and re-exports it as it is.
// Looks in prebuilds/<platform>-<arch>/ first, then in the build folder of
// the platform's preset; OSTREL_BUILD_DIR names another build folder (the
// sanitizer builds use it).
const path = require('path');
const fs = require('fs');

function candidates() {
  const list = [];
  if (process.env.OSTREL_BUILD_DIR) list.push(path.resolve(process.env.OSTREL_BUILD_DIR, 'ostrel.node'));
  list.push(path.join(__dirname, 'prebuilds', `${process.platform}-${process.arch}`, 'ostrel.node'));
  const preset = process.platform === 'win32' ? 'win32' : process.platform;
  list.push(path.join(__dirname, 'build', preset, 'ostrel.node'));
  return list;
}

function load() {
  const tried = candidates();
  for (const file of tried) {
    if (fs.existsSync(file)) return require(file);
  }
  throw new Error(
    `ostrel: no native module for ${process.platform}-${process.arch}; looked in:\n  ${tried.join('\n  ')}\n` +
      "Build it with 'npm run build'.",
  );
}

module.exports = load();
