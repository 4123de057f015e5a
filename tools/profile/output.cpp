#include "tools/profile/output.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

#include "base/diag.h"
#include "base/file_io.h"

namespace vesk::profile {

void write_file_atomically(const std::string &path, const std::string &contents) {
  vesk::write_file_atomically(path, contents.data(), contents.size(), 0644);
}

std::string feedback_text(const Program &p, const std::vector<ProcCount> &counts, const std::vector<int> &order,
                          const std::string &how) {
  std::string base = p.path.substr(p.path.rfind('/') + 1);
  std::string out = "$magic 1\n$version 2\n$name " + base + "\n$start\n";
  uint64_t instructions = 0;
  for (const ProcCount &c : counts)
    instructions += c.instructions;
  out += "# vesk-profile, " + how + " order: " + std::to_string(order.size()) + " of " +
         std::to_string(p.procs.size()) + " procedures ran, " + std::to_string(instructions) +
         " instructions in them\n";
  std::vector<bool> listed(p.procs.size(), false);
  std::string nameless;
  for (int i : order) {
    const ProcInfo &r = p.procs[size_t(i)];
    listed[size_t(i)] = true;
    if (!r.nameable) {
      // vesk reads a feedback file through a 512-byte line buffer, and
      // the rest of a longer comment would come as a line of its own: the
      // list goes on over comment lines of at most 80 characters.
      char where[32];
      std::snprintf(where, sizeof where, " %#llx", (unsigned long long)r.addr);
      size_t line_start = nameless.rfind('\n') + 1; // 0 when there is none
      if (nameless.empty() || nameless.size() - line_start + std::strlen(where) > 80)
        nameless += nameless.empty() ? "# ran, but vesk has no name for them:" : "\n#  ";
      nameless += where;
      continue;
    }
    uint64_t n = std::clamp<uint64_t>(counts[size_t(i)].entries, 1, UINT32_MAX);
    out += r.name + " " + r.file + " " + std::to_string(n) + "\n";
  }
  if (!nameless.empty())
    out += nameless + "\n";
  out += "# did not run\n";
  for (size_t i = 0; i < p.procs.size(); ++i)
    if (!listed[i] && p.procs[i].nameable)
      out += p.procs[i].name + " " + p.procs[i].file + " 0\n";
  return out;
}

namespace {

std::string escape(const std::string &s) {
  std::string o;
  for (char c : s) {
    switch (c) {
    case '&': o += "&amp;"; break;
    case '<': o += "&lt;"; break;
    case '>': o += "&gt;"; break;
    case '"': o += "&quot;"; break;
    default: o += (static_cast<unsigned char>(c) < 0x20) ? '?' : c;
    }
  }
  return o;
}

std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char *f, ...) {
  char buf[512];
  va_list ap;
  va_start(ap, f);
  std::vsnprintf(buf, sizeof buf, f, ap);
  va_end(ap);
  return buf;
}

// Pale yellow for a cell that ran once to dark red for the hottest,
// on a logarithmic scale.
std::string colour(uint64_t n, uint64_t max) {
  double t = max > 1 ? std::log(double(n)) / std::log(double(max)) : 1.0;
  t = std::clamp(t, 0.0, 1.0);
  int r = int(255 - 80 * t), g = int(235 - 235 * t), b = int(150 - 150 * t);
  return fmt("#%02x%02x%02x", r, g, b);
}

} // namespace

