// Type declarations for ostrel, the native add-on of the desktop client.
// Every export is attached in a fixed order; Object.keys(require('ostrel'))
// lists exactly these twenty names in this order.
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

// ---------------------------------------------------------------- module --

/** The add-on's version, "1.5.14". Takes no arguments (extra ones are ignored). */
export function getVersion(): string;

// ------------------------------------------------------ not yet available --
// These exports exist (the table's order is fixed) but throw
// Error("<name> is not available in this build of ostrel yet") until their
// subsystems land.

export function StartFileWatch(...args: unknown[]): never;
export function GetMtpDevices(...args: unknown[]): never;
export function GetMtpFilesById(...args: unknown[]): never;
export function GetMtpFileById(...args: unknown[]): never;
export function GetMtpThumbnailById(...args: unknown[]): never;
export function GetHardwareDisk(...args: unknown[]): never;
export function CheckExternalTextureSupport(...args: unknown[]): never;
export function GetDriveList(...args: unknown[]): never;
export const CorvexMediaPlayer: new (...args: unknown[]) => never;
export function CreateMediaPlayer(...args: unknown[]): never;
export function ReadMediaDuration(...args: unknown[]): never;
export function InitCorvexSync(...args: unknown[]): never;

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
// ------------------------------------------------------- end of telemetry --
