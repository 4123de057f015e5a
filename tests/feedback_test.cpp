#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <unistd.h>
#include <string>
#include <vector>

#include "planning_fixture.h"
#include "support/fatal.h"
#include "support/run.h"
#include "vesk/feedback.h"

using namespace vesk;
using namespace vesk::test;

namespace {

const char *HEADER = "$magic 269680640\n$version 2\n$kind procedure\n$start\n";

struct Feedback : Planning {
  std::string dir;
  std::vector<const char *> files;

  void SetUp() override {
    Planning::SetUp();
    std::string tmpl = ::testing::TempDir() + "vesk_fb_XXXXXX";
    dir = mkdtemp(tmpl.data());
    option.program = "/some/where/prog";
  }
  void TearDown() override {
    Planning::TearDown();
    std::filesystem::remove_all(dir);
  }

  // Procedures p0..pN-1 of 16 bytes each in a.c, in address order.
  void make_procs(const std::vector<const char *> &procs) {
    uint64_t a = 0x10000;
    for (const char *n : procs) {
      make(n, a, 16);
      a += 16;
    }
  }
  std::string file(const std::string &name, const std::string &contents) {
    std::string path = dir + "/" + name;
    write_file(path, contents);
    return path;
  }
  // Reads the given files as the command line would name them.
  void read(const std::vector<std::string> &paths) {
    // Each read starts from an unlinked table.
    for (int i = 0; i < get_n_procs(); ++i) {
      Proc *p = get_proc_by_index(i);
      p->prev = p->next = nullptr;
      p->freq = 0;
      p->listed = 0;
    }
    bin.procs.order_head = bin.procs.order_tail = nullptr;
    bin.procs.feedback_stale = false;
    files.clear();
    for (const std::string &p : paths)
      files.push_back(keep(p));
    files.push_back(nullptr);
    option.feedback_files = files.data();
    read_reorder_files();
  }
  static uint32_t freq_of(const char *name) {
    for (Proc *p = bin.procs.order_head; p; p = p->next)
      if (std::string(p->name) == name)
        return p->freq;
    return ~0u;
  }
};


TEST_F(Feedback, OneFileGivesItsOrderThenTheRestInTableOrder) {
  make_procs({"a", "b", "c", "d", "e"});
  std::string f = file("one.fb", std::string(HEADER) + "# comment\nd a.c 9\nb a.c 0\n# another\nc a.c 4\n");
  testing::internal::CaptureStderr();
  read({f});
  std::string err = testing::internal::GetCapturedStderr();
  // Zero counts keep their place when no merge runs.
  EXPECT_EQ(order(), (Order{"d", "b", "c", "a", "e"}));
  EXPECT_EQ(freq_of("d"), 9u);
  EXPECT_EQ(freq_of("a"), 0u);
  EXPECT_EQ(err, "Note: Feedback file(s) may be out of date. You may want to regenerate the\n"
                 "      feedback file(s) for better performance. Use vesk -v for more info.\n");
  for (Proc *p = bin.procs.order_head; p; p = p->next)
    EXPECT_EQ(p->listed, std::string(p->name) == "d" || std::string(p->name) == "b" ||
                                 std::string(p->name) == "c"
                             ? 1
                             : 0);
}

TEST_F(Feedback, FullCoverageIsQuiet) {
  make_procs({"a", "b", ".libstub"});
  testing::internal::CaptureStderr();
  read({file("full.fb", std::string(HEADER) + "b a.c 1\na a.c 2\n")});
  EXPECT_EQ(testing::internal::GetCapturedStderr(), ""); // .libstub needs no feedback
  EXPECT_FALSE(bin.procs.feedback_stale);
}

TEST_F(Feedback, TwoFilesMergeInTheDefinedOrder) {
  make_procs({"a1", "x", "both1", "a0", "both2", "z", "b1", "b0", "rest"});
  std::string a = file("A.fb", std::string(HEADER) + "a1 a.c 5\nx a.c 0\nboth1 a.c 3\na0 a.c 0\nboth2 a.c 2\nz a.c 0\n");
  std::string b = file("B.fb", std::string(HEADER) + "both2 a.c 1\nb1 a.c 7\nx a.c 6\nboth1 a.c 4\nb0 a.c 0\nz a.c 0\n");
  testing::internal::CaptureStderr();
  read({a, b});
  testing::internal::GetCapturedStderr();
  // Only in A; in both (summed); only in B, in B's order; A's zero counts;
  // then what the feedback leaves out (B's own zero count is dropped).
  EXPECT_EQ(order(), (Order{"a1", "both1", "both2", "b1", "x", "a0", "z", "b0", "rest"}));
  EXPECT_EQ(freq_of("both1"), 7u);
  EXPECT_EQ(freq_of("both2"), 3u);
  EXPECT_EQ(freq_of("x"), 6u);

  // The other way round, B leads.
  bin.procs = ProcTable{};
  make_procs({"a1", "x", "both1", "a0", "both2", "z", "b1", "b0", "rest"});
  testing::internal::CaptureStderr();
  read({b, a});
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(order(), (Order{"b1", "x", "both2", "both1", "a1", "b0", "z", "a0", "rest"}));
}

TEST_F(Feedback, MergedListAsLongAsTheTableIsRefused) {
  make_procs({"a", "b"});
  std::string a = file("A.fb", std::string(HEADER) + "a a.c 1\n");
  std::string b = file("B.fb", std::string(HEADER) + "b a.c 1\n");
  EXPECT_FATAL(read({a, b}), "^Error: too many procedures in feedback files\\.\n$");
}

TEST_F(Feedback, BodyLineRules) {
  make_procs({"f", "g", "h", "k"});
  Proc *other = make("f", 0x20000, 16, "b.c");
  std::string long_line = "h a.c 5" + std::string(520, ' ') + "k a.c 7\n";
  std::string f = file("body.fb", std::string(HEADER) +
                                      "f a.c 3\n"
                                      "g\n"            // name only: file and count as before
                                      "f a.c 100\n"    // listed twice: counted once
                                      "f b.c\n" +      // count as before
                                      long_line);      // read as two lines
  option.verbose = 1;
  testing::internal::CaptureStderr();
  read({f});
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(order(), (Order{"f", "g", "f", "h", "k"}));
  EXPECT_EQ(get_proc_by_index(0)->freq, 3u);
  EXPECT_EQ(get_proc_by_index(1)->freq, 3u);
  EXPECT_EQ(other->freq, 100u);
  EXPECT_EQ(get_proc_by_index(2)->freq, 5u);
  EXPECT_EQ(get_proc_by_index(3)->freq, 7u);
  EXPECT_EQ(err, "Warning: Procedure not found. f(a.c) feedback ignored.\n");
}

TEST_F(Feedback, OverlongNamesAreCutAtTheirBuffer) {
  std::string name255(255, 'n');
  make(keep(name255), 0x1000, 16);
  make("g", 0x1010, 16);
  // A 300-character name reads as its first 255 characters; the fields
  // behind it still parse.
  std::string f = file("long.fb", std::string(HEADER) + std::string(300, 'n') + " a.c 11\ng a.c 2\n");
  read({f});
  EXPECT_EQ(get_proc_by_index(0)->freq, 11u);
  EXPECT_EQ(get_proc_by_index(1)->freq, 2u);
  EXPECT_FALSE(bin.procs.feedback_stale);
}

TEST_F(Feedback, DwarfFileNamesCompareByBasename) {
  make("f", 0x1000, 16, "x.c");
  make("g", 0x1010, 16, "y.c");
  std::string f = file("dir.fb", std::string(HEADER) + "f dir/x.c 4\ng /abs/y.c 1\n");
  bin.debug_kind = DEBUG_DWARF;
  read({f});
  EXPECT_EQ(order(), (Order{"f", "g"}));
  EXPECT_FALSE(bin.procs.feedback_stale);

  bin.procs = ProcTable{};
  make("f", 0x1000, 16, "x.c");
  make("g", 0x1010, 16, "y.c");
  bin.debug_kind = DEBUG_MDEBUG;
  testing::internal::CaptureStderr();
  read({f});
  testing::internal::GetCapturedStderr();
  EXPECT_TRUE(bin.procs.feedback_stale);
  EXPECT_EQ(get_proc_by_index(0)->freq, 0u);
}

TEST_F(Feedback, HeaderDirectives) {
  make_procs({"f"});
  std::string f = file("hdr.fb", "# lead comment\n$magic 269680640\n$timestamp 5f3A\n$name /else/prog\n"
                                 "$whatever x\n$version 2\n$start\nf a.c 1\n");
  read({f});
  EXPECT_EQ(bin.feedback_time_stamp, 0x5f3au);
  EXPECT_FALSE(bin.procs.feedback_stale);

  std::string named = file("named.fb", "$magic 1\n$name dir/other\n$version 2\n$start\nf a.c 1\n");
  bin.procs = ProcTable{};
  make_procs({"f"});
  testing::internal::CaptureStderr();
  read({named});
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Warning: feedback file " + named + " derived from dir/other !!!.\n");
}

TEST_F(Feedback, FatalMessagesAndLineLength) {
  make_procs({"f"});
  // 510 characters and the newline fit, also on a last line without one.
  for (const std::string &fits : {"$magic 7 " + std::string(501, 'x') + "\n$version 2\n$start\n",
                                  "$magic 7\n$version 2\n$kind " + std::string(504, 'k')}) {
    testing::internal::CaptureStderr();
    read({file("fits.fb", fits)});
    testing::internal::GetCapturedStderr();
  }
  struct Case {
    std::string contents;
    std::string message;  // behind "^Error: "; @ stands for the file's path
  } cases[] = {
      {"# comment\nf a.c 1\n", "@ is not a feedback file\\.\n$"},
      {"$magic 0x10130000\n\n", "@ is not a feedback file\\.\n$"}, // hexadecimal reads as 0
      {"$magic 7\n$version 2\nnot a directive\n$start\n", "syntax error in feedback file @\nnot a directive\n\\.\n$"},
      {"$magic 7\n$version 1\n$start\nf a.c 1\n", "invalid version\\.\n$"},
      {"", "invalid version\\.\n$"},
      {"$magic 1\n$start\n$name dir/other\n$version 2\n$start\n", "invalid version\\.\n$"}, // header ends at $start
      {std::string(HEADER) + "f a.c 1\n$version 2\n", "@: directive after \\$start\\.\n$"},
      {"$magic 7 " + std::string(502, 'x') + "\n$version 2\n$start\n",
       "reorder file line too long, shouldn't exceed 511\\.\n$"},
      {"#" + std::string(599, 'c') + "\n$magic 7\n$version 2\n$start\n", "reorder file line too long"},
      {"$magic 7\n$version 2\n$kind " + std::string(505, 'k'), "reorder file line too long"},
  };
  std::string missing = dir + "/missing.fb";
  EXPECT_FATAL(read({missing}), "^Error: cannot read reorder file " + missing + "\\.\n$");
  int n = 0;
  for (const Case &c : cases) {
    std::string path = file("bad" + std::to_string(n++) + ".fb", c.contents);
    std::string re = "^Error: " + c.message;
    for (size_t at; (at = re.find('@')) != std::string::npos;)
      re.replace(at, 1, path);
    SCOPED_TRACE(c.contents);
    EXPECT_FATAL(read({path}), re);
  }
}

TEST_F(Feedback, MergedOutputFormatAndRoundTrip) {
  std::string long_name(40, 'L');
  make_procs({"alpha", "beta", "gamma"});
  make(keep(long_name), 0x30000, 16, "long_file.c");
  std::string a = file("A.fb", std::string(HEADER) + "gamma a.c 30\n" + long_name + " long_file.c 4\nalpha a.c 0\n");
  std::string b = file("B.fb", std::string(HEADER) + "gamma a.c 12\n");
  testing::internal::CaptureStderr();
  read({a, b});
  testing::internal::GetCapturedStderr();
  std::string merged = dir + "/merged.fb";
  option.merge_file = merged.c_str();
  write_merged_feedback();
  std::string expect = "$magic   0x10130000\n$version 2\n$kind    procedure\n$start\n"
                       "# generate by vesk -merge\n"
                       "#               procedure_name         file_name       freq\n" +
                       long_name + "          long_file.c          4\n"
                       "                         gamma                  a.c         42\n"
                       "                         alpha                  a.c          0\n"
                       "                          beta                  a.c          0\n";
  EXPECT_EQ(read_file(merged), expect);

  // Read back as the only feedback file, it gives the same order and counts.
  std::vector<std::string> before = order();
  bin.procs = ProcTable{};
  make_procs({"alpha", "beta", "gamma"});
  make(keep(long_name), 0x30000, 16, "long_file.c");
  read({merged});
  EXPECT_EQ(order(), before);
  EXPECT_EQ(freq_of("gamma"), 42u);
  EXPECT_FALSE(bin.procs.feedback_stale);

  option.merge_file = nullptr; // nothing is written without -merge
  std::remove(merged.c_str());
  write_merged_feedback();
  EXPECT_NE(access(merged.c_str(), F_OK), 0);

  std::string unwritable = dir + "/no/such/dir/m.fb";
  option.merge_file = unwritable.c_str();
  EXPECT_FATAL(write_merged_feedback(), "^Error: No such file or directory, cannot open " + unwritable + "\\.\n$");
}

} // namespace
