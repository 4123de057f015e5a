// Re-pointing the .compact_rel section of an o32 executable.
#pragma once

namespace vesk {

void update_compact_rel();

// Reads from the input's .compact_rel header which GOT entries page loads
// read (bin.got_page, bin.got_pages_known).
void read_got_page_marks();

} // namespace vesk
