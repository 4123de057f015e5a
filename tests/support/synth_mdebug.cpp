#include "support/synth_mdebug.h"

#include <algorithm>
#include <fcntl.h>
#include <gelf.h>
#include <stdexcept>
#include <unistd.h>

#include "support/synth_elf.h"

namespace vesk::test {

namespace {

struct Layout {
  uint64_t line = sizeof(Hdrr), pdrs = 0, syms = 0, ss = 0, ss_ext = 0, fdrs = 0, exts = 0, end = 0;
};

uint32_t type_word(unsigned st, unsigned sc, uint32_t index) { return st << 26 | (sc & 0x1F) << 21 | (index & 0xFFFFF); }

template <class R> R &at(std::vector<uint8_t> &v, uint64_t pos) {
  if (pos + sizeof(R) > v.size())
    throw std::out_of_range("synthetic mdebug record out of range");
  return *record_at<R>(v.data(), pos);
}

} // namespace

std::vector<uint8_t> SynthMdebug::build(uint64_t file_off) const {
  uint64_t n_pdrs = 0, n_syms = 0;
  std::string ss, ss_ext;
  std::vector<uint32_t> iss_base;
  for (const auto &f : files) {
    n_pdrs += f.procs.size();
    n_syms += f.procs.size() + f.syms.size();
    iss_base.push_back(uint32_t(ss.size()));
    if (f.has_name)
      ss += f.name + '\0';
    for (const auto &p : f.procs)
      ss += p.name + '\0';
    for (const auto &s : f.syms)
      ss += s.name + '\0';
  }
  for (const auto &e : externals)
    ss_ext += e.name + '\0';

  Layout l;
  l.pdrs = l.line + line_bytes;
  l.syms = l.pdrs + n_pdrs * sizeof(Pdr);
  l.ss = l.syms + n_syms * sizeof(Symr);
  l.ss_ext = l.ss + ss.size();
  l.fdrs = l.ss_ext + ss_ext.size();
  l.exts = l.fdrs + files.size() * sizeof(Fdr);
  l.end = l.exts + externals.size() * sizeof(Extr);

  std::vector<uint8_t> v(l.end, 0);
  auto off = [&](uint64_t pos) { return uint32_t(file_off + pos); };
  Hdrr &h = at<Hdrr>(v, 0);
  h.magic = MDEBUG_MAGIC;
  h.ilineMax = line_bytes * 2;
  h.cbLine = line_bytes;
  h.cbLineOffset = line_bytes ? off(l.line) : 0;
  h.ipdMax = uint32_t(n_pdrs);
  h.cbPdOffset = n_pdrs ? off(l.pdrs) : 0;
  h.isymMax = uint32_t(n_syms);
  h.cbSymOffset = n_syms ? off(l.syms) : 0;
  h.issMax = uint32_t(ss.size());
  h.cbSsOffset = ss.empty() ? 0 : off(l.ss);
  h.issExtMax = uint32_t(ss_ext.size());
  h.cbSsExtOffset = ss_ext.empty() ? 0 : off(l.ss_ext);
  h.ifdMax = uint32_t(files.size());
  h.cbFdOffset = files.empty() ? 0 : off(l.fdrs);
  h.iextMax = uint32_t(externals.size());
  h.cbExtOffset = externals.empty() ? 0 : off(l.exts);
  std::copy(ss.begin(), ss.end(), v.begin() + long(l.ss));
  std::copy(ss_ext.begin(), ss_ext.end(), v.begin() + long(l.ss_ext));

  uint64_t pd = 0, sym = 0;
  for (size_t i = 0; i < files.size(); ++i) {
    const SynthFile &f = files[i];
    Fdr &fd = at<Fdr>(v, l.fdrs + i * sizeof(Fdr));
    uint64_t n = f.procs.size();
    fd.adr = f.adr;
    fd.rss = f.has_name ? 0 : MDEBUG_NIL;
    fd.issBase = iss_base[i];
    fd.isymBase = uint32_t(sym);
    fd.csym = uint32_t(n + f.syms.size());
    fd.ipdFirst = uint16_t(pd);
    fd.cpd = uint16_t(n);
    fd.bits = f.ext_bits ? uint32_t(((pd >> 16) & 0xF) << 17 | ((n >> 16) & 0xF) << 13) : 0;

    uint32_t iss = f.has_name ? uint32_t(f.name.size() + 1) : 0;
    for (uint64_t k = 0; k < n; ++k) {
      const SynthProc &p = f.procs[k];
      Pdr &r = at<Pdr>(v, l.pdrs + (pd + k) * sizeof(Pdr));
      r.adr = p.pdr_adr;
      r.isym = p.isym == 0xFFFFFFFE ? uint32_t(k) : p.isym;
      r.iline = MDEBUG_NIL;
      r.framereg = 29;
      r.pcreg = 31;
      r.lnLow = uint32_t(p.ln_low);
      r.lnHigh = uint32_t(p.ln_high);
      Symr &s = at<Symr>(v, l.syms + (sym + k) * sizeof(Symr));
      s.iss = iss;
      s.value = p.value;
      s.type_word = type_word(6, 1, 0);
      iss += uint32_t(p.name.size() + 1);
    }
    for (size_t k = 0; k < f.syms.size(); ++k) {
      const SynthSym &x = f.syms[k];
      Symr &s = at<Symr>(v, l.syms + (sym + n + k) * sizeof(Symr));
      s.iss = iss;
      s.value = x.value;
      s.type_word = type_word(x.st, x.sc, 0);
      iss += uint32_t(x.name.size() + 1);
    }
    fd.cbSs = iss;
    pd += n;
    sym += n + f.syms.size();
  }

  uint32_t iss = 0;
  for (size_t i = 0; i < externals.size(); ++i) {
    const SynthSym &x = externals[i];
    Extr &e = at<Extr>(v, l.exts + i * sizeof(Extr));
    e.ifd = 0xFFFF;
    e.asym.iss = iss;
    e.asym.value = x.value;
    e.asym.type_word = type_word(x.st, x.sc, 0);
    iss += uint32_t(x.name.size() + 1);
  }
  return v;
}

namespace {

uint64_t mdebug_offset_in(const std::string &path) {
  int fd = open(path.c_str(), O_RDONLY);
  Elf *e = elf_begin(fd, ELF_C_READ, nullptr);
  size_t shstrndx = 0;
  elf_getshdrstrndx(e, &shstrndx);
  uint64_t off = ~uint64_t(0);
  for (Elf_Scn *s = elf_nextscn(e, nullptr); s; s = elf_nextscn(e, s)) {
    GElf_Shdr sh;
    gelf_getshdr(s, &sh);
    const char *name = elf_strptr(e, shstrndx, sh.sh_name);
    if (name && std::string(name) == ".mdebug")
      off = sh.sh_offset;
  }
  elf_end(e);
  close(fd);
  return off;
}

template <class R> R &record(std::vector<uint8_t> &v, uint32_t table_off, uint64_t file_off, uint32_t i) {
  return at<R>(v, uint64_t(table_off) - file_off + uint64_t(i) * sizeof(R));
}

} // namespace

std::string write_mdebug_elf(const std::string &stem, uint64_t text_lo, uint32_t text_words,
                             const std::function<std::vector<uint8_t>(uint64_t)> &make, uint32_t e_flags) {
  std::string path = temp_path(stem);
  auto image = [&](std::vector<uint8_t> bytes) {
    SynthElf e;
    e.e_flags = e_flags;
    e.entry = text_lo;
    e.add(text_section(text_lo, std::vector<uint32_t>(text_words, 0)));
    SynthSection md;
    md.name = ".mdebug";
    md.type = 0x70000005; // SHT_MIPS_DEBUG
    md.data = std::move(bytes);
    e.add(md);
    e.write(path);
  };
  // The table's offsets are file offsets: lay the file out once to learn
  // where the section goes, then build the bytes for that place.
  image(make(0));
  uint64_t off = mdebug_offset_in(path);
  image(make(off));
  if (mdebug_offset_in(path) != off)
    throw std::runtime_error("synthetic mdebug: the section moved between layouts");
  return path;
}

Fdr &fdr_of(std::vector<uint8_t> &v, uint64_t file_off, uint32_t i) {
  return record<Fdr>(v, hdr_of(v).cbFdOffset, file_off, i);
}
Pdr &pdr_of(std::vector<uint8_t> &v, uint64_t file_off, uint32_t i) {
  return record<Pdr>(v, hdr_of(v).cbPdOffset, file_off, i);
}
Symr &sym_of(std::vector<uint8_t> &v, uint64_t file_off, uint32_t i) {
  return record<Symr>(v, hdr_of(v).cbSymOffset, file_off, i);
}
Extr &ext_of(std::vector<uint8_t> &v, uint64_t file_off, uint32_t i) {
  return record<Extr>(v, hdr_of(v).cbExtOffset, file_off, i);
}

} // namespace vesk::test
