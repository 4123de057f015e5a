// What every fuzz target shares: the input bytes as a file the reader can
// open by name, and a fresh run around each input.  A refusal (vesk::Fatal,
// after its "Error: " line) is a clean end; anything else that escapes, and
// every sanitizer report, is a finding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "base/bin.h"
#include "base/diag.h"
#include "base/options.h"

namespace vesk::fuzz {

// The bytes in an anonymous in-memory file, named through /proc so that
// code that opens its input by path reads them without touching the disk.
class MemFile {
public:
  MemFile(const uint8_t *data, size_t size) {
    fd_ = memfd_create("vesk-fuzz", 0);
    for (size_t done = 0; fd_ >= 0 && done < size;) {
      ssize_t n = write(fd_, data + done, size - done);
      if (n <= 0)
        break;
      done += size_t(n);
    }
    path_ = "/proc/self/fd/" + std::to_string(fd_);
  }
  ~MemFile() {
    if (fd_ >= 0)
      close(fd_);
  }
  const char *path() const { return path_.c_str(); }

private:
  int fd_ = -1;
  std::string path_;
};

// Runs fn on fresh run records and closes what it left open, as vesk_main
// does around a whole run.
inline void in_fresh_run(const std::function<void()> &fn) {
  bin = Bin{};
  option = Options{};
  try {
    fn();
  } catch (const Fatal &) {
  }
  end_run();
}

} // namespace vesk::fuzz

// The tool frees what a run allocated when the process ends; in-process
// runs would be reported as leaks.  (Each target is one file including
// this once.)
extern "C" const char *__asan_default_options() { return "detect_leaks=0"; }
