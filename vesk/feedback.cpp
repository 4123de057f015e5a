// Placeholder: this step is built by a later change; until then it does nothing.
#include "vesk/feedback.h"

namespace vesk {

void read_reorder_files() {}
int read_reorder_file(const char *, ProcMapEntry *) { return 0; }
int merge_feedback_lists(ProcMapEntry *, int, ProcMapEntry *, int) { return 0; }
void write_merged_feedback() {}

} // namespace vesk
