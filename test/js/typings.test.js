'use strict';
// index.d.ts (read with TypeScript's parser) against the module: the exports
// in the module's order, and the declared properties (names, order, primitive
// types) of what it really returns.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const path = require('path');
const ts = require('typescript');
const { root, isWindows } = require('./helpers');
const ostrel = require('../..');
const { watch, tempDir } = require('./watch-fixture');
const { scan, makeTree, removeTree } = require('./scan-fixture');

const source = ts.createSourceFile('index.d.ts', fs.readFileSync(path.join(root, 'index.d.ts'), 'utf8'), ts.ScriptTarget.Latest, true);
const exported = (node) => (ts.getModifiers(node) || []).some((m) => m.kind === ts.SyntaxKind.ExportKeyword);

// The exported functions and classes, in declaration order.
const declaredExports = source.statements
  .filter((s) => exported(s) && (ts.isFunctionDeclaration(s) || ts.isClassDeclaration(s)))
  .map((s) => s.name.text);

// name -> [{ name, optional, type }] for every exported interface.
const interfaces = new Map();
for (const s of source.statements) {
  if (!exported(s) || !ts.isInterfaceDeclaration(s)) continue;
  interfaces.set(
    s.name.text,
    s.members.filter(ts.isPropertySignature).map((m) => ({ name: m.name.text, optional: !!m.questionToken, type: m.type })),
  );
}

const primitive = {
  [ts.SyntaxKind.StringKeyword]: 'string',
  [ts.SyntaxKind.NumberKeyword]: 'number',
  [ts.SyntaxKind.BooleanKeyword]: 'boolean',
};

// `value` has exactly the declared properties (optional ones may be missing),
// in the declared order, with the declared primitive types.
function conforms(value, name) {
  const members = interfaces.get(name);
  assert.ok(members, `index.d.ts declares no interface ${name}`);
  const keys = Object.keys(value);
  const expected = members.filter((m) => !m.optional || keys.includes(m.name)).map((m) => m.name);
  assert.deepEqual(keys, expected, `${name}: the module's keys against the declared ones`);
  for (const m of members) {
    if (!(m.name in value)) continue;
    const v = value[m.name];
    if (primitive[m.type.kind]) assert.equal(typeof v, primitive[m.type.kind], `${name}.${m.name}`);
    else if (ts.isArrayTypeNode(m.type)) assert.ok(Array.isArray(v), `${name}.${m.name} is an array`);
    else if (ts.isLiteralTypeNode(m.type) && ts.isStringLiteral(m.type.literal)) assert.equal(v, m.type.literal.text, `${name}.${m.name}`);
  }
}

test('the exports are declared in the order the module attaches them', () => {
  assert.deepEqual(declaredExports, Object.keys(ostrel));
});

test('scan results have the declared properties, in order', async (t) => {
  const dir = makeTree({ files: { 'sub/a.txt': 'a' } });
  t.after(() => removeTree(dir));
  const updates = [];
  const result = await new Promise((resolve) => {
    ostrel.ScanAllSubFiles(dir, (u) => updates.push(u), resolve, { needDirs: true });
  });
  for (const u of updates) conforms(u, 'ScanUpdate');
  conforms(result, 'ScanResult');
  const objects = updates.flatMap((u) => [...u.nodes, ...u.dirs]);
  assert.equal(objects.length, 2);
  for (const f of objects) conforms(f, 'FileObject');
  const { result: missing } = await scan(path.join(dir, 'none'));
  assert.equal(missing.skippedFolders.length, 1);
  conforms(missing.skippedFolders[0], 'SkippedFolder');
});

test('watch events and failures have the declared properties, in order', async () => {
  const dir = tempDir('ostrel-typings-');
  const session = await watch(dir);
  try {
    fs.writeFileSync(path.join(dir, 'new.txt'), 'x');
    // A busy machine under Wine may take many seconds.
    await session.waitFor(() => session.events.some((e) => e.fileName === 'new.txt'), 60000);
    const event = session.events.find((e) => e.fileName === 'new.txt');
    conforms(event, 'WatchEvent');
    conforms(event.fileStat, 'WatchFileStat');
    if (!isWindows) {
      // The root's removal (under Wine noticed late and slowly).
      fs.rmSync(dir, { recursive: true, force: true });
      await session.waitFor(() => session.errors.length > 0, 60000);
      conforms(session.errors[0], 'WatchError');
    }
  } finally {
    session.close();
    fs.rmSync(dir, { recursive: true, force: true });
  }
});

test('drive and disk lists have the declared properties, in order', async () => {
  // Natively a stalled mount of another test must not hold this one up.
  const options = isWindows ? {} : { timeoutMs: 15000 };
  const [drives, disks] = await Promise.all([ostrel.GetDriveList(options), ostrel.GetHardwareDisk(options)]);
  assert.ok(drives.length + disks.length > 0, 'this machine lists drives or disks');
  for (const d of drives) conforms(d, 'DriveObject');
  for (const d of disks) conforms(d, 'HardwareDiskObject');
});
