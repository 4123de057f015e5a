// The command line: options, defaults, the feedback-file list and every
// command-line error.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/child.h"
#include "vesk/options.h"

using namespace vesk;
using namespace vesk::test;

namespace {

// Parses args (behind a program name) from a clean options record, in a
// child, and prints the record on standard output.
RunResult parse(std::vector<std::string> args) {
  return run_in_child([&args] {
    option = Options{};
    std::vector<char *> argv{const_cast<char *>("vesk")};
    for (auto &a : args)
      argv.push_back(a.data());
    argv.push_back(nullptr);
    parse_command_line(int(argv.size()) - 1, argv.data());
    auto s = [](const char *p) { return p ? p : "(null)"; };
    std::printf("program=%s output=%s merge=%s interp=%s\n", s(option.program), s(option.output),
                s(option.merge_file), s(option.interp));
    std::printf("flip=%d verbose=%d r4000_fix=%d B=%d debug=%d\n", option.flip, option.verbose,
                option.r4000_fix, option.b_flag, option.debug);
    std::printf("feedback:");
    for (int i = 0; option.feedback_files[i]; ++i)
      std::printf(" %s", option.feedback_files[i]);
    std::printf("\n");
  });
}

std::string line(const RunResult &r, int n) {
  size_t pos = 0;
  for (int i = 0; i < n; ++i)
    pos = r.out.find('\n', pos) + 1;
  return r.out.substr(pos, r.out.find('\n', pos) - pos);
}

} // namespace

TEST(CommandLine, DefaultsComeFromTheBasenameInTheCurrentDirectory) {
  auto r = parse({"dir/sub/a.out"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(line(r, 0), "program=dir/sub/a.out output=a.out.vesk merge=(null) interp=(null)");
  EXPECT_EQ(line(r, 1), "flip=0 verbose=0 r4000_fix=0 B=0 debug=0");
  EXPECT_EQ(line(r, 2), "feedback: a.out.fb");

  r = parse({"a.out", "x.fb"});
  EXPECT_EQ(line(r, 2), "feedback: x.fb"); // no default behind a given file
}

TEST(CommandLine, EveryOptionSetsItsField) {
  auto r = parse({"-v", "-flip", "-B", "-debug", "-r4000_fix", "-merge", "m.fb", "-interp", "rld",
                  "-o", "out", "prog", "a.fb"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(line(r, 0), "program=prog output=out merge=m.fb interp=rld");
  EXPECT_EQ(line(r, 1), "flip=1 verbose=1 r4000_fix=1 B=1 debug=1");
  EXPECT_EQ(line(r, 2), "feedback: a.fb");
  EXPECT_EQ(line(parse({"prog", "-verbose"}), 1), "flip=0 verbose=1 r4000_fix=0 B=0 debug=0");
}

TEST(CommandLine, LaterOptionsWin) {
  EXPECT_EQ(line(parse({"-no_r4000_fix", "-r4000_fix", "p"}), 1),
            "flip=0 verbose=0 r4000_fix=1 B=0 debug=0");
  EXPECT_EQ(line(parse({"-r4000_fix", "-no_r4000_fix", "p"}), 1),
            "flip=0 verbose=0 r4000_fix=0 B=0 debug=0");
  EXPECT_EQ(line(parse({"-o", "first", "p", "-o", "second"}), 0),
            "program=p output=second merge=(null) interp=(null)");
  // A value is taken as given, even when it looks like an option.
  EXPECT_EQ(line(parse({"-o", "-x", "p"}), 0), "program=p output=-x merge=(null) interp=(null)");
  // A trailing -interp is accepted and stores nothing.
  auto r = parse({"p", "-interp"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(line(r, 0), "program=p output=p.vesk merge=(null) interp=(null)");
}

TEST(CommandLine, FeedbackListAlwaysEndsInANullPointer) {
  // Fill the list one by one and look behind the last entry each time,
  // across the regrowths at 9, 19 and 29 entries.
  auto r = run_in_child([] {
    option = Options{};
    static std::vector<std::string> names;
    for (int i = 0; i < 32; ++i)
      names.push_back("f" + std::to_string(i));
    for (int i = 0; i < 32; ++i) {
      add_feedback_file(names[i].c_str());
      for (int k = 0; k <= i; ++k)
        if (option.feedback_files[k] != names[k])
          std::exit(2);
      if (option.feedback_files[i + 1] != nullptr)
        std::exit(3);
    }
  });
  EXPECT_EQ(r.status, 0) << r.err;
}

TEST(CommandLine, RefusesBadCommandLines) {
  struct Case {
    std::vector<std::string> args;
    std::string err;
  } cases[] = {
      {{}, "Error: program name not specified.\n"},
      {{"-v", "-debug"}, "Error: program name not specified.\n"},
      {{"prog", "-o"}, "Error: file not specified with -o.\n"},
      {{"prog", "-merge"}, "Error: file not specified with -merge.\n"},
      {{"-x", "prog"}, "Error: Incorrect option -x.\n"},
      {{"prog", "--verbose"}, "Error: Incorrect option --verbose.\n"},
      {{"prog", "-V"}, "Error: Incorrect option -V.\n"},
      {{"prog", "-ofile"}, "Error: Incorrect option -ofile.\n"},
      {{"prog", ""}, "Error: Incorrect option .\n"},
      {{"prog", "-"}, "Error: Incorrect option -.\n"},
  };
  for (const auto &c : cases) {
    auto r = run_vesk(c.args);
    EXPECT_EQ(r.status, 1) << c.err;
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(r.out, "");
  }
}
