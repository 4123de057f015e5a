// The run record: the executable being rewritten, filled by the input
// reader and completed by the planning and rewriting steps.  A run starts
// from a fresh Bin{}.
#pragma once

#include <cstdint>
#include <deque>
#include <libelf.h>
#include <memory>
#include <string>
#include <vector>

#include "base/background.h"
#include "base/file_io.h"
#include "base/proc.h"

namespace vesk {

enum DebugKind { DEBUG_NONE = 0, DEBUG_MDEBUG = 1, DEBUG_DWARF = 2 };

struct Bin {
  int pic_kind = 0;        // 0 EF_MIPS_PIC, 1 EF_MIPS_CPIC, 2 neither
  int is_elf32 = 0;        // 1 ELFCLASS32, 0 ELFCLASS64
  int is_n32 = 0;          // EF_MIPS_ABI2
  int debug_kind = 0;      // DebugKind
  Elf *in_elf = nullptr;
  Elf64_Ehdr in_ehdr{};    // the input's ELF header, widened to the 64-bit layout
  uint64_t text_hi = 0;    // end of .text (exclusive)
  uint64_t text_lo = 0;    // start of .text
  uint64_t exec_hi = 0;    // highest end of an executable section
  uint64_t exec_lo = 0;    // lowest start of an executable section
  uint64_t stubs_lo = 0;   // .MIPS.stubs, lowered to text_lo
  uint64_t entry = 0;      // e_entry
  // Where every input .text word went: the index of its word in the new
  // text (4 bytes a word where an address would take 8; the map is as
  // large as .text itself).
  uint32_t *text_map = nullptr;
  // What text_map points to during a run; the layout writes every entry
  // before anything reads one, so it is not cleared first.
  std::unique_ptr<uint32_t[]> text_map_store;
  uint32_t text_words = 0; // 4-byte words in .text
  const uint8_t *text_buf = nullptr; // input .text, raw big-endian, text_words * 4 bytes
  // The words of text_buf that hold a branch or a jump, by index, found
  // by the branch check's pass over the text so that the fix-up need not
  // make another; fixup_words_of is the text they were found in.
  std::vector<uint32_t> fixup_words;
  const uint8_t *fixup_words_of = nullptr;
  // The branches among them that may leave their procedure, and the pass
  // that finds both, begun on the second core after the discovery.
  std::vector<uint32_t> branch_words;
  std::unique_ptr<Background> text_scan;
  uint32_t gp_value = 0;
  uint64_t gp_full = 0;     // gp in full: an n64 gp lies above 4 GB, gp_value holds its low 32 bits
  uint32_t local_gotno = 0;
  uint32_t local_gotidx = 0;
  uint32_t gotsym = 0;
  uint32_t pltgot = 0;
  uint32_t mips_flags = 0; // DT_MIPS_FLAGS as found (set by the dynamic update)
  uint32_t strtab_addr = 0;
  uint32_t time_stamp = 0;
  uint32_t feedback_time_stamp = 0;
  const uint8_t *got_buf = nullptr; // input .got, raw big-endian
  uint32_t got_count = 0;           // .got size / 4
  const void *dynsym_buf = nullptr; // input .dynsym, host order
  Elf *out_elf = nullptr;
  uint32_t new_text_fill = 0;  // words laid out in new_text
  uint8_t *new_text = nullptr; // output .text, raw big-endian; word n at text_lo + 4n
  int rpt_in_file = 0;
  uint32_t rpt_offset = 0;
  uint32_t rpt_size = 0;
  uint32_t line_offset = 0;
  uint32_t line_size = 0;
  int in_fd = -1;
  int input_mapped = 0; // the input's image is its file mapped read-only: 1 yes, -1 no, 0 not known yet
  int out_fd = -1;
  std::string output_temp; // the output being written, until it is renamed into place
  // got_page[i] != 0: GOT entry i holds a 64 KB page that page loads read,
  // never a code address.  Known when the annotation lists them.
  bool got_pages_known = false;
  std::vector<uint8_t> got_page;
  // Stretches of code and data words (old addresses) that use a secondary
  // GOT's gp, by start; everything else uses gp_full.
  struct GpRange {
    uint64_t lo, hi, gp;
  };
  std::vector<GpRange> gp_ranges;
  std::vector<uint32_t> got_free; // page entries of secondary GOTs that may take other pages

