// The procedure table and the new-order list.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/flat_index.h"

namespace vesk {

struct Proc {
  const char *name;      // may be null
  const char *file_name; // may be null
  uint64_t old_addr;
  uint32_t size;         // bytes, a multiple of 4
  uint32_t freq;
  Proc *prev;            // new-order list
  Proc *next;
  // Feedback reading: 1 once the file being read names the record (a file
  // names each record once), the merge's marks while two lists merge, then
  // 1 for a record in the new-order list.
  int32_t listed;
  bool examined;         // the tie walks over the list have looked at it
  int32_t tied;          // must be followed directly by next
};

// One slot of a proc map: a feedback list entry.
struct ProcMapEntry {
  Proc *proc;
  uint32_t count;
};

// "name" or "(null)" for a nameless record, as messages print it.
inline const char *text_or_null(const char *s) { return s ? s : "(null)"; }
inline const char *name_of(const Proc *p) { return text_or_null(p->name); }

// Finding the end of a tied chain walks it, and a chain that grows from
// its end towards its head (fall-through procedures met in reverse address
// order) would be walked again at every step.  While a check runs, the
// walks remember where they ended: a remembered end is a record further
// down the same chain, which stays true as long as no tie inside the chain
// is cut (ties only join chains; a move that cuts one forgets everything).
struct ChainEnds {
  bool active = false;
  std::unordered_map<Proc *, Proc *> ends;
  std::vector<Proc *> path;
  // For the branch ties: how far the walk from a record goes through
  // records already tied to the procedure that physically follows them
  // (steps that change nothing).  Kept only while no two procedures
  // overlap, so that the walk is a run of adjacent procedures by address.
  bool contiguous_walks = false;
  std::unordered_map<Proc *, Proc *> tied_runs;
};

// The procedure table of a run, with the new-order list through it and the
// lookup indexes over both.
struct ProcTable {
  std::vector<Proc> records;    // discovery order (later sorted by address)
  std::deque<std::string> strings; // names the records point to, kept for the run
  const char *keep(const char *s) { return strings.emplace_back(s).c_str(); }
  Proc *order_head = nullptr;   // the new-order list
  Proc *order_tail = nullptr;
  size_t order_size = 0;        // records attached to the list (moves keep them in it)
  // The feedback does not cover the program as it is now (a procedure
  // without feedback, or feedback naming none of the program's).
  bool feedback_stale = false;

  // Lookups by address walk the new-order list from the last hit.  With
  // many procedures and lookups in another order than the list, that walk
  // is quadratic, so an index over the list's records answers whenever the
  // answer cannot depend on the walk's order: when exactly one record holds
  // the address, or none does.  Overlapping records fall back to the walk.
  Proc *last_hit = nullptr;
  Proc *last_unique = nullptr;   // the last answer that no other record shares
  bool addr_index_valid = false;
  std::vector<Proc *> by_start;  // records of the list with size > 0
  std::vector<uint64_t> starts;  // their starts, searched without visiting the records
  std::vector<uint64_t> max_end; // prefix maximum of the ends
  std::vector<bool> overlaps;    // the record shares an address with another

  // Lookups by name: every record's index under its (name, file name); a
  // search goes on from the record found last.
  bool name_index_valid = false;
  FlatIndex by_name;
  int name_search_start = 0;

  ChainEnds chain_ends;
};

Proc *new_proc();
// Room for n records in all, made before a discovery adds about that many:
// growing the table record by record copies it again and again.
void reserve_procs(size_t n);
int get_n_procs();
Proc *get_proc_by_index(long i);
ProcMapEntry *alloc_proc_map();
void attach_proc_list(Proc *p);
void attach_proc_with_no_feedback();
int clear_proc_flag();
Proc *get_proc_by_addr(uint64_t addr);
// The records of the list with a size, by start; records that start
// together come in no particular order.
const std::vector<Proc *> &procs_by_start();
Proc *find_proc_by_name(const char *name, const char *file_name);
// For reading many names in no particular order: the hash a lookup of
// (name, file_name) uses, a lookup that takes it, and the steps that fetch
// what such a lookup will read (step 0 the bucket, 1 the first record of
// its chain, 2 that record's name), each taken some lookups ahead of the
// next: a step reads what the one before fetched.
size_t proc_name_hash(const char *name, const char *file_name);
Proc *find_proc_by_name(const char *name, const char *file_name, size_t hash);
void prefetch_proc_name(size_t hash, int step);
int cmp_begin(const void *a, const void *b);
void mdebug_derive_proc_highpc();
void dump_procs();

} // namespace vesk
