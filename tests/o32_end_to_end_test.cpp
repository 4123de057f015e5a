// The whole o32 path on the bench: every o32 executable that vesk-annotate
// accepts is annotated, laid out in the reverse of its procedure order by
// vesk, and must print under qemu exactly what the original printed.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "support/bench.h"
#include "support/o32_programs.h"
#include "support/run.h"

using namespace vesk::test;

namespace {

std::vector<std::string> o32_bench_names() {
  std::vector<std::string> names;
  for (const BenchExe &e : bench_executables())
    if (e.abi == "o32")
      names.push_back(e.name);
  return names;
}

const BenchExe *bench_named(const std::string &name) {
  for (const BenchExe &e : bench_executables())
    if (e.name == name)
      return &e;
  return nullptr;
}

struct FeedbackLine {
  std::string name, file;
};

// The procedures of a feedback file written with -merge, in its order.
std::vector<FeedbackLine> merged_procedures(const std::string &path) {
  std::vector<FeedbackLine> out;
  std::istringstream in(read_file(path));
  std::string line;
  bool body = false;
  while (std::getline(in, line)) {
    if (line.rfind("$start", 0) == 0) {
      body = true;
      continue;
    }
    if (!body || line.empty() || line[0] == '#')
      continue;
    std::istringstream f(line);
    FeedbackLine l;
    f >> l.name >> l.file;
    if (!l.name.empty() && l.name != ".libstub")
      out.push_back(l);
  }
  return out;
}

const char kNoFeedback[] = "$magic 1\n$version 2\n$start\n";

class O32EndToEnd : public testing::TestWithParam<std::string> {};

} // namespace

TEST_P(O32EndToEnd, ReversedOrderPrintsWhatTheOriginalPrinted) {
  VESK_REQUIRE_BENCH();
  const BenchExe *e = bench_named(GetParam());
  ASSERT_NE(e, nullptr);
  O32Build tmp;
  const std::string ann = tmp.dir() + "/annotated", none = tmp.dir() + "/none.fb", merge = tmp.dir() + "/order.fb",
                    rev = tmp.dir() + "/reversed.fb", out = tmp.dir() + "/reordered";
  RunResult r = run_command({annotate_binary(), e->path, "-o", ann});
  if (r.status != 0)
    GTEST_SKIP() << "vesk-annotate refuses " << e->name << ": " << r.err;

  // The procedure order vesk sees, from a run without feedback.
  write_file(none, kNoFeedback);
  r = run_vesk({ann, none, "-o", tmp.dir() + "/unchanged", "-merge", merge});
  ASSERT_EQ(r.status, 0) << r.err;
  std::vector<FeedbackLine> procs = merged_procedures(merge);
  ASSERT_GT(procs.size(), 2u);

  std::string fb = kNoFeedback;
  unsigned count = 1000;
  for (auto p = procs.rbegin(); p != procs.rend(); ++p)
    fb += p->name + " " + p->file + " " + std::to_string(count--) + "\n";
  write_file(rev, fb);
  r = run_vesk({ann, rev, "-o", out, "-merge", merge});
  ASSERT_EQ(r.status, 0) << r.err;
  // The feedback was taken: the procedures are laid out in another order,
  // unless every procedure ended up tied to its neighbours (position-
  // independent o32 code, and macro-expanded calls of non-PIC code, reach
  // local functions with bal, a REGIMM branch, which ties caller and callee
  // together with everything between them).
  std::vector<std::string> before, after;
  for (const FeedbackLine &p : procs)
    before.push_back(p.name);
  for (const FeedbackLine &p : merged_procedures(merge))
    after.push_back(p.name);
  if (e->model == "fno-pie" && e->explicit_relocs)
    EXPECT_NE(before, after);

  r = run_bench(*e, out);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, e->expected);
}

INSTANTIATE_TEST_SUITE_P(Bench, O32EndToEnd, testing::ValuesIn(o32_bench_names()),
                         [](const testing::TestParamInfo<std::string> &info) {
                           std::string n = info.param;
                           std::replace(n.begin(), n.end(), '-', '_');
                           return n;
                         });
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(O32EndToEnd);

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
