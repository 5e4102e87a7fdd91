// Type declarations for ostrel, the native add-on of the desktop client.
// The types come first, by subsystem; the twenty exports follow at the end in
// the order the module attaches them, which is the order
// Object.keys(require('ostrel')) lists. `npm test` compiles this file with
// `tsc --strict` against test/types/usage.ts.
//
// Conventions shared by every export:
// - A wrong argument count throws Error("Wrong number of arguments")
//   synchronously (TypeError for the telemetry registrations); a wrong
//   argument type throws Error("Wrong arguments"). Nothing is started then.
// - Asynchronous failures reject with an Error whose message is the failure
//   text (no `code`), or reach a session's callback as an error object.
// - Every callback runs on the main thread.
// - A pending operation or an open session keeps the process alive; closing
//   it lets the process exit.

// ---------------------------------------------------------------- watch --
// See docs/watch.md.

/**
 * What a changed item is: the scan's file object without dirPath, and with
 * relativePath before relativeDir. Own properties in exactly this order.
 */
export interface WatchFileStat {
  absolutePath: string;
  name: string;
  relativePath: string;
  relativeDir: string;
  isFile: boolean;
  hidden: boolean;
  isSystem: boolean;
  size: number;
  ino: number;
  ctimeMs: number;
  mtimeMs: number;
  birthtimeMs: number;
  readable: boolean;
}

export type WatchEventName =
  | 'add' | 'addDir' | 'unlink' | 'unlinkDir' | 'change' | 'changeDir'
  | 'renameOld' | 'renameOldDir' | 'rename' | 'renameDir' | 'unknown';

/** One change. Properties in this order. */
export interface WatchEvent {
  /** The name relative to the watched root, with the platform's separator. */
  fileName: string;
  watchEvent: WatchEventName;
  /** 1 added, 2 removed, 3 modified, 4 renamed (old name), 5 renamed (new name). */
  action: number;
  fileStat: WatchFileStat;
}

/**
 * A watch failure. errorCode 17 / "Directory deleted" / "REMOVED" when the
 * root went away (watching resumes when it comes back); the system's error
 * code and message with code "" when the root cannot be watched; 1022 /
 * ... / "OVERFLOW" when changes were lost and reportOverflow is set; the
 * errno (28 for the inotify limit) / "<n> folders are not watched: ..." /
 * "UNWATCHED" when part of the tree could not be watched (as "OVERFLOW"
 * with reportOverflow); 84 (Windows 1113) / "A name that is not valid
 * Unicode is not reported: ..." / "INVALID_NAME", once per such name.
 */
export interface WatchError {
  errorCode: number;
  errorReason: string;
  code: string;
}

export interface WatchOptions {
  /** Folder rules as ScanAllSubFiles takes them: only items inside a selected folder are reported. */
  fineGrainedDirs?: ScanOptions['fineGrainedDirs'];
  /** Extension filter for files, as ScanAllSubFiles takes it. */
  extFilter?: ScanOptions['extFilter'];
  /** A change whose path has any component fully matching one of these is not reported, however deep. */
  ignoreDirRegs?: string[];
  /** Kept by the session; they do not narrow the events. */
  watchTargets?: string[];
  /** Deliver a lost interval of changes as a WatchError with code "OVERFLOW" (default false: silent). */
  reportOverflow?: boolean;
}

// ---------------------------------------------------------- storage --
// See docs/storage.md.

/** One logical drive. Properties in this order. */
export interface DriveObject {
  /** The drive: "C:" on Windows, the mount point on Linux. */
  mounted: string;
  /** Free bytes. */
  available: number;
  /** Size in bytes. */
  blocks: number;
  /** blocks - available, computed without a check: wraps to a huge number when available > blocks. */
  used: number;
  /** Always "". */
  capacity: "";
  /** The drive's description text ("Local Fixed Disk"), not a file system name; "unknown" when the system gives none. */
  filesystem: string;
  /** 2 removable, 3 local, 4 network, 5 compact disc, 6 RAM disk; 0 when unknown. */
  drivetype: number;
}

