// Every message the tool prints goes through these functions.
//
//   note     "Note: " text "\n"                  standard error
//   warning  "Warning: " text ".\n"              standard error
//   error    "Error: " text ".\n", ends the run  standard error
//   sysfatal "Error: " cause text ".\n", ends the run (cause from errno)
//   dump     "<Debug> " text "\n"                standard output
//
// A message that ends the run is printed first, then Fatal is thrown; the
// program's entry point catches it and exits with status 1, after removing
// what the run had begun to write.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace vesk {

// Thrown once the message that ends the run has been printed.
struct Fatal {};

#define VESK_PRINTF(f, a) __attribute__((format(printf, f, a)))

void note(const char *fmt, ...) VESK_PRINTF(1, 2);
void warning(const char *fmt, ...) VESK_PRINTF(1, 2);
[[noreturn]] void error(const char *fmt, ...) VESK_PRINTF(1, 2);
[[noreturn]] void sysfatal(const char *fmt, ...) VESK_PRINTF(1, 2);
void dump(const char *fmt, ...) VESK_PRINTF(1, 2);
// Ends the run: "<program>: cannot read its DWARF information (<what>):
// <the DWARF library's cause>", the cause being the error it has pending.
[[noreturn]] void print_dwarf_error(const char *fmt, ...) VESK_PRINTF(1, 2);
// Ends the run with libelf's message, after the name of the file it
// concerns, when libelf has an error pending; returns quietly otherwise.
void print_elf_error(const char *file);

// A message held back instead of printed, by work that runs beside the run
// (base/background.h).
struct HeldMessage {
  FILE *stream;
  std::string text;
};
// From here on this thread's messages go to *to (null: printed again).
void hold_messages(std::vector<HeldMessage> *to);
// Prints messages held back, in the order they were given.
void print_held(const std::vector<HeldMessage> &messages);

// The part of path behind its last "/" (the same storage, not a copy).
const char *basename(const char *path);
char *basename(char *path);

} // namespace vesk
