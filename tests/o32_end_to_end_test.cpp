// The whole o32 path on the bench: every o32 executable that vesk-annotate
// accepts (both kinds of debug information, all code models, with and
// without explicit relocation operators) is annotated, laid out again by
// vesk in several orders, and must print under qemu exactly what the
// original printed.  Every n32 and n64 executable goes the same way, and
// vesk-annotate must accept each of them.  Then what vesk leaves behind is read back: a second
// run on its own output, the mdebug table of the output, and the merged
// feedback given back to vesk.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "base/bytes.h"
#include "support/bench.h"
#include "support/elf_file.h"
#include "support/o32_reorder.h"
#include "support/run.h"

using namespace vesk::test;

namespace {

std::vector<std::string> o32_bench_names(const std::string &debug = "", bool o32 = true) {
  std::vector<std::string> names;
  for (const BenchExe &e : bench_executables())
    if ((e.abi == "o32") == o32 && (debug.empty() || e.debug == debug))
      names.push_back(e.name);
  return names;
}

const BenchExe *bench_named(const std::string &name) {
  for (const BenchExe &e : bench_executables())
    if (e.name == name)
      return &e;
  return nullptr;
}

std::vector<std::string> names_of(const std::vector<FeedbackLine> &lines) {
  std::vector<std::string> out;
  for (const FeedbackLine &l : lines)
    if (l.name != ".libstub")
      out.push_back(l.name);
  return out;
}

std::vector<std::string> names_of(const std::vector<ListedProc> &procs) {
  std::vector<std::string> out;
  for (const ListedProc &p : procs)
    if (p.name != ".libstub")
      out.push_back(p.name);
  return out;
}

// Only position-dependent code with explicit relocation operators calls its
// local functions with jal; position-independent o32 code, and the
// macro-expanded calls of -mno-explicit-relocs, reach them with bal, a
// REGIMM branch, which ties caller and callee together with everything in
// between.  Elsewhere a new order may leave every procedure where it was.
// (n32 and n64 code ends some procedures without a jr, which ties them to
// the next one.)
bool free_to_move(const BenchExe &e) { return e.abi == "o32" && e.model == "fno-pie" && e.explicit_relocs; }

std::string test_name(const testing::TestParamInfo<std::string> &info) {
  std::string n = info.param;
  std::replace(n.begin(), n.end(), '-', '_');
  return n;
}

// Annotates the bench executable of the test's parameter; skips the test
// when vesk-annotate refuses it.
#define ANNOTATE_OR_SKIP(bench)                                                                  \
  VESK_REQUIRE_BENCH();                                                                          \
  const BenchExe *e = bench_named(GetParam());                                                   \
  ASSERT_NE(e, nullptr);                                                                         \
  AnnotatedBench bench(*e);                                                                      \
  if (!bench.ok() && !bench.refusal().empty() && e->abi == "o32") {                              \
    GTEST_SKIP() << "vesk-annotate refuses " << e->name << ": " << bench.refusal();              \
  }                                                                                              \
  ASSERT_TRUE(bench.ok()) << bench.refusal();                                                    \
  ASSERT_GT(bench.procs().size(), 2u)

class O32EndToEnd : public testing::TestWithParam<std::string> {
protected:
  // Lays the annotated executable out in the order of fb, checks that the
  // order was taken where nothing ties everything, and runs the result.
  void reorder_and_run(const AnnotatedBench &b, const std::vector<FeedbackLine> &fb) {
    const std::string out = b.path("reordered"), merged = b.path("merged.fb");
    RunResult r = b.vesk(b.annotated(), fb, out, {"-merge", merged});
    ASSERT_EQ(r.status, 0) << r.err;
    if (free_to_move(b.exe())) {
      EXPECT_NE(names_of(feedback_lines(merged)), names_of(b.procs()));
    }
    r = run_bench(b.exe(), out);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, b.exe().expected);
  }
};

} // namespace

TEST_P(O32EndToEnd, ReversedOrderPrintsWhatTheOriginalPrinted) {
  ANNOTATE_OR_SKIP(b);
  reorder_and_run(b, reversed_order(b.procs()));
}

