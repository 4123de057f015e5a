// Whole runs of the tool on real executables: where the output goes, when
// it is refused, and what a completed run leaves behind.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <gelf.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

#include "support/bench.h"
#include "support/child.h"
#include "support/elf_file.h"
#include "support/o32_programs.h"
#include "support/scratch.h"
#include "vesk/driver.h"
#include "vesk/options.h"

using namespace vesk::test;

namespace {

const char *const empty_feedback = "$magic 1\n$version 2\n$start\n";
// An empty feedback file leaves every procedure without feedback, which
// the reader notes once it has read the file.
const std::string out_of_date_note =
    "Note: Feedback file(s) may be out of date. You may want to regenerate the\n"
    "      feedback file(s) for better performance. Use vesk -v for more info.\n";

// A bench executable copied into dir as "prog", with an empty feedback file
// beside it.
const BenchExe *prepare(const ScratchDir &dir, const char *abi, const char *debug, const char *model) {
  const BenchExe *e = find_bench("calc", abi, debug, model);
  if (e) {
    dir.copy_in(e->path, "prog");
    write_file(dir / "prog.fb", empty_feedback);
  }
  return e;
}

} // namespace

// Without feedback an mdebug input keeps its layout (its procedures are in
// address order): the run rewrites every code address to the address it
// already had, so the text, data, GOT and symbols come out unchanged, and
// the output still runs.
TEST(CompletedRun, WithoutFeedbackAnMdebugInputKeepsItsLayout) {
  VESK_REQUIRE_BENCH();
  const char *const kinds[][3] = {{"n32", "mdebug", "no-pie"}, {"n32", "mdebug", "pie"}, {"o32", "mdebug", "pie"}};
  for (const auto &k : kinds) {
    ScratchDir dir("run");
    const BenchExe *e = prepare(dir, k[0], k[1], k[2]);
    ASSERT_NE(e, nullptr);
    SCOPED_TRACE(e->name);
    std::string input = e->path;
    if (std::string(k[0]) == "o32") { // o32 needs its code references described first
      RunResult a = run_command({annotate_binary(), e->path, "-o", dir / "prog"});
      ASSERT_EQ(a.status, 0) << a.err;
      input = dir / "prog";
    }
    auto r = run_vesk({"prog"}, dir.path());
    EXPECT_EQ(r.status, 0) << r.err;
    const std::string in = read_file(input), out = read_file(dir / "prog.vesk");
    ASSERT_EQ(in.size(), out.size());
    // Besides the stamps, the mdebug table is normalised (file base
    // addresses become 0, procedure addresses absolute) and .compact_rel
    // is re-encoded; nothing else may change.
    auto sections = ElfFile(input).sections();
    auto stamped = [&](size_t i) {
      for (const auto &[name, range] : sections)
        if ((name == ".dynamic" || name == ".mdebug" || name == ".compact_rel") && i >= range.first && i < range.second)
          return true;
      return false;
    };
    for (size_t i = 0; i < in.size(); ++i) {
      if (in[i] != out[i]) {
        ASSERT_TRUE(stamped(i)) << "byte " << i << " changed outside .dynamic, .mdebug and .compact_rel";
      }
    }
    EXPECT_NE(in, out) << "the output is not stamped as processed";
    struct stat st;
    ASSERT_EQ(stat((dir / "prog.vesk").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0755u);
    auto run = run_bench(*e, dir / "prog.vesk");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, e->expected);
  }
}

TEST(RunErrors, InputOrOutputThatCannotBeOpened) {
  VESK_REQUIRE_BENCH();
  ScratchDir dir("run");
  ASSERT_NE(prepare(dir, "n64", "dwarf", "pie"), nullptr);
  auto r = run_vesk({"missing"}, dir.path());
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Error: No such file or directory, cannot open missing.\n");

  // The output is opened only after the input and the feedback were read.
  r = run_vesk({"-o", "nodir/out", "prog"}, dir.path());
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, out_of_date_note + "Error: No such file or directory, cannot open nodir/out.\n");
  r = run_vesk({"-o", "nodir/out", "missing"}, dir.path());
  EXPECT_EQ(r.err, "Error: No such file or directory, cannot open missing.\n") << "input not read first";
}