/** One mounted logical disk with the physical disk under it. Properties in this order. */
export interface HardwareDiskObject {
  /** "C:" on Windows, the mount point on Linux. */
  mounted: string;
  storageType: 'SSD' | 'HDD' | 'USB' | 'Unknown';
  /** The physical disk's number; -1000 when unknown (network drive, spanned volume). */
  diskNumber: number;
  /** The drive type code, as DriveObject.drivetype. */
  driveType: number;
  /** The file system's name ("NTFS", "ext4"). */
  fileSystem: string;
  freeSpace: number;
  size: number;
  /** The physical disk's interface ("SCSI", "IDE", "USB"); "" without a physical disk. */
  interfaceType: string;
  /** The physical disk's media type; "" without a physical disk. */
  mediaType: string;
  /** The physical disk's model; "" without a physical disk. */
  model: string;
}

export interface StorageListOptions {
  /**
   * Answer after at most this many milliseconds (0 to 2147483647) with the
   * entries read by then; the system's query is left to end by itself.
   * Default: wait as long as the system takes. Any other value throws a TypeError.
   */
  timeoutMs?: number;
}

// ---- Portable devices (docs/mtp.md). Windows; on Linux GetMtpDevices
// resolves [] and the other three reject "... is not supported on this platform".

/** An attached device that speaks MTP (properties in this order). */
export interface MtpDevice {
  /** Position among the listed MTP devices, from 0. */
  index: number;
  deviceId: string;
  deviceName: string;
  deviceModel: string;
  deviceProtocol: string;
  deviceManufacturer: string;
  deviceSerialNumber: string;
}

export type MtpContentType = 'IMAGE' | 'VIDEO' | 'FOLDER' | 'UNKNOW';

/** One object of a device listing (properties in this order). */
export interface MtpFile {
  objectId: string;
  parentId: string;
  /**
   * The original file name, else the object name, else "". The device's own
   * text: may hold "..", separators, control characters or reserved names;
   * never join it into a local path unchecked (docs/mtp.md, "Names").
   */
  name: string;
  contentType: MtpContentType;
  /** Bytes; 0 when the device does not say. */
  size: number;
  /**
   * The device's wall-clock time (an MTP date has no zone) as milliseconds
   * since 1970-01-01 of that reading taken as UTC: read it with the getUTC*
   * methods. null when the device does not say (docs/mtp.md, "Dates").
   */
  createdMs: number | null;
  modifiedMs: number | null;
  /** The storage (top-level functional object) the object lives on. */
  storageId: string;
}

export interface MtpFileList {
  /** Number of "IMAGE" entries. */
  photoNum: number;
  /** Number of "VIDEO" entries. */
  videoNum: number;
  /** Sum of the sizes of the "IMAGE" and "VIDEO" entries. */
  totalSize: number;
  fileList: MtpFile[];
}

export interface MtpListOptions {
  /** Descend into folders and storages (default true). */
  recursive?: boolean;
  /** Called on the main thread at most every 200 ms while listing. */
  onProgress?: (progress: { listed: number }) => void;
  /** Aborting rejects with "GetMtpFilesById was cancelled". */
  signal?: AbortSignal;
}

export interface MtpCopyOptions {
  /** Replace an existing destination (default false: reject instead). */
  overwrite?: boolean;
  /** Called on the main thread at most every 200 ms; total is 0 when unknown. */
  onProgress?: (progress: { bytes: number; total: number }) => void;
  /** Aborting rejects with "The copy was cancelled" and leaves no file. */
  signal?: AbortSignal;
}

export interface MtpCopyResult {
  path: string;
  bytes: number;
}

// ----------------------------------------------------------------- media --
// The media bridge over the closed media SDK (see docs/media.md). The SDK is
// found automatically by CreateMediaPlayer and ReadMediaDuration, or named
// with InitCorvexSync.

export interface InitCorvexOptions {
  /** The folder holding the SDK's three libraries: an absolute path (an empty or relative one is refused and logged). */
  corvexDir: string;
  /** The address of the host's network library instance. */
  znetPointer?: bigint;
  /** Bind the network library (only with a BigInt znetPointer). */
  znetAvailable?: boolean;
}

/** Script event names; any other name is registered as "info". */
export type CorvexEventName =
  | 'prepared' | 'playback_complete' | 'buffering_update' | 'seek_complete' | 'started'
  | 'paused' | 'stopped' | 'skipped' | 'error' | 'info';

/** What a listener receives for one SDK notification. */
export interface CorvexEvent {
  /** The SDK's event code (1 prepared, 2 playback complete, 200 info ...). */
  what: number;
  /** Its name: "MEDIA_PREPARED", "MEDIA_INFO" ...; "UNKNOWN" for other codes. */
  name: string;
  /** For info events (200) the info code. */
  extra1: number;
  extra2: number;
  /** Info events only: "MEDIA_INFO_BUFFERING_START", "MEDIA_INFO_UNKNOWN(803)" ... */
  infoName?: string;
  /** The notification's string map, in the SDK's order, when it has one. */
  info?: Record<string, string>;
}

