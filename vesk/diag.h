// Every message the tool prints goes through these functions.
//
//   note     "Note: " text "\n"                  standard error
//   warning  "Warning: " text ".\n"              standard error
//   error    "Error: " text ".\n", exit 1        standard error
//   sysfatal "Error: " cause text ".\n", exit 1  standard error (cause from errno)
//   dump     "<Debug> " text "\n"                standard output
//
// Internal consistency checks are fatal errors of the form
// error("%s:%d ASSERT(expr)", "com/mdebug", 40): the source path and line
// are those of the check's home in the design, written by hand.
#pragma once

#include <libdwarf.h>

namespace vesk {

#define VESK_PRINTF(f, a) __attribute__((format(printf, f, a)))

void note(const char *fmt, ...) VESK_PRINTF(1, 2);
void warning(const char *fmt, ...) VESK_PRINTF(1, 2);
[[noreturn]] void error(const char *fmt, ...) VESK_PRINTF(1, 2);
[[noreturn]] void sysfatal(const char *fmt, ...) VESK_PRINTF(1, 2);
void dump(const char *fmt, ...) VESK_PRINTF(1, 2);
[[noreturn]] void print_dwarf_error(Dwarf_Debug dbg, int result, Dwarf_Error err, const char *fmt, ...)
    VESK_PRINTF(4, 5);
// Ends the run with libelf's message when libelf has an error pending;
// returns quietly otherwise.
void print_elf_error();

// The part of path behind its last "/" (the same storage, not a copy).
const char *basename(const char *path);
char *basename(char *path);

} // namespace vesk
