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
