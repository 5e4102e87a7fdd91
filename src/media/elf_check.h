// Whether a file is a complete ELF shared object for this machine (Linux
// x86-64): ELF64, little-endian, x86-64, a shared object, and its program
// headers and every segment they describe lie within the file. dlopen
// trusts all of that and faults on a file cut short.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ostrel::media {

// On the file's bytes: true, or false with `reason` set.
bool elf_object_complete(std::string_view bytes, std::uint64_t file_size, std::string& reason);

// On a file: reads the header and program headers (never the whole file).
// False with `error` set to "<reason>" (file not found: dlopen's usual
// wording is left to dlopen, so a missing file passes here).
bool check_elf_object(const std::string& path, std::string& error);

}  // namespace ostrel::media
