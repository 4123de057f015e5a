// The runtime procedure table that the dynamic symbol _procedure_table
// names: re-pointed through the text map and sorted again.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "com/rpt.h"
#include "support/bench.h"
#include "support/step.h"
#include "support/synth_elf.h"
#include "base/bin.h"
#include "base/bytes.h"

using namespace vesk;
using namespace vesk::test;

namespace {

constexpr uint32_t TEXT = 0x400000, TABLE = 0x410000;
using Rows = std::vector<std::pair<uint32_t, uint32_t>>;

// An image whose dynamic symbols (hashed into three buckets, by h % 3)
// name a table of descriptors with the given first words; it is loaded
// into bin with the text reversed word by word.
struct RptImage {
  std::vector<uint32_t> map;
  std::string path = temp_path("rpt");
  Elf *elf = nullptr;

  explicit RptImage(const std::vector<uint32_t> &table) {
    const uint32_t nbucket = 3;
    std::vector<std::pair<std::string, uint32_t>> symbols = {{"_procedure_table", TABLE},
                                                             {"_procedure_table_size", uint32_t(table.size())}};
    SynthElf img;
    img.add(text_section(TEXT, std::vector<uint32_t>(8, 0)));
    SynthSection str{.name = ".dynstr", .type = SHT_STRTAB, .flags = SHF_ALLOC, .addr = 0x300000, .data = {0}};
    std::vector<Elf32_Sym> syms(1);
    std::vector<uint32_t> hash = {nbucket, uint32_t(symbols.size() + 1)};
    hash.resize(2 + nbucket + symbols.size() + 1, 0);
    for (auto &[name, value] : symbols) {
      syms.push_back({uint32_t(str.data.size()), value, 0, 0, 0, SHN_ABS});
      str.data.insert(str.data.end(), name.c_str(), name.c_str() + name.size() + 1);
      unsigned long h = elf_hash(name.c_str());
      uint32_t b = uint32_t(h % nbucket), i = uint32_t(syms.size() - 1);
      hash[2 + nbucket + i] = hash[2 + b]; // in front of the bucket's chain
      hash[2 + b] = i;
    }
    img.add(str);
    img.add({.name = ".dynsym", .type = SHT_DYNSYM, .flags = SHF_ALLOC, .addr = 0x301000, .data = records(syms),
             .dtype = ELF_T_SYM, .link = 2, .entsize = sizeof(Elf32_Sym)});
    img.add({.name = ".hash", .type = SHT_HASH, .flags = SHF_ALLOC, .addr = 0x302000, .data = records(hash),
             .dtype = ELF_T_WORD, .link = 3, .entsize = 4});
    SynthSection t{.name = ".data", .flags = SHF_ALLOC | SHF_WRITE, .addr = TABLE};
    for (size_t i = 0; i < table.size(); ++i)
      for (uint32_t k = 0; k < 10; ++k) // the rest of the descriptor travels with its address
        put32(t.data, k == 0 ? table[i] : uint32_t(i * 100 + k));
    img.add(t);
    img.write(path);
    fresh_run(); // which ends the image of the test before
    bin.in_fd = open(path.c_str(), O_RDONLY);
    bin.in_elf = bin.out_elf = elf = elf_begin(bin.in_fd, ELF_C_READ, nullptr);
    bin.is_elf32 = 1;
    bin.strtab_addr = 0x300000;
    bin.mips_flags = 0x2; // buckets by h % nbucket
    bin.text_lo = TEXT;
    bin.text_hi = TEXT + 32;
    bin.text_words = 8;
    for (uint32_t i = 0; i < 8; ++i)
      map.push_back(7 - i);
    bin.text_map = map.data();
  }
  ~RptImage() { unlink(path.c_str()); }

  // The descriptors as (address, second word).
  Rows rows() const {
    Elf_Data *d = elf_getdata(elf_getscn(elf, 5), nullptr);
    auto *p = static_cast<const uint8_t *>(d->d_buf);
    Rows r;
    for (size_t at = 0; at < d->d_size; at += 40)
      r.push_back({load32(p + at), load32(p + at + 4)});
    return r;
  }
};

} // namespace

TEST(Rpt, RepointsAndSortsTheTable) {
  // Descriptor addresses: three in the text, one outside, one unused.
  RptImage im({TEXT, TEXT + 8, 0x500000, TEXT + 20, 0});
  update_rpt();
  EXPECT_EQ(bin.rpt_in_file, 0);
  EXPECT_EQ(im.rows(), (Rows{{0, 401}, {TEXT + 8, 301}, {TEXT + 20, 101}, {TEXT + 28, 1}, {0x500000, 201}}));
}
