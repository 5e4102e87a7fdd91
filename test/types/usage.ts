// A client of the package as the compiler sees it: every export called with
// the arguments a client passes, every result property read with the type a
// client relies on. `tsc -p test/types` compiles this file with --strict and
// nothing runs it; test/js/typings.test.js compares the declared property
// orders with what the module really returns.
import * as ostrel from '../..';
import type {
  DriveObject,
  FileObject,
  HardwareDiskObject,
  MtpFile,
  ScanResult,
  WatchEvent,
  WatchEventName,
  WatchFileStat,
} from '../..';

const text = (s: string): string => s;
const count = (n: number): number => n;
const flag = (b: boolean): boolean => b;

const version: string = ostrel.getVersion();
text(version);

// ---- scan
function useFile(f: FileObject): void {
  text(f.absolutePath + f.name + f.relativeDir + f.relativePath + f.dirPath);
  flag(f.isFile && f.hidden && f.isSystem && f.readable);
  count(f.size + f.ino + f.ctimeMs + f.mtimeMs + f.birthtimeMs);
}
function useResult(r: ScanResult): void {
  flag(r.fileCountBeyondLimit && r.complete);
  count(r.totalFileCount + r.filteredFileCount + r.hiddenSystemFileCount);
  for (const s of r.skippedFolders) text(s.path + s.reason + count(s.code));
  for (const l of r.loopedFolders) text(l.path + l.sameAs);
}
const closeScan: ostrel.CloseScanFiles = ostrel.ScanAllSubFiles(
  '.',
  (u) => {
    u.nodes.forEach(useFile);
    u.dirs.forEach(useFile);
  },
  useResult,
  {
    fineGrainedDirs: [
      {
        relativeDirPathRegList: ['photos', '20\\d\\d'],
        omits: [{ fileNameReg: 'tmp.*', extList: [] }],
        covers: [{ fileNameReg: '.*', extList: ['jpg'] }],
        extFilter: { excludes: ['raw'] },
      },
    ],
    leaveDirs: ['node_modules'],
    leaveFiles: ['Thumbs.db'],
    extFilter: { includes: ['jpg', 'png', ''] },
    ignoreFileRegs: ['.*\\.tmp'],
    ignoreDirRegs: ['\\.git'],
    returnEmptyFolder: true,
    formatMsToSecond: false,
    needDirs: true,
    fastMetadata: false,
  },
);
closeScan();
ostrel.ScanAllSubFiles('.', () => {}, () => {}, {});

// ---- watch
function useStat(s: WatchFileStat): void {
  text(s.absolutePath + s.name + s.relativePath + s.relativeDir);
  flag(s.isFile && s.hidden && s.isSystem && s.readable);
  count(s.size + s.ino + s.ctimeMs + s.mtimeMs + s.birthtimeMs);
}
const closeWatch: () => void = ostrel.StartFileWatch(
  '.',
  (eventsOrError) => {
    if (Array.isArray(eventsOrError)) {
      for (const e of eventsOrError as WatchEvent[]) {
        const name: WatchEventName = e.watchEvent;
        text(e.fileName + name);
        count(e.action);
        useStat(e.fileStat);
      }
    } else {
      text(eventsOrError.code + eventsOrError.errorReason);
      count(eventsOrError.errorCode);
    }
  },
  () => {},
  { ignoreDirRegs: ['node_modules'], extFilter: { includes: ['txt'] }, watchTargets: ['a'], reportOverflow: true },
);
closeWatch();
ostrel.StartFileWatch('.', () => {}, () => {});

// ---- drives and disks
async function storage(): Promise<void> {
  const drives: DriveObject[] = await ostrel.GetDriveList({ timeoutMs: 1000 });
  for (const d of drives) {
    text(d.mounted + d.capacity + d.filesystem);
    count(d.available + d.blocks + d.used + d.drivetype);
  }
  const disks: HardwareDiskObject[] = await ostrel.GetHardwareDisk();
  for (const d of disks) {
    const kind: 'SSD' | 'HDD' | 'USB' | 'Unknown' = d.storageType;
    text(kind + d.mounted + d.fileSystem + d.interfaceType + d.mediaType + d.model);
    count(d.diskNumber + d.driveType + d.freeSpace + d.size);
  }
}

