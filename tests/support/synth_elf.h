// Small synthetic big-endian MIPS ELF images, written with libelf, for the
// cases no compiler makes (odd tables, malformed contents).
#pragma once

#include <cstdint>
#include <cstring>
#include <gelf.h>
#include <string>
#include <vector>

namespace vesk::test {

struct SynthSection {
  std::string name{};
  uint32_t type = SHT_PROGBITS;
  uint64_t flags = 0;
  uint64_t addr = 0;
  // Contents as libelf holds them in memory: raw big-endian bytes for
  // ELF_T_BYTE sections, host-order records for typed ones (dtype).
  std::vector<uint8_t> data{};
  Elf_Type dtype = ELF_T_BYTE;
  uint32_t link = 0;
  uint32_t info = 0;
  uint64_t align = 4;
  uint64_t entsize = 0;
  uint64_t nobits_size = 0; // sh_size of an SHT_NOBITS section
};

// A program header over one section: it takes that section's offset,
// address and size.
struct SynthPhdr {
  uint32_t type = PT_LOAD;
  uint32_t flags = PF_R;
  size_t section = 0; // index into SynthElf::sections
};

struct SynthElf {
  bool is64 = false;
  uint32_t e_flags = 0x1000;       // EF_MIPS_ARCH_2-ish; o32, no PIC bits
  uint64_t entry = 0;
  std::vector<SynthSection> sections; // section 0 (null) and .shstrtab are added by write
  std::vector<SynthPhdr> phdrs;

  // Adds a section and returns its index in `sections`.
  size_t add(SynthSection s) { sections.push_back(std::move(s)); return sections.size() - 1; }
  // Writes the image to path (libelf lays it out); returns path.
  std::string write(const std::string &path) const;
};

// Big-endian byte builders for section contents.
void put32(std::vector<uint8_t> &v, uint32_t x);
void put64(std::vector<uint8_t> &v, uint64_t x);
// Host-order records of a typed section as bytes.
template <class T> std::vector<uint8_t> records(const std::vector<T> &r) {
  std::vector<uint8_t> v(r.size() * sizeof(T));
  if (!r.empty())
    std::memcpy(v.data(), r.data(), v.size());
  return v;
}

// A .text section of the given big-endian words at addr.
SynthSection text_section(uint64_t addr, const std::vector<uint32_t> &words);

// A fresh file name under the test temporary directory.
std::string temp_path(const std::string &stem);

} // namespace vesk::test
