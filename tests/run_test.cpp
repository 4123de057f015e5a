// What a user is told when vesk or vesk-annotate refuses a run: one
// "Error: ..." line, status 1, no output left behind and the input
// untouched (damaged sections and headers: damaged_inputs_test.cpp).
// Each case starts from the calc program of the bench (n64
// with DWARF, or o32) copied as "prog" with an empty feedback file
// "prog.fb" beside it.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <cstring>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

#include "base/background.h"
#include "base/diag.h"
#include "base/file_io.h"
#include "support/bench.h"

using namespace vesk;
using namespace vesk::test;

namespace {

using Args = std::vector<std::string>;
const Args kRun = {"prog", "-o", "out"};
const char *const kAnnotate = "vesk-annotate"; // leads the arguments of a vesk-annotate run

// Damages prog: fn changes its bytes, knowing where its sections are.
Args damaged(const ScratchDir &dir, const std::function<void(std::string &, ElfFile &)> &fn) {
  std::string bytes = read_file(dir / "prog");
  ElfFile f(dir / "prog");
  fn(bytes, f);
  write_file(dir / "prog", bytes);
  return kRun;
}

Args annotated(const ScratchDir &dir, const Args &then) {
  EXPECT_EQ(run_command({annotate_binary(), dir / "prog", "-o", dir / "ann"}).status, 0);
  rename((dir / "ann").c_str(), (dir / "prog").c_str());
  return then;
}

void without_relocations(const ScratchDir &dir) {
  write_file(dir / "noq.c", "int main(void) { return 0; }\n");
  run_command({"mips-linux-gnu-gcc", "-O2", "-g", dir / "noq.c", "-o", dir / "prog"});
}

struct Refusal {
  const char *what;
  std::function<Args(const ScratchDir &)> setup; // prepares dir, gives the command line
  std::string message;                           // expected in the error line
  bool o32 = false;
};

const Refusal kRefusals[] = {
    {"missing input", [](auto &) { return Args{"missing"}; }, "No such file or directory, cannot open missing"},
    {"output is the input through a link",
     [](auto &d) { return link((d / "prog").c_str(), (d / "hard").c_str()), Args{"-o", "hard", "prog"}; },
     "output file hard is the input file prog; name another output with -o"},
    {"output is a device", [](auto &) { return Args{"prog", "-o", "/dev/full"}; },
     "output /dev/full is not a regular file"},
    {"not a feedback file", [](auto &d) { return write_file(d / "prog.fb", "# comment\nf a.c 1\n"), kRun; },
     "prog.fb is not a feedback file"},
    {"empty input", [](auto &d) { return write_file(d / "prog", ""), kRun; }, "unknown object format in prog"},
    {"input cut in half", [](auto &d) { return damaged(d, [](auto &b, auto &) { b.resize(b.size() / 2); }); },
     "the section header table lies outside the file"},
    {"annotation over its input", [](auto &) { return Args{kAnnotate, "prog", "-o", "./prog"}; },
     "would overwrite the input", true},
    {"annotation of an annotated input", [](auto &d) { return annotated(d, {kAnnotate, "prog", "-o", "out"}); },
     "already has a .compact_rel section", true},
    {"annotation without the link's relocations",
     [](auto &d) { return without_relocations(d), Args{kAnnotate, "prog", "-o", "out"}; },
     "keeps no relocations of .text; link it with -Wl,-q", true},
    {"o32 without the link's relocations", [](auto &d) { return without_relocations(d), kRun; },
     "no .compact_rel section and no relocations of .text to describe its code addresses with; link it with -Wl,-q",
     true},
    {"annotation of a %hi shared by two code addresses",
     [](auto &d) {
       compile_o32(d, "prog",
                   "int main(void) { return 0; }\n__asm__(\".text\\n .set noreorder\\n .globl g\\n .ent g\\ng:\\n"
                   " lui $3,%hi(h)\\n addiu $2,$3,%lo(h)\\n addiu $4,$3,%lo(h+4)\\n jr $31\\n nop\\n.end g\\n"
                   " .globl h\\n .ent h\\nh: jr $31\\n nop\\n .end h\\n\");\n",
                   {"-fno-pie", "-no-pie"});
       return kRun; // vesk describes the code addresses itself
     },
     "is shared by references to different addresses", true},
};

} // namespace

TEST(Refusals, OneErrorLineStatusOneNoOutputInputUntouched) {
  VESK_REQUIRE_BENCH();
  for (const Refusal &c : kRefusals) {
    SCOPED_TRACE(c.what);
    ScratchDir dir("refusal");
    write_file(dir / "prog", read_file(bench_named(c.o32 ? "calc-o32-mdebug-fno-pie" : "calc-n64-dwarf-pie")->path));
    write_file(dir / "prog.fb", kNoFeedback);
    Args args = c.setup(dir);
    const std::string input = read_file(dir / "prog");
    if (args[0] == kAnnotate)
      args[0] = annotate_binary();
    RunResult r = args[0] == annotate_binary() ? run_command(args, dir.path()) : run_vesk(args, dir.path());
    EXPECT_EQ(r.status, 1);
    size_t at = r.err.find("Error: ");
    ASSERT_NE(at, std::string::npos) << r.err;
    EXPECT_EQ(r.err.find('\n', at), r.err.size() - 1) << "one error line, the last: " << r.err;
    EXPECT_NE(r.err.find(c.message, at), std::string::npos) << r.err;
    EXPECT_NE(access((dir / "out").c_str(), F_OK), 0) << "output left behind";
    EXPECT_TRUE(read_file(dir / "prog") == input) << "input changed";
  }
}

