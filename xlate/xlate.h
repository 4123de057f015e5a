// The .MIPS.Xlate address translation table: which old code went where.
//
// A table is a list of ranges (new address and length, old address and
// length, all multiples of 4) that tile the new address space in ascending
// order.  On disk it is a header with a block index, then blocks of exactly
// 4096 bytes of LEB128 numbers; every multi-byte number is big-endian.
//
// The producer collects ranges and hands the section back piece by piece;
// the consumer opens a table from its bytes and translates addresses in
// either direction.  Every entry point returns a status (0 or one of the
// negative codes below); nothing here prints.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace vesk::xlate {

constexpr uint32_t XLATE_SECTION_TYPE = 0x70000024;
constexpr uint32_t XLATE_BLOCK_SIZE = 4096;

// Status codes.
constexpr int XLATE_OK = 0;
constexpr int XLATE_NO_MEMORY = -1;
constexpr int XLATE_BAD_KIND = -3;          // table kind not 0, 1 or 2
constexpr int XLATE_NO_MORE_PIECES = -10;
constexpr int XLATE_ADDED_AFTER_HEADER = -35;
constexpr int XLATE_BAD_MAGIC = -43;        // not a live handle
constexpr int XLATE_NOT_IN_TABLE = -46;
constexpr int XLATE_BAD_VERSION = -50;      // version not 1 or 2
constexpr int XLATE_NO_HEADER_YET = -51;
constexpr int XLATE_SIZE_DIFFERS = -53;     // kind 1: new length != old length
constexpr int XLATE_NOT_ADJACENT = -55;
constexpr int XLATE_ADDRESS_SIZE_DIFFERS = -59;
// The consumer's own: the bytes are no table, or contradict their header.
constexpr int XLATE_MALFORMED = -60;

// Bits of the header's second flag byte (flag_b).  DWARF_UPDATED: the
// executable's DWARF describes the new layout (vesk rewrote it), not the
// old one the table leads back to.
constexpr uint8_t XLATE_FLAG_DWARF_UPDATED = 0x01;

// Table kinds.
constexpr int XLATE_KIND_GENERAL = 0;     // new ranges adjacent
constexpr int XLATE_KIND_SAME_SIZE = 1;   // ... and every range keeps its size
constexpr int XLATE_KIND_OLD_ORDER = 2;   // ... and old ranges adjacent too

const char *xlate_status_text(int status);

struct XlateRange {
  uint64_t new_addr = 0, new_len = 0, old_addr = 0, old_len = 0;
};

// ---------------------------------------------------------------- consumer

enum XlateDirection { XLATE_NEW_TO_OLD = 0, XLATE_OLD_TO_NEW = 1 };

struct XlateInfo {
  int kind = 0;
  bool is64 = false;
  uint64_t lowest_new = 0, highest_new_end = 0, lowest_old = 0, highest_old_end = 0;
  uint8_t flag_a = 0, flag_b = 0;
  int64_t reserved1 = 0;
  uint64_t reserved2 = 0, reserved3 = 0;
  uint64_t range_count = 0;
  uint64_t block_count = 0;
  uint32_t block_size = 0, trailer_length = 0;
};

// One entry of the block index.
struct XlateBlockIndex {
  uint64_t first_new = 0, first_old = 0, range_count = 0, lowest_old = 0, highest_old_end = 0;
};

struct XlateTable {
  uint32_t magic = 0; // XLATE_TABLE_MAGIC while open
  const uint8_t *bytes = nullptr; // the caller's, kept alive by it
  size_t size = 0;
  XlateInfo info;
  std::vector<XlateBlockIndex> index;
  size_t blocks_offset = 0; // where the first block begins
};
constexpr uint32_t XLATE_TABLE_MAGIC = 0xa100f034;

// Opens the table in bytes[0, size) (which must outlive it), checking that
// the header, block index, blocks and trailer fit the bytes exactly.
int xlate_open_xtnd(const uint8_t *bytes, size_t size, XlateTable *table);
int xlate_get_info_xtnd(const XlateTable *table, XlateInfo *info);
int _xlate_get_infov2_32_xtnd(const uint8_t *bytes, size_t size, XlateInfo *info);
int _xlate_get_infov2_64_xtnd(const uint8_t *bytes, size_t size, XlateInfo *info);
// The ranges of block i, decoded; XLATE_MALFORMED when its numbers run past
// the block.
int xlate_block_ranges_xtnd(const XlateTable *table, uint64_t i, std::vector<XlateRange> *out);
// Translates one address.  An address that no range holds translates to
// itself, and *range_out is then a 4-byte range at it on both sides.
int xlate_address_xtnd(const XlateTable *table, int direction, uint64_t address, uint64_t *address_out,
                       XlateRange *range_out);