std::string heatmap_svg(const std::vector<HeatColumn> &columns) {
  constexpr int CELLS = 16, CELL_W = 14, LABEL_W = 70, GAP = 40, TOP = 90;
  size_t rows = 1;
  uint64_t max = 1;
  for (const HeatColumn &c : columns) {
    rows = std::max(rows, (c.heat.size() + CELLS - 1) / CELLS);
    for (uint64_t n : c.heat)
      max = std::max(max, n);
  }
  const int cell_h = int(std::clamp<size_t>(1200 / rows, 2, 10));
  const int col_w = LABEL_W + CELLS * CELL_W + GAP;
  const int map_h = int(rows) * cell_h;
  // The legend: the hottest procedures of the first column, with the
  // 4 KB row of text where each column has them.
  std::vector<std::pair<std::string, std::vector<std::string>>> legend;
  if (!columns.empty()) {
    const HeatColumn &first = columns[0];
    std::vector<int> idx;
    for (size_t i = 0; i < first.counts.size(); ++i)
      if (first.counts[i].instructions != 0)
        idx.push_back(int(i));
    std::stable_sort(idx.begin(), idx.end(), [&](int a, int b) {
      return first.counts[size_t(a)].instructions > first.counts[size_t(b)].instructions;
    });
    idx.resize(std::min<size_t>(idx.size(), 12));
    for (int i : idx) {
      const ProcInfo &r = first.program->procs[size_t(i)];
      std::vector<std::string> where;
      for (const HeatColumn &c : columns) {
        const Program &p = *c.program;
        auto it = std::find_if(p.procs.begin(), p.procs.end(),
                               [&](const ProcInfo &q) { return q.name == r.name && q.file == r.file; });
        where.push_back(it == p.procs.end() || r.name.empty()
                            ? "?"
                            : fmt("row %llu", (unsigned long long)((it->addr - p.text_lo) / 4096)));
      }
      legend.push_back({r.name.empty() ? fmt("%#llx", (unsigned long long)r.addr) : r.name, where});
    }
  }
  const int legend_h = 40 + 16 * int(legend.size());
  const int width = std::max(int(columns.size()) * col_w + 20, 560);
  const int height = TOP + map_h + 30 + legend_h;
  std::string s = fmt("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" "
                      "font-family=\"sans-serif\" font-size=\"11\">\n",
                      width, height);
  s += fmt("<rect width=\"%d\" height=\"%d\" fill=\"white\"/>\n", width, height);
  s += "<text x=\"10\" y=\"18\" font-size=\"14\" font-weight=\"bold\">Executed instructions per 256 bytes of "
       ".text (one row: 4 KB)</text>\n";
  for (size_t k = 0; k < columns.size(); ++k) {
    const HeatColumn &c = columns[k];
    const Program &p = *c.program;
    int x0 = 10 + int(k) * col_w + LABEL_W;
    s += fmt("<text x=\"%d\" y=\"44\" font-weight=\"bold\">%s</text>\n", x0, escape(c.title).c_str());
    s += fmt("<text x=\"%d\" y=\"60\">%llu pages touched (ideal %llu)</text>\n", x0,
             (unsigned long long)c.figures.pages, (unsigned long long)c.figures.ideal_pages);
    s += fmt("<text x=\"%d\" y=\"76\">TLB misses %llu (16) %llu (48 pairs), I-cache %llu</text>\n", x0,
             (unsigned long long)c.figures.itlb_misses, (unsigned long long)c.figures.jtlb_misses,
             (unsigned long long)c.figures.icache_misses);
    size_t crow = (c.heat.size() + CELLS - 1) / CELLS;
    for (size_t r = 0; r < crow; ++r) {
      size_t in_row = std::min<size_t>(CELLS, c.heat.size() - r * CELLS);
      s += fmt("<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"%d\" fill=\"#e8e8e8\"/>\n", x0, TOP + int(r) * cell_h,
               int(in_row) * CELL_W, cell_h);
      if (r % 8 == 0)
        s += fmt("<text x=\"%d\" y=\"%d\" text-anchor=\"end\" font-size=\"9\">%#llx</text>\n", x0 - 4,
                 TOP + int(r) * cell_h + 8, (unsigned long long)(p.text_lo + r * CELLS * Recorder::HEAT_CELL));
    }
    for (size_t i = 0; i < c.heat.size(); ++i) {
      if (c.heat[i] == 0)
        continue;
      int x = x0 + int(i % CELLS) * CELL_W, y = TOP + int(i / CELLS) * cell_h;
      int o = i < c.owner.size() ? c.owner[i] : -1;
      std::string who = o >= 0 ? p.procs[size_t(o)].name : "";
      s += fmt("<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"%d\" fill=\"%s\"><title>", x, y, CELL_W, cell_h,
               colour(c.heat[i], max).c_str());
      s += fmt("%#llx: ", (unsigned long long)(p.text_lo + i * Recorder::HEAT_CELL)) + escape(who) +
           fmt(", %llu instructions</title></rect>\n", (unsigned long long)c.heat[i]);
    }
  }
  int y = TOP + map_h + 30;
  s += fmt("<text x=\"10\" y=\"%d\" font-weight=\"bold\">Hottest procedures and their row of text:</text>\n", y);
  for (size_t k = 0; k < columns.size(); ++k)
    s += fmt("<text x=\"%d\" y=\"%d\">%s</text>\n", 300 + int(k) * 120, y, escape(columns[k].title).c_str());
  for (size_t i = 0; i < legend.size(); ++i) {
    int ly = y + 16 * int(i + 1);
    s += fmt("<text x=\"10\" y=\"%d\">%zu. %s</text>\n", ly, i + 1, escape(legend[i].first).c_str());
    for (size_t k = 0; k < legend[i].second.size(); ++k)
      s += fmt("<text x=\"%d\" y=\"%d\">%s</text>\n", 300 + int(k) * 120, ly, legend[i].second[k].c_str());
  }
  s += "</svg>\n";
  return s;
}

} // namespace vesk::profile
