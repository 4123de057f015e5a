// The consumer: a table is opened from its bytes, which are checked against
// the header once (sizes, counts, index order), so that every later read
// stays inside them; a lookup reads the block index and decodes one block.
#include <algorithm>

#include "base/bytes.h"
#include "xlate/leb128.h"
#include "xlate/xlate.h"

namespace vesk::xlate {

namespace {

bool live(const XlateTable *t) { return t != nullptr && t->magic == XLATE_TABLE_MAGIC; }

// The parts of the header both forms share, checked: a kind the decoder
// knows and blocks of the one size it writes.
int check_info(const XlateInfo &info) {
  if (info.kind < 0 || info.kind > 2 || info.block_size != XLATE_BLOCK_SIZE)
    return XLATE_MALFORMED;
  return XLATE_OK;
}

} // namespace

const char *xlate_status_text(int status) {
  switch (status) {
  case XLATE_OK: return "success";
  case XLATE_NO_MEMORY: return "out of memory";
  case XLATE_BAD_KIND: return "table kind not 0, 1 or 2";
  case XLATE_NO_MORE_PIECES: return "no more pieces";
  case XLATE_ADDED_AFTER_HEADER: return "range added after the header was made";
  case XLATE_BAD_MAGIC: return "not a live handle";
  case XLATE_NOT_IN_TABLE: return "address not in the table";
  case XLATE_BAD_VERSION: return "version not 1 or 2";
  case XLATE_NO_HEADER_YET: return "piece asked for before the header was made";
  case XLATE_SIZE_DIFFERS: return "new length differs from old length";
  case XLATE_NOT_ADJACENT: return "range does not begin where the previous one ended";
  case XLATE_ADDRESS_SIZE_DIFFERS: return "the input table's address size differs";
  case XLATE_MALFORMED: return "the bytes are not a well-formed table";
  default: return "unknown status";
  }
}

int _xlate_get_infov2_32_xtnd(const uint8_t *p, size_t size, XlateInfo *info) {
  if (size < 52 || load32(p) != 5)
    return XLATE_MALFORMED;
  XlateInfo i;
  i.is64 = false;
  i.kind = p[4], i.flag_a = p[5], i.flag_b = p[6];
  i.block_size = load32(p + 8);
  i.trailer_length = load32(p + 12);
  i.block_count = load32(p + 16);
  i.range_count = load32(p + 20);
  i.lowest_new = load32(p + 24);
  i.highest_new_end = load32(p + 28);
  i.lowest_old = load32(p + 32);
  i.highest_old_end = load32(p + 36);
  i.reserved1 = int32_t(load32(p + 40));
  i.reserved2 = load32(p + 44);
  i.reserved3 = load32(p + 48);
  *info = i;
  return check_info(i);
}

int _xlate_get_infov2_64_xtnd(const uint8_t *p, size_t size, XlateInfo *info) {
  if (size < 88 || load32(p) != 6)
    return XLATE_MALFORMED;
  XlateInfo i;
  i.is64 = true;
  i.kind = p[4], i.flag_a = p[5], i.flag_b = p[6];
  i.block_size = load32(p + 8);
  i.trailer_length = load32(p + 12);
  i.block_count = load64(p + 16);
  i.range_count = load64(p + 24);
  i.lowest_new = load64(p + 32);
  i.highest_new_end = load64(p + 40);
  i.lowest_old = load64(p + 48);
  i.highest_old_end = load64(p + 56);
  i.reserved1 = int64_t(load64(p + 64));
  i.reserved2 = load64(p + 72);
  i.reserved3 = load64(p + 80);
  *info = i;
  return check_info(i);
}

int xlate_open_xtnd(const uint8_t *bytes, size_t size, XlateTable *table) {
  *table = XlateTable{};
  if (bytes == nullptr || size < 4)
    return XLATE_MALFORMED;
  XlateInfo info;
  uint32_t form = load32(bytes);
  int st = form == 5   ? _xlate_get_infov2_32_xtnd(bytes, size, &info)
           : form == 6 ? _xlate_get_infov2_64_xtnd(bytes, size, &info)
                       : XLATE_MALFORMED;
  if (st != XLATE_OK)
    return st;
  size_t head = info.is64 ? 88 : 52, entry = info.is64 ? 40 : 20;
  // header + n * (entry + block) + trailer must be the size exactly; n is
  // bounded first so that nothing below overflows.
  uint64_t n = info.block_count;
  if (n > (size - head) / (entry + XLATE_BLOCK_SIZE) ||
      head + n * (entry + XLATE_BLOCK_SIZE) + uint64_t(info.trailer_length) != size)
    return XLATE_MALFORMED;
  const uint8_t *p = bytes + head;
  uint64_t ranges = 0;
  table->index.resize(size_t(n));
  for (uint64_t k = 0; k < n; ++k, p += entry) {
    XlateBlockIndex &e = table->index[size_t(k)];
    if (info.is64) {
      e = {load64(p), load64(p + 8), load64(p + 16), load64(p + 24), load64(p + 32)};
    } else {
      e = {load32(p), load32(p + 4), load32(p + 8), load32(p + 12), load32(p + 16)};
    }
    // A record takes two bytes at least; the new addresses rise from block
    // to block, which the lookup's binary search relies on.
    if (e.range_count > XLATE_BLOCK_SIZE / 2 ||
        (k > 0 && e.first_new < table->index[size_t(k - 1)].first_new)) {
      table->index.clear();
      return XLATE_MALFORMED;
    }
    ranges += e.range_count;
  }
  if (ranges != info.range_count) {
    table->index.clear();
    return XLATE_MALFORMED;
  }
  table->bytes = bytes;
  table->size = size;
  table->info = info;
  table->blocks_offset = size_t(head + n * entry);
  table->magic = XLATE_TABLE_MAGIC;
  return XLATE_OK;
}

int xlate_get_info_xtnd(const XlateTable *table, XlateInfo *info) {
  if (!live(table))
    return XLATE_BAD_MAGIC;
  *info = table->info;
  return XLATE_OK;
}

namespace {

template <bool Wide> int decode_block(const XlateTable *t, uint64_t i, std::vector<XlateRange> *out) {
  auto width = [](uint64_t v) { return Wide ? v : uint64_t(uint32_t(v)); };
  const XlateBlockIndex &e = t->index[size_t(i)];
  const uint8_t *p = t->bytes + t->blocks_offset + i * XLATE_BLOCK_SIZE;
  const uint8_t *end = p + XLATE_BLOCK_SIZE;
  uint64_t new_addr = e.first_new, old_addr = e.first_old;
  int kind = t->info.kind;
  out->clear();
  out->reserve(size_t(e.range_count));
  for (uint64_t k = 0; k < e.range_count; ++k) {
    uint64_t nl4 = 0, second = 0;
    int64_t diff = 0, len_diff = 0;
    int n;
    if constexpr (Wide) {
      n = _leb128_unsigned_decode64(p, end, &nl4);
    } else {
      uint32_t v = 0;
      n = _leb128_unsigned_decode32(p, end, &v);
      nl4 = v;
    }
    if (n == 0)
      return XLATE_MALFORMED;
    p += n;
    if (kind == XLATE_KIND_OLD_ORDER) {
      if constexpr (Wide) {
        n = _leb128_unsigned_decode64(p, end, &second);
      } else {
        uint32_t v = 0;
        n = _leb128_unsigned_decode32(p, end, &v);
        second = v;
      }
    } else {
      if constexpr (Wide) {
        n = _leb128_signed_decode64(p, end, &diff);
      } else {
        int32_t v = 0;
        n = _leb128_signed_decode32(p, end, &v);
        diff = v;
      }
    }
    if (n == 0)
      return XLATE_MALFORMED;
    p += n;
    if (kind == XLATE_KIND_GENERAL) {
      if constexpr (Wide) {
        n = _leb128_signed_decode64(p, end, &len_diff);
      } else {
        int32_t v = 0;
        n = _leb128_signed_decode32(p, end, &v);
        len_diff = v;
      }
      if (n == 0)
        return XLATE_MALFORMED;
      p += n;
    }
    XlateRange r;
    r.new_addr = new_addr;
    r.new_len = width(nl4 << 2);
    if (kind == XLATE_KIND_OLD_ORDER) {
      r.old_addr = old_addr;
      r.old_len = width(second << 2);
      old_addr = width(old_addr + r.old_len);
    } else {
      r.old_addr = old_addr = width(old_addr + (uint64_t(diff) << 2));
      r.old_len = kind == XLATE_KIND_SAME_SIZE ? r.new_len : width(r.new_len - (uint64_t(len_diff) << 2));
    }
    new_addr = width(new_addr + r.new_len);
    out->push_back(r);
  }
  return XLATE_OK;
}

// The address at the same offset in the other side of r; an offset past a
// shorter other side stays on its last word.
uint64_t across(uint64_t offset, uint64_t to_addr, uint64_t to_len) {
  if (to_len == 0)
    return to_addr;
  if (offset >= to_len)
    offset = (to_len - 1) & ~uint64_t(3);
  return to_addr + offset;
}

} // namespace

int xlate_block_ranges_xtnd(const XlateTable *table, uint64_t i, std::vector<XlateRange> *out) {
  if (!live(table))
    return XLATE_BAD_MAGIC;
  if (i >= table->index.size())
    return XLATE_NOT_IN_TABLE;
  return table->info.is64 ? decode_block<true>(table, i, out) : decode_block<false>(table, i, out);
}

int xlate_address_xtnd(const XlateTable *table, int direction, uint64_t address, uint64_t *address_out,
                       XlateRange *range_out) {
  if (!live(table))
    return XLATE_BAD_MAGIC;
  const XlateInfo &info = table->info;
  std::vector<XlateRange> ranges;
  auto found = [&](const XlateRange &r) {
    *range_out = r;
    *address_out = direction == XLATE_NEW_TO_OLD ? across(address - r.new_addr, r.old_addr, r.old_len)
                                                 : across(address - r.old_addr, r.new_addr, r.new_len);
    return XLATE_OK;
  };
  if (direction == XLATE_NEW_TO_OLD) {
    if (address >= info.lowest_new && address < info.highest_new_end && !table->index.empty()) {
      // The last block that begins at or below the address holds it.
      auto it = std::upper_bound(table->index.begin(), table->index.end(), address,
                                 [](uint64_t a, const XlateBlockIndex &e) { return a < e.first_new; });
      if (it != table->index.begin()) {
        int st = xlate_block_ranges_xtnd(table, uint64_t(it - table->index.begin() - 1), &ranges);
        if (st != XLATE_OK)
          return st;
        for (const XlateRange &r : ranges)
          if (address >= r.new_addr && address - r.new_addr < r.new_len)
            return found(r);
      }
    }
  } else {
    if (address >= info.lowest_old && address < info.highest_old_end) {
      // Old ranges are not sorted: every block whose old bounds hold the
      // address is decoded until one range does.
      for (size_t i = 0; i < table->index.size(); ++i) {
        const XlateBlockIndex &e = table->index[i];
        if (address < e.lowest_old || address >= e.highest_old_end)
          continue;
        int st = xlate_block_ranges_xtnd(table, i, &ranges);
        if (st != XLATE_OK)
          return st;
        for (const XlateRange &r : ranges)
          if (address >= r.old_addr && address - r.old_addr < r.old_len)
            return found(r);
      }
    }
  }
  *address_out = address;
  *range_out = XlateRange{address, 4, address, 4};
  return XLATE_OK;
}

} // namespace vesk::xlate
