'use strict';
// Deterministic folder tree for the scan benchmark. The same seed and file
// count always give the same folders, names and sizes, so runs on different
// days (and the native and Wine runs) measure the same tree.
//
// Shape: about 20 files per folder on average, folders nested up to 6 levels
// below the root, a few "big" folders holding 5,000 files each per 100,000,
// mixed extensions (upper-case ones, double ones, none), about 2% hidden
// files and 3% hidden folders (names starting with "."), a few non-ASCII
// names. The tree is written once under build/bench-trees/<label>/ and a
// marker file build/bench-trees/<label>.json records its parameters and
// counts; a tree whose marker matches is reused.
const fs = require('fs');
const path = require('path');

const TREE_VERSION = 1;
const MAX_DEPTH = 6;
const FILES_PER_FOLDER = 20;

// mulberry32: small, fast, good enough for picking names and sizes.
function prng(seed) {
  let a = seed >>> 0;
  return function next() {
    a = (a + 0x6d2b79f5) >>> 0;
    let t = a;
    t = Math.imul(t ^ (t >>> 15), t | 1);
    t ^= t + Math.imul(t ^ (t >>> 7), t | 61);
    return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
  };
}

const WORDS = [
  'photo', 'IMG', 'report', 'notes', 'backup', 'invoice', 'draft', 'scan', 'holiday', 'project',
  'data', 'video', 'music', 'design', 'budget', 'archive', 'cache', 'thumb', 'export', 'final',
];
const UNICODE_WORDS = ['café', 'фото', '写真', 'naïve', 'Ünïcødé', 'résumé'];
// [extension, weight]; '' is a file without extension.
const EXTENSIONS = [
  ['.jpg', 22], ['.JPG', 4], ['.png', 10], ['.heic', 4], ['.mp4', 5], ['.mov', 2],
  ['.txt', 10], ['.md', 4], ['.pdf', 6], ['.docx', 5], ['.xlsx', 3], ['.js', 6],
  ['.json', 5], ['.log', 3], ['.tar.gz', 2], ['', 4], ['.tmp', 2], ['.DS_Store', 1],
];
const EXT_TOTAL = EXTENSIONS.reduce((s, [, w]) => s + w, 0);

function pickExt(rnd) {
  let x = rnd() * EXT_TOTAL;
  for (const [ext, w] of EXTENSIONS) {
    x -= w;
    if (x < 0) return ext;
  }
  return '';
}

function pickWord(rnd) {
  if (rnd() < 0.01) return UNICODE_WORDS[Math.floor(rnd() * UNICODE_WORDS.length)];
  return WORDS[Math.floor(rnd() * WORDS.length)];
}

// Calls onFolder(relPath) for every folder below the root, parents first,
// then onFile(relPath, size, hidden) for every file. Pure: no file system.
function layout({ files, seed }, onFolder, onFile) {
  const rnd = prng(seed);
  const folderCount = Math.max(1, Math.round(files / FILES_PER_FOLDER));
  const folders = [{ rel: '', depth: 0 }];
  const eligible = [0]; // folders that may still get sub-folders
  for (let i = 1; i < folderCount; i++) {
    // The shallower of two random candidates: broad near the root, like real
    // trees, while still reaching the full depth.
    const a = folders[eligible[Math.floor(rnd() * eligible.length)]];
    const b = folders[eligible[Math.floor(rnd() * eligible.length)]];
    const parent = b.depth < a.depth ? b : a;
    const hidden = rnd() < 0.03;
    const name = `${hidden ? '.' : ''}${pickWord(rnd)}_${i}`;
    const rel = parent.rel ? `${parent.rel}/${name}` : name;
    const depth = parent.depth + 1;
    folders.push({ rel, depth });
    if (depth < MAX_DEPTH) eligible.push(i);
    onFolder(rel);
  }
  // A few big folders take 15% of the files between them.
  const bigCount = Math.max(1, Math.round((files / 100000) * 3));
  const big = [];
  for (let i = 0; i < bigCount; i++) big.push(folders[Math.floor(rnd() * folders.length)]);
  const bigFiles = Math.floor(files * 0.15);
  for (let i = 0; i < files; i++) {
    const folder = i < bigFiles ? big[i % bigCount] : folders[Math.floor(rnd() * folders.length)];
    const hidden = rnd() < 0.02;
    const name = `${hidden ? '.' : ''}${pickWord(rnd)}_${i}${pickExt(rnd)}`;
    const size = rnd() < 0.3 ? 0 : Math.floor(rnd() ** 3 * 1024);
    onFile(folder.rel ? `${folder.rel}/${name}` : name, size, hidden);
  }
  return folders.length - 1;
}

function treesRoot(repoRoot) {
  return path.join(repoRoot, 'build', 'bench-trees');
}

function labelFor(files) {
  if (files % 1000000 === 0) return `${files / 1000000}m`;
  if (files % 1000 === 0) return `${files / 1000}k`;
  return String(files);
}

function readMarker(markerPath) {
  try {
    return JSON.parse(fs.readFileSync(markerPath, 'utf8'));
  } catch {
    return null;
  }
}

// Returns the tree's marker ({ dir, files, folders, hiddenFiles, bytes, ... }),
// writing the tree first unless a matching one is already there. With
// `generate: false` a missing tree is an error (used under Wine, where
// creating a million small files is far too slow).
function ensureTree({ repoRoot, files = 100000, seed = 1, generate = true, log = () => {} }) {
  const label = labelFor(files);
  const dir = path.resolve(treesRoot(repoRoot), label);
  const markerPath = `${dir}.json`;
  const want = { version: TREE_VERSION, files, seed, maxDepth: MAX_DEPTH };
  const marker = readMarker(markerPath);
  if (marker && Object.keys(want).every((k) => marker[k] === want[k]) && fs.existsSync(dir)) {
    return { ...marker, dir };
  }
  if (!generate) {
    throw new Error(
      `no benchmark tree for ${files} files at ${dir}; generate it natively first: node bench/scan/run.js --files ${files} --generate-only`,
    );
  }
  log(`writing a ${files}-file tree to ${dir} ...`);
  const t0 = process.hrtime.bigint();
  fs.rmSync(markerPath, { force: true });
  fs.rmSync(dir, { recursive: true, force: true });
  fs.mkdirSync(dir, { recursive: true });
  const content = Buffer.alloc(1024, 'ostrel benchmark data\n');
  let hiddenFiles = 0;
  let bytes = 0;
  const folders = layout(
    want,
    (rel) => fs.mkdirSync(path.join(dir, rel)),
    (rel, size, hidden) => {
      fs.writeFileSync(path.join(dir, rel), content.subarray(0, size));
      if (hidden) hiddenFiles++;
      bytes += size;
    },
  );
  const result = { ...want, folders, hiddenFiles, bytes };
  fs.writeFileSync(markerPath, JSON.stringify(result, null, 2) + '\n');
  log(`tree written in ${(Number(process.hrtime.bigint() - t0) / 1e9).toFixed(1)} s`);
  return { ...result, dir };
}

module.exports = { ensureTree, layout, labelFor, treesRoot, prng };