export interface CorvexPrepareOptions {
  /** Request headers: own enumerable properties, names and values converted to strings. */
  headers?: Record<string, unknown>;
}

// ------------------------------------------------------------- telemetry --
// Script-side receivers of the add-on's telemetry. Every delivery happens
// on the main thread; the return values of the methods are ignored. Each
// export here throws TypeError("Wrong number of arguments") for a wrong
// argument count and TypeError("Wrong arguments") for a primitive where an
// object is expected.

/** An event record; every property but `category` is present only when set, in this order. */
export interface TvkRecord {
  category: number;
  msg?: string;
  c1?: string; c2?: string; c3?: string; c4?: string; c5?: string;
  bl1?: string; bl2?: string; bl3?: string; bl4?: string; bl5?: string;
  wl_avgv1?: number; wl_avgv2?: number; wl_avgv3?: number; wl_avgv4?: number; wl_avgv5?: number;
  w_succ?: number;
  /** Extra entries, in key order. */
  [extra: string]: string | number | undefined;
}

export interface TvkReporter {
  report(record: TvkRecord): unknown;
}

/**
 * Attributes of an "api_stat" span, set in this order: "dim_9" (add-on
 * version), "dim_0" (name), "indsum_0" (count), "indsum_1" (records that did
 * not store an error), "indsum_2" (sum of ms), "dim_1" (first non-zero code,
 * else 0), "dim_2" (its message), "indavg_0" (largest ms).
 */
export interface ApiStatSpan {
  setAttribute(key: string, value: string | number): unknown;
  end(): unknown;
}

export interface Tracer {
  startSpan(name: 'api_stat'): ApiStatSpan;
}

export interface FactSink {
  corvex(name: string, attributes: Record<string, string>): unknown;
}

// ------------------------------------------------------- end of telemetry --

// ------------------------------------------------------------------ scan --
// ScanAllSubFiles walks a folder tree and hands every kept file (and, on
// request, folder) to script in batches. See docs/scan.md for the details.

/** One file or folder. Own properties in exactly this order. */
export interface FileObject {
  /** The full path (Windows: backslashes; a relative root is made absolute). */
  absolutePath: string;
  /** The last component, with its extension. */
  name: string;
  /**
   * The parent folder relative to the root: "" at the root level. The first
   * character is dropped when it is a "." (entries of a first-level folder
   * ".cache" report "cache"), as the client has always received it.
   */
  relativeDir: string;
  /** The path relative to the root, with the platform's separator. */
  relativePath: string;
  /** The scan's root exactly as it was passed. */
  dirPath: string;
  isFile: boolean;
  /** Windows: the hidden attribute. Linux: the name starts with ".". */
  hidden: boolean;
  /** Windows: the system attribute. Linux: always false. */
  isSystem: boolean;
  /** Bytes (end of file); 0 when unreadable. */
  size: number;
  /** The file system's 64-bit file id / inode number; 0 when unreadable. */
  ino: number;
  /** Last metadata change, ms since 1970 UTC, sub-millisecond part kept. */
  ctimeMs: number;
  /** Last write, ms since 1970 UTC. */
  mtimeMs: number;
  /**
   * Creation, ms since 1970 UTC. 0 where the file system keeps none (some
   * Linux file systems). Under Wine it equals the last-write time.
   */
  birthtimeMs: number;
  /**
   * False when the metadata may not be read (access denied), or could not
   * be read after 11 attempts 100 ms apart; the numbers are then 0.
   */
  readable: boolean;
}

/** The argument of the update callback. */
export interface ScanUpdate {
  /** Files (isFile true). */
  nodes: FileObject[];
  /** Folders, when `needDirs` or `returnEmptyFolder` asks for them. */
  dirs: FileObject[];
}

/** A folder the scan could not (wholly) list: its files, or some of them, are not in the updates. */
export interface SkippedFolder {
  /** The root exactly as it was passed, the platform's separator, the folder's path relative to the root (the root alone when the root could not be listed). */
  path: string;
  /** The platform's error number: errno on Linux (24 EMFILE, 2 ENOENT for a root), the Win32 error on Windows (3, 31, 206, ...); 0 when the walk itself failed. */
  code: number;
  /** The system's short text for `code` ("Too many open files"), prefixed for a listing that broke off part-way ("the listing stopped part-way: ...") or a failure of the walk itself ("the walk stopped: ..."). */
  reason: string;
}

