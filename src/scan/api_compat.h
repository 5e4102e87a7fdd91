// Run-time binding of the native file-information query (Windows:
// NtQueryInformationFile from ntdll.dll). On Linux there is nothing to bind.
#pragma once

#include <cstdint>

namespace ostrel::scan::api_compat {

// Binds the query; idempotent; throws std::system_error or
// std::runtime_error on failure.
void init();
// Unbinds it; throws std::system_error when the library cannot be freed.
void release();
bool is_bound() noexcept;

#ifdef _WIN32
// NTSTATUS NtQueryInformationFile(HANDLE, PIO_STATUS_BLOCK, PVOID, ULONG, FILE_INFORMATION_CLASS)
using query_information_file_fn = long(__stdcall*)(void*, void*, void*, unsigned long, int);
// The bound function; null when not bound.
query_information_file_fn query_information_file() noexcept;
#endif

}  // namespace ostrel::scan::api_compat
