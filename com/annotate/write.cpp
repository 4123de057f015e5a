#include "com/annotate/write.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/bytes.h"
#include "base/diag.h"
#include "base/file_io.h"
#include "com/events.h"
#include "com/update.h"

namespace vesk::annotate {

namespace {

// Section headers as they lie in a big-endian file.
struct Shdr32 {
  ub32 sh_name, sh_type, sh_flags, sh_addr, sh_offset, sh_size, sh_link, sh_info, sh_addralign, sh_entsize;
};
static_assert(sizeof(Shdr32) == 40);
struct Shdr64 {
  ub32 sh_name, sh_type;
  ub64 sh_flags, sh_addr, sh_offset, sh_size;
  ub32 sh_link, sh_info;
  ub64 sh_addralign, sh_entsize;
};
static_assert(sizeof(Shdr64) == 64);

// The ELF header fields that change, by class.
struct HeaderFields {
  size_t shoff, shnum, shstrndx, shdr_size;
};
constexpr HeaderFields FIELDS32{32, 48, 50, sizeof(Shdr32)}, FIELDS64{40, 60, 62, sizeof(Shdr64)};

void set(ub32 &field, uint64_t v) { field = uint32_t(v); }
void set(ub64 &field, uint64_t v) { field = v; }

template <class Shdr> void set_placement(uint8_t *h, uint64_t offset, uint64_t size) {
  Shdr *sh = reinterpret_cast<Shdr *>(h); // byte alignment
  set(sh->sh_offset, offset);
  set(sh->sh_size, size);
}

template <class Shdr> std::vector<uint8_t> new_header(uint32_t name, const NewSection &s, uint64_t offset, uint32_t link) {
  Shdr sh{};
  sh.sh_name = name;
  sh.sh_type = s.type;
  set(sh.sh_offset, offset);
  set(sh.sh_size, s.bytes.size());
  sh.sh_link = link;
  sh.sh_addralign = 4;
  const auto *b = reinterpret_cast<const uint8_t *>(&sh);
  return std::vector<uint8_t>(b, b + sizeof sh);
}

} // namespace

std::vector<uint8_t> compact_rel_section(const Description &d) {
  std::vector<uint8_t> header;
  auto pair = [&](uint32_t tag, uint32_t value) {
    uint8_t b[8];
    store32(b, tag);
    store32(b + 4, value);
    header.insert(header.end(), b, b + 8);
  };
  pair(CR_TAG_COUNT, uint32_t(d.entries.size()));
  pair(CR_TAG_GOT_PAGES, uint32_t(d.got_pages.size()));
  for (uint32_t index : d.got_pages)
    pair(CR_TAG_GOT_PAGE, index);
  pair(0, 0);
  CompactRelWriter out(header.data(), header.size());
  for (const CompactRelEntry &e : d.entries)
    out.add_cr(e.type, e.konst, e.dist2to, e.vaddr);
  return std::move(out.bytes());
}

std::vector<uint8_t> events_stream(const Image &im, const std::vector<EventRef> &records, bool events) {
  EventsWriter w;
  w.reset(im.text->index, im.text_lo);
  for (const EventRef &r : records)
    w.keep(r.kind, r.addr, r.value);
  std::vector<uint8_t> bytes = w.build();
  // The rebuilt stream visits the same records in another order; a few
  // more of its location steps may need more than one byte.  EK_NULL
  // records fill the room, and vesk drops them.
  if (events)
    bytes.resize(bytes.size() + bytes.size() / 16 + 16, EK_NULL);
  return bytes;
}

// Where code or data uses a secondary GOT's gp: (first address, end, gp),
// 64-bit words for every class; and the secondary GOTs' page entries vesk
// may give other pages (indices, 32-bit words).
void add_gp_ranges(const Description &d, std::vector<NewSection> &out) {
  if (!d.free_pages.empty()) {
    std::vector<uint8_t> indices(d.free_pages.size() * 4);
    for (size_t i = 0; i < d.free_pages.size(); ++i)
      store32(indices.data() + i * 4, d.free_pages[i]);
    out.push_back({FREE_PAGES_SECTION, SHT_PROGBITS, false, std::move(indices)});
  }
  if (d.gp_ranges.empty())
    return;
  std::vector<uint8_t> bytes(d.gp_ranges.size() * 24);
  for (size_t i = 0; i < d.gp_ranges.size(); ++i) {
    store64(bytes.data() + i * 24, d.gp_ranges[i].lo);
    store64(bytes.data() + i * 24 + 8, d.gp_ranges[i].hi);
    store64(bytes.data() + i * 24 + 16, d.gp_ranges[i].gp);
  }
  out.push_back({GP_RANGES_SECTION, SHT_PROGBITS, false, std::move(bytes)});
}

std::vector<NewSection> annotation_sections(const Image &im, const Description &d) {
  if (im.is_o32()) {
    // .compact_rel stays the last section: vesk grows it in place.
    std::vector<NewSection> out;
    add_gp_ranges(d, out);
    out.push_back({".compact_rel", SHT_PROGBITS, false, compact_rel_section(d)});
    return out;
  }
  std::vector<EventRef> events = d.events;
  if (im.pic)
    events.insert(events.end(), d.data.begin(), d.data.end());
  std::vector<NewSection> out{{".MIPS.events", SHT_MIPS_EVENTS, true, events_stream(im, events, true)}};
  if (!im.pic && !d.data.empty())
    out.push_back({".MIPS.content", SHT_MIPS_CONTENT, true, events_stream(im, d.data, false)});
  if (!d.page_spares.empty()) {
    std::vector<uint8_t> indices(d.page_spares.size() * 4);
    for (size_t i = 0; i < d.page_spares.size(); ++i)
      store32(indices.data() + i * 4, d.page_spares[i]);
    out.push_back({GOT_PAGES_SECTION, SHT_PROGBITS, false, std::move(indices)});
  }
  add_gp_ranges(d, out);
  return out;
}

AnnotatedFile annotated_file(Image &im, const Description &d, const std::vector<NewSection> &added) {
  uint8_t *f = im.file.data();
  size_t size = im.file.size();
  AnnotatedFile out;
  auto changed = [&](const uint8_t *p, size_t n) { out.changed.emplace_back(p - f, p - f + n); };
  for (const auto &[addr, w] : d.patches) {
    const Section *s = im.section_holding(addr, 4);
    if (s == nullptr)
      error("%s: no section holds the call at %#llx", im.path.c_str(), (unsigned long long)addr);
    store32(f + s->sh.sh_offset + (addr - s->sh.sh_addr), w);
    changed(f + s->sh.sh_offset + (addr - s->sh.sh_addr), 4);
  }
  for (const auto &[index, value] : d.got_entries) {
    uint64_t addr = im.got_addr + uint64_t(index) * im.word_size;
    const Section *s = im.section_holding(addr, im.word_size);
    if (s == nullptr)
      error("%s: no section holds GOT entry %u", im.path.c_str(), index);
    uint8_t *p = f + s->sh.sh_offset + (addr - s->sh.sh_addr);
    im.is_64 ? store64(p, value) : store32(p, uint32_t(value));
    changed(p, im.word_size);
  }
  const HeaderFields &hf = im.is_64 ? FIELDS64 : FIELDS32;
  uint64_t old_shoff = im.is_64 ? load64(f + hf.shoff) : load32(f + hf.shoff);
  uint16_t shnum = load16(f + hf.shnum);
  uint16_t shstrndx = load16(f + hf.shstrndx);
  if (old_shoff > size || uint64_t(shnum) * hf.shdr_size > size - old_shoff || shstrndx >= shnum)
    error("%s: the section header table lies outside the file", im.path.c_str());

  out.head = f, out.head_size = size;
  std::vector<uint8_t> &t = out.tail;
  auto at = [&] { return size + t.size(); }; // a file offset in the tail
  auto pad = [&](size_t align) {
    while (at() % align != 0)
      t.push_back(0);
  };
  // The name table, copied with the new names behind the old ones.
  const Section &names = im.sections[shstrndx];
  pad(4);
  uint64_t names_offset = at();
  t.insert(t.end(), names.raw, names.raw + names.sh.sh_size);
  std::vector<uint32_t> new_names;
  for (const NewSection &s : added) {
    new_names.push_back(uint32_t(at() - names_offset));
    t.insert(t.end(), s.name.c_str(), s.name.c_str() + s.name.size() + 1);
  }
  uint64_t names_size = at() - names_offset;

  // The added sections are the last in the file, so that vesk can grow
  // .compact_rel by moving only the section header table behind it.
  std::vector<uint64_t> offsets;
  for (const NewSection &s : added) {
    pad(8);
    offsets.push_back(at());
    t.insert(t.end(), s.bytes.begin(), s.bytes.end());
  }

  pad(8);
  uint64_t shoff = at();
  size_t headers_at = t.size();
  t.insert(t.end(), f + old_shoff, f + old_shoff + shnum * hf.shdr_size);
  uint8_t *names_header = t.data() + headers_at + shstrndx * hf.shdr_size;
  im.is_64 ? set_placement<Shdr64>(names_header, names_offset, names_size)
           : set_placement<Shdr32>(names_header, names_offset, names_size);
  for (size_t i = 0; i < added.size(); ++i) {
    uint32_t link = added[i].link_text ? uint32_t(im.text->index) : 0;
    std::vector<uint8_t> h = im.is_64 ? new_header<Shdr64>(new_names[i], added[i], offsets[i], link)
                                      : new_header<Shdr32>(new_names[i], added[i], offsets[i], link);
    t.insert(t.end(), h.begin(), h.end());
  }

  if (im.is_64)
    store64(f + hf.shoff, shoff);
  else
    store32(f + hf.shoff, uint32_t(shoff));
  store16(f + hf.shnum, uint16_t(shnum + added.size()));
  changed(f, hf.shnum + 2);
  return out;
}

void write_annotated(Image &im, const Description &d, const std::vector<NewSection> &added, const std::string &out) {
  AnnotatedFile f = annotated_file(im, d, added);
  struct stat st;
  mode_t mode = 0755;
  if (stat(im.path.c_str(), &st) == 0)
    mode = st.st_mode & 0777;
  // What the patches left as it was is copied from the input file, not
  // from its map: the pages describe() never read (the debugging
  // information, most of the data) are then never mapped in, and the
  // run's memory stays near the size of what it read.  Patches closer
  // than kJoin are written from memory together.
  constexpr uint64_t kJoin = 64 * 1024;
  std::vector<FilePiece> pieces;
  std::sort(f.changed.begin(), f.changed.end());
  uint64_t at = 0;
  for (size_t i = 0; i < f.changed.size();) {
    uint64_t lo = f.changed[i].first, hi = f.changed[i].second;
    for (++i; i < f.changed.size() && f.changed[i].first < hi + kJoin; ++i)
      hi = std::max(hi, f.changed[i].second);
    if (lo > at)
      pieces.push_back({f.head + at, lo - at, im.file.map.file(), at});
    pieces.push_back({f.head + lo, hi - lo});
    at = hi;
  }
  pieces.push_back({f.head + at, f.head_size - at, im.file.map.file(), at});
  pieces.push_back({f.tail.data(), f.tail.size()});
  write_file_atomically(out, pieces, mode);
}

} // namespace vesk::annotate