// Without -o and feedback files, vesk reads prog.fb beside the program's
// name and writes prog.vesk, as given explicitly.
TEST(Refusals, DefaultFeedbackAndOutputNames) {
  VESK_REQUIRE_BENCH();
  ScratchDir dir("defaults");
  write_file(dir / "prog", read_file(bench_named("calc-o32-mdebug-fno-pie")->path));
  write_file(dir / "prog.fb", kNoFeedback);
  ASSERT_EQ(run_vesk({"prog"}, dir.path()).status, 0);
  ASSERT_EQ(run_vesk({"prog", "prog.fb", "-o", "named"}, dir.path()).status, 0);
  EXPECT_TRUE(read_file(dir / "prog.vesk") == read_file(dir / "named"));
}

// A finished output takes the place of what was at its path, whatever was
// there; nothing else is left in the directory, and a failed swap leaves
// the path as it was.
TEST(Refusals, ReplacingAFileLeavesOnlyTheNewOne) {
  ScratchDir dir("replace");
  auto entries = [&] {
    std::vector<std::string> names;
    for (const auto &e : std::filesystem::directory_iterator(dir.path()))
      names.push_back(e.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  };
  write_file(dir / ".tmp", "new");
  EXPECT_TRUE(vesk::replace_file((dir / ".tmp").c_str(), (dir / "out").c_str())); // nothing there yet
  EXPECT_EQ(read_file(dir / "out"), "new");
  write_file(dir / ".tmp", "newer");
  link((dir / "out").c_str(), (dir / "other-link").c_str());
  EXPECT_TRUE(vesk::replace_file((dir / ".tmp").c_str(), (dir / "out").c_str()));
  EXPECT_EQ(read_file(dir / "out"), "newer");
  EXPECT_EQ(read_file(dir / "other-link"), "new"); // the old file, under its other name only
  EXPECT_EQ(entries(), (std::vector<std::string>{"other-link", "out"}));
  EXPECT_FALSE(vesk::replace_file((dir / ".missing").c_str(), (dir / "out").c_str()));
  EXPECT_EQ(read_file(dir / "out"), "newer");
}

// Pages wholly inside the range become fresh; the bytes of the partial
// pages at both ends stay the file's, and the file itself is untouched.
TEST(Refusals, OverwrittenRangeOfAPrivateMapKeepsTheBytesAroundIt) {
  ScratchDir dir("overwrite");
  size_t page = size_t(sysconf(_SC_PAGESIZE));
  std::string bytes(5 * page, '\0');
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = char('a' + i % 23);
  write_file(dir / "in", bytes);
  int fd = open((dir / "in").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  vesk::PrivateMap map;
  ASSERT_TRUE(map.map(fd, bytes.size()));
  size_t off = page / 2, n = 3 * page; // whole pages 1 and 2 inside
  map.overwrite(off, n);
  for (size_t i = 0; i < bytes.size(); ++i)
    if (i < page || i >= 3 * page) {
      ASSERT_EQ(char(map.data()[i]), bytes[i]) << i;
    }
  std::memset(map.data() + off, 'Z', n); // every byte of the range is writable
  close(fd);
  EXPECT_EQ(read_file(dir / "in"), bytes);
}

// Work handed to the second core keeps its turn in the run: its messages
// come out where the run collects it, a task that fails ends the run
// there, and one the run never collects says nothing.  The same when the
// tasks run in their turn, in the run's thread.
TEST(Refusals, WorkBesideTheRunKeepsItsTurn) {
  for (bool in_turn : {false, true}) {
    SCOPED_TRACE(in_turn ? "in turn" : "beside");
    Background::run_in_turn(in_turn);
    testing::internal::CaptureStderr();
    { Background dropped([] { warning("never seen"); }); }
    int done = 0;
    Background task([&] { warning("from the task"), done = 1; });
    warning("from the run");
    task.collect();
    EXPECT_EQ(done, 1);
    int read = 0;
    Background failing([&] { read = 1, warning("before"), error("the task failed"); });
    warning("the run goes on");
    failing.wait(); // its results are there, its turn has not come
    EXPECT_EQ(read, 1);
    warning("after the wait");
    EXPECT_THROW(failing.collect(), Fatal);
    // Work done at once, ahead of its turn, keeps its turn all the same.
    int early = 0;
    Background ahead(Background::Now{}, [&] { early = 1, warning("done ahead"), error("ahead failed"); });
    EXPECT_EQ(early, 1);
    warning("its turn comes");
    EXPECT_THROW(ahead.collect(), Fatal);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Warning: from the run.\nWarning: from the task.\n"
                                                       "Warning: the run goes on.\nWarning: after the wait.\n"
                                                       "Warning: before.\nError: the task failed.\n"
                                                       "Warning: its turn comes.\nWarning: done ahead.\n"
                                                       "Error: ahead failed.\n");
  }
  Background::run_in_turn(false);
}

// Work that needs nothing of the work handed over before it is done by the
// run itself while the second core is busy: once, its messages in its turn,
// and the work queued behind it still waits for it.
TEST(Refusals, IndependentWorkIsTakenBackFromABusyCore) {
  std::atomic<bool> release{false};
  Background busy([&] {
    for (int i = 0; i < 10000 && !release; ++i) // a bound: a fault fails the test rather than hangs it
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  });
  testing::internal::CaptureStderr();
  int runs = 0;
  std::thread::id where;
  Background own(Background::Independent{}, [&] { ++runs, where = std::this_thread::get_id(), warning("taken back"); });
  int seen = -1;
  Background behind([&] { seen = runs; });
  warning("the run waits");
  own.collect();
  EXPECT_EQ(where, std::this_thread::get_id());
  release = true;
  busy.collect();
  behind.collect();
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(seen, 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Warning: the run waits.\nWarning: taken back.\n");
}
