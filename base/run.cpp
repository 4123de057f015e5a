// The run records.  Every step of a run reads and fills these two; a new
// run starts from fresh ones (see vesk_main).
#include "base/bin.h"
#include "base/options.h"

#include <libelf.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
// The tools leave what a run allocated to process exit (libelf's and
// libdw's handles among it), so a leak report at exit says nothing;
// sanitizer builds of every program linked with this library look for real
// faults only.
extern "C" const char *__asan_default_options() { return "detect_leaks=0"; }
#endif

namespace vesk {

Bin bin;
Options option;

void end_run() {
  // Work on the second core reads the input and the layout.
  bin.dwarf_update.reset();
  bin.feedback_reading.reset();
  bin.xlate_task.reset();
  bin.fresh_text.reset();
  bin.gp_ranges_task.reset();
  bin.mdebug_task.reset();
  bin.unwind_tables.reset();
  bin.text_scan.reset();
  if (bin.in_elf != nullptr)
    elf_end(bin.in_elf);
  if (bin.out_elf != nullptr && bin.out_elf != bin.in_elf)
    elf_end(bin.out_elf);
  if (bin.in_fd >= 0)
    close(bin.in_fd);
  if (bin.out_fd >= 0)
    close(bin.out_fd);
  if (!bin.output_temp.empty())
    unlink(bin.output_temp.c_str());
  bin = Bin{};
  option = Options{};
}

} // namespace vesk
