// Feedback files: reading each file, merging the per-file lists and
// attaching the result to the new-order list.
#include "vesk/feedback.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <sys/stat.h>
#include <vector>

#include "base/background.h"
#include "base/bin.h"
#include "base/diag.h"
#include "vesk/options.h"

namespace vesk {

namespace {

// Lines are read through a fixed buffer: a longer body line arrives as two
// lines, a longer header line is refused.
constexpr int LINE_BUF = 512;
constexpr int LONGEST_HEADER_LINE = 511;
// Capacities of the word buffers, terminating zero included.  A longer word
// is cut to the capacity and the rest of it is skipped, so the next field
// still starts at the next word: an overlong procedure name then simply
// matches no procedure, and the run goes on as for any unknown name.
constexpr size_t NAME_BUF = 256;      // procedure name, file name
constexpr size_t PROG_NAME_BUF = 128; // the "$name" value
constexpr size_t DIRECTIVE_BUF = 108; // a header directive
constexpr size_t NUMBER_BUF = 64;     // a numeric field (digits beyond it change nothing)

// The blanks of the C locale, which is the one vesk runs in.
bool is_blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Copies the next blank-separated word of *s into buf (cut to cap - 1
// characters), moves *s behind the whole word and says whether there was one.
bool next_word(const char *&s, char *buf, size_t cap) {
  while (is_blank(*s))
    ++s;
  if (*s == '\0')
    return false;
  const char *start = s;
  while (*s != '\0' && !is_blank(*s))
    ++s;
  size_t n = std::min(size_t(s - start), cap - 1);
  std::memcpy(buf, start, n);
  buf[n] = '\0';
  return true;
}

// Numeric fields convert as far as their leading characters form a number;
// a field that does not start with one leaves the value as it was.
// A number too large for its field is refused in a header (a wrapped
// version or magic would be read as another one) and saturated in a count.
enum class Parsed { none, ok, too_large };

Parsed parse_signed(const char *word, int &value) {
  char *end = nullptr;
  errno = 0;
  long long v = std::strtoll(word, &end, 10);
  if (end == word)
    return Parsed::none;
  if (errno == ERANGE || v > INT32_MAX || v < INT32_MIN)
    return Parsed::too_large;
  value = int(v);
  return Parsed::ok;
}

Parsed parse_unsigned(const char *word, int base, uint32_t &value) {
  // Counts are plain decimal digits, one on every line of a feedback file.
  if (base == 10 && *word >= '0' && *word <= '9') {
    uint64_t v = 0;
    const char *d = word;
    for (; *d >= '0' && *d <= '9' && d - word < 18; ++d)
      v = v * 10 + uint64_t(*d - '0');
    if (*d < '0' || *d > '9') {
      if (v > UINT32_MAX) {
        value = UINT32_MAX;
        return Parsed::too_large;
      }
      value = uint32_t(v);
      return Parsed::ok;
    }
  }
  char *end = nullptr;
  errno = 0;
  unsigned long long v = std::strtoull(word, &end, base);
  if (end == word)
    return Parsed::none;
  if (errno == ERANGE || v > UINT32_MAX || word[0] == '-') {
    value = UINT32_MAX;
    return Parsed::too_large;
  }
  value = uint32_t(v);
  return Parsed::ok;
}

uint32_t saturating_add(uint32_t a, uint32_t b) { return a > UINT32_MAX - b ? UINT32_MAX : a + b; }

// The value behind the directive word of a header line.
bool directive_value(const char *line, char *buf, size_t cap) {
  char skip[DIRECTIVE_BUF];
  const char *s = line;
  return next_word(s, skip, sizeof skip) && next_word(s, buf, cap);
}

struct HeaderState {
  int magic = 0;
  int version = 0;
  bool started = false;
};

void read_header_line(const char *path, const char *line, HeaderState &h) {
  if (line[0] != '$') {
    if (h.magic == 0)
      error("%s is not a feedback file", path);
    error("%s: syntax error in the header line \"%.*s\"; header lines start with $, up to $start", path,
          int(std::strcspn(line, "\n")), line);
  }
  char directive[DIRECTIVE_BUF];
  const char *s = line;
  next_word(s, directive, sizeof directive);
  char value[NUMBER_BUF];
  auto refuse_too_large = [&](Parsed p) {
    if (p == Parsed::too_large)
      error("%s: the value %s of %s is out of range", path, value, directive);
  };
  if (std::strcmp(directive, "$magic") == 0) {
    if (directive_value(line, value, sizeof value))
      refuse_too_large(parse_signed(value, h.magic));
  } else if (std::strcmp(directive, "$version") == 0) {
    if (directive_value(line, value, sizeof value))
      refuse_too_large(parse_signed(value, h.version));
  } else if (std::strcmp(directive, "$timestamp") == 0) {
    if (directive_value(line, value, sizeof value))
      refuse_too_large(parse_unsigned(value, 16, bin.feedback_time_stamp));
  } else if (std::strcmp(directive, "$name") == 0) {
    char name[PROG_NAME_BUF];
    if (directive_value(line, name, sizeof name) &&
        std::strcmp(basename(name), basename(option.program ? option.program : "")) != 0)
      warning("feedback file %s derived from %s !!!", path, name);
  } else if (std::strcmp(directive, "$start") == 0) {
    h.started = true;
  }
}

// A feedback file as read: the lines of its body in order, their words
// kept in one block of characters (each ending in a zero).
struct FeedbackText {
  struct Line {
    size_t name = 0, file = 0; // offsets into chars
    size_t key = 0;            // the file name to look the procedure up under
    size_t number = 0;         // the count's word, for the message of one out of range
    size_t hash = 0;
    uint32_t count = 0;
    bool count_too_large = false;
  };
  std::vector<char> chars;
  std::vector<Line> lines;
  bool directive_after_start = false;

  size_t keep(const char *word) {
    size_t at = chars.size();
    chars.insert(chars.end(), word, word + std::strlen(word) + 1);
    return at;
  }
  const char *at(size_t offset) const { return chars.data() + offset; }
};

// Reads a body line into b; the fields the line lacks are those of the
// line before.
void read_body_line(const char *line, const FeedbackText::Line &before, FeedbackText &text,
                    FeedbackText::Line &b) {
  char word[NAME_BUF];
  const char *s = line;
  b = before;
  b.count_too_large = false;
  bool name = next_word(s, word, sizeof word);
  if (name)
    b.name = text.keep(word);
  bool file = name && next_word(s, word, sizeof word);
  if (file) {
    b.file = text.keep(word);
    // DWARF keeps compilation-unit names without their directories.
    b.key = bin.debug_kind == DEBUG_DWARF ? b.file + size_t(basename(word) - word) : b.file;
  }
  char number[NUMBER_BUF];
  if (file && next_word(s, number, sizeof number) &&
      parse_unsigned(number, 10, b.count) == Parsed::too_large) {
    b.count_too_large = true;
    b.number = text.keep(number);
  }
}

// Reads a feedback file whole: its header is checked (a fault in it ends
// the run), its body lines are kept for the lookups.
void read_feedback_text(const char *path, FeedbackText &text) {
  // Opening a FIFO would wait for a writer, and a directory reads as empty.
  struct stat st;
  if (stat(path, &st) == 0 && !S_ISREG(st.st_mode))
    error("feedback file %s is not a regular file", path);
  std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen(path, "r"), std::fclose);
  FILE *f = file.get();
  if (f == nullptr)
    error("cannot read reorder file %s", path);

  char line[LINE_BUF];
  HeaderState header;
  while (!header.started && std::fgets(line, sizeof line, f) != nullptr) {
    if (std::strlen(line) >= size_t(LONGEST_HEADER_LINE) && line[LONGEST_HEADER_LINE - 1] != '\n')
      error("%s: reorder file line too long, shouldn't exceed %d", path, LONGEST_HEADER_LINE);
    if (line[0] == '#')
      continue;
    read_header_line(path, line, header);
  }
  if (header.version != 2)
    error("%s: invalid version; a feedback file has $version 2", path);
  // Room for the whole body at once: buffers that grow by steps would be
  // handed back to the system one after the other as they move, and each
  // time the other core, busy with the discovery, would have to stop.
  // Untouched room costs no memory.
  if (fstat(fileno(f), &st) == 0 && st.st_size > 0) {
    size_t size = std::min<size_t>(size_t(st.st_size), size_t(64) << 20);
    text.chars.reserve(size + 16);
    text.lines.reserve(size / 24); // a name, a file name and a count
  }

  FeedbackText::Line before;
  before.name = before.file = before.key = text.keep("");
  while (std::fgets(line, sizeof line, f) != nullptr) {
    if (line[0] == '#')
      continue;
    if (line[0] == '$') {
      text.directive_after_start = true;
      break;
    }
    FeedbackText::Line &b = text.lines.emplace_back();
    read_body_line(line, before, text, b);
    before = b;
  }
  for (FeedbackText::Line &b : text.lines)
    b.hash = proc_name_hash(text.at(b.name), text.at(b.key));
}

// Looks the lines of a file up in the procedure table, in order.  Each
// record is listed at most once per file: a found record is marked listed,
// and listed records are not found again.
int look_up_feedback(const char *path, const FeedbackText &text, ProcMapEntry *list) {
  clear_proc_flag();
  // The names of a feedback file come in no order the table's memory
  // follows: knowing the names a few lines ahead lets the index, the
  // records and their names be fetched before their lookups need them.
  constexpr size_t kAhead = 8;
  const std::vector<FeedbackText::Line> &lines = text.lines;
  int n = 0;
  for (size_t i = 0; i < lines.size(); ++i) {
    for (int step = 0; step < 3; ++step)
      if (size_t ahead = i + (3 - step) * kAhead; ahead < lines.size())
        prefetch_proc_name(lines[ahead].hash, step);
    const FeedbackText::Line &b = lines[i];
    if (b.count_too_large)
      warning("%s: the count %s of %s(%s) is out of range; taken as %u", path, text.at(b.number), text.at(b.name),
              text.at(b.file), UINT32_MAX);
    Proc *p = find_proc_by_name(text.at(b.name), text.at(b.key), b.hash);
    if (p == nullptr)
      continue;
    p->listed = 1;
    p->freq = saturating_add(p->freq, b.count);
    list[n].proc = p;
    list[n].count = b.count;
    ++n;
  }
  if (text.directive_after_start)
    error("%s: directive after $start", path);
  for (int i = 0; i < n; ++i)
    list[i].proc->listed = 0;
  return n;
}

constexpr int32_t IN_EARLIER = 1;
constexpr int32_t IN_LATER = 2;
constexpr int32_t TAKEN = 4; // already in the merged list

// The feedback files read on the second core, in the order their turns
// come (the last file first).
struct FeedbackReading {
  std::vector<const char *> paths;
  std::deque<FeedbackText> texts;
  std::vector<std::unique_ptr<Background>> tasks; // after texts: destroyed, and so waited for, first
};

int feedback_file_count() {
  int n = 0;
  while (option.feedback_files != nullptr && option.feedback_files[n] != nullptr)
    ++n;
  return n;
}

} // namespace

void start_reading_feedback() {
  auto reading = std::make_shared<FeedbackReading>();
  for (int i = feedback_file_count() - 1; i >= 0; --i) {
    const char *path = option.feedback_files[i];
    reading->paths.push_back(path);
    FeedbackText &text = reading->texts.emplace_back();
    reading->tasks.push_back(
        std::make_unique<Background>(Background::Independent{}, [path, &text] { read_feedback_text(path, text); }));
  }
  bin.feedback_reading = reading;
}

int merge_feedback_lists(ProcMapEntry *earlier, int n_earlier, ProcMapEntry *later, int n_later) {
  std::vector<ProcMapEntry> merged;
  merged.reserve(size_t(get_n_procs()));
  clear_proc_flag();
  for (int i = 0; i < n_earlier; ++i)
    if (earlier[i].count != 0)
      earlier[i].proc->listed = IN_EARLIER;
  for (int i = 0; i < n_later; ++i)
    if (later[i].count != 0)
      later[i].proc->listed |= IN_LATER;

  // A record enters the merged list once, even if a count that wrapped to
  // zero would qualify it for a second step.
  auto take = [&merged](Proc *p, uint32_t count) {
    if (p->listed & TAKEN)
      return;
    p->listed |= TAKEN;
    merged.push_back({p, count});
  };
  auto mark = [](const ProcMapEntry &e) { return e.proc->listed & (IN_EARLIER | IN_LATER); };

  for (int i = 0; i < n_earlier; ++i) // only in the earlier file
    if (mark(earlier[i]) == IN_EARLIER)
      take(earlier[i].proc, earlier[i].count);
  for (int i = 0; i < n_earlier; ++i) // in both: the sum of their counts
    if (mark(earlier[i]) == (IN_EARLIER | IN_LATER))
      take(earlier[i].proc, earlier[i].proc->freq);
  for (int i = 0; i < n_later; ++i) // only in the later list
    if (mark(later[i]) == IN_LATER)
      take(later[i].proc, later[i].count);
  for (int i = 0; i < n_earlier; ++i) // the earlier file's zero counts
    if (earlier[i].proc->freq == 0)
      take(earlier[i].proc, earlier[i].count);
  for (int i = 0; i < n_later; ++i)
    if (mark(later[i]) == IN_LATER && later[i].proc->freq == 0)
      take(later[i].proc, later[i].count);
  // The later list's other zero-count entries are dropped.

  if (merged.size() >= size_t(get_n_procs()))
    error("too many procedures in feedback files");
  std::copy(merged.begin(), merged.end(), later);
  return int(merged.size());
}

void read_reorder_files() {
  using Map = std::unique_ptr<ProcMapEntry, void (*)(void *)>;
  Map current(alloc_proc_map(), std::free);
  Map accumulated(alloc_proc_map(), std::free);
  int n_files = feedback_file_count();
  if (n_files == 0)
    error("no feedback file");
  auto reading = std::static_pointer_cast<FeedbackReading>(std::move(bin.feedback_reading));
  if (reading == nullptr || reading->paths.size() != size_t(n_files)) { // not begun beside the discovery
    start_reading_feedback();
    reading = std::static_pointer_cast<FeedbackReading>(std::move(bin.feedback_reading));
  }
  // The k-th file in turn, read and looked up.
  auto read = [&reading](int k, ProcMapEntry *list) {
    reading->tasks[size_t(k)]->collect();
    return look_up_feedback(reading->paths[size_t(k)], reading->texts[size_t(k)], list);
  };

  // The last file first, then each earlier one merged in front of it, so
  // that the first file on the command line leads the order.
  int n_accumulated = read(0, accumulated.get());
  for (int k = 1; k < n_files; ++k) {
    int n_current = read(k, current.get());
    n_accumulated = merge_feedback_lists(current.get(), n_current, accumulated.get(), n_accumulated);
  }

  clear_proc_flag();
  for (int i = 0; i < n_accumulated; ++i) {
    attach_proc_list(accumulated.get()[i].proc);
    accumulated.get()[i].proc->listed = 1;
  }
  attach_proc_with_no_feedback();
  if (bin.procs.feedback_stale && option.verbose == 0)
    note("Feedback file(s) may be out of date. You may want to regenerate the\n"
         "      feedback file(s) for better performance. Use vesk -v for more info.");
}

} // namespace vesk
