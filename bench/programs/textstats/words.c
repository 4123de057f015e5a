#include <stdlib.h>
#include <string.h>
#include <ctype.h>
#include "textstats.h"

#define MAX_WORDS 256
#define NBUCKETS 64

static struct word words[MAX_WORDS];
static int nwords;
static int buckets[NBUCKETS];
static int chain[MAX_WORDS];

static unsigned hash(const char *s, size_t len)
{
  unsigned h = 5381;
  for (size_t i = 0; i < len; i++)
    h = h * 33 + (unsigned char)tolower((unsigned char)s[i]);
  return h % NBUCKETS;
}

static int same_word(const struct word *w, const char *s, size_t len)
{
  if (strlen(w->text) != len)
    return 0;
  for (size_t i = 0; i < len; i++)
    if (w->text[i] != tolower((unsigned char)s[i]))
      return 0;
  return 1;
}

int add_word(const char *s, size_t len, int line)
{
  if (len >= sizeof words[0].text)
    len = sizeof words[0].text - 1;
  unsigned h = hash(s, len);
  for (int i = buckets[h] - 1; i >= 0; i = chain[i] - 1)
    if (same_word(&words[i], s, len))
      return ++words[i].count;
  if (nwords == MAX_WORDS)
    return 0;
  struct word *w = &words[nwords];
  for (size_t i = 0; i < len; i++)
    w->text[i] = (char)tolower((unsigned char)s[i]);
  w->text[len] = 0;
  w->count = 1;
  w->first_line = line;
  chain[nwords] = buckets[h];
  buckets[h] = ++nwords;
  return 1;
}

int word_count(void) { return nwords; }
struct word *word_at(int i) { return &words[i]; }

int by_count(const void *a, const void *b)
{
  const struct word *x = a, *y = b;
  if (x->count != y->count)
    return y->count - x->count;
  return strcmp(x->text, y->text);
}

int by_text(const void *a, const void *b)
{
  return strcmp(((const struct word *)a)->text, ((const struct word *)b)->text);
}

int (*default_order)(const void *, const void *) = by_count;

void sort_words(int (*cmp)(const void *, const void *))
{
  qsort(words, nwords, sizeof words[0], cmp ? cmp : default_order);
  /* the hash chains are stale after sorting: rebuild them */
  memset(buckets, 0, sizeof buckets);
  for (int i = 0; i < nwords; i++) {
    unsigned h = hash(words[i].text, strlen(words[i].text));
    chain[i] = buckets[h];
    buckets[h] = i + 1;
  }
}