TEST_P(O32EndToEnd, RandomOrderPrintsWhatTheOriginalPrinted) {
  ANNOTATE_OR_SKIP(b);
  reorder_and_run(b, random_order(b.procs(), e->name));
}

// The feedback of a real run: the original runs under qemu with a trace of
// every block it executes, a block that starts at a procedure's first word
// is an entry, and the procedures that ran are given hottest first.  The
// traced run costs little more than a plain one (about 0.1 s more on the
// bench), so every executable gets one.
TEST_P(O32EndToEnd, HotFirstOrderFromARealRunPrintsWhatTheOriginalPrinted) {
  ANNOTATE_OR_SKIP(b);
  RunResult traced;
  std::vector<uint64_t> counts = entry_counts(*e, e->path, b.procs(), b.path("trace.log"), &traced);
  ASSERT_EQ(traced.out, e->expected) << traced.err;
  for (size_t i = 0; i < b.procs().size(); ++i)
    if (b.procs()[i].name == "main") {
      EXPECT_EQ(counts[i], 1u) << "main is entered once";
    }
  std::vector<FeedbackLine> hot = hot_first_order(b.procs(), counts);
  ASSERT_GT(hot.size(), 2u);

  const std::string out = b.path("hot"), merged = b.path("hot-merged.fb");
  RunResult r = b.vesk(b.annotated(), hot, out, {"-v", "-merge", merged});
  ASSERT_EQ(r.status, 0) << r.err;
  std::optional<TouchedText> touched = touched_text(r.out);
  ASSERT_TRUE(touched.has_value()) << r.out;
  EXPECT_GT(touched->after_k, 0);
  EXPECT_LE(touched->after_k, touched->before_k) << r.out;
  if (free_to_move(*e)) {
    // Nothing ties procedures that ran to others: they lead, hottest first.
    std::vector<std::string> expected = names_of(hot), got = names_of(feedback_lines(merged));
    got.resize(std::min(got.size(), expected.size()));
    EXPECT_EQ(got, expected);
  }

  r = run_bench(*e, out);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, e->expected);
}

// The merged feedback of a run, given back as the only feedback file, lays
// the procedures with feedback out in the same order.
TEST_P(O32EndToEnd, MergedFeedbackGivenBackKeepsTheOrder) {
  ANNOTATE_OR_SKIP(b);
  const std::string merged = b.path("merged.fb"), again = b.path("again.fb");
  RunResult r = b.vesk(b.annotated(), random_order(b.procs(), e->name), b.path("first"), {"-merge", merged});
  ASSERT_EQ(r.status, 0) << r.err;
  r = run_vesk({b.annotated(), merged, "-o", b.path("second"), "-merge", again});
  ASSERT_EQ(r.status, 0) << r.err;
  std::vector<FeedbackLine> first = feedback_lines(merged), second = feedback_lines(again);
  auto with_feedback = [](const std::vector<FeedbackLine> &lines) {
    std::vector<std::string> out;
    for (const FeedbackLine &l : lines)
      if (l.count != 0)
        out.push_back(l.name + "(" + l.file + ") " + std::to_string(l.count));
    return out;
  };
  EXPECT_GT(with_feedback(first).size(), 2u);
  EXPECT_EQ(with_feedback(second), with_feedback(first));
}

INSTANTIATE_TEST_SUITE_P(Bench, O32EndToEnd, testing::ValuesIn(o32_bench_names()), test_name);
INSTANTIATE_TEST_SUITE_P(BenchN32N64, O32EndToEnd, testing::ValuesIn(o32_bench_names("", false)), test_name);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(O32EndToEnd);

namespace {
class O32MdebugEndToEnd : public testing::TestWithParam<std::string> {};
} // namespace