// ---- portable devices
async function devices(): Promise<void> {
  for (const d of await ostrel.GetMtpDevices()) {
    count(d.index);
    text(d.deviceId + d.deviceName + d.deviceModel + d.deviceProtocol + d.deviceManufacturer + d.deviceSerialNumber);
    const controller = new AbortController();
    const list = await ostrel.GetMtpFilesById(d.deviceId, null, {
      recursive: false,
      onProgress: (p) => count(p.listed),
      signal: controller.signal,
    });
    count(list.photoNum + list.videoNum + list.totalSize);
    const files: MtpFile[] = list.fileList;
    for (const f of files) {
      text(f.objectId + f.parentId + f.name + f.contentType + f.storageId);
      count(f.size + (f.createdMs ?? 0) + (f.modifiedMs ?? 0));
    }
    await ostrel.GetMtpFilesById(d.deviceId);
    const copied = await ostrel.GetMtpFileById(d.deviceId, 'o1', '/tmp/a.jpg', {
      overwrite: true,
      onProgress: (p) => count(p.bytes + p.total),
      signal: controller.signal,
    });
    text(copied.path);
    count(copied.bytes);
    const thumb = await ostrel.GetMtpThumbnailById(d.deviceId, 'o1', '/tmp/a-thumb.jpg');
    text(thumb.path + count(thumb.bytes));
  }
}

// ---- media
async function media(): Promise<void> {
  const none: undefined = ostrel.InitCorvexSync({ corvexDir: '', znetPointer: 0n, znetAvailable: false });
  void none;
  flag(ostrel.CheckExternalTextureSupport());
  count(await ostrel.ReadMediaDuration('movie.mp4'));
  const player: ostrel.CorvexMediaPlayer = await ostrel.CreateMediaPlayer();
  const direct = new ostrel.CorvexMediaPlayer();
  text(player.version);
  count(player.currentTime + player.duration + player.playableDuration);
  flag(player.paused || player.playing || player.buffering);
  player.addEventListener('prepared', function (e) {
    count(e.what + e.extra1 + e.extra2);
    text(e.name + (e.infoName ?? ''));
    for (const [k, v] of Object.entries(e.info ?? {})) text(k + v);
    flag(this === player);
  });
  await player.prepare('https://example.invalid/a.mp4', { headers: { Referer: 'x', 'X-Count': 3 } });
  await player.play();
  await player.play('https://example.invalid/b.mp4');
  await player.playDemo();
  flag(player.pause() && player.setCorvexStr('x') && player.setPlaySpeed(1.5) && player.setVolume(0.5));
  flag(player.setMute(true) && player.seekTo(1000));
  const stopped: true = player.stop();
  const disposed: true = player.dispose();
  flag(stopped && disposed && direct.dispose());
}

// ---- telemetry
const reporter = ostrel.RegisterTvkReporter({
  report(r) {
    count(r.category + (r.wl_avgv1 ?? 0) + (r.w_succ ?? 0));
    text((r.msg ?? '') + (r.c1 ?? '') + (r.bl1 ?? ''));
  },
});
reporter.report({ category: 1 });
ostrel.ReportTest(undefined);
ostrel.UnRegisterTvkReporters();
const tracer = ostrel.RegisterTracer({
  startSpan(name) {
    text(name);
    return {
      setAttribute: (key: string, value: string | number) => text(key + value),
      end: () => undefined,
    };
  },
});
void tracer;
ostrel.UnRegisterTracers();
ostrel.RegisterFact({ corvex: (name, attributes) => text(name + Object.keys(attributes).join()) });

export const run = (): Promise<void[]> => Promise.all([storage(), devices(), media()]);
