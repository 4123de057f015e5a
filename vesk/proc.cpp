// Placeholder: this step is built by a later change; until then it does nothing.
#include "vesk/proc.h"

namespace vesk {

Proc *order_head;
Proc *order_tail;
int status;
Proc *new_proc() { return nullptr; }
int get_n_procs() { return 0; }
Proc *get_proc_by_index(long) { return nullptr; }
ProcMapEntry *alloc_proc_map() { return nullptr; }
void attach_proc_list(Proc *) {}
void attach_proc_with_no_feedback() {}
int clear_proc_flag() { return 0; }
Proc *get_proc_by_addr(uint64_t) { return nullptr; }
Proc *find_proc_by_name(const char *, const char *) { return nullptr; }
int cmp_begin(const void *, const void *) { return 0; }
void mdebug_derive_proc_highpc() {}
void dump_procs() {}
void dump_proc_list() {}
void reset_proc_table() {}

} // namespace vesk
