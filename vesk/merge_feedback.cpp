// The merged feedback file of "-merge": every procedure in the order it is
// laid out, with its summed count.  It reads back as a feedback file.
#include <cstdio>

#include "base/bin.h"
#include "base/diag.h"
#include "vesk/feedback.h"
#include "vesk/options.h"

namespace vesk {

void write_merged_feedback() {
  if (option.merge_file == nullptr)
    return;
  FILE *f = std::fopen(option.merge_file, "w");
  if (f == nullptr)
    sysfatal("cannot open %s", option.merge_file);
  std::fprintf(f, "$magic   %#x\n", 0x10130000u);
  std::fprintf(f, "$version %d\n", 2);
  std::fprintf(f, "$kind    procedure\n");
  std::fprintf(f, "$start\n");
  std::fprintf(f, "# generate by vesk -merge\n");
  std::fprintf(f, "#%29s %17s %10s\n", "procedure_name", "file_name", "freq");
  for (Proc *p = bin.procs.order_head; p != nullptr; p = p->next)
    std::fprintf(f, "%30s %20s %10u\n", text_or_null(p->name), text_or_null(p->file_name), p->freq);
  if (std::ferror(f) || std::fclose(f) != 0)
    sysfatal("cannot write %s", option.merge_file);
}

} // namespace vesk