// ---------------------------------------------------------------- producer

struct XlateHighWater {
  uint64_t lowest_new = ~uint64_t(0), lowest_old = ~uint64_t(0);
  uint64_t highest_new_end = 0, highest_old_end = 0;
};

struct XlateBlock {
  uint64_t first_new = 0, first_old = 0;
  uint64_t lowest_old = 0, lowest_new = 0, highest_old_end = 0, highest_new_end = 0;
  uint64_t last_new = 0, last_new_len = 0, last_old = 0, last_old_len = 0;
  uint32_t range_count = 0;
  uint32_t bytes_used = 0;
  // The encoder writes before it tests the size, so the block has slack
  // for the longest record.
  uint8_t data[XLATE_BLOCK_SIZE + 40] = {};
};

struct XlateProducer;
struct XlateList;
using XlateEncoder = int (*)(XlateList &, uint64_t new_addr, uint64_t new_len, uint64_t old_addr, uint64_t old_len);

struct XlateList {
  std::deque<XlateBlock> blocks; // in creation order; the tail is back()
  XlateHighWater high_water;
  XlateEncoder encoder = nullptr;
  int kind = 0;
};

struct XlatePending {
  bool held = false;
  XlateRange r;
};

constexpr uint32_t XLATE_PRODUCER_MAGIC = 0xeff7a102;

struct XlateProducer {
  uint32_t magic = 0;
  const XlateTable *input = nullptr; // the table this one is composed with
  XlateList main;                    // written under version 1
  XlateList step;                    // this step's own ranges (input table only), version 2
  uint64_t reserved1 = 0, reserved2 = 0, reserved3 = 0;
  uint8_t flag_a = 0, flag_b = 0;
  bool is64 = false;
  bool finished = false;
  bool chose_v1 = false, chose_v2 = false;
  int version = 0;
  bool header_emitted = false;
  bool spare = false;
  bool trailer_emitted = false;
  size_t cursor = 0; // next block of the chosen list to hand out
  std::vector<uint8_t> trailer;
  XlatePending pending;
};

int xlate_pro_init_xtnd(XlateProducer **handle_out, int kind, const XlateTable *input_table, int is64);
int xlate_pro_add_range_xtnd(XlateProducer *h, uint64_t new_addr, uint64_t new_len, uint64_t old_addr,
                             uint64_t old_len);
int xlate_pro_disk_header_xtnd(XlateProducer *h, int version, uint64_t *total_size_out, uint64_t *piece_count_out);
// The next piece into *piece_out (the caller's); with a null piece_out only
// its length is reported.
int xlate_pro_disk_next_block_xtnd(XlateProducer *h, std::vector<uint8_t> *piece_out, uint64_t *length_out);
int xlate_pro_finish_xtnd(XlateProducer *h);

// The six range encoders, chosen at init by kind and address size.
int _xlate_pro_add_range_ge32_xtnd(XlateList &l, uint64_t na, uint64_t nl, uint64_t oa, uint64_t ol);
int _xlate_pro_add_range_ge64_xtnd(XlateList &l, uint64_t na, uint64_t nl, uint64_t oa, uint64_t ol);
int _xlate_pro_add_range_ps32_xtnd(XlateList &l, uint64_t na, uint64_t nl, uint64_t oa, uint64_t ol);
int _xlate_pro_add_range_ps64_xtnd(XlateList &l, uint64_t na, uint64_t nl, uint64_t oa, uint64_t ol);
int _xlate_pro_add_range_po32_xtnd(XlateList &l, uint64_t na, uint64_t nl, uint64_t oa, uint64_t ol);
int _xlate_pro_add_range_po64_xtnd(XlateList &l, uint64_t na, uint64_t nl, uint64_t oa, uint64_t ol);
// Composition with the input table: the pending range and the merge.
int _xlate_add_tentative_new_range_xtnd(XlateProducer *h, uint64_t na, uint64_t nl, uint64_t oa, uint64_t ol);
int _xlate_merge_range_xtnd(XlateProducer *h, uint64_t na, uint64_t nl, uint64_t oa, uint64_t ol);

} // namespace vesk::xlate
