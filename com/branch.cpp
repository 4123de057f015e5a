// The moved code still carries the branch offsets and jump targets of the
// old layout; every word of the input .text is classified by its old
// contents and its copy in the new text is patched.
#include "com/branch.h"

#include "base/bin.h"
#include "base/bytes.h"
#include "base/diag.h"
#include "base/mips.h"
#include "base/options.h"
#include "com/update.h"

namespace vesk {

namespace {

constexpr uint64_t REGION_MASK = ~uint64_t(0x0fffffff); // a j/jal reaches its own 256 MB

} // namespace

void update_branch_offset() {
  if (bin.text_buf == nullptr || bin.text_map == nullptr || bin.new_text == nullptr)
    return;
  auto fix = [](uint32_t k) {
    uint64_t old_pc = bin.text_lo + uint64_t(k) * 4;
    // The word as the layout copied it, untouched so far: the input's
    // pages of the code are gone by now.
    const uint8_t *copy = new_text_word(text_map_word(k));
    uint32_t word = copy != nullptr ? load32(copy) : word_at(bin.text_buf, k);
    switch (mips::fixup_kind(word)) {
    case mips::Fixup::branch: update_one_branch(word, old_pc); break;
    case mips::Fixup::jump: update_jump(word, old_pc); break;
    case mips::Fixup::none: break;
    }
  };
  // The branch check found the branches and jumps already, in this text.
  if (bin.fixup_words_of == bin.text_buf) {
    for (uint32_t k : bin.fixup_words)
      fix(k);
    return;
  }
  for (uint32_t k = 0; k < bin.text_words; ++k)
    fix(k);
}

void update_one_branch(uint32_t word, uint64_t old_pc) {
  uint64_t new_pc;
  if (!map_text_address(old_pc, &new_pc))
    return;
  uint8_t *out = new_text_word(new_pc);
  if (out == nullptr)
    return; // the word did not make it into the new text
  uint64_t target = mips::branch_target(old_pc, word);
  map_text_address(target, &target); // code outside .text does not move
  int32_t delta = int32_t(uint32_t(target) - uint32_t(new_pc) - 4);
  int32_t new_offset = delta >> 2;
  // A branch that no longer reaches its target would send the program
  // elsewhere; the layout keeps branches between procedures in reach, so
  // this means the plan is wrong, and nothing may be written.
  if (new_offset < -32768 || new_offset > 32767)
    error("branch new offset %#x at %#llx out of range: from its new place %#llx the branch cannot reach %#llx",
          uint32_t(new_offset), (unsigned long long)old_pc, (unsigned long long)new_pc, (unsigned long long)target);
  store16(out + 2, uint16_t(new_offset));
}

void update_jump(uint32_t word, uint64_t old_pc) {
  uint64_t target = mips::jump_target(old_pc, word);
  uint64_t new_target = 0;
  bool known = map_text_address(target, &new_target);
  if (!known && !in_text(target) && target >= bin.exec_lo && target < bin.exec_hi && target > bin.text_hi) {
    new_target = target; // code behind .text stays where it is
    known = true;
  }
  uint64_t new_pc;
  if (known && map_text_address(old_pc, &new_pc)) {
    if (uint8_t *out = new_text_word(new_pc)) {
      store32(out, mips::with_instr_index(load32(out), uint32_t(new_target >> 2)));
      if (((new_pc + 4) & REGION_MASK) != (new_target & REGION_MASK))
        error("jump at %#llx cannot reach %#llx from its new place %#llx (another 256 MB region)",
              (unsigned long long)old_pc, (unsigned long long)new_target, (unsigned long long)new_pc);
    }
  } else if (!known) {
    warning("jump target %#llx not in .text or .init", (unsigned long long)target);
  }
  if (option.debug)
    dump("jump at %#llx changed from %#llx to %#llx", (unsigned long long)old_pc, (unsigned long long)target,
         (unsigned long long)new_target);
}

} // namespace vesk
