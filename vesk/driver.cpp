#include "vesk/driver.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <fcntl.h>
#include <sys/stat.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "base/bin.h"
#include "base/diag.h"
#include "base/file_io.h"
#include "base/proc.h"
#include "com/annotate/in_memory.h"
#include "com/branch.h"
#include "com/dwarf_update.h"
#include "com/eh_frame.h"
#include "com/elf.h"
#include "com/events.h"
#include "com/mdebug.h"
#include "com/rpt.h"
#include "com/update.h"
#include "com/update_compact_rel.h"
#include "com/xlate_table.h"
#include "vesk/checks.h"
#include "vesk/noreturn.h"
#include "vesk/feedback.h"
#include "vesk/options.h"
#include "vesk/order.h"
#include "vesk/r4000.h"
#include "vesk/reach.h"
#include "com/reader.h"

namespace vesk {

namespace {

void run(int argc, char **argv) {
  // The platform's fix-up of misaligned accesses has no Linux equivalent;
  // every read and write of section contents goes through base/bytes.h.
  parse_command_line(argc, argv);
  open_input();
  describe_code_addresses_in_memory();
  parse_input();
  // Read on the second core beside the discovery, once it is through with
  // its share: the feedback files, the unwind tables, then the text's
  // branches.
  debug_interface([] {
    start_reading_feedback();
    start_reading_unwind_tables();
    start_scanning_text();
  });
  read_reorder_files();
  if (option.debug)
    dump_procs();
  check_output_is_not_input();
  open_output();
  reorder_it();
  write_it();
  elf_end(bin.in_elf);
  bin.in_elf = nullptr;
  post_process_rpt(bin.in_fd, bin.out_fd);
  post_process_line(bin.in_fd, bin.out_fd);
  commit_output();
}

} // namespace

int vesk_main(int argc, char **argv, bool process_ends) {
  bin = Bin{};
  option = Options{};
  int status = 0;
  try {
    run(argc, argv);
    if (process_ends) {
      // The output is in place.  The run's memory goes back to the system
      // at once when the process ends; handing it back piece by piece
      // would cost more than a step of the rewrite.
      std::fflush(stdout);
      std::fflush(stderr);
      std::_Exit(0);
    }
  } catch (const Fatal &) {
    status = 1;
  } catch (const std::bad_alloc &) {
    std::fflush(stdout);
    std::fputs("Error: out of memory.\n", stderr);
    status = 1;
  }
  end_run();
  return status;
}

// The output is written to a temporary file beside it and renamed into
// place only when the whole run has succeeded: a refusal or a failure
// leaves no output and an existing file at that path untouched.
void open_output() {
  // The temporary file is renamed over the output: a device or a FIFO at
  // that path would be replaced by a plain file.
  struct stat st;
  if (stat(option.output, &st) == 0 && !S_ISREG(st.st_mode))
    error("output %s is not a regular file; name another output with -o", option.output);
  std::string out = option.output;
  size_t slash = out.rfind('/');
  std::string dir = slash == std::string::npos ? "." : out.substr(0, slash == 0 ? 1 : slash);
  std::string temp = dir + "/." + basename(option.output) + ".vesk-XXXXXX";
  std::vector<char> name(temp.begin(), temp.end());
  name.push_back('\0');
  bin.out_fd = mkstemp(name.data());
  if (bin.out_fd < 0)
    sysfatal("cannot open %s", option.output);
  bin.output_temp = name.data();
  mode_t mask = umask(0);
  umask(mask);
  if (fchmod(bin.out_fd, 0755 & ~mask) != 0)
    sysfatal("cannot open %s", option.output);
}

void commit_output() {
  // Like the compiler and the linker that made the input, vesk leaves the
  // output to the system to write back: waiting for the disk would cost
  // more than the whole rewrite.
  int fd = bin.out_fd;
  bin.out_fd = -1;
  if (close(fd) != 0)
    sysfatal("writing %s", option.output);
  if (!replace_file(bin.output_temp.c_str(), option.output))
    sysfatal("cannot write %s", option.output);
  bin.output_temp.clear();
}

void reorder_it() {
  bin.text_map_store.reset(new uint32_t[bin.text_words ? bin.text_words : 1]);
  bin.text_map = bin.text_map_store.get();
  release_input_pages(); // of what reading the input touched, the rewrite reads only some again
  duplicate_elf();
  prepare_new_text();
  start_dwarf_update(); // on the second core, beside the checks and the layout
  read_gp_ranges(); // which GOT the code of a program with several reads
  verify_proc();
  check_branch_out_of_procedure();
  {
    NoReturn calls; // what both ties ask about callees, learnt once
    tie_procedures_ending_in_a_call(&calls);
    tie_procedures_without_a_return(&calls);
  }
  tie_procedures_sharing_unwind_info();
  keep_split_functions_in_reach();
  if (option.r4000_fix == 1)
    fix_r4000_bug();
  std::vector<Proc *> order = reorder_procedures();
  // The layout read the input's code for the last time but for the
  // compact relocations, which fetch the pages they need again.
  release_input_pages(bin.text_buf, size_t(bin.text_words) * 4);
  // n32/n64 code that moves needs the events records to be repaired.
  bool has_events = !is_o32() && has_event_sections(bin.in_elf);
  if (!is_o32() && !has_events)
    refuse_unrepairable_moves();
  // On the second core, beside the updates below.
  start_gp_ranges_update();
  continue_dwarf_update();
  if (bin.debug_kind == DEBUG_DWARF)
    build_xlate_table(order); // likewise
  update_elf_header();
  update_dynamic();
  update_got();
  update_reldyn();
  update_dynsym();
  update_symtab();
  if (is_o32())
    update_rpt();
  update_branch_offset();
  // Beside the last repair of the code, where its input pages go: the
  // pages of .mdebug it copies do not add to them.
  start_mdebug_update();
  if (is_o32())
    update_compact_rel();
  else if (has_events)
    process_update_events(); // without them nothing has moved (refused above)
  // The input's code has been read for the last time but for a rare check.
  release_input_pages(bin.text_buf, size_t(bin.text_words) * 4);
  update_gp_ranges();
  update_unwind_tables();
  if (option.r4000_fix != 0) // any nonzero value, unlike the fix above
    check_r4000_bug();
  update_mdebug();
  update_dwarf(); // before the table, which goes behind every section that grew
  add_xlate_section();
}

void check_output_is_not_input() {
  // Every file vesk writes (the output, the merged feedback) must be
  // another file than every file it reads (the program, the feedback
  // files) and than each other, whatever names lead to them.
  struct Named {
    const char *path;
    struct stat st;
  };
  std::vector<Named> inputs;
  Named in{option.program, {}};
  if (stat(option.program, &in.st) == 0) // bin.in_fd may be the input described in memory
    inputs.push_back(in);
  for (const char **f = option.feedback_files; f != nullptr && *f != nullptr; ++f) {
    Named fb{*f, {}};
    if (stat(*f, &fb.st) == 0)
      inputs.push_back(fb);
  }
  auto same = [](const struct stat &a, const struct stat &b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; };
  struct stat out_st, merge_st;
  bool out_exists = stat(option.output, &out_st) == 0;
  if (out_exists)
    for (const Named &i : inputs)
      if (same(i.st, out_st))
        error("output file %s is the %s file %s; name another output with -o", option.output,
              i.path == option.program ? "input" : "feedback", i.path);
  if (option.merge_file != nullptr && stat(option.merge_file, &merge_st) == 0) {
    for (const Named &i : inputs)
      if (same(i.st, merge_st))
        error("merged feedback file %s is the %s file %s; name another file with -merge", option.merge_file,
              i.path == option.program ? "input" : "feedback", i.path);
    if (out_exists && same(out_st, merge_st))
      error("merged feedback file %s is the output file %s; name another file with -merge", option.merge_file,
            option.output);
  }
}

} // namespace vesk
