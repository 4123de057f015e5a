// Damaged and foreign files: each is refused with one "Error: ..." line and
// status 1, never a crash or a sanitizer report.
#include <gtest/gtest.h>

#include <random>

#include "base/bytes.h"
#include "support/bench.h"
#include "support/scratch.h"

using namespace vesk;
using namespace vesk::test;

namespace {

// A file image with just enough ELF knowledge to damage its headers.
struct ElfBytes {
  std::string data;
  bool is64;

  explicit ElfBytes(std::string d) : data(std::move(d)), is64(data.at(4) == 2) {}
  uint8_t *at(size_t off) { return reinterpret_cast<uint8_t *>(data.data()) + off; }
  uint64_t shoff() { return is64 ? load64(at(40)) : load32(at(32)); }
  void set_shoff(uint64_t v) { is64 ? store64(at(40), v) : store32(at(32), uint32_t(v)); }
  size_t shnum_off() const { return is64 ? 60 : 48; }
  size_t shstrndx_off() const { return is64 ? 62 : 50; }
  uint8_t *shdr(size_t i) { return at(shoff() + i * (is64 ? 64 : 40)); }
  uint64_t offset(size_t i) { return is64 ? load64(shdr(i) + 24) : load32(shdr(i) + 16); }
  uint64_t size(size_t i) { return is64 ? load64(shdr(i) + 32) : load32(shdr(i) + 20); }
  void set_offset(size_t i, uint64_t v) { is64 ? store64(shdr(i) + 24, v) : store32(shdr(i) + 16, uint32_t(v)); }
  void set_size(size_t i, uint64_t v) { is64 ? store64(shdr(i) + 32, v) : store32(shdr(i) + 20, uint32_t(v)); }
  size_t find(const std::string &name) {
    size_t n = load16(at(shnum_off())), names = offset(load16(at(shstrndx_off())));
    for (size_t i = 0; i < n; ++i)
      if (name == reinterpret_cast<const char *>(at(names + load32(shdr(i)))))
        return i;
    ADD_FAILURE() << "no section " << name;
    return 0;
  }
};

// Runs vesk on contents (as the file "bad") and checks the refusal.
void expect_refused(const std::string &what, const std::string &contents) {
  ScratchDir dir("malformed");
  write_file(dir / "bad", contents);
  write_file(dir / "bad.fb", "$magic 1\n$version 2\n$start\n");
  auto r = run_vesk({"bad"}, dir.path());
  EXPECT_EQ(r.status, 1) << what << ": " << r.err;
  EXPECT_EQ(r.err.rfind("Error: ", 0), 0u) << what << ": " << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << what << ": " << r.err;
  EXPECT_TRUE(r.err.size() >= 2 && r.err.substr(r.err.size() - 2) == ".\n") << what << ": " << r.err;
  EXPECT_EQ(r.err.find("Sanitizer"), std::string::npos) << what;
  EXPECT_EQ(r.err.find("runtime error"), std::string::npos) << what;
}

std::string random_bytes(unsigned seed, size_t n) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (auto &c : s)
    c = char(gen() & 0xff);
  return s;
}

std::vector<const BenchExe *> samples() {
  return {find_bench("calc", "o32", "mdebug", "pie"), find_bench("shapes", "n64", "dwarf", "no-pie")};
}

} // namespace

TEST(Malformed, EmptyForeignAndRandomFiles) {
  expect_refused("empty", "");
  expect_refused("archive", "!<arch>\nx.o/            0           0     0     644     4         `\nabc\n");
  expect_refused("text", "hello\n");
  for (unsigned seed = 1; seed <= 4; ++seed)
    expect_refused("random " + std::to_string(seed), random_bytes(seed, 4096));
}

// Real executables cut short, with random bodies, with header tables and
// section contents pointing outside the file, and with sections too small
// for what is read from them.
TEST(Malformed, DamagedRealExecutables) {
  VESK_REQUIRE_BENCH();
  for (const BenchExe *e : samples()) {
    ASSERT_NE(e, nullptr);
    const std::string full = read_file(e->path);
    for (size_t len : {size_t(10), size_t(52), size_t(64), size_t(200), full.size() / 2, full.size() - 1})
      expect_refused(e->name + " cut at " + std::to_string(len), full.substr(0, len));
    for (unsigned seed = 1; seed <= 3; ++seed)
      expect_refused(e->name + " random body", full.substr(0, 64) + random_bytes(seed, 8192));

    const ElfBytes img(full);
    ElfBytes far = img;
    far.set_shoff(img.data.size() + 0x1000);
    expect_refused(e->name + " e_shoff beyond the file", far.data);
    ElfBytes huge = img;
    huge.set_shoff(0xfffffff0);
    expect_refused(e->name + " e_shoff near 4G", huge.data);
    ElfBytes many = img;
    store16(many.at(many.shnum_off()), 0xff00);
    expect_refused(e->name + " e_shnum too big", many.data);
    ElfBytes names = img;
    store16(names.at(names.shstrndx_off()), 0xfeff);
    expect_refused(e->name + " e_shstrndx out of range", names.data);

    const uint64_t end = img.data.size();
    const char *gp_section = e->abi == "n64" ? ".MIPS.options" : ".reginfo";
    for (const char *name : {".text", ".dynamic", ".got", ".dynsym", ".shstrtab", gp_section, ".symtab", ".strtab"}) {
      ElfBytes beyond = img;
      size_t i = beyond.find(name);
      beyond.set_offset(i, end + 16);
      expect_refused(e->name + " " + name + " offset beyond the file", beyond.data);
      ElfBytes longer = img;
      longer.set_size(i, end - longer.offset(i) + 4);
      expect_refused(e->name + " " + name + " size beyond the file", longer.data);
    }
    ElfBytes shortinfo = img;
    shortinfo.set_size(shortinfo.find(gp_section), 8);
    expect_refused(e->name + " short " + gp_section, shortinfo.data);
    ElfBytes badname = img;
    store32(badname.shdr(1), 0x7fffffff);
    expect_refused(e->name + " section name outside the table", badname.data);

    // .symtab linked to itself, with more locals than symbols, and with
    // names beyond its string table.
    ElfBytes link = img, locals = img, names_cut = img;
    size_t symtab = link.find(".symtab"), link_at = img.is64 ? 40 : 24;
    store32(link.shdr(symtab) + link_at, uint32_t(symtab));
    expect_refused(e->name + " .symtab linked to itself", link.data);
    store32(locals.shdr(symtab) + link_at + 4, 0x7fffffff);
    expect_refused(e->name + " .symtab locals beyond it", locals.data);
    names_cut.set_size(names_cut.find(".strtab"), 1);
    expect_refused(e->name + " symbol names beyond .strtab", names_cut.data);
  }
}
