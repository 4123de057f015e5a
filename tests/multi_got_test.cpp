// Programs whose GOT outgrows what a 16-bit gp offset reaches: GNU ld
// splits it, and the code of each object then reads its own GOT through
// its own gp (secondary GOTs come behind the primary one).  Each file of
// the generated program reads thousands of distinct global variables, so
// its entries alone fill much of a GOT, and jumps through a switch table
// relative to its gp; with `statics`, it also takes the addresses of
// static functions through GOT pages.  Laid out reversed and shuffled, the
// program must print what the original printed.  A PIE's secondary GOT
// gets no spare entries (the loader would not relocate them): its own page
// entries move to where its code went, and where they are too few for the
// pages a layout needs, vesk refuses the layout and writes nothing.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "support/bench.h"

using namespace vesk::test;

namespace {

// files source files of n variables each (their definitions in data.c),
// and main.c.
void generate(const ScratchDir &dir, int files, int n, bool statics) {
  std::string data;
  for (int i = 0; i < files * n; ++i)
    data += "int v" + std::to_string(i) + " = " + std::to_string(i * 7 % 1000) + ";\n";
  write_file(dir / "data.c", data);
  std::string decls = "#include <stdio.h>\ntypedef int (*fn)(int);\n", main = "int main(void) {\n";
  for (int k = 0; k < files; ++k) {
    std::string K = std::to_string(k), s = "typedef int (*fn)(int);\n";
    for (int i = k * n; i < (k + 1) * n; ++i)
      s += "extern int v" + std::to_string(i) + ";\n";
    for (int j = 0; j < 4; ++j) {
      s += std::string(statics ? "static " : "") + "int s" + K + "_" + std::to_string(j) + "(int x) {\n";
      s += "  switch (x & 7) {\n";
      for (int c = 0; c < 6; ++c)
        s += "  case " + std::to_string(c) + ": return x * " + std::to_string(c + j + k) + " + " + std::to_string(c) +
             ";\n";
      s += "  default: return x;\n  }\n}\n";
    }
    std::string sum = "int sum" + K + "(void) { return 0";
    for (int m = 0; m < n; m += 100) {
      std::string part = "part" + K + "_" + std::to_string(m);
      s += "int " + part + "(void) { return 0";
      for (int i = k * n + m; i < k * n + std::min(n, m + 100); ++i)
        s += " + v" + std::to_string(i);
      s += "; }\n";
      sum += " + " + part + "()";
    }
    s += sum + "; }\nfn pick" + K + "(int i) {\n  switch (i) {\n";
    for (int j = 0; j < 4; ++j)
      s += "  case " + std::to_string(j) + ": return s" + K + "_" + std::to_string(j) + ";\n";
    s += "  default: return 0;\n  }\n}\n";
    write_file(dir / ("p" + K + ".c"), s);
    decls += "int sum" + K + "(void);\nfn pick" + K + "(int);\n";
    main += "  printf(\"%d:\", sum" + K + "());\n  for (int i = 0; i < 4; ++i)\n    printf(\" %d\", pick" + K +
            "(i)(i + 3));\n  printf(\"\\n\");\n";
  }
  write_file(dir / "main.c", decls + main + "  return 0;\n}\n");
}

struct Case {
  const char *abi, *model;
  bool statics;    // static functions, reached through GOT pages
  bool may_refuse; // a layout may need more pages than the secondary GOT has
  int n = 0;       // variables per file; 0: enough for one secondary GOT
};

// o32 and n32 GOT entries are 4 bytes, n64's 8: a GOT splits beyond 16,380
// and 8,190 entries.  n32 position-dependent code reaches no data through
// the GOT.  With 9,000 variables a file, each file after the first gets a
// secondary GOT of its own, so the layouts put code of two secondary GOTs
// side by side.
const Case kCases[] = {
    {"o32", "pie", false, false}, {"o32", "pie", true, true},     {"o32", "no-pie", true, false},
    {"n32", "pie", false, false}, {"n64", "pie", true, true},    {"n64", "no-pie", true, false},
    {"o32", "pie", false, false, 9000},
};

} // namespace

