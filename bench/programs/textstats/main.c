#include <stdio.h>
#include <string.h>
#include <ctype.h>
#include "textstats.h"

static const char text[] =
  "The quick brown fox jumps over the lazy dog.\n"
  "A lazy dog sleeps; the quick fox runs, and runs again!\n"
  "Counting words: 1, 2, 3 -- then (the) end? Not quite.\n"
  "Every line of this text is here to be counted by the test bench.\n"
  "The fox, the dog and the bench: all of them are counted twice.\n";

static int longest_len;
static char longest[24];

static void note_longest(const char *s, size_t len)
{
  if ((int)len > longest_len && len < sizeof longest) {
    longest_len = (int)len;
    memcpy(longest, s, len);
    longest[len] = 0;
  }
}

static int banner_printed;

__attribute__((constructor)) static void banner(void)
{
  banner_printed = 1;
}

static void (*word_hooks[2])(const char *, size_t) = { note_longest, 0 };

static int split_words(const char *p, int line)
{
  int n = 0;
  while (*p && *p != '\n') {
    while (*p && *p != '\n' && !isalnum((unsigned char)*p))
      p++;
    const char *start = p;
    while (isalnum((unsigned char)*p) || *p == '\'')
      p++;
    if (p > start) {
      add_word(start, (size_t)(p - start), line);
      for (int i = 0; word_hooks[i]; i++)
        word_hooks[i](start, (size_t)(p - start));
      n++;
    }
  }
  return n;
}

static int count_depth(const char *p, int depth)
{
  /* recursive scan for the deepest bracket nesting */
  int best = depth;
  for (; *p; p++) {
    if (*p == '(') {
      int d = count_depth(p + 1, depth + 1);
      if (d > best)
        best = d;
      while (*p && *p != ')')
        p++;
      if (!*p)
        break;
    } else if (*p == ')') {
      return best;
    }
  }
  return best;
}

int main(void)
{
  struct counts c;
  int line = 1, total = 0;
  printf("banner: %s\n", banner_printed ? "yes" : "no");
  for (const char *p = text; *p;) {
    total += split_words(p, line);
    const char *nl = strchr(p, '\n');
    if (!nl)
      break;
    p = nl + 1;
    line++;
  }
  classify_text(text, &c);
  printf("chars %u, words %d, distinct %d, lines %d\n", (unsigned)strlen(text), total,
         word_count(), c.lines);
  printf("letters %d vowels %d upper %d digits %d spaces %d punct %d other %d\n", c.letters,
         c.vowels, c.upper, c.digits, c.spaces, c.punct, c.other);
  for (int i = 0; i < 8; i++)
    printf("  %-10s %d\n", class_name(i), c.by_class[i]);
  sort_words(0);
  printf("most frequent:\n");
  for (int i = 0; i < word_count() && i < 6; i++)
    printf("  %-8s %d (line %d)\n", word_at(i)->text, word_at(i)->count, word_at(i)->first_line);
  sort_words(by_text);
  printf("first alphabetically: %s, last: %s\n", word_at(0)->text,
         word_at(word_count() - 1)->text);
  printf("longest word: %s (%d)\n", longest, longest_len);
  printf("bracket depth: %d\n", count_depth("a(b(c)d(e(f)))", 0));
  return 0;
}
