// The procedure table and the new-order list.
#pragma once

#include <cstdint>

namespace vesk {

struct Proc {
  const char *name;      // may be null
  const char *file_name; // may be null
  uint64_t old_addr;
  uint32_t size;         // bytes, a multiple of 4
  uint32_t freq;
  Proc *prev;            // new-order list
  Proc *next;
  int32_t placed;
  int32_t tied;          // must be followed directly by next
};

// One slot of a proc map: a feedback list entry.
struct ProcMapEntry {
  Proc *proc;
  uint32_t count;
};

extern Proc *order_head;
extern Proc *order_tail;
// 1 when the feedback does not cover the program as it is now.
extern int status;

Proc *new_proc();
int get_n_procs();
Proc *get_proc_by_index(long i);
ProcMapEntry *alloc_proc_map();
void attach_proc_list(Proc *p);
void attach_proc_with_no_feedback();
int clear_proc_flag();
Proc *get_proc_by_addr(uint64_t addr);
Proc *find_proc_by_name(const char *name, const char *file_name);
int cmp_begin(const void *a, const void *b);
void mdebug_derive_proc_highpc();
void dump_procs();
void dump_proc_list();

// Empties the table, the list and the cursors (tests run several programs
// in one process).
void reset_proc_table();

} // namespace vesk
