// The message functions: exact forms, streams and exit statuses.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <libelf.h>
#include <unistd.h>

#include "support/child.h"
#include "vesk/diag.h"

using namespace vesk;
using namespace vesk::test;

TEST(Diag, NoteWarningAndDumpFormsAndStreams) {
  auto r = run_in_child([] {
    note("n %d", 1);
    warning("w %s", "x");
    dump("d %#llx", 0x400000ULL);
    note("two\n      lines");
  });
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "Note: n 1\nWarning: w x.\nNote: two\n      lines\n");
  EXPECT_EQ(r.out, "<Debug> d 0x400000\n");
}

TEST(Diag, ErrorEndsTheRunWithStatusOne) {
  auto r = run_in_child([] {
    dump("before");
    error("%s:%d ASSERT(ldptr)", "com/mdebug", 40);
  });
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Error: com/mdebug:40 ASSERT(ldptr).\n");
  EXPECT_EQ(r.out, "<Debug> before\n");
}

static RunResult sysfatal_with(int e) {
  return run_in_child([e] {
    errno = e;
    sysfatal("reading %s", "prog");
  });
}

TEST(Diag, SysfatalCauseFollowsErrno) {
  auto r = sysfatal_with(-1);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Error: unexpected end of file, reading prog.\n");

  r = sysfatal_with(ENOENT);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Error: No such file or directory, reading prog.\n");

  // The last entry of the table still has its text...
  r = sysfatal_with(EHWPOISON);
  EXPECT_EQ(r.err, std::string("Error: ") + strerrordesc_np(EHWPOISON) + ", reading prog.\n");
  // ... and so has a hole inside it (no error uses 41 on Linux).
  r = sysfatal_with(41);
  EXPECT_EQ(r.err, std::string("Error: ") + std::strerror(41) + ", reading prog.\n");

  r = sysfatal_with(EHWPOISON + 1);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Error: error code " + std::to_string(EHWPOISON + 1) + ", reading prog.\n");
  r = sysfatal_with(100000);
  EXPECT_EQ(r.err, "Error: error code 100000, reading prog.\n");
  r = sysfatal_with(-5);
  EXPECT_EQ(r.err, "Error: error code -5, reading prog.\n");
}

TEST(Diag, DwarfErrorCauseFollowsResult) {
  auto r = run_in_child([] { print_dwarf_error(nullptr, DW_DLV_NO_ENTRY, nullptr, "dwarf_tag"); });
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Dwarf Error: NO ENTRY dwarf_tag\n");
  r = run_in_child([] { print_dwarf_error(nullptr, DW_DLV_OK, nullptr, "dwarf_lowpc in %s", "f"); });
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Dwarf Error: DLV_OK dwarf_lowpc in f\n");
  r = run_in_child([] { print_dwarf_error(nullptr, 7, nullptr, "dwarf_diename"); });
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Dwarf Error: code 7 dwarf_diename\n");
}

TEST(Diag, ElfErrorOnlyWhenLibelfHasOne) {
  auto r = run_in_child([] {
    elf_version(EV_CURRENT);
    elf_errno(); // nothing pending
    print_elf_error();
    note("still running");
  });
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "Note: still running\n");

  r = run_in_child([] {
    elf_version(EV_CURRENT);
    Elf *e = elf_begin(-1, ELF_C_READ, nullptr); // fails: bad descriptor
    (void)e;
    print_elf_error();
    note("not reached");
  });
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err.rfind("Error: ", 0), 0u) << r.err;
  EXPECT_EQ(r.err.find("not reached"), std::string::npos);
  EXPECT_EQ(r.err.substr(r.err.size() - 2), ".\n");
}
