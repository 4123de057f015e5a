// The feedback reader on the bytes of a feedback file, against a small
// procedure table (the names of examples/calc.fb and a few more): header
// directives, body lines, counts, and the merge of the file with itself.
#include "base/proc.h"
#include "fuzz/fuzz_support.h"
#include "vesk/feedback.h"

namespace {

void add_procs() {
  const char *const names[][2] = {{"main", "calc.c"},     {"lex_next", "lexer.c"}, {"parse_primary", "eval.c"},
                                  {"parse_expr", "eval.c"}, {"eval", "eval.c"},     {"a", "a.c"}};
  uint64_t addr = 0x400000;
  for (const auto &n : names) {
    vesk::Proc *p = vesk::new_proc();
    p->name = n[0];
    p->file_name = n[1];
    p->old_addr = addr;
    addr += 0x40;
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  vesk::fuzz::MemFile file(data, size);
  vesk::fuzz::in_fresh_run([&] {
    vesk::option.program = "calc";
    add_procs();
    const char *files[] = {file.path(), file.path(), nullptr};
    vesk::option.feedback_files = files;
    vesk::read_reorder_files();
    vesk::option.feedback_files = nullptr;
  });
  return 0;
}
