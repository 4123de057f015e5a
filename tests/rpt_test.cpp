// The runtime procedure table: found through the dynamic symbol
// _procedure_table, re-pointed through the text map and sorted again.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "com/rpt.h"
#include "support/run.h"
#include "support/step.h"
#include "support/synth_elf.h"
#include "vesk/bin.h"
#include "vesk/bytes.h"

using namespace vesk;
using namespace vesk::test;

namespace {

constexpr uint32_t TEXT = 0x400000, DYNSTR = 0x300000, TABLE = 0x410000;

struct RptImage {
  std::vector<std::pair<std::string, uint32_t>> symbols; // dynamic symbols and their values
  uint32_t nbucket = 3;
  bool modulo_hash = true;       // buckets by h % nbucket, else by h & (nbucket - 1)
  std::vector<uint32_t> table;   // first words of the descriptors

  std::vector<uint64_t> map;
  std::string path;
  Elf *elf = nullptr;
  int fd = -1;

  void load(uint32_t count) {
    SynthElf img;
    img.add(text_section(TEXT, std::vector<uint32_t>(8, 0)));
    symbols.push_back({"_procedure_table", TABLE});
    symbols.push_back({"_procedure_table_size", count});

    SynthSection str{.name = ".dynstr", .type = SHT_STRTAB, .flags = SHF_ALLOC, .addr = DYNSTR, .data = {0}};
    std::vector<Elf32_Sym> syms(1);
    for (auto &[name, value] : symbols) {
      Elf32_Sym s{};
      s.st_name = uint32_t(str.data.size());
      s.st_value = value;
      s.st_shndx = SHN_ABS;
      syms.push_back(s);
      str.data.insert(str.data.end(), name.begin(), name.end());
      str.data.push_back(0);
    }
    size_t str_index = img.add(str);

    std::vector<uint32_t> hash = {nbucket, uint32_t(syms.size())};
    hash.resize(2 + nbucket + syms.size(), 0);
    for (size_t i = 1; i < syms.size(); ++i) {
      unsigned long h = elf_hash(symbols[i - 1].first.c_str());
      uint32_t b = modulo_hash ? uint32_t(h % nbucket) : uint32_t(h & (nbucket - 1));
      hash[2 + nbucket + i] = hash[2 + b]; // push in front of the bucket's chain
      hash[2 + b] = uint32_t(i);
    }
    size_t sym_index = img.add({.name = ".dynsym", .type = SHT_DYNSYM, .flags = SHF_ALLOC, .addr = 0x301000,
                                .data = records(syms), .dtype = ELF_T_SYM, .link = uint32_t(str_index + 1),
                                .entsize = sizeof(Elf32_Sym)});
    img.add({.name = ".hash", .type = SHT_HASH, .flags = SHF_ALLOC, .addr = 0x302000, .data = records(hash),
             .dtype = ELF_T_WORD, .link = uint32_t(sym_index + 1), .entsize = 4});

    SynthSection t{.name = ".data", .flags = SHF_ALLOC | SHF_WRITE, .addr = TABLE};
    for (size_t i = 0; i < table.size(); ++i) {
      put32(t.data, table[i]);
      for (uint32_t k = 1; k < 10; ++k)
        put32(t.data, uint32_t(i * 100 + k)); // the rest of the descriptor travels with it
    }
    img.add(t);
    path = img.write(temp_path("rpt"));
    fd = open(path.c_str(), O_RDONLY);
    elf = elf_begin(fd, ELF_C_READ, nullptr);

    fresh_run();
    bin.is_elf32 = 1;
    bin.in_fd = fd;
    bin.in_elf = elf;
    bin.out_elf = elf;
    bin.strtab_addr = DYNSTR;
    bin.mips_flags = modulo_hash ? 0x2 : 0;
    bin.text_lo = TEXT;
    bin.text_hi = TEXT + 32;
    bin.text_words = 8;
    for (uint32_t i = 0; i < 8; ++i)
      map.push_back(TEXT + 28 - 4 * i); // the text reversed word by word
    bin.text_map = map.data();
  }

  ~RptImage() { unlink(path.c_str()); } // the next fresh run ends elf and fd

  // The descriptors as (address, second word) from a buffer of them.
  static std::vector<std::pair<uint32_t, uint32_t>> rows(const uint8_t *p, size_t n) {
    std::vector<std::pair<uint32_t, uint32_t>> r;
    for (size_t i = 0; i < n; ++i)
      r.push_back({load32(p + 40 * i), load32(p + 40 * i + 4)});
    return r;
  }
  const uint8_t *table_bytes() const {
    Elf_Scn *s = nullptr;
    while ((s = elf_nextscn(elf, s)) != nullptr)
      if (elf32_getshdr(s)->sh_addr == TABLE)
        return static_cast<const uint8_t *>(elf_getdata(s, nullptr)->d_buf);
    return nullptr;
  }
};

using Rows = std::vector<std::pair<uint32_t, uint32_t>>;

} // namespace

TEST(Rpt, FindsDynamicSymbolsThroughEitherHashBucketRule) {
  for (bool modulo : {true, false}) {
    RptImage im;
    im.modulo_hash = modulo;
    im.nbucket = modulo ? 3 : 4;
    im.symbols = {{"alpha", 0x11}, {"beta", 0x22}, {"gamma", 0x33}, {"delta", 0x44}, {"epsilon", 0x55}};
    im.load(0);
    EXPECT_EQ(dynsym_get_value(im.elf, "gamma"), 0x33u);
    EXPECT_EQ(dynsym_get_value(im.elf, "epsilon"), 0x55u);
    EXPECT_EQ(dynsym_get_value(im.elf, "_procedure_table"), TABLE);
    EXPECT_EQ(dynsym_get_value(im.elf, "zeta"), 0u);
    EXPECT_EQ(dynsym_get_value(im.elf, "gamm"), 0u);
  }
}

TEST(Rpt, RepointsAndSortsTheTableNamedByProcedureTable) {
  RptImage im;
  // Descriptor addresses: three in the text, one outside, one unused.
  im.table = {TEXT, TEXT + 8, 0x500000, TEXT + 20, 0};
  im.load(5);
  update_rpt();
  EXPECT_EQ(bin.rpt_in_file, 0);
  EXPECT_EQ(RptImage::rows(im.table_bytes(), 5),
            (Rows{{0, 401}, {TEXT + 8, 301}, {TEXT + 20, 101}, {TEXT + 28, 1}, {0x500000, 201}}));
}