/** A folder not walked because it is one of its own ancestors (same volume and file id), reached through a link, junction or mount. No loss: its files are delivered under the ancestor. */
export interface LoopedFolder {
  /** Its path, formed as SkippedFolder.path. */
  path: string;
  /** The ancestor it leads back to, in the same form. */
  sameAs: string;
}

/** A folder holding entries whose names are not valid Unicode, which the scan left out. */
export interface InvalidNameFolder {
  /** Its path, formed as SkippedFolder.path. */
  path: string;
  /** How many of its entries were left out. */
  count: number;
}

/** The argument of the result callback, in this property order. */
export interface ScanResult {
  /** totalFileCount reached 10,000,000 (the walk still goes on). */
  fileCountBeyondLimit: boolean;
  /** Files the walk produced, before any filter (leave lists and ignored folders excluded). */
  totalFileCount: number;
  /** Files left out by a filter, plus hidden-and-system files. */
  filteredFileCount: number;
  /** Files with both the hidden and the system attribute (Windows). */
  hiddenSystemFileCount: number;
  /**
   * Entries that are neither regular files nor folders, not delivered: FIFOs,
   * sockets, character and block devices (Linux), and in the default mode
   * links that lead to one (a link to /dev/null). Counted in
   * `totalFileCount` too, after the filters (a filtered one counts as
   * filtered). The fast mode reports links as themselves, so only the
   * entries themselves count there.
   */
  specialFileCount: number;
  /**
   * Entries (files and folders) whose names are not valid Unicode (bytes
   * that are not UTF-8 on Linux, an unpaired surrogate on Windows): never
   * delivered, since the path script would get does not exist; a folder
   * among them is not walked. `invalidNameFolders` names where they are.
   */
  invalidNameCount: number;
  /**
   * True when `skippedFolders` and `invalidNameFolders` are empty: every
   * folder the walk reached was listed to its end, apart from folders that
   * vanished during the scan or may not be listed (access denied), which
   * are left out silently below the root, and every entry listed could be
   * reported. False means files may exist that the updates did not report:
   * a caller that acts on missing files (deleting copies) must not.
   */
  complete: boolean;
  /**
   * Folders the walk could not list, or stopped listing part-way, each
   * once, in the order met. The root is named whatever kept it from being
   * listed (missing, not a folder, access denied, ...); a folder below it
   * only for another reason than having vanished or being denied (a path
   * past the system's limit, too many open files, an I/O error). The walk
   * goes on after each.
   */
  skippedFolders: SkippedFolder[];
  /** Folders not walked again because they lead back to an ancestor. Informational: they do not make the scan incomplete. */
  loopedFolders: LoopedFolder[];
  /** Folders holding entries whose names are not valid Unicode, each once, with how many; they make the scan incomplete. */
  invalidNameFolders: InvalidNameFolder[];
}

/** An extension filter: extensions without the dot; "" means "no extension". */
export interface ExtFilter {
  /** Keep only these. A filter with neither list rejects every file. */
  includes?: string[];
  /** Drop these; once given (even empty) `includes` is not looked at. */
  excludes?: string[];
}

/** An element of a rule's `omits` or `covers`. */
export interface MatchEntry {
  /** ECMAScript expression, full match on the stem (the name without its last extension), case-sensitive. */
  fileNameReg: string;
  /** Extensions taken with it, kept as given (so only lower-case entries can match); empty: any. */
  extList: string[];
}

/** A fine-grained rule: a folder reached level by level, with what to take there. */
export interface FineGrainedRule {
  /** One expression per level below the root, each fully matching that level's folder name. */
  relativeDirPathRegList: string[];
  /** Files to leave out; an omit always wins over a cover. */
  omits: MatchEntry[];
  /** Files to take; when not empty, only these. */
  covers: MatchEntry[];
  /** Replaces the scan-level extFilter for this rule; entries are NOT lower-cased. */
  extFilter?: ExtFilter;
}

