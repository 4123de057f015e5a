// vesk-annotate on small o32 programs built by the cross compiler: what it
// describes, what it keeps of its input, and what it refuses.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <tuple>
#include <unistd.h>

#include "base/bytes.h"
#include "base/mips.h"
#include "com/compact_rel.h"
#include "support/o32_programs.h"
#include "support/run.h"
#include "support/synth_elf.h"

using namespace vesk;
using namespace vesk::test;

namespace {

// Functions in assembly so that the instruction pairs are known exactly.
const char *const kAsmProgram = R"(
#include <stdio.h>
extern int f2(void), f3(void);
extern void *get_f2(void);
__asm__(".text\n .globl get_f2\n .ent get_f2\nget_f2:\n .set noreorder\n lui $3,%hi(f2)\n"
        " addiu $2,$3,%lo(f2)\n jr $31\n nop\n .end get_f2\n"
        " .globl f2\n .ent f2\nf2:\n jr $31\n li $2,42\n .end f2\n"
        " .globl f3\n .ent f3\nf3:\n jr $31\n li $2,43\n .end f3\n .set reorder\n"
        " .data\n .globl wordref\nwordref: .word f3\n .section .rodata\n .globl gpref\ngpref: .gpword f2\n");
extern void *wordref;
int main(void) {
  int (*f)(void) = (int (*)(void))get_f2();
  printf("%d %d\n", f(), ((int (*)(void))wordref)());
  return 0;
}
)";

// A static function whose address position-independent code takes through
// a GOT page entry.
const char *const kPicProgram = R"(
#include <stdio.h>
static int __attribute__((noinline)) hidden(int x) { return x * 3; }
int (*__attribute__((noinline)) get(void))(int) { return hidden; }
int main(void) { printf("%d\n", get()(14)); return 0; }
)";

std::vector<CompactRelEntry> entries_of_type(const std::vector<CompactRelEntry> &es, uint32_t type) {
  std::vector<CompactRelEntry> out;
  for (const auto &e : es)
    if (e.type == type)
      out.push_back(e);
  return out;
}

} // namespace

TEST(Annotate, DescribesPairsAndWordsOfNonPicCode) {
  REQUIRE_O32_TOOLCHAIN();
  O32Build b;
  std::string exe = b.compile("asm", kAsmProgram, {"-fno-pie", "-no-pie"});
  std::string out = exe + ".ann";
  auto r = run_command({annotate_binary(), exe, "-o", out});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  auto es = compact_rel_entries(out);
  uint32_t get_f2 = symbol_value(exe, "get_f2"), f2 = symbol_value(exe, "f2"), f3 = symbol_value(exe, "f3");
  // The %hi and the %lo, each described alone with the address they form.
  auto hilo = entries_of_type(es, 7);
  ASSERT_EQ(hilo.size(), 2u);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(hilo[i].vaddr, get_f2 + 4 * i);
    EXPECT_EQ(hilo[i].dist2to, 0u);
    EXPECT_EQ(hilo[i].konst, f2);
  }
  auto gprel = entries_of_type(es, 2);
  ASSERT_EQ(gprel.size(), 1u);
  EXPECT_EQ(gprel[0].vaddr, symbol_value(exe, "gpref"));
  EXPECT_EQ(gprel[0].konst, f2);
  bool word_found = false;
  for (const auto &e : entries_of_type(es, 3))
    word_found |= e.vaddr == symbol_value(exe, "wordref") && e.konst == f3;
  EXPECT_TRUE(word_found);
  // Ascending addresses, as the reader walks them cheapest.
  for (size_t i = 1; i < es.size(); ++i)
    EXPECT_LE(es[i - 1].vaddr, es[i].vaddr);
  EXPECT_EQ(run_o32(out).out, "42 43\n");
}

TEST(Annotate, DescribesGpSetUpsAndGotPagePairsOfPicCode) {
  REQUIRE_O32_TOOLCHAIN();
  O32Build b;
  std::string exe = b.compile("pic", kPicProgram, {});
  std::string out = exe + ".ann";
  auto r = run_command({annotate_binary(), exe, "-o", out});
  ASSERT_EQ(r.status, 0) << r.err;
  auto es = compact_rel_entries(out);
  uint32_t get = symbol_value(exe, "get"), hidden = symbol_value(exe, "hidden");
  bool setup = false, page = false;
  for (const auto &e : es) {
    setup |= e.type == 4 && e.vaddr == get && e.dist2to == 4 && e.konst == gp_value(exe) - get;
    page |= e.type == 5 && e.konst == hidden && e.vaddr > get && e.dist2to == 0;
  }
  EXPECT_TRUE(setup);
  EXPECT_TRUE(page);
  EXPECT_EQ(run_o32(out).out, "42\n");
}

