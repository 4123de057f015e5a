// The .compact_rel codec on the bytes of a section: the header's pairs up
// to tag 0, then every entry the count announces.  What the cursor decodes
// the writer encodes again, and that must decode to the same entries.
#include <vector>

#include "base/bytes.h"
#include "com/compact_rel.h"
#include "fuzz/fuzz_support.h"

namespace {

std::vector<vesk::CompactRelEntry> decode(const uint8_t *stream, const uint8_t *end, uint32_t count) {
  vesk::CompactRelCursor cm{};
  cm.rlc_ptr = stream;
  cm.end = end;
  cm.rlc_no = count;
  vesk::cm_rlc_reset(&cm);
  std::vector<vesk::CompactRelEntry> entries;
  vesk::CompactRelEntry e;
  while (vesk::cm_rlc_get(&cm, &e))
    entries.push_back(e);
  return entries;
}

bool same(const vesk::CompactRelEntry &a, const vesk::CompactRelEntry &b) {
  return a.type == b.type && a.konst == b.konst && a.dist2to == b.dist2to && a.vaddr == b.vaddr;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  vesk::fuzz::in_fresh_run([&] {
    size_t header = 0;
    uint32_t count = 0;
    for (size_t off = 0; off + 8 <= size; off += 8) {
      uint32_t tag = vesk::load32(data + off);
      if (tag == vesk::CR_TAG_COUNT)
        count = vesk::load32(data + off + 4);
      if (tag == 0) {
        header = off + 8;
        break;
      }
    }
    if (header == 0)
      return;
    std::vector<vesk::CompactRelEntry> entries = decode(data + header, data + size, count);
    vesk::CompactRelWriter w(data, header);
    for (const vesk::CompactRelEntry &e : entries)
      w.add_cr(e.type, e.konst, e.dist2to, e.vaddr);
    const std::vector<uint8_t> &out = w.bytes();
    std::vector<vesk::CompactRelEntry> again = decode(out.data() + header, out.data() + out.size(), count);
    if (again.size() != entries.size())
      __builtin_trap();
    for (size_t i = 0; i < entries.size(); ++i)
      if (!same(entries[i], again[i]))
        __builtin_trap();
  });
  return 0;
}
