// vesk-annotate [-v] IN -o OUT
//
// Linux toolchains write no .compact_rel or .MIPS.events section, so vesk
// cannot repair the code addresses of their executables.  Given an
// executable linked with its relocations kept (-Wl,-q), this writes a copy
// with a .compact_rel section (o32) or .MIPS.events and .MIPS.content
// sections (n32, n64) that describe every code-address reference vesk must
// repair, or refuses, naming the reference it cannot describe.  The input
// is never modified.  With -v it lists the records it writes.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>

#include "base/diag.h"
#include "events/reader.h"
#include "com/annotate/describe.h"
#include "com/annotate/image.h"
#include "com/annotate/write.h"

namespace {

[[noreturn]] void usage() {
  std::fputs("Error: usage: vesk-annotate [-v] executable -o output.\n", stderr);
  std::exit(1);
}

// True when both paths name the same existing file.
bool same_file(const std::string &a, const std::string &b) {
  struct stat sa, sb;
  return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

int annotate(int argc, char **argv) {
  std::string in, out;
  bool verbose = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-v") == 0) {
      verbose = true;
    } else if (std::strcmp(argv[i], "-o") == 0) {
      if (i + 1 >= argc)
        vesk::error("file not specified with -o");
      out = argv[++i];
    } else if (argv[i][0] == '-' || !in.empty()) {
      usage();
    } else {
      in = argv[i];
    }
  }
  if (in.empty() || out.empty())
    usage();
  if (in == out || same_file(in, out))
    vesk::error("the output %s would overwrite the input %s; name another output", out.c_str(), in.c_str());

  vesk::annotate::Image im = vesk::annotate::read_image(in);
  vesk::annotate::Description d = vesk::annotate::describe(im);
  const std::vector<vesk::CompactRelEntry> &entries = d.entries;
  if (verbose && !im.is_o32()) {
    for (const auto *list : {&d.events, &d.data})
      for (const vesk::annotate::EventRef &e : *list)
        std::printf("%-16s at %s: %#llx\n", vesk::event_kind_string(e.kind).c_str(), im.where(e.addr).c_str(),
                    (unsigned long long)e.value);
    std::printf("%zu records, %zu data records, %zu GOT page entries (%zu spare entries given a page), %zu calls "
                "given back their jalr form\n",
                d.events.size(), d.data.size(), d.got_pages.size(), d.page_spares.size(), d.patches.size());
  } else if (verbose) {
    static const char *const kinds[8] = {"", "", "gp-relative word", "word", "_gp_disp pair", "GOT page", "",
                                         "%hi/%lo"};
    for (const vesk::CompactRelEntry &e : entries)
      std::printf("%-16s at %s: partner %+d bytes, address %#x\n", kinds[e.type & 7], im.where(e.vaddr).c_str(),
                  e.type == vesk::CR_GP_DISP ? int(e.dist2to) : -int(e.dist2to), e.konst);
    std::printf("%zu entries, %zu GOT page entries (%zu spare entries given a page), %zu calls given back their "
                "jalr form\n",
                entries.size(), d.got_pages.size(), d.page_spares.size(), d.patches.size());
  }
  vesk::annotate::write_annotated(im, d, vesk::annotate::annotation_sections(im, d), out);
  // The process ends here: its memory goes back to the system at once,
  // not piece by piece through the destructors.
  std::fflush(stdout);
  std::fflush(stderr);
  std::_Exit(0);
}

} // namespace

int main(int argc, char **argv) {
  try {
    return annotate(argc, argv);
  } catch (const vesk::Fatal &) {
    return 1; // the message is out; the output is written only on success
  }
}
