// Feedback files: reading, merging and writing the merged list.
#pragma once

#include "base/proc.h"

namespace vesk {

void read_reorder_files();
int read_reorder_file(const char *path, ProcMapEntry *list);
int merge_feedback_lists(ProcMapEntry *earlier, int n_earlier, ProcMapEntry *later, int n_later);
// Writes option.merge_file from the new-order list, when it is set.
void write_merged_feedback();

} // namespace vesk