  // Contents that sections of the output image point to, kept until the
  // image is written.
  std::deque<std::vector<uint8_t>> out_buffers;
  // The unwind tables as read for the tie before the layout, for the
  // update after it (held as the unwind code's own type; the reading may
  // still be under way on the second core).
  std::shared_ptr<void> unwind_tables;
  // The input mapped copy-on-write: the output's sections start as views of
  // their input bytes there.
  PrivateMap out_base;

  ProcTable procs;
  // The run of library stubs at the start of .text that no procedure
  // describes, [libstub_lo, libstub_hi); 0, 0 when there is none.
  uint64_t libstub_lo = 0;
  uint64_t libstub_hi = 0;
  // A procedure descriptor of the mdebug table lies outside .text (reported
  // at the end with -v).
  bool mdebug_bad_proc_info = false;
  // The input's own .MIPS.Xlate section (an earlier run's output): its
  // table leads from the addresses the DWARF describes to where that code
  // lies in the input.  Null when it is empty or there is none.
  bool has_xlate = false;
  const uint8_t *in_xlate = nullptr;
  size_t in_xlate_size = 0;
  // The pieces of the new table, built after the layout and added to the
  // image once every other section has its final size.
  std::vector<std::vector<uint8_t>> xlate_pieces;
  // The table being built beside the rest of the rewrite (end_run waits
  // for it before what it reads goes).
  std::unique_ptr<Background> xlate_task;
  // The output .text's pages made fresh on the second core before the
  // layout writes them (end_run waits for it before the image goes).
  std::unique_ptr<Background> fresh_text;
  // The feedback files read beside the discovery (their reader's own
  // type; end_run waits for the reading).
  std::shared_ptr<void> feedback_reading;
  // The stretches of .vesk.gp laid out again on the second core, and the
  // output buffer they go to.
  std::unique_ptr<Background> gp_ranges_task;
  std::vector<uint8_t> *gp_ranges_bytes = nullptr;
  // The .mdebug update done on the second core, beside the last repairs of
  // the code.
  std::unique_ptr<Background> mdebug_task;
  // The DWARF update begun beside the other updates (its own type, known
  // to the update only; end_run waits for its work).
  std::shared_ptr<void> dwarf_update;
};

extern Bin bin;

// Ends what a run left open or half-written (the input and output images and
// descriptors, an unfinished output) and starts fresh run records.
void end_run();

// A .text whose size is not a multiple of 4 ends in a partial word that
// has no text_map entry; it counts as outside.
inline bool in_text(uint64_t a) {
  return a >= bin.text_lo && a < bin.text_hi && ((a - bin.text_lo) >> 2) < bin.text_words;
}
inline bool is_o32() { return bin.is_elf32 == 1 && bin.is_n32 == 0; }
// The new address of an old .text address (caller checks in_text).
inline uint64_t text_map_of(uint64_t a) { return bin.text_lo + 4 * uint64_t(bin.text_map[(a - bin.text_lo) >> 2]); }
// The new address of input .text word k.
inline uint64_t text_map_word(uint64_t k) { return bin.text_lo + 4 * uint64_t(bin.text_map[k]); }

// The end of the run of input words from k (k < end <= text_words) that
// stay together: the first word behind k, at most end, that does not
// follow the word before it in the new layout.  Blocks of words are
// compared at once: the runs of a layout are dozens of words long.
inline uint64_t text_map_run_end(uint64_t k, uint64_t end) {
  const uint32_t *map = bin.text_map;
  uint64_t j = k + 1;
  constexpr uint64_t kBlock = 16;
  while (j + kBlock <= end) {
    unsigned apart = 0;
    for (uint64_t i = 0; i < kBlock; ++i)
      apart |= map[j + i] != map[j + i - 1] + 1;
    if (apart)
      break;
    j += kBlock;
  }
  while (j < end && map[j] == map[j - 1] + 1)
    ++j;
  return j;
}

} // namespace vesk
