'use strict';
// Per-name cost of the scan's name expressions: the former general engine
// (std::wregex), Boost.Regex (the general engine now) and the direct matcher
// for literals, lists and ".*" forms, with the ratios to std::wregex. The
// measuring is native (bench/regex_bench.cc, built here on demand, never by
// the normal build); the Windows build runs under Wine.
//   node bench/regex.js [--rounds N]          build/linux, or OSTREL_BUILD_DIR
//   node bench/regex.js --wine [--rounds N]   build/win32, or OSTREL_WIN_BUILD_DIR
const path = require('path');
const fs = require('fs');
const { spawnSync } = require('child_process');

const root = path.resolve(__dirname, '..');
const args = process.argv.slice(2);
const wine = args.includes('--wine');
const roundsAt = args.indexOf('--rounds');
const rounds = roundsAt >= 0 ? String(Number(args[roundsAt + 1]) || 7) : '7';

const envDir = wine ? process.env.OSTREL_WIN_BUILD_DIR : process.env.OSTREL_BUILD_DIR;
const buildDir = path.resolve(root, envDir || path.join('build', wine ? 'win32' : 'linux'));
if (!fs.existsSync(path.join(buildDir, 'CMakeCache.txt'))) {
  console.error(`${buildDir} is not a configured build folder: run npm run compile first (or set ${wine ? 'OSTREL_WIN_BUILD_DIR' : 'OSTREL_BUILD_DIR'})`);
  process.exit(2);
}
const build = spawnSync('cmake', ['--build', buildDir, '--target', 'ostrel_regex_bench'], { stdio: ['ignore', 'ignore', 'inherit'] });
if (build.status !== 0) process.exit(build.status || 1);

const exe = path.join(buildDir, wine ? 'ostrel_regex_bench.exe' : 'ostrel_regex_bench');
const run = wine
  ? spawnSync('wine', [exe, rounds], {
      stdio: ['ignore', 'inherit', 'inherit'],
      env: { ...process.env, WINEPREFIX: process.env.WINEPREFIX || path.join(root, 'build', 'wine-prefix'), WINEDEBUG: '-all' },
    })
  : spawnSync(exe, [rounds], { stdio: ['ignore', 'inherit', 'inherit'] });
process.exit(run.status === null ? 1 : run.status);
