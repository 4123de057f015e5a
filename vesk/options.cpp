#include "vesk/options.h"

#include <cstdlib>
#include <cstring>

#include "base/diag.h"

namespace vesk {

void add_feedback_file(const char *path) {
  if (option.feedback_files == nullptr)
    option.feedback_files = static_cast<const char **>(std::calloc(10, sizeof(char *)));
  int count = 0;
  while (option.feedback_files[count] != nullptr)
    ++count;
  // The list always keeps a null pointer behind its last entry: at 9, 19,
  // 29, ... entries it grows by ten before the new one is stored. Every
  // new pointer is cleared, the last one too: the walk above counts the
  // entries by looking for the first null.
  if (count % 10 == 9) {
    option.feedback_files =
        static_cast<const char **>(std::realloc(option.feedback_files, (count + 11) * sizeof(char *)));
    for (int i = count; i < count + 11; ++i)
      option.feedback_files[i] = nullptr;
  }
  option.feedback_files[count] = path;
}

static char *with_suffix(const char *base, const char *suffix) {
  size_t n = std::strlen(base) + std::strlen(suffix) + 2;
  char *s = static_cast<char *>(std::malloc(n));
  std::strcpy(s, base);
  std::strcat(s, suffix);
  return s;
}

void parse_command_line(int argc, char **argv) {
  option.program = nullptr;
  option.output = nullptr;
  option.merge_file = nullptr;
  option.verbose = 0;
  option.r4000_fix = 0;
  option.b_flag = 0;
  option.debug = 0;
  option.interp = nullptr;

  for (int i = 1; i < argc; ++i) {
    const char *a = argv[i];
    if (!std::strcmp(a, "-verbose") || !std::strcmp(a, "-v")) {
      option.verbose = 1;
    } else if (!std::strcmp(a, "-flip")) {
      option.flip = 1;
    } else if (!std::strcmp(a, "-B")) {
      option.b_flag = 1;
    } else if (!std::strcmp(a, "-o")) {
      if (i + 1 >= argc)
        error("file not specified with -o");
      option.output = argv[++i];
    } else if (!std::strcmp(a, "-merge")) {
      if (i + 1 >= argc)
        error("file not specified with -merge");
      option.merge_file = argv[++i];
    } else if (!std::strcmp(a, "-interp")) {
      option.interp = argv[++i]; // argv[argc] is the null pointer
    } else if (!std::strcmp(a, "-debug")) {
      option.debug = 1;
    } else if (!std::strcmp(a, "-r4000_fix")) {
      option.r4000_fix = 1;
    } else if (!std::strcmp(a, "-no_r4000_fix")) {
      option.r4000_fix = 0;
    } else if (a[0] != '-' && a[0] != '\0') {
      if (option.program == nullptr)
        option.program = a;
      else
        add_feedback_file(a);
    } else {
      error("Incorrect option %s", a);
    }
  }

  if (option.program == nullptr)
    error("program name not specified");
  const char *base = basename(option.program);
  if (option.feedback_files == nullptr || option.feedback_files[0] == nullptr)
    add_feedback_file(with_suffix(base, ".fb"));
  if (option.output == nullptr)
    option.output = with_suffix(base, ".vesk");
}

} // namespace vesk