// vesk reading its own output finds every procedure at the new address the
// first run gave it: the mdebug symbols followed the code.  The line-number
// table is carried over byte for byte.  (GNU as writes no mdebug line
// numbers, so on this bench both tables are empty and the comparison only
// checks that the header still places an empty table where it was.)
TEST_P(O32MdebugEndToEnd, OutputTableGivesEveryProcedureItsNewAddress) {
  ANNOTATE_OR_SKIP(b);
  const std::string out = b.path("reordered");
  RunResult r = b.vesk(b.annotated(), random_order(b.procs(), e->name), out, {"-debug"});
  ASSERT_EQ(r.status, 0) << r.err;
  std::vector<MappedProc> mapping = address_mapping(r.out);
  ASSERT_EQ(mapping.size(), b.procs().size());
  // ".libstub" is no mdebug procedure: whatever the layout, the reader
  // starts it at the start of the text.  The start files' code it stands
  // for (at the start of this bench's text), laid out elsewhere, is found
  // again by the first of their function symbols.
  std::multimap<std::string, uint64_t> expected, got;
  for (const MappedProc &m : mapping)
    if (m.name != ".libstub")
      expected.emplace(m.name, m.moved ? m.new_lo : m.old_addr);
    else if (m.moved && m.new_lo != m.old_addr)
      expected.emplace("__start", m.new_lo);

  r = b.vesk(out, {}, b.path("again"), {"-debug"});
  ASSERT_EQ(r.status, 0) << r.err;
  for (const TableProc &p : procedure_table(r.out))
    if (p.name != ".libstub")
      got.emplace(p.name, p.addr);
  EXPECT_EQ(got, expected);

  LineTable before = mdebug_line_table(b.annotated()), after = mdebug_line_table(out);
  EXPECT_EQ(after.offset, before.offset);
  EXPECT_EQ(after.size, before.size);
  EXPECT_EQ(after.bytes, before.bytes);
}

// vesk's output marks itself as processed; vesk run on it again says so,
// and the second layout still runs: the mdebug table it reads the
// procedures from followed the first layout.
TEST_P(O32MdebugEndToEnd, SecondRunOnItsOwnOutputWarnsAndStillRuns) {
  ANNOTATE_OR_SKIP(b);
  const std::string first = b.path("first"), second = b.path("second");
  RunResult r = b.vesk(b.annotated(), reversed_order(b.procs()), first);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err.find("vesked binary"), std::string::npos) << r.err;

  r = b.vesk(first, random_order(b.procs(), e->name + " again"), second);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("Warning: " + first + " is a vesked binary.\n"), std::string::npos) << r.err;
  r = run_bench(*e, second);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, e->expected);
}

// The bench has no mdebug line numbers, so a header that places the line
// table over the local symbols stands in for one: the rewrite changes the
// symbols of moved procedures, and the line table written back after it
// must still hold exactly the input's bytes.
TEST(O32MdebugLineTable, IsTheInputsEvenWhereTheRewriteChangedTheBytes) {
  VESK_REQUIRE_BENCH();
  const BenchExe *e = find_bench("calc", "o32", "mdebug", "fno-pie");
  ASSERT_NE(e, nullptr);
  AnnotatedBench b(*e);
  ASSERT_TRUE(b.ok()) << b.refusal();
  ElfFile input(b.annotated());
  uint64_t mdebug_off = input.shdr(".mdebug").sh_offset;
  std::vector<uint8_t> hdr = input.contents(".mdebug");
  ASSERT_GE(hdr.size(), 96u);
  const uint8_t *h = hdr.data();
  uint32_t isym_max = vesk::load32(h + 32), cb_sym_offset = vesk::load32(h + 36);
  ASSERT_GT(isym_max, 0u);

  // Unchanged, the run rewrites bytes of the symbol table.
  const std::string plain = b.path("plain"), patched_in = b.path("patched-input"), patched = b.path("patched");
  std::vector<FeedbackLine> fb = random_order(b.procs(), e->name);
  RunResult r = b.vesk(b.annotated(), fb, plain);
  ASSERT_EQ(r.status, 0) << r.err;
  std::string in = read_file(b.annotated());
  ASSERT_LE(uint64_t(cb_sym_offset) + 12 * isym_max, in.size());
  EXPECT_NE(read_file(plain).substr(cb_sym_offset, 12 * isym_max), in.substr(cb_sym_offset, 12 * isym_max));

  auto *fields = reinterpret_cast<uint8_t *>(in.data() + mdebug_off);
  vesk::store32(fields + 8, 12 * isym_max); // cbLine
  vesk::store32(fields + 12, cb_sym_offset); // cbLineOffset
  write_file(patched_in, in);
  r = b.vesk(patched_in, fb, patched);
  ASSERT_EQ(r.status, 0) << r.err;
  LineTable before = mdebug_line_table(patched_in), after = mdebug_line_table(patched);
  EXPECT_EQ(after.offset, cb_sym_offset);
  EXPECT_EQ(after.size, 12 * isym_max);
  EXPECT_EQ(after.bytes, before.bytes);
}

