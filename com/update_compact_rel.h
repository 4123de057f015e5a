// Re-pointing the .compact_rel section of an o32 executable.
#pragma once

#include <cstdint>
#include <vector>

namespace vesk {

void update_compact_rel();

// Reads from the input's .compact_rel header which GOT entries page loads
// read (bin.got_page, bin.got_pages_known).
void read_got_page_marks();

// The gp and new target of every instruction of a GOT page/offset pair
// forming a code address, from the input's .compact_rel (bin.text_map
// filled).
struct PageUse {
  uint64_t gp, target;
};
std::vector<PageUse> compact_rel_page_uses();

} // namespace vesk
