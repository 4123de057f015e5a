// Procedure discovery from synthetic mdebug tables, through the input
// reader as a run would do it.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

#include "com/mdebug.h"
#include "support/synth_elf.h"
#include "support/synth_mdebug.h"
#include "vesk/bin.h"
#include "vesk/options.h"
#include "vesk/proc.h"
#include "vesk/reader.h"

using namespace vesk;
using namespace vesk::test;
using ::testing::ExitedWithCode;

namespace {

constexpr uint64_t TEXT_LO = 0x400000;

struct MdebugDiscovery : ::testing::Test {
  std::string path;

  void SetUp() override {
    reset_proc_table();
    reset_mdebug_discovery();
    option = Options{};
    bin = Bin{};
  }
  void TearDown() override { release_input(); }

  // What a run keeps to its end, given back so that the next reading in
  // this process starts clean.
  static void release_input() {
    if (bin.in_elf)
      elf_end(bin.in_elf);
    if (bin.in_fd > 0)
      close(bin.in_fd);
    if (bin.is_elf32)
      free(in_ehdr);
    in_ehdr = nullptr;
    bin = Bin{};
    reset_proc_table();
    reset_mdebug_discovery();
  }

  void write(const SynthMdebug &t, uint32_t text_words = 0x1000,
             const std::function<void(std::vector<uint8_t> &, uint64_t)> &patch = nullptr) {
    path = write_mdebug_elf("discovery", TEXT_LO, text_words, [&](uint64_t off) {
      std::vector<uint8_t> v = t.build(off);
      if (patch)
        patch(v, off);
      return v;
    });
    option.program = path.c_str();
  }

  std::vector<std::string> names() const {
    std::vector<std::string> r;
    for (int i = 0; i < get_n_procs(); ++i)
      r.push_back(get_proc_by_index(i)->name);
    return r;
  }
};

SynthFile file(const std::string &name, std::vector<SynthProc> procs) {
  SynthFile f;
  f.name = name;
  f.adr = procs.empty() ? 0 : procs[0].value;
  f.procs = std::move(procs);
  return f;
}

// A table of n procedures of 4 bytes each, from TEXT_LO + 0x10, spread
// over files of at most per_file procedures.
SynthMdebug many_procedures(uint32_t n, uint32_t per_file, bool ext_bits) {
  SynthMdebug t;
  for (uint32_t i = 0; i < n; i += per_file) {
    SynthFile f;
    f.name = "f" + std::to_string(i) + ".c";
    f.ext_bits = ext_bits;
    for (uint32_t k = i; k < std::min(n, i + per_file); ++k)
      f.procs.push_back({"p" + std::to_string(k), uint32_t(TEXT_LO + 0x10 + 4 * k), 0});
    t.files.push_back(std::move(f));
  }
  return t;
}

} // namespace

TEST_F(MdebugDiscovery, ProceduresOfEveryFileSortedAfterTheStubs) {
  SynthMdebug t;
  t.files = {file("b.c", {{"late", 0x400800}, {"middle", 0x400400}}), file("a.c", {{"early", 0x400100}})};
  write(t);
  read_orig_binary();
  ASSERT_EQ(names(), (std::vector<std::string>{".libstub", "early", "middle", "late"}));
  const Proc *stub = get_proc_by_index(0);
  EXPECT_STREQ(stub->file_name, ".libstub");
  EXPECT_EQ(stub->old_addr, TEXT_LO);
  EXPECT_EQ(stub->size, 0x100u);
  EXPECT_STREQ(get_proc_by_index(1)->file_name, "a.c");
  EXPECT_STREQ(get_proc_by_index(2)->file_name, "b.c");
  EXPECT_EQ(get_proc_by_index(2)->size, 0x400u);
  EXPECT_EQ(get_proc_by_index(3)->size, 0x400000u + 0x4000 - 0x400800);
}

TEST_F(MdebugDiscovery, EmptyTableGivesOnlyTheStubs) {
  write(SynthMdebug{});
  read_orig_binary();
  ASSERT_EQ(get_n_procs(), 1);
  EXPECT_STREQ(get_proc_by_index(0)->name, ".libstub");
  EXPECT_EQ(get_proc_by_index(0)->size, 0x4000u);
}

TEST_F(MdebugDiscovery, SkipsDescriptorsWithoutLinesAndRefusesMissingSymbols) {
  SynthMdebug t;
  // lnLow >= 1 with lnHigh -1 is passed over, whatever its isym says.
  t.files = {file("a.c", {{"kept", 0x400100}, {"skipped", 0x400200, 0, MDEBUG_NIL, 1, -1},
                          {"also_kept", 0x400300, 0, 0xFFFFFFFE, -1, -1}})};
  write(t);
  read_orig_binary();
  EXPECT_EQ(names(), (std::vector<std::string>{".libstub", "kept", "also_kept"}));

  release_input();
  SynthMdebug u;
  u.files = {file("a.c", {{"kept", 0x400100}, {"nosym", 0x400200, 0, MDEBUG_NIL}})};
  write(u);
  EXPECT_EXIT(read_orig_binary(), ExitedWithCode(1), "^Error: stripped binary\\.\n$");

  // A symbol index beyond the local symbols.
  SynthMdebug w;
  w.files = {file("a.c", {{"kept", 0x400100}, {"far", 0x400200, 0, 7}})};
  write(w);
  EXPECT_EXIT(read_orig_binary(), ExitedWithCode(1), "^Error: stripped binary\\.\n$");

  // A file whose descriptors point at symbols it does not have.
  write(t, 0x1000, [](std::vector<uint8_t> &v, uint64_t off) { fdr_of(v, off, 0).csym = 0; });
  EXPECT_EXIT(read_orig_binary(), ExitedWithCode(1), "^Error: stripped binary\\.\n$");

  // A symbol without a name.
  write(t, 0x1000, [](std::vector<uint8_t> &v, uint64_t off) { sym_of(v, off, 0).iss = MDEBUG_NIL; });
  EXPECT_EXIT(read_orig_binary(), ExitedWithCode(1), "^Error: stripped binary\\.\n$");
}