INSTANTIATE_TEST_SUITE_P(Bench, O32MdebugEndToEnd, testing::ValuesIn(o32_bench_names("mdebug")), test_name);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(O32MdebugEndToEnd);

namespace {
class O32DwarfEndToEnd : public testing::TestWithParam<std::string> {};
} // namespace

// vesk does not rewrite DWARF: a second run would find the procedures at
// their first-run addresses and break the program.  The .MIPS.Xlate
// section of the first output marks it, and vesk refuses such an input.
TEST_P(O32DwarfEndToEnd, SecondRunOnItsOwnOutputIsRefused) {
  ANNOTATE_OR_SKIP(b);
  const std::string first = b.path("first");
  RunResult r = b.vesk(b.annotated(), reversed_order(b.procs()), first);
  ASSERT_EQ(r.status, 0) << r.err;
  if (ElfFile(first).scn(".MIPS.Xlate") == nullptr)
    GTEST_SKIP() << "vesk writes no .MIPS.Xlate section yet";
  r = b.vesk(first, random_order(b.procs(), e->name + " again"), b.path("second"));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Error: Binary generated by tamsu/vesk is not supported.\n"), std::string::npos) << r.err;
}

INSTANTIATE_TEST_SUITE_P(Bench, O32DwarfEndToEnd, testing::ValuesIn(o32_bench_names("dwarf")), test_name);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(O32DwarfEndToEnd);

// vesk reading an annotated executable whose .compact_rel claims more
// entries than it holds stops with a clear error.
TEST(O32CompactRel, VeskRefusesAnEntryCountLargerThanTheStream) {
  VESK_REQUIRE_BENCH();
  const BenchExe *e = find_bench("textstats", "o32", "mdebug", "fno-pie");
  ASSERT_NE(e, nullptr);
  O32Build tmp;
  const std::string ann = tmp.dir() + "/annotated", bad = tmp.dir() + "/bad", none = tmp.dir() + "/none.fb";
  ASSERT_EQ(run_command({annotate_binary(), e->path, "-o", ann}).status, 0);
  size_t count = compact_rel_entries(ann).size();
  // The header lies at the start of the last section: tag 1, then the count.
  std::string bytes = read_file(ann);
  size_t shoff = (uint8_t(bytes[32]) << 24) | (uint8_t(bytes[33]) << 16) | (uint8_t(bytes[34]) << 8) | uint8_t(bytes[35]);
  size_t shnum = (uint8_t(bytes[48]) << 8) | uint8_t(bytes[49]);
  size_t h = shoff + 40 * (shnum - 1) + 16;
  size_t off = (uint8_t(bytes[h]) << 24) | (uint8_t(bytes[h + 1]) << 16) | (uint8_t(bytes[h + 2]) << 8) | uint8_t(bytes[h + 3]);
  ASSERT_EQ(bytes[off + 3], 1);
  bytes[off + 6] = char(uint8_t(bytes[off + 6]) + 1); // 256 more entries
  write_file(bad, bytes);
  write_file(none, kNoFeedback);
  RunResult r = run_vesk({bad, none, "-o", tmp.dir() + "/out"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Error: .compact_rel entry " + std::to_string(count + 1) + " of " +
                       std::to_string(count + 256) + " runs past the end of the section.\n"),
            std::string::npos)
      << r.err;
}
