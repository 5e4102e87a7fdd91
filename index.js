'use strict';
// Loads the native module built for this platform and re-exports it as it is.
// The order follows node-gyp-build's conventions, a local build before the
// packaged one:
//   1. OSTREL_BUILD_DIR/ostrel.node, when that variable names a build folder
//      (the test runs and the sanitizer builds use it);
//   2. build/<platform>/ostrel.node, the preset's build in a clone of the
//      repository (a package holds no build/ folder);
//   3. prebuilds/<platform>-<arch>/ostrel.node, found by node-gyp-build
//      (which also honours OSTREL_PREBUILD=<folder holding prebuilds/>).
const path = require('path');
const fs = require('fs');

const tag = `${process.platform}-${process.arch}`;

function load() {
  const tried = [];
  const local = [];
  if (process.env.OSTREL_BUILD_DIR) local.push(path.resolve(process.env.OSTREL_BUILD_DIR, 'ostrel.node'));
  local.push(path.join(__dirname, 'build', process.platform, 'ostrel.node'));
  for (const file of local) {
    tried.push(file);
    if (fs.existsSync(file)) return require(file);
  }
  let prebuilt;
  try {
    prebuilt = require('node-gyp-build').path(__dirname);
  } catch (err) {
    tried.push(path.join(__dirname, 'prebuilds', tag, 'ostrel.node'));
  }
  if (prebuilt) return require(prebuilt);
  throw new Error(
    `ostrel: no native module for ${tag}; looked for:\n  ${tried.join('\n  ')}\n` +
      (['win32-x64', 'linux-x64'].includes(tag)
        ? "In a clone of the repository, build it with 'npm run compile' (or 'npm run prebuild' for prebuilds/)."
        : 'The package holds modules for win32-x64 and linux-x64 only.'),
  );
}

module.exports = load();