TEST_F(MdebugDiscovery, FileWithoutNameIsRefused) {
  SynthMdebug t;
  t.files = {file("a.c", {{"f", 0x400100}}), file("b.c", {})};
  t.files[1].has_name = false;
  write(t);
  EXPECT_EXIT(read_orig_binary(), ExitedWithCode(1), "^Error: Stripped binary\\? File\\[1\\] has no name\\.\n$");
}

TEST_F(MdebugDiscovery, SymbolValuesAreSignExtended) {
  SynthMdebug t;
  t.files = {file("k.c", {{"kernel", 0x80001000}})};
  write(t);
  // The text does not reach the sign-extended address, so the sizes are
  // refused; the debug trace (sent to standard error here) shows it.
  EXPECT_EXIT(
      {
        dup2(2, 1);
        option.debug = 1;
        read_orig_binary();
      },
      ExitedWithCode(1), "Subprogram: kernel lowpc\\(0xffffffff80001000\\)\n");
}

TEST_F(MdebugDiscovery, DescriptorRangeBeyondTheTableIsRefused) {
  SynthMdebug t;
  t.files = {file("a.c", {{"one", 0x400100}, {"two", 0x400200}})};
  write(t, 0x1000, [](std::vector<uint8_t> &v, uint64_t off) { fdr_of(v, off, 0).cpd = 3; });
  EXPECT_EXIT(read_orig_binary(), ExitedWithCode(1),
              "mdebug file 0 \\(a\\.c\\) lists procedure descriptors 0 to 2, but the table has 2\\.\n$");
}

TEST_F(MdebugDiscovery, MissingHandleOrTableAreAssertions) {
  option.program = "/nonexistent/program";
  EXPECT_EXIT(mdebug_interface(), ExitedWithCode(1), "^Error: com/mdebug:40 ASSERT\\(ldptr\\)\\.\n$");
  SynthElf e;
  e.add(text_section(TEXT_LO, {0, 0}));
  std::string p = e.write(temp_path("nomdebug"));
  option.program = p.c_str();
  EXPECT_EXIT(mdebug_interface(), ExitedWithCode(1), "^Error: com/mdebug:43 ASSERT\\(st\\)\\.\n$");
}

// Over 65535 descriptors: the 16-bit ipdFirst restarts from 0 (the third
// file starts at 66000, stored as 464).  Without
// the extension bits the drop is read as a wrap; with them, "-B" reads
// them.  Either way every procedure comes out once, at its address.
TEST_F(MdebugDiscovery, MoreThan65535DescriptorsWrapAround) {
  constexpr uint32_t N = 70000;
  for (bool ext_bits : {false, true}) {
    SCOPED_TRACE(ext_bits ? "-B" : "wrap-around");
    release_input();
    write(many_procedures(N, 33000, ext_bits), 0x10 / 4 + N);
    option.b_flag = ext_bits;
    auto t0 = std::chrono::steady_clock::now();
    read_orig_binary();
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_LT(secs, 5.0);
    ASSERT_EQ(get_n_procs(), int(N + 1));
    for (uint32_t k = 0; k < N; k += 997) {
      const Proc *p = get_proc_by_index(long(k) + 1);
      ASSERT_EQ(p->name, "p" + std::to_string(k));
      ASSERT_EQ(p->old_addr, TEXT_LO + 0x10 + 4 * k);
      ASSERT_EQ(p->size, 4u);
    }
  }
}

// The extension bits without "-B" are not read, and the drop they would
// explain is not taken as a wrap either: the third file's descriptors are
// looked for at their raw 16-bit index, among the first file's.
TEST_F(MdebugDiscovery, ExtensionBitsNeedTheFlag) {
  write(many_procedures(70000, 33000, true), 0x10 / 4 + 70000);
  EXPECT_EXIT(read_orig_binary(), ExitedWithCode(1), "^Error: stripped binary\\.\n$");
}

TEST(MdebugMove, ChecksTheHeaderOnly) {
  std::vector<uint8_t> v = SynthMdebug{}.build(0x100);
  std::vector<uint8_t> before = v;
  move_mdebug(v.data(), v.size(), 0x5000);
  EXPECT_EQ(v, before);
  EXPECT_EXIT(move_mdebug(v.data(), 95, 0), ExitedWithCode(1),
              "^Error: com/mdebug:[0-9]+ ASSERT\\(len >= sizeof\\(HDRR\\)\\)\\.\n$");
  v[1] = 0x08;
  EXPECT_EXIT(move_mdebug(v.data(), v.size(), 0), ExitedWithCode(1),
              "^Error: com/mdebug:[0-9]+ ASSERT\\(phdr->magic == magicSym\\)\\.\n$");
}
