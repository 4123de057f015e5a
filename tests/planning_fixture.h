// A synthetic program for the planning steps: a .text of given words and a
// procedure table over it, with the output buffers the layout fills.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <string>
#include <vector>

#include "base/bin.h"
#include "base/bytes.h"
#include "base/proc.h"
#include "vesk/checks.h"
#include "vesk/options.h"

namespace vesk::test {

// A few instruction words.
constexpr uint32_t NOP = 0x00000000;
constexpr uint32_t JR_RA = 0x03e00008;
constexpr uint32_t BREAK0 = 0x0000000d;
constexpr uint32_t JALR_T9 = 0x0320f809;
constexpr uint32_t ADDIU_SP = 0x27bdffe0;
constexpr uint32_t DIV_A0_A1 = 0x0085001a;
constexpr uint32_t LW_T0 = 0x8c880000;   // lw t0,0(a0)
constexpr uint32_t MFC1_T0 = 0x44084000; // mfc1 t0,$f8
constexpr uint64_t LO = 0x400000; // where the synthetic texts start
using Order = std::vector<std::string>;

inline uint32_t beq_zero(int32_t words) { return 0x10000000u | (uint32_t(words) & 0xffff); }
inline uint32_t jal(uint64_t target) { return 0x0c000000u | (uint32_t(target >> 2) & 0x03ffffff); }

struct Planning : ::testing::Test {
  std::vector<uint8_t> text;
  std::vector<uint64_t> map;
  std::vector<uint8_t> out;
  std::deque<std::string> names; // storage for generated names (stays put)

  void SetUp() override {
    bin.procs = ProcTable{};
    option = Options{};
    bin = Bin{};
    bin.libstub_lo = bin.libstub_hi = 0;
  }
  void TearDown() override { bin.procs = ProcTable{}; }

  void set_text(uint64_t lo, const std::vector<uint32_t> &words) {
    text.assign(words.size() * 4, 0);
    for (size_t i = 0; i < words.size(); ++i)
      store32(&text[4 * i], words[i]);
    bin.text_lo = lo;
    bin.text_hi = lo + 4 * words.size();
    bin.text_words = uint32_t(words.size());
    bin.text_buf = text.data();
    map.assign(words.size(), ~uint64_t(0));
    out.assign(words.size() * 4, 0xee); // exactly the text: a write past it is caught
    bin.text_map = map.data();
    bin.new_text = out.data();
  }
  uint32_t old_word(uint64_t i) const { return load32(&text[4 * i]); }
  uint32_t new_word(uint64_t i) const { return load32(&out[4 * i]); }

  Proc *make(const char *name, uint64_t addr, uint32_t size, const char *file = "a.c") {
    Proc *p = new_proc();
    p->name = name;
    p->file_name = file;
    p->old_addr = addr;
    p->size = size;
    return p;
  }
  const char *keep(std::string s) {
    names.push_back(std::move(s));
    return names.back().c_str();
  }
  // prefix followed by the number, kept.
  const char *numbered(const char *prefix, uint64_t i) {
    std::string s = prefix;
    s += std::to_string(i);
    return keep(std::move(s));
  }

  // Attaches the given procedures as the feedback would, the rest behind.
  static void attach(const std::vector<Proc *> &fed) {
    for (Proc *p : fed) {
      attach_proc_list(p);
      p->listed = 1;
    }
    attach_proc_with_no_feedback();
  }

  static std::vector<std::string> order() {
    std::vector<std::string> v;
    for (Proc *p = bin.procs.order_head; p != nullptr; p = p->next)
      v.push_back(p->name ? p->name : "(null)");
    return v;
  }
  // What every layout of procedures that do not overlap guarantees: the
  // text map is a bijection from the old words onto the new text and every
  // word carries its contents there; each procedure keeps its words in
  // order; procedures follow each other in list order (behind a leading
  // stub run); a tied procedure is followed directly by its physical
  // successor.
  void expect_layout_invariants() const {
    uint64_t n = bin.text_words;
    ASSERT_EQ(bin.new_text_fill, n);
    std::vector<uint8_t> hit(n, 0);
    for (uint64_t i = 0; i < n; ++i) {
      uint64_t m = bin.text_map[i];
      ASSERT_TRUE(m >= bin.text_lo && (m - bin.text_lo) % 4 == 0 && (m - bin.text_lo) / 4 < n) << i;
      uint64_t j = (m - bin.text_lo) / 4;
      ASSERT_FALSE(hit[j]) << "two words at " << std::hex << m;
      hit[j] = 1;
      ASSERT_EQ(new_word(j), old_word(i)) << i;
    }
    uint64_t next_start = bin.text_lo;
    if (bin.libstub_lo != 0 && bin.libstub_lo == bin.text_lo)
      next_start = bin.libstub_hi;
    for (Proc *p = bin.procs.order_head; p != nullptr; p = p->next) {
      if (p->size == 0 || p->old_addr < bin.text_lo || p->old_addr >= bin.text_hi)
        continue;
      uint64_t first = (p->old_addr - bin.text_lo) / 4;
      uint64_t words = std::min<uint64_t>(p->size / 4, n - first);
      ASSERT_EQ(bin.text_map[first], next_start) << p->name;
      for (uint64_t k = 0; k < words; ++k)
        ASSERT_EQ(bin.text_map[first + k], next_start + 4 * k) << p->name;
      next_start += 4 * words;
      if (p->tied) {
        ASSERT_NE(p->next, nullptr);
        EXPECT_EQ(p->next->old_addr, p->old_addr + p->size) << p->name << " tied";
      }
    }
  }

  static void run_checks() {
    verify_proc();
    check_branch_out_of_procedure();
    tie_procedures_ending_in_a_call();
    tie_procedures_without_a_return();
  }
};

} // namespace vesk::test