TEST(RunErrors, RefusesToWriteOverItsInput) {
  VESK_REQUIRE_BENCH();
  ScratchDir dir("run");
  const BenchExe *e = prepare(dir, "o32", "mdebug", "pie");
  ASSERT_NE(e, nullptr);
  ASSERT_EQ(symlink("prog", (dir / "soft").c_str()), 0);
  ASSERT_EQ(link((dir / "prog").c_str(), (dir / "hard").c_str()), 0);
  const std::string original = read_file(e->path);
  for (const std::string &out : std::vector<std::string>{"prog", "./prog", "soft", "hard", dir / "prog"}) {
    auto r = run_vesk({"-o", out, "prog"}, dir.path());
    EXPECT_EQ(r.status, 1) << out;
    EXPECT_EQ(r.err, out_of_date_note + "Error: output file " + out +
                         " is the input file prog; name another output with -o.\n");
    EXPECT_TRUE(read_file(dir / "prog") == original) << "input changed through " << out;
  }
  // The other way round: the input named through a link, the output the file.
  auto r = run_vesk({"-o", "prog", "soft", "prog.fb"}, dir.path());
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(read_file(dir / "prog") == original);
  // Neither the output nor the merged feedback may be a file vesk reads.
  const std::string fb = read_file(dir / "prog.fb");
  for (const auto &[args, message] : std::vector<std::pair<std::vector<std::string>, std::string>>{
           {{"prog", "-o", "out", "-merge", "soft"}, "merged feedback file soft is the input file prog; name another "
                                                     "file with -merge"},
           {{"prog", "-o", "out", "-merge", "prog.fb"}, "merged feedback file prog.fb is the feedback file prog.fb; "
                                                        "name another file with -merge"},
           {{"prog", "-o", "prog.fb"}, "output file prog.fb is the feedback file prog.fb; name another output with -o"}}) {
    r = run_vesk(args, dir.path());
    EXPECT_EQ(r.status, 1) << args.back();
    EXPECT_NE(r.err.find("Error: " + message + ".\n"), std::string::npos) << r.err;
  }
  EXPECT_TRUE(read_file(dir / "prog") == original);
  EXPECT_TRUE(read_file(dir / "prog.fb") == fb);
  r = run_vesk({"prog", "-o", "out", "-merge", "/dev/full"}, dir.path());
  EXPECT_EQ(r.status, 1) << "a merged feedback file that cannot be written ends the run";
  // A device at the output's path is refused, not replaced by a plain file.
  r = run_vesk({"prog", "-o", "/dev/full"}, dir.path());
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Error: output /dev/full is not a regular file"), std::string::npos) << r.err;
  struct stat st;
  EXPECT_TRUE(stat("/dev/full", &st) == 0 && S_ISCHR(st.st_mode));
}

TEST(RunErrors, CopyThatCannotReadTheInput) {
  ScratchDir dir("run");
  write_file(dir / "in", "0123456789");
  const std::string in = dir / "in", out = dir / "out";
  auto copy = [&](int in_flags) {
    return run_in_child([&] {
      vesk::option.program = "prog";
      int in_fd = open(in.c_str(), in_flags);
      int out_fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      vesk::bin_copy(in_fd, out_fd);
    });
  };
  auto r = copy(O_RDONLY);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(read_file(out), "0123456789");
  r = copy(O_WRONLY); // the read fails
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Error: Bad file descriptor, reading the contents of prog.\n");
  r = run_in_child([] {
    vesk::option.program = "prog";
    int p[2];
    if (pipe(p) != 0)
      std::exit(9);
    vesk::bin_copy(p[0], p[1]); // no size to take
  });
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Error: Illegal seek, reading prog.\n");
}