/** Every key is optional; a value of the wrong type counts as absent. */
export interface ScanOptions {
  /** Walk only the folders these rules reach (each rule in turn; overlapping rules report shared files once per rule). */
  fineGrainedDirs?: FineGrainedRule[];
  /** Folders left alone with everything beneath them, uncounted: paths relative to the root or absolute under it. */
  leaveDirs?: string[];
  /** Files left alone, uncounted: paths relative to the root or absolute under it. */
  leaveFiles?: string[];
  /** Scan-level extension filter; entries are lower-cased (ASCII) when read. */
  extFilter?: ExtFilter;
  /** ECMAScript expressions fully matching a file's whole name; a match drops the file (counted as filtered). */
  ignoreFileRegs?: string[];
  /** ECMAScript expressions fully matching a folder's name; a match skips the folder and its sub-tree, uncounted. */
  ignoreDirRegs?: string[];
  /** Also deliver, in "dirs", folders that hold no entry at all. Default false. */
  returnEmptyFolder?: boolean;
  /** Round ctimeMs and mtimeMs down to whole seconds (still in ms); birthtimeMs is left as it is. Default false. */
  formatMsToSecond?: boolean;
  /** Deliver every folder below the root (or below each rule's folder) in "dirs". Default false. */
  needDirs?: boolean;
  /**
   * Take metadata from the directory listing instead of opening every entry
   * (Windows: several times faster). Differences: no `readable` detection on
   * Windows (always true), links report their own metadata, no per-file call
   * statistic, no retries. Default false.
   */
  fastMetadata?: boolean;
}

/** Stops the scan it was returned by; no callback runs afterwards. Idempotent. */
export type CloseScanFiles = () => void;

// ------------------------------------------------------------ end of scan --

// --------------------------------------------------------------- exports --
// The twenty exports, in the order the module attaches them (Object.keys).

/**
 * Watches the folder tree at `root`. `onEvent` receives arrays of events
 * (in the order of the changes, per kind: files, folders) and WatchError
 * objects; `onReady` is called with no arguments once the watch is armed
 * (again after the root came back). Returns "CloseFileWatch", which stops
 * the session; calling it again does nothing. Throws "Wrong number of
 * arguments" for other than 3 or 4 arguments, "Wrong arguments" for wrong
 * types, and an Error naming the option for a pattern that does not compile.
 */
export function StartFileWatch(
  root: string,
  onEvent: (eventsOrError: WatchEvent[] | WatchError) => void,
  onReady: () => void,
  options?: WatchOptions,
): () => void;

export function GetMtpDevices(): Promise<MtpDevice[]>;

/** Lists the objects under a folder (the whole device when omitted). */
export function GetMtpFilesById(
  deviceId: string,
  folderObjectId?: string | null,
  options?: MtpListOptions,
): Promise<MtpFileList>;

/** Copies an object's data to a new local file. */
export function GetMtpFileById(
  deviceId: string,
  objectId: string,
  destinationPath: string,
  options?: MtpCopyOptions,
): Promise<MtpCopyResult>;

/** Copies an object's thumbnail to a new local file. */
export function GetMtpThumbnailById(
  deviceId: string,
  objectId: string,
  destinationPath: string,
  options?: MtpCopyOptions,
): Promise<MtpCopyResult>;

/**
 * Walks `root` depth first. `update` receives batches (at most one per
 * ~100 ms of walking); `result` receives the counts once the walk is done,
 * with what the walk could not cover. After the returned function is called
 * nothing more is delivered, not even the result. Throws
 * Error("Wrong arguments") for a wrong argument count as well as for wrong
 * argument types (this export has no "Wrong number of arguments"), and an
 * Error naming the option and the expression for a regular expression that
 * does not compile; nothing is started then. A missing or unlistable root
 * gives no update, zero counts, `complete: false` and the root in
 * `skippedFolders`.
 */
export function ScanAllSubFiles(
  root: string,
  update: (update: ScanUpdate) => void,
  result: (result: ScanResult) => void,
  options: ScanOptions,
): CloseScanFiles;

/**
 * The mounted logical disks with their physical disks, in the system's
 * order. Never rejects, as GetDriveList.
 */
export function GetHardwareDisk(options?: StorageListOptions): Promise<HardwareDiskObject[]>;

/** Whether video frames can be shared as GPU textures; computed once per process. */
export function CheckExternalTextureSupport(): boolean;

/**
 * The logical drives, in the system's order. Never rejects: failures are
 * logged and give an empty (or shorter) list. Arguments other than an
 * options object are ignored.
 */
export function GetDriveList(options?: StorageListOptions): Promise<DriveObject[]>;