TEST(MultiGot, ProgramsWithSeveralGotsLaidOutAnewPrintWhatTheyPrinted) {
  for (const Case &c : kCases) {
    std::string abi = c.abi;
    SCOPED_TRACE(abi + " " + c.model + (c.statics ? " with static functions" : "") +
                 (c.n != 0 ? ", " + std::to_string(c.n) + " variables a file" : ""));
    ScratchDir dir("multigot");
    generate(dir, 4, c.n != 0 ? c.n : abi == "n64" ? 2600 : 4200, c.statics);
    BenchExe e;
    e.name = "multigot-" + abi;
    e.path = dir / e.name;
    e.abi = abi;
    e.qemu = {abi == "o32" ? "qemu-mips" : abi == "n32" ? "qemu-mipsn32" : "qemu-mips64", "-L",
              abi == "o32" ? "/usr/mips-linux-gnu" : "/usr/mips64-linux-gnuabi64"};
    std::string cc = abi == "o32" ? "mips-linux-gnu-gcc" : "mips64-linux-gnuabi64-gcc";
    std::string model = std::string(c.model) == "pie" ? " -fpie -pie" : " -fno-pie -no-pie";
    RunResult r = run_command({"sh", "-c",
                               "cd $0 && " + cc + (abi == "n32" ? " -mabi=n32" : "") + model +
                                   " -O1 -g -Wl,-q -o $1 main.c data.c p0.c p1.c p2.c p3.c",
                               dir.path(), e.name});
    ASSERT_EQ(r.status, 0) << r.err;
    ElfFile in(e.path);
    ASSERT_GT(in.shdr(".got").sh_size, 65536u) << "the GOT did not outgrow one gp's reach";
    e.expected = run_bench(e, e.path).out;
    ASSERT_EQ(std::count(e.expected.begin(), e.expected.end(), '\n'), 4) << e.expected;

    AnnotatedBench b(e);
    ASSERT_TRUE(b.ok()) << b.refusal();
    // The functions of the objects that use a secondary GOT are listed with
    // its gp.
    EXPECT_GT(ElfFile(b.annotated()).contents(".vesk.gp").size(), 0u);
    // vesk lays input out in order into out, which prints what the
    // original printed, or where it cannot be laid out, says so and writes
    // nothing; false then.
    auto lay_out = [&](const std::string &input, const std::vector<FeedbackLine> &order, const std::string &out) {
      RunResult v = b.vesk(input, order, out);
      if (c.may_refuse && v.status != 0) {
        EXPECT_EQ(v.status, 1);
        EXPECT_NE(v.err.find("Error: cannot find appropriate got entry"), std::string::npos) << v.err;
        struct stat st;
        EXPECT_NE(stat(out.c_str(), &st), 0) << "a refused layout left " << out;
        return false;
      }
      EXPECT_EQ(v.status, 0) << v.err;
      RunResult run = run_bench(e, out);
      EXPECT_EQ(run.status, 0) << run.err;
      EXPECT_EQ(run.out, e.expected);
      return v.status == 0;
    };
    for (LayoutOrder order : {REVERSED, SHUFFLED}) {
      SCOPED_TRACE(order_name(order));
      std::string out = b.path(std::string("out-") + order_name(order));
      if (!lay_out(e.path, ordered(order, b, e, e.path, {}, nullptr), out)) {
        // Reversed, the code of each object stays in one piece, as many
        // pages long as before: the page entries of its GOT cover it once
        // those its code no longer needs take the new pages.  Only another
        // order can need more pages than a secondary GOT has.
        EXPECT_NE(order, REVERSED) << "the reversed layout was refused";
        continue;
      }
      if (order != REVERSED)
        continue;
      ASSERT_EQ(b.vesk(b.annotated(), ordered(order, b, e, e.path, {}, nullptr), out + ".annotated").status, 0);
      EXPECT_TRUE(read_file(out) == read_file(out + ".annotated")) << "vesk-annotate then vesk wrote another file";
      // The stretches of each gp followed the code: an o32 output is laid
      // out again.  (A PIC n32/n64 output is not: its rebuilt events omit
      // the data words.)
      if (abi == "o32")
        lay_out(out, random_order(b, "again"), out + ".again");
    }
    // A description whose stretch names no GOT's gp is refused.
    ElfFile annotated(b.annotated());
    GElf_Shdr gp = annotated.shdr(".vesk.gp");
    ASSERT_GE(gp.sh_size, 24u);
    std::vector<uint8_t> bytes = annotated.bytes;
    bytes[gp.sh_offset + 23] ^= 4; // the first stretch's gp, 4 bytes off
    std::string damaged = b.path("damaged");
    write_file(damaged, std::string(bytes.begin(), bytes.end()));
    chmod(damaged.c_str(), 0755);
    r = b.vesk(damaged, reversed_order(b), b.path("from-damaged"));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("section .vesk.gp is damaged"), std::string::npos) << r.err;
  }
}
