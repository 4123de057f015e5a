// Feedback files: reading, merging and writing the merged list.
#pragma once

#include "base/proc.h"

namespace vesk {

// Reads the feedback files on the second core, beside the discovery of the
// procedures (which the lookups of their names wait for); a fault in a
// file is reported in the turn of read_reorder_files.
void start_reading_feedback();
void read_reorder_files();
int merge_feedback_lists(ProcMapEntry *earlier, int n_earlier, ProcMapEntry *later, int n_later);
// Writes option.merge_file from the new-order list, when it is set.
void write_merged_feedback();

} // namespace vesk