/**
 * One player of the media SDK. Hold it until dispose(): an undisposed player
 * keeps the process (or Worker) alive and goes on delivering its events even
 * when script no longer references it.
 */
export class CorvexMediaPlayer {
  /**
   * Starts creating the SDK player (off the main thread) when the SDK is
   * initialised; otherwise, or when the SDK gives none, every command fails.
   * Until the creation ends, prepare/play wait for it and the synchronous
   * commands act as without a player.
   */
  constructor();
  /** The SDK's version text ("" without a function table). */
  readonly version: string;
  /** Milliseconds; 0 when unknown. */
  readonly currentTime: number;
  readonly duration: number;
  readonly playableDuration: number;
  readonly paused: boolean;
  readonly playing: boolean;
  readonly buffering: boolean;
  /** Rejects "invalid arguments" (no or a non-string url), "not init" (no player), "prepare failed". */
  prepare(url: string, options?: CorvexPrepareOptions): Promise<void>;
  /** With a url: prepares and starts it; without: starts the prepared source, else rejects "not init". Rejects "play failed". */
  play(url?: string, options?: CorvexPrepareOptions): Promise<void>;
  /** Plays the fixed demo URL, as play(url). */
  playDemo(): Promise<void>;
  pause(): boolean;
  /** Stops, forgets the prepared source, volume back to 1.0, unmuted; always true. */
  stop(): true;
  setCorvexStr(text: string): boolean;
  setPlaySpeed(speed: unknown): boolean;
  /** Stores min(volume, 1); applied unless muted. */
  setVolume(volume: number): boolean;
  setMute(muted: boolean): boolean;
  /** False without an SDK call outside 0..duration. */
  seekTo(positionMs: number): boolean;
  /** One listener per event code; ignored once the player is disposed (or has no SDK player). */
  addEventListener(name: CorvexEventName | string, listener: (this: CorvexMediaPlayer, event: CorvexEvent) => void): void;
  /** Destroys the SDK player (on a thread of its own) and releases everything, listeners included; true, also when called again. */
  dispose(): true;
}

/**
 * Resolves a new player once the SDK has created its player (off the main
 * thread), and also when the SDK gave none (logged "CreateUniqueMediaPlayer
 * failed"; the player's commands then all fail); rejects "CreateMediaPlayer
 * failed: corvex not initialized" without an SDK.
 */
export function CreateMediaPlayer(): Promise<CorvexMediaPlayer>;

/**
 * The playing time of a file or URL in milliseconds. Throws "Wrong number of
 * arguments" for other than one argument; rejects "ReadMediaDuration failed:
 * Corvex not inited" without an SDK and "ReadMediaDurationAsync failed" when
 * the SDK cannot prepare it within 10 s (the bound holds whatever the SDK
 * does: a stuck SDK call is left on a thread of its own).
 */
export function ReadMediaDuration(path: string): Promise<number>;

/**
 * Adds a reporter; events reported before the first registration are
 * delivered to it. Keeps the process alive until UnRegisterTvkReporters.
 * Logs "RegisterTvkReporter end". Returns its argument.
 */
export function RegisterTvkReporter<T extends TvkReporter>(reporter: T): T;

/** Emits a test event (category 300, "test") and the statistics "ReportTest" (x4) and "ReportTest1000". */
export function ReportTest(arg: unknown): void;

/** Drops every reporter. */
export function UnRegisterTvkReporters(): void;

/**
 * Adds a tracer: aggregated call statistics reach it as one span per name,
 * at most every 500 ms. Keeps the process alive until UnRegisterTracers.
 * Logs "RegisterTracer end". Returns its argument.
 */
export function RegisterTracer<T extends Tracer>(tracer: T): T;

/** Drops every tracer. */
export function UnRegisterTracers(): void;

/**
 * Adds a fact sink (there is no way to remove one); facts posted while no
 * sink is registered are dropped. Does not keep the process alive. Logs
 * "RegisterFact end". Returns its argument.
 */
export function RegisterFact<T extends FactSink>(sink: T): T;

/** The add-on's version, "1.5.14". Takes no arguments (extra ones are ignored). */
export function getVersion(): string;

/**
 * Initialises the SDK from `options.corvexDir` and binds the network
 * library. Does nothing once the SDK is initialised. Throws the Node-API
 * error for a missing or non-string corvexDir, and an Error for a NUL
 * character in it; load failures are only logged and reported.
 */
export function InitCorvexSync(options: InitCorvexOptions): undefined;
