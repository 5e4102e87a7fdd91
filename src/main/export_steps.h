// The registration steps of the export table, one per subsystem step, run by
// the initialiser in table order. Each subsystem's binding file defines its
// steps.
#pragma once

#include <napi.h>

namespace ostrel::exports {

// Binds the file-information query used by file metadata; throws a
// std::exception on failure (logged, registration goes on).
void init_api_compat();

void register_start_file_watch(Napi::Env env, Napi::Object exports);     // StartFileWatch
void register_get_mtp_devices(Napi::Env env, Napi::Object exports);      // GetMtpDevices
void register_get_mtp_files_by_id(Napi::Env env, Napi::Object exports);  // GetMtpFilesById
void register_get_mtp_file_by_id(Napi::Env env, Napi::Object exports);   // GetMtpFileById
void register_get_mtp_thumbnail(Napi::Env env, Napi::Object exports);    // GetMtpThumbnailById
void register_scan_all_sub_files(Napi::Env env, Napi::Object exports);   // ScanAllSubFiles
void register_get_hardware_disk(Napi::Env env, Napi::Object exports);    // GetHardwareDisk
void register_texture_support(Napi::Env env, Napi::Object exports);      // CheckExternalTextureSupport
void register_get_drive_list(Napi::Env env, Napi::Object exports);       // GetDriveList
void register_media_player(Napi::Env env, Napi::Object exports);         // CorvexMediaPlayer, CreateMediaPlayer
void register_read_media_duration(Napi::Env env, Napi::Object exports);  // ReadMediaDuration
void register_reporters(Napi::Env env,
                        Napi::Object exports);               // RegisterTvkReporter, ReportTest, UnRegisterTvkReporters
void register_tracers(Napi::Env env, Napi::Object exports);  // RegisterTracer, UnRegisterTracers
void register_fact(Napi::Env env, Napi::Object exports);     // RegisterFact
void register_init_corvex(Napi::Env env, Napi::Object exports);  // InitCorvexSync

}  // namespace ostrel::exports
