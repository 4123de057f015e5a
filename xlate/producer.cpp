// The producer: ranges are packed into 4096-byte blocks as they come, and
// the finished table is handed out as a header with its block index, the
// blocks, and the trailer.
#include <algorithm>
#include <new>

#include "base/bytes.h"
#include "xlate/leb128.h"
#include "xlate/xlate.h"

namespace vesk::xlate {

namespace {

// The first range of a block carries no difference: the block index holds
// its old address.
XlateBlock &new_block(XlateList &l, uint64_t na, uint64_t nl, uint64_t oa, uint64_t ol) {
  XlateBlock &b = l.blocks.emplace_back();
  b.first_new = b.lowest_new = na;
  b.first_old = b.lowest_old = oa;
  b.highest_new_end = na + nl;
  b.highest_old_end = oa + ol;
  b.last_new = na;
  b.last_new_len = nl;
  b.last_old = oa;
  b.last_old_len = ol;
  return b;
}

void fold(XlateHighWater &hw, const XlateBlock &b) {
  hw.lowest_new = std::min(hw.lowest_new, b.lowest_new);
  hw.lowest_old = std::min(hw.lowest_old, b.lowest_old);
  hw.highest_new_end = std::max(hw.highest_new_end, b.highest_new_end);
  hw.highest_old_end = std::max(hw.highest_old_end, b.highest_old_end);
}

// One record: the numbers of the kind, in the width of the table.
template <bool Wide, int Kind> int encode(uint8_t *p, uint64_t nl, uint64_t ol, int64_t diff) {
  int n;
  if constexpr (Wide)
    n = _leb128_unsigned_encode64(nl >> 2, p);
  else
    n = _leb128_unsigned_encode32(uint32_t(nl) >> 2, p);
  if constexpr (Kind == XLATE_KIND_OLD_ORDER) {
    if constexpr (Wide)
      return n + _leb128_unsigned_encode64(ol >> 2, p + n);
    else
      return n + _leb128_unsigned_encode32(uint32_t(ol) >> 2, p + n);
  } else {
    if constexpr (Wide)
      n += _leb128_signed_encode64(diff >> 2, p + n);
    else
      n += _leb128_signed_encode32(int32_t(uint32_t(diff)) >> 2, p + n);
    if constexpr (Kind == XLATE_KIND_GENERAL) {
      if constexpr (Wide)
        n += _leb128_signed_encode64(int64_t(nl - ol) >> 2, p + n);
      else
        n += _leb128_signed_encode32(int32_t(uint32_t(nl - ol)) >> 2, p + n);
    }
    return n;
  }
}

// The encoder family, written once.  Every test is made before anything is
// written or committed, so a refused range leaves the table as it was; the
// one exception is the first range of an empty list, whose block is made
// before the size test.
template <bool Wide, int Kind>
int add_range(XlateList &l, uint64_t na, uint64_t nl, uint64_t oa, uint64_t ol) {
  if constexpr (!Wide) {
    na = uint32_t(na), nl = uint32_t(nl), oa = uint32_t(oa), ol = uint32_t(ol);
  }
  auto width = [](uint64_t v) { return Wide ? v : uint64_t(uint32_t(v)); };
  try {
    XlateBlock *b;
    int64_t diff = 0;
    if (l.blocks.empty()) {
      b = &new_block(l, na, nl, oa, ol);
    } else {
      b = &l.blocks.back();
      if (na != width(b->last_new + b->last_new_len))
        return XLATE_NOT_ADJACENT;
      if (Kind == XLATE_KIND_OLD_ORDER && oa != width(b->last_old + b->last_old_len))
        return XLATE_NOT_ADJACENT;
      diff = int64_t(oa - b->last_old);
    }
    if (Kind == XLATE_KIND_SAME_SIZE && nl != ol)
      return XLATE_SIZE_DIFFERS;
    int n = encode<Wide, Kind>(b->data + b->bytes_used, nl, ol, diff);
    if (b->bytes_used + uint32_t(n) > XLATE_BLOCK_SIZE) {
      fold(l.high_water, *b);
      b = &new_block(l, na, nl, oa, ol);
      n = encode<Wide, Kind>(b->data, nl, ol, 0);
    }
    b->bytes_used += uint32_t(n);
    b->lowest_new = std::min(b->lowest_new, na);
    b->lowest_old = std::min(b->lowest_old, oa);
    b->highest_new_end = std::max(b->highest_new_end, width(na + nl));
    b->highest_old_end = std::max(b->highest_old_end, width(oa + ol));
    b->last_new = na;
    b->last_new_len = nl;
    b->last_old = oa;
    b->last_old_len = ol;
    ++b->range_count;
    return XLATE_OK;
  } catch (const std::bad_alloc &) {
    return XLATE_NO_MEMORY;
  }
}

XlateEncoder encoder_for(int kind, bool is64) {
  static constexpr XlateEncoder table[3][2] = {
      {_xlate_pro_add_range_ge32_xtnd, _xlate_pro_add_range_ge64_xtnd},
      {_xlate_pro_add_range_ps32_xtnd, _xlate_pro_add_range_ps64_xtnd},
      {_xlate_pro_add_range_po32_xtnd, _xlate_pro_add_range_po64_xtnd},
  };
  return table[kind][is64 ? 1 : 0];
}

bool live(const XlateProducer *h) { return h != nullptr && h->magic == XLATE_PRODUCER_MAGIC; }

XlateList &chosen_list(XlateProducer *h) { return h->version == 2 ? h->step : h->main; }

// The header with its block index, in the form of the table's width.
std::vector<uint8_t> header_piece(const XlateProducer *h, const XlateList &l) {
  uint64_t ranges = 0;
  for (const XlateBlock &b : l.blocks)
    ranges += b.range_count;
  uint64_t n = l.blocks.size();
  const XlateHighWater &hw = l.high_water;
  std::vector<uint8_t> v;
  if (!h->is64) {
    v.resize(52 + 20 * n);
    uint8_t *p = v.data();
    store32(p, 5);
    p[4] = uint8_t(l.kind), p[5] = h->flag_a, p[6] = h->flag_b, p[7] = 0;
    store32(p + 8, XLATE_BLOCK_SIZE);
    store32(p + 12, uint32_t(h->trailer.size()));
    store32(p + 16, uint32_t(n));
    store32(p + 20, uint32_t(ranges));
    store32(p + 24, uint32_t(hw.lowest_new));
    store32(p + 28, uint32_t(hw.highest_new_end));
    store32(p + 32, uint32_t(hw.lowest_old));
    store32(p + 36, uint32_t(hw.highest_old_end));
    store32(p + 40, uint32_t(h->reserved1));
    store32(p + 44, uint32_t(h->reserved2));
    store32(p + 48, uint32_t(h->reserved3));
    p += 52;
    for (const XlateBlock &b : l.blocks) {
      store32(p, uint32_t(b.first_new));
      store32(p + 4, uint32_t(b.first_old));
      store32(p + 8, b.range_count);
      store32(p + 12, uint32_t(b.lowest_old));
      store32(p + 16, uint32_t(b.highest_old_end));
      p += 20;
    }
  } else {
    v.resize(88 + 40 * n);
    uint8_t *p = v.data();
    store32(p, 6);
    p[4] = uint8_t(l.kind), p[5] = h->flag_a, p[6] = h->flag_b, p[7] = 0;
    store32(p + 8, XLATE_BLOCK_SIZE);
    store32(p + 12, uint32_t(h->trailer.size()));
    store64(p + 16, n);
    store64(p + 24, ranges);
    store64(p + 32, hw.lowest_new);
    store64(p + 40, hw.highest_new_end);
    store64(p + 48, hw.lowest_old);
    store64(p + 56, hw.highest_old_end);
    store64(p + 64, h->reserved1);
    store64(p + 72, h->reserved2);
    store64(p + 80, h->reserved3);
    p += 88;
    for (const XlateBlock &b : l.blocks) {
      store64(p, b.first_new);
      store64(p + 8, b.first_old);
      store64(p + 16, b.range_count);
      store64(p + 24, b.lowest_old);
      store64(p + 32, b.highest_old_end);
      p += 40;
    }
  }
  return v;
}

} // namespace

int _xlate_pro_add_range_ge32_xtnd(XlateList &l, uint64_t na, uint64_t nl, uint64_t oa, uint64_t ol) {
  return add_range<false, XLATE_KIND_GENERAL>(l, na, nl, oa, ol);
}
int _xlate_pro_add_range_ge64_xtnd(XlateList &l, uint64_t na, uint64_t nl, uint64_t oa, uint64_t ol) {
  return add_range<true, XLATE_KIND_GENERAL>(l, na, nl, oa, ol);
}
int _xlate_pro_add_range_ps32_xtnd(XlateList &l, uint64_t na, uint64_t nl, uint64_t oa, uint64_t ol) {
  return add_range<false, XLATE_KIND_SAME_SIZE>(l, na, nl, oa, ol);
}
int _xlate_pro_add_range_ps64_xtnd(XlateList &l, uint64_t na, uint64_t nl, uint64_t oa, uint64_t ol) {
  return add_range<true, XLATE_KIND_SAME_SIZE>(l, na, nl, oa, ol);
}
int _xlate_pro_add_range_po32_xtnd(XlateList &l, uint64_t na, uint64_t nl, uint64_t oa, uint64_t ol) {
  return add_range<false, XLATE_KIND_OLD_ORDER>(l, na, nl, oa, ol);
}
int _xlate_pro_add_range_po64_xtnd(XlateList &l, uint64_t na, uint64_t nl, uint64_t oa, uint64_t ol) {
  return add_range<true, XLATE_KIND_OLD_ORDER>(l, na, nl, oa, ol);
}

int xlate_pro_init_xtnd(XlateProducer **handle_out, int kind, const XlateTable *input_table, int is64) {
  if (kind < 0 || kind > 2)
    return XLATE_BAD_KIND;
  XlateProducer *h = new (std::nothrow) XlateProducer;
  if (h == nullptr)
    return XLATE_NO_MEMORY;
  h->input = input_table;
  h->is64 = is64 != 0;
  h->main.kind = kind;
  if (input_table != nullptr) {
    XlateInfo in;
    int st = xlate_get_info_xtnd(input_table, &in);
    if (st == XLATE_OK && in.is64 != h->is64)
      st = XLATE_ADDRESS_SIZE_DIFFERS;
    if (st != XLATE_OK) {
      delete h;
      return st;
    }
    // Composed ranges keep the guarantee only when both tables give it.
    h->main.kind = in.kind == kind && kind != XLATE_KIND_GENERAL ? kind : XLATE_KIND_GENERAL;
    h->step.kind = kind;
    h->step.encoder = encoder_for(kind, h->is64);
  }
  h->main.encoder = encoder_for(h->main.kind, h->is64);
  h->magic = XLATE_PRODUCER_MAGIC;
  *handle_out = h;
  return XLATE_OK;
}

int xlate_pro_add_range_xtnd(XlateProducer *h, uint64_t new_addr, uint64_t new_len, uint64_t old_addr,
                             uint64_t old_len) {
  if (!live(h))
    return XLATE_BAD_MAGIC;
  if (h->finished)
    return XLATE_ADDED_AFTER_HEADER;
  if (h->input == nullptr)
    return h->main.encoder(h->main, new_addr, new_len, old_addr, old_len);
  int st = h->step.encoder(h->step, new_addr, new_len, old_addr, old_len);
  if (st != XLATE_OK)
    return st;
  return _xlate_merge_range_xtnd(h, new_addr, new_len, old_addr, old_len);
}

int xlate_pro_disk_header_xtnd(XlateProducer *h, int version, uint64_t *total_size_out, uint64_t *piece_count_out) {
  if (!live(h))
    return XLATE_BAD_MAGIC;
  if (h->input != nullptr) {
    int st = _xlate_add_tentative_new_range_xtnd(h, 0, 0, 0, 0);
    if (st != XLATE_OK)
      return st;
  }
  h->finished = true;
  if (version != 1 && version != 2)
    return XLATE_BAD_VERSION;
  h->version = version;
  h->chose_v1 = version == 1;
  h->chose_v2 = version == 2;
  XlateList &l = chosen_list(h);
  if (!l.blocks.empty())
    fold(l.high_water, l.blocks.back());

  h->cursor = 0;
  h->header_emitted = h->trailer_emitted = h->spare = false;
  uint64_t total = 0, count = 0, len = 0;
  int st;
  while ((st = xlate_pro_disk_next_block_xtnd(h, nullptr, &len)) == XLATE_OK) {
    total += len;
    ++count;
  }
  if (st != XLATE_NO_MORE_PIECES)
    return st;
  h->header_emitted = h->trailer_emitted = false;
  h->cursor = 0;
  *total_size_out = total;
  *piece_count_out = count;
  return XLATE_OK;
}

int xlate_pro_disk_next_block_xtnd(XlateProducer *h, std::vector<uint8_t> *piece_out, uint64_t *length_out) {
  if (!live(h))
    return XLATE_BAD_MAGIC;
  if (!h->finished || h->version == 0)
    return XLATE_NO_HEADER_YET;
  XlateList &l = chosen_list(h);
  try {
    if (!h->header_emitted) {
      if (l.blocks.empty() && h->trailer.empty())
        return XLATE_NO_MORE_PIECES;
      h->header_emitted = true;
      if (!h->is64)
        *length_out = 52 + 20 * uint64_t(l.blocks.size());
      else
        *length_out = 88 + 40 * uint64_t(l.blocks.size());
      if (piece_out)
        *piece_out = header_piece(h, l);
      return XLATE_OK;
    }
    if (h->cursor < l.blocks.size()) {
      const XlateBlock &b = l.blocks[h->cursor++];
      *length_out = XLATE_BLOCK_SIZE;
      if (piece_out) {
        piece_out->assign(XLATE_BLOCK_SIZE, 0);
        std::copy(b.data, b.data + b.bytes_used, piece_out->begin());
      }
      return XLATE_OK;
    }
    if (!h->trailer.empty() && !h->trailer_emitted) {
      h->trailer_emitted = true;
      *length_out = h->trailer.size();
      if (piece_out)
        *piece_out = h->trailer;
      return XLATE_OK;
    }
  } catch (const std::bad_alloc &) {
    return XLATE_NO_MEMORY;
  }
  return XLATE_NO_MORE_PIECES;
}

int xlate_pro_finish_xtnd(XlateProducer *h) {
  if (!live(h))
    return XLATE_BAD_MAGIC;
  h->magic = 0;
  delete h;
  return XLATE_OK;
}

// One range held back so that the pieces a composition cuts out of
// consecutive input ranges join again.  The one-word overlaps join ranges
// that share a boundary instruction.
int _xlate_add_tentative_new_range_xtnd(XlateProducer *h, uint64_t na, uint64_t nl, uint64_t oa, uint64_t ol) {
  XlatePending &p = h->pending;
  auto flush = [&]() {
    int st = h->main.encoder(h->main, p.r.new_addr, p.r.new_len, p.r.old_addr, p.r.old_len);
    p.held = false;
    return st;
  };
  auto replace = [&]() {
    int st = flush();
    p.held = true;
    p.r = XlateRange{na, nl, oa, ol};
    return st;
  };
  if (nl == 0)
    return p.held ? flush() : XLATE_OK;
  if (!p.held) {
    p.held = true;
    p.r = XlateRange{na, nl, oa, ol};
    return XLATE_OK;
  }
  XlateRange &r = p.r;
  if (na == r.new_addr + r.new_len) {
    if (oa == r.old_addr + r.old_len) {
      if (r.new_len != r.old_len)
        return replace();
      r.new_len += nl;
      r.old_len += ol;
      return XLATE_OK;
    }
    if (oa == r.old_addr + r.old_len - 4) {
      r.new_len += nl;
      r.old_len += ol - 4;
      return XLATE_OK;
    }
    return replace();
  }
  if (na == r.new_addr + r.new_len - 4) {
    if (oa == r.old_addr + r.old_len) {
      r.old_len += ol;
      r.new_len += nl - 4;
      return XLATE_OK;
    }
    if (oa == r.old_addr + r.old_len - 4) {
      r.new_len += nl - 4;
      r.old_len += ol - 4;
      return XLATE_OK;
    }
  }
  return replace();
}

// A range of this step goes from its new address back to the old address
// of the input table's older build: its old extent is cut where the input
// table's ranges end, and each piece is translated through the input.
int _xlate_merge_range_xtnd(XlateProducer *h, uint64_t na, uint64_t nl, uint64_t oa, uint64_t ol) {
  if (nl != ol) {
    uint64_t older = oa;
    XlateRange r;
    int st = xlate_address_xtnd(h->input, XLATE_NEW_TO_OLD, oa, &older, &r);
    return st != XLATE_OK ? st : _xlate_add_tentative_new_range_xtnd(h, na, nl, older, ol);
  }
  for (uint64_t pos = oa; pos < oa + ol;) {
    uint64_t older = pos;
    XlateRange r;
    int st = xlate_address_xtnd(h->input, XLATE_NEW_TO_OLD, pos, &older, &r);
    if (st != XLATE_OK)
      return st;
    uint64_t end = std::min(r.new_addr + r.new_len, oa + ol);
    uint64_t len = end > pos + 4 ? end - pos : 4;
    uint64_t older_len = len;
    if (r.new_len != r.old_len) // a piece of a range whose size changed: no more than its old extent
      older_len = std::max<uint64_t>(4, std::min(len, r.old_addr + r.old_len - older));
    st = _xlate_add_tentative_new_range_xtnd(h, na + (pos - oa), len, older, older_len);
    if (st != XLATE_OK)
      return st;
    pos += len;
  }
  return XLATE_OK;
}

} // namespace vesk::xlate
