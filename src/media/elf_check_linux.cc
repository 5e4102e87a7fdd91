#include "elf_check.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace ostrel::media {

bool elf_object_complete(std::string_view bytes, std::uint64_t file_size, std::string& reason) {
  Elf64_Ehdr h;
  if (bytes.size() < sizeof(h) || file_size < sizeof(h)) {
    reason = "shorter than an ELF header";
    return false;
  }
  std::memcpy(&h, bytes.data(), sizeof(h));
  if (std::memcmp(h.e_ident, ELFMAG, SELFMAG) != 0) {
    reason = "not an ELF file";
    return false;
  }
  if (h.e_ident[EI_CLASS] != ELFCLASS64 || h.e_ident[EI_DATA] != ELFDATA2LSB || h.e_machine != EM_X86_64) {
    reason = "not an ELF object for x86-64";
    return false;
  }
  if (h.e_type != ET_DYN) {
    reason = "not a shared object";
    return false;
  }
  if (h.e_phentsize != sizeof(Elf64_Phdr) || h.e_phnum == 0 || h.e_phnum == PN_XNUM) {
    reason = "no usable program headers";
    return false;
  }
  const std::uint64_t table = static_cast<std::uint64_t>(h.e_phnum) * sizeof(Elf64_Phdr);
  if (h.e_phoff > file_size || table > file_size - h.e_phoff || h.e_phoff + table > bytes.size()) {
    reason = "program headers past the end of the file";
    return false;
  }
  for (std::uint16_t i = 0; i < h.e_phnum; ++i) {
    Elf64_Phdr ph;
    std::memcpy(&ph, bytes.data() + h.e_phoff + i * sizeof(Elf64_Phdr), sizeof(ph));
    if (ph.p_filesz == 0) continue;
    if (ph.p_offset > file_size || ph.p_filesz > file_size - ph.p_offset) {
      reason = "segment " + std::to_string(i) + " ends past the end of the file";
      return false;
    }
  }
  return true;
}

bool check_elf_object(const std::string& path, std::string& error) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return true;  // missing or unreadable: dlopen says so in its own words
  struct stat st {};
  bool ok = true;
  std::string reason;
  if (::fstat(fd, &st) != 0) {
    reason = std::string("cannot read its size: ") + std::strerror(errno);
    ok = false;
  } else if (!S_ISREG(st.st_mode)) {
    reason = "not a regular file";
    ok = false;
  } else {
    // The header and the program headers: the table normally follows the
    // header at once; read enough for any table within the first 64 KiB.
    const std::uint64_t size = static_cast<std::uint64_t>(st.st_size);
    std::vector<char> head(static_cast<std::size_t>(std::min<std::uint64_t>(size, 65536)));
    std::size_t got = 0;
    while (got < head.size()) {
      ssize_t n = ::pread(fd, head.data() + got, head.size() - got, static_cast<off_t>(got));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += static_cast<std::size_t>(n);
    }
    ok = elf_object_complete(std::string_view(head.data(), got), size, reason);
  }
  ::close(fd);
  if (!ok) error = path + ": not a complete ELF object for this machine (" + reason + ")";
  return ok;
}

}  // namespace ostrel::media
