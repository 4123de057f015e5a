#include "base/diag.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <elfutils/libdw.h>
#include <libelf.h>
#include <string>
#include <vector>

#include "base/options.h"

namespace vesk {

namespace {

// This thread's held-back messages, when they are held.
thread_local std::vector<HeldMessage> *held = nullptr;

void vprint(FILE *stream, const char *prefix, const char *fmt, va_list ap, const char *ending) {
  if (held != nullptr) {
    va_list copy;
    va_copy(copy, ap);
    int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string text = prefix;
    size_t at = text.size();
    text.resize(at + size_t(n > 0 ? n : 0) + 1);
    std::vsnprintf(text.data() + at, text.size() - at, fmt, ap);
    text.pop_back();
    text += ending;
    held->push_back({stream, std::move(text)});
    return;
  }
  std::fputs(prefix, stream);
  std::vfprintf(stream, fmt, ap);
  std::fputs(ending, stream);
}

void print(FILE *stream, const char *fmt, ...) VESK_PRINTF(2, 3);
void print(FILE *stream, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vprint(stream, "", fmt, ap, "");
  va_end(ap);
}

[[noreturn]] void die() {
  std::fflush(stdout);
  std::fflush(stderr);
  throw Fatal{};
}

// Number of entries of the system's error-text table: one more than the
// highest error number with a text.  The table has holes (numbers no
// error uses); they are inside it all the same.
int error_table_size() {
  static const int n = [] {
    int last = -1;
    for (int i = 0; i < 4096; ++i)
      if (strerrordesc_np(i) != nullptr)
        last = i;
    return last + 1;
  }();
  return n;
}

// The table's text for error number e (0 <= e < error_table_size()).
const char *error_text(int e) {
  const char *text = strerrordesc_np(e);
  return text ? text : std::strerror(e); // a hole: "Unknown error <e>"
}

} // namespace

void note(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vprint(stderr, "Note: ", fmt, ap, "\n");
  va_end(ap);
}

void warning(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vprint(stderr, "Warning: ", fmt, ap, ".\n");
  va_end(ap);
}

void error(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vprint(stderr, "Error: ", fmt, ap, ".\n");
  va_end(ap);
  die();
}

void sysfatal(const char *fmt, ...) {
  int e = errno;
  print(stderr, "Error: ");
  if (e == -1)
    print(stderr, "unexpected end of file, ");
  else if (e >= 0 && e < error_table_size())
    print(stderr, "%s, ", error_text(e));
  else
    print(stderr, "error code %d, ", e);
  va_list ap;
  va_start(ap, fmt);
  vprint(stderr, "", fmt, ap, ".\n");
  va_end(ap);
  die();
}

void dump(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vprint(stdout, "<Debug> ", fmt, ap, "\n");
  va_end(ap);
}

void print_dwarf_error(const char *fmt, ...) {
  // A call that failed without setting an error found nothing.
  int code = dwarf_errno();
  std::string cause = code != 0 ? dwarf_errmsg(code) : "no such entry";
  char what[512];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(what, sizeof what, fmt, ap);
  va_end(ap);
  error("%s: cannot read its DWARF information (%s): %s", option.program ? option.program : "(input)", what,
        cause.c_str());
}

void print_elf_error(const char *file) {
  int e = elf_errno();
  if (e != 0)
    error("%s: %s", file ? file : "(no file)", elf_errmsg(e));
}

void hold_messages(std::vector<HeldMessage> *to) { held = to; }

void print_held(const std::vector<HeldMessage> &messages) {
  for (const HeldMessage &m : messages)
    std::fputs(m.text.c_str(), m.stream);
}

const char *basename(const char *path) {
  const char *slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

char *basename(char *path) {
  char *slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

} // namespace vesk
