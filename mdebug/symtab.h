// Reading the mdebug symbol table of an executable.
//
// The ".mdebug" section is read as raw bytes (its tables are found by the
// FILE offsets in the symbolic header, big-endian), and every table is
// checked against the section before any record of it is used.  Malformed
// contents end the run with a clear error; nothing reads past the section.
//
// The operations, in the order the procedure discovery uses them:
//   mdebug_open_elf     the section of an ELF file already open
//   mdebug_symtab       the symbol table of a handle; null when the file has
//                       no .mdebug section
//   mdebug_read_tables  check and load the file, procedure, local-symbol,
//                       external-symbol and string tables
//   mdebug_read_symbol  fetch a local symbol by its global index
//   mdebug_symbol_name  the name of a fetched symbol, or null
// Handles and their tables live until the process ends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <libelf.h>

#include "mdebug/records.h"

namespace vesk {

// The in-memory symbol table: views into the section bytes.  Until
// mdebug_read_tables has run only hdr is set.
struct MdebugSymtab {
  const Hdrr *hdr = nullptr;
  const Fdr *fdrs = nullptr;
  uint32_t ifd_max = 0;
  const Pdr *pdrs = nullptr;      // all files' descriptors, indexed by first + i
  uint32_t ipd_max = 0;
  const Symr *syms = nullptr;     // local symbols
  uint32_t isym_max = 0;
  const char *ss = nullptr;       // local strings
  uint32_t iss_max = 0;
  const Extr *exts = nullptr;     // external symbols
  uint32_t iext_max = 0;
  const char *ss_ext = nullptr;   // external strings
  uint32_t iss_ext_max = 0;
  bool loaded = false;
};

struct MdebugHandle {
  std::string name;               // the file's path, for messages
  bool has_section = false;
  std::vector<uint8_t> section;   // the .mdebug contents, when read into the handle
  const uint8_t *bytes = nullptr; // the .mdebug contents: section's, or an image's that outlives the handle
  size_t size = 0;
  uint64_t file_off = 0;          // file offset of bytes[0]
  MdebugSymtab st;
  // The files that own local symbols, ordered by isymBase, to find the
  // owner (and so the string space) of a symbol by its global index.
  std::vector<uint32_t> files_by_isym;
};

// A local symbol fetched by index: a copy of the record and its owner file.
struct MdebugSymbol {
  Symr rec;
  uint64_t index;
  uint32_t ifd;
};

// The section of an ELF file already open (e, read from fd, named path):
// read from the file's image where libelf holds one, without a copy.
std::unique_ptr<MdebugHandle> mdebug_open_elf(Elf *e, int fd, const char *path);
// A handle on section bytes already in memory, which lay at file_off; they
// must outlive the handle.
std::unique_ptr<MdebugHandle> mdebug_open_image(const uint8_t *bytes, size_t size, uint64_t file_off,
                                                const char *name);
MdebugSymtab *mdebug_symtab(MdebugHandle *h);
void mdebug_read_tables(MdebugHandle *h);
bool mdebug_read_symbol(MdebugHandle *h, uint64_t index, MdebugSymbol *out);
const char *mdebug_symbol_name(MdebugHandle *h, const MdebugSymbol &sym);
// The name of file ifd; null when the file has none (no local strings, or
// its rss is nil).
const char *mdebug_file_name(MdebugHandle *h, uint32_t ifd);
// The name of external symbol i; null when its iss is nil.
const char *mdebug_external_name(MdebugHandle *h, uint32_t i);

} // namespace vesk
