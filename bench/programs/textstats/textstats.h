/* Word and character statistics over a built-in text: a bench program. */
#ifndef TEXTSTATS_H
#define TEXTSTATS_H

#include <stddef.h>

struct word {
  char text[24];
  int count;
  int first_line;
};

struct counts {
  int letters, digits, spaces, punct, vowels, upper, lines, other;
  int by_class[8];
};

void classify_text(const char *text, struct counts *c);
const char *class_name(int cls);

int add_word(const char *w, size_t len, int line);
int word_count(void);
struct word *word_at(int i);
void sort_words(int (*cmp)(const void *, const void *));
extern int (*default_order)(const void *, const void *);
int by_count(const void *a, const void *b);
int by_text(const void *a, const void *b);

#endif
