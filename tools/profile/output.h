// What vesk-profile writes: the feedback file and the heat map of the
// text.  Files are written to a temporary file beside their path and
// renamed into place once complete.
#pragma once

#include <string>
#include <vector>

#include "tools/profile/order.h"
#include "tools/profile/program.h"
#include "tools/profile/record.h"

namespace vesk::profile {

void write_file_atomically(const std::string &path, const std::string &contents);

// A feedback file in vesk's format: the procedures that ran, in the given
// order, with their entry counts (at least 1: a procedure that ran without
// being entered at its start still belongs with the hot code), then every
// other procedure a line can name, with count 0, so that vesk finds the
// whole program described.
std::string feedback_text(const Program &p, const std::vector<ProcCount> &counts, const std::vector<int> &order,
                          const std::string &how);

// One column of the heat map: a run of one executable.
struct HeatColumn {
  std::string title;
  const Program *program;
  std::vector<uint64_t> heat;  // executed instructions per 256 bytes of .text
  std::vector<int> owner;      // the procedure with the most of them per cell
  std::vector<ProcCount> counts;
  Figures figures;
};

std::string heatmap_svg(const std::vector<HeatColumn> &columns);

} // namespace vesk::profile
