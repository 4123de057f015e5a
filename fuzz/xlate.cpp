// The .MIPS.Xlate consumer on the bytes of a table: open (header, block
// index, blocks, trailer checked against the bytes), the header, every
// block's ranges, and translations both ways of addresses in and around
// each range.
#include <vector>

#include "fuzz/fuzz_support.h"
#include "xlate/xlate.h"

using namespace vesk::xlate;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  XlateTable t;
  if (xlate_open_xtnd(data, size, &t) != XLATE_OK)
    return 0;
  XlateInfo info;
  xlate_get_info_xtnd(&t, &info);
  uint64_t out = 0;
  XlateRange r;
  for (uint64_t a : {info.lowest_new, info.highest_new_end, info.lowest_old, info.highest_old_end})
    for (int dir : {XLATE_NEW_TO_OLD, XLATE_OLD_TO_NEW})
      xlate_address_xtnd(&t, dir, a, &out, &r);
  size_t looked_up = 0;
  for (uint64_t b = 0; b < t.index.size(); ++b) {
    std::vector<XlateRange> ranges;
    if (xlate_block_ranges_xtnd(&t, b, &ranges) != XLATE_OK)
      continue;
    for (const XlateRange &x : ranges) {
      if (++looked_up > 256)
        return 0;
      xlate_address_xtnd(&t, XLATE_NEW_TO_OLD, x.new_addr, &out, &r);
      xlate_address_xtnd(&t, XLATE_NEW_TO_OLD, x.new_addr + x.new_len - 4, &out, &r);
      xlate_address_xtnd(&t, XLATE_OLD_TO_NEW, x.old_addr, &out, &r);
      xlate_address_xtnd(&t, XLATE_OLD_TO_NEW, x.old_addr + x.old_len, &out, &r);
    }
  }
  return 0;
}