TEST(Annotate, KeepsTheInputAndEveryByteOffset) {
  REQUIRE_O32_TOOLCHAIN();
  O32Build b;
  std::string exe = b.compile("keep", kPicProgram, {"-g"});
  std::string before = read_file(exe);
  std::string out = exe + ".ann";
  ASSERT_EQ(run_command({annotate_binary(), exe, "-o", out}).status, 0);
  std::string after = read_file(out);
  EXPECT_EQ(read_file(exe), before);
  ASSERT_GT(after.size(), before.size());
  // Only the ELF header's section-table offset and count changed, and
  // calls the linker relaxed into bal/b got back their jalr $25/jr $25.
  for (size_t i = 0; i < before.size(); ++i) {
    if ((i >= 32 && i < 36) || (i >= 48 && i < 50) || before[i] == after[i])
      continue;
    size_t w = i & ~size_t(3);
    uint32_t was = load32(before.data() + w), now = load32(after.data() + w);
    if (!((mips::is_bal(was) && now == mips::JALR_T9) || (mips::is_b(was) && now == mips::JR_T9))) {
      ADD_FAILURE() << "byte " << i << " changed";
      break;
    }
  }
  // .compact_rel is the last section in the file, in front of the table.
  EXPECT_EQ(last_section_in_file(out), ".compact_rel");
  auto r = run_command({annotate_binary(), exe, "-o", exe});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Error: the output " + exe + " would overwrite the input " + exe + "; name another output.\n");
  std::string dir = exe.substr(0, exe.rfind('/'));
  std::string name = exe.substr(exe.rfind('/') + 1);
  r = run_command({annotate_binary(), exe, "-o", dir + "/./" + name});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(read_file(exe), before);
  r = run_command({annotate_binary(), out, "-o", out + "2"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Error: " + out + " already has a .compact_rel section.\n");
}

TEST(Annotate, RefusesReferencesItCannotDescribe) {
  REQUIRE_O32_TOOLCHAIN();
  O32Build b;
  const std::string keep = "compile with -mno-explicit-relocs, which keeps each address pair together.\n";
  auto refused = [&](const char *stem, const std::string &body, std::vector<std::string> flags) {
    std::string src = "int main(void) { return 0; }\n__asm__(\".text\\n .set noreorder\\n .globl g\\n .ent g\\ng:\\n" +
                      body + " jr $31\\n nop\\n.end g\\n .globl h\\n .ent h\\nh: jr $31\\n nop\\n .end h\\n\");\n";
    std::string exe = b.compile(stem, src, flags);
    auto r = run_command({annotate_binary(), exe, "-o", exe + ".ann"});
    EXPECT_EQ(r.status, 1) << stem;
    EXPECT_NE(access((exe + ".ann").c_str(), F_OK), 0) << stem << ": no output on refusal";
    return r.err;
  };
  const std::vector<std::string> non_pic = {"-fno-pie", "-no-pie"};
  // A %hi shared by two different code addresses cannot follow both.
  std::string err = refused("shared", " lui $3,%hi(h)\\n addiu $2,$3,%lo(h)\\n addiu $4,$3,%lo(h+4)\\n", non_pic);
  EXPECT_NE(err.find("is shared by references to different addresses"), std::string::npos) << err;
  EXPECT_NE(err.find(keep), std::string::npos) << err;
  // Pairs far apart or in reverse order are described one instruction at
  // a time.
  for (auto [stem, body, flags] :
       {std::tuple{"lo-first", " addiu $2,$3,%lo(h)\\n lui $3,%hi(h)\\n", non_pic},
        {"far", " lui $3,%hi(h)\\n .rept 300\\n nop\\n .endr\\n addiu $2,$3,%lo(h)\\n", non_pic},
        {"got-far", " lw $25,%got(l)($28)\\n .rept 300\\n nop\\n .endr\\n addiu $25,$25,%lo(l)\\nl: nop\\n",
         std::vector<std::string>{}}}) {
    std::string src = std::string("int main(void) { return 0; }\n__asm__(\".text\\n .set noreorder\\n .globl g\\n "
                                  ".ent g\\ng:\\n") +
                      body + " jr $31\\n nop\\n.end g\\n .globl h\\n .ent h\\nh: jr $31\\n nop\\n .end h\\n\");\n";
    std::string exe = b.compile(stem, src, flags);
    auto r = run_command({annotate_binary(), exe, "-o", exe + ".ann"});
    EXPECT_EQ(r.status, 0) << stem << ": " << r.err;
  }

  std::string plain = b.compile("noq", kPicProgram, {}, /*keep_relocs=*/false);
  auto r = run_command({annotate_binary(), plain, "-o", plain + ".ann"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Error: " + plain + " keeps no relocations of .text; link it with -Wl,-q.\n");
}
