// Small synthetic big-endian MIPS ELF images, written with libelf, for the
// shapes no compiler makes.
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
  // Raw big-endian bytes for ELF_T_BYTE sections, host-order records for
  // typed ones (dtype), as libelf holds them in memory.
  std::vector<uint8_t> data{};
  Elf_Type dtype = ELF_T_BYTE;
  uint32_t link = 0;
  uint64_t align = 4;
  uint64_t entsize = 0;
};

struct SynthElf {
  bool is64 = false;
  uint64_t entry = 0;
  std::vector<SynthSection> sections; // the null section and .shstrtab are added by write

  size_t add(SynthSection s) { sections.push_back(std::move(s)); return sections.size() - 1; }
  std::string write(const std::string &path) const; // returns path
};

void put32(std::vector<uint8_t> &v, uint32_t x);
void put64(std::vector<uint8_t> &v, uint64_t x);
template <class T> std::vector<uint8_t> records(const std::vector<T> &r) {
  std::vector<uint8_t> v(r.size() * sizeof(T));
  if (!r.empty())
    std::memcpy(v.data(), r.data(), v.size());
  return v;
}
SynthSection text_section(uint64_t addr, const std::vector<uint32_t> &words);

} // namespace vesk::test
