#include <string.h>
#include "textstats.h"

static const char *const class_names[8] = {
  "vowel", "consonant", "digit", "space", "punct", "newline", "upper", "other",
};

const char *class_name(int cls)
{
  return cls >= 0 && cls < 8 ? class_names[cls] : "?";
}

static int letter_class(int c)
{
  /* One case per letter: dense enough for a jump table. */
  switch (c - 'a') {
  case 0: case 4: case 8: case 14: case 20:
    return 0;
  case 1: case 2: case 3: case 5: case 6: case 7: case 9: case 10: case 11:
  case 12: case 13: case 15: case 16: case 17: case 18: case 19: case 21:
  case 22: case 23: case 25:
    return 1;
  case 24:
    return 1; /* y counts as a consonant here */
  default:
    return 7;
  }
}

static int char_class(int c)
{
  if (c >= 'a' && c <= 'z')
    return letter_class(c);
  if (c >= 'A' && c <= 'Z')
    return 6;
  if (c >= '0' && c <= '9')
    return 2;
  switch (c) {
  case ' ': case '\t': return 3;
  case '\n': return 5;
  case '!': case '"': case '\'': case '(': case ')': case ',': case '-':
  case '.': case ':': case ';': case '?':
    return 4;
  default:
    return 7;
  }
}

void classify_text(const char *text, struct counts *c)
{
  memset(c, 0, sizeof *c);
  for (const char *p = text; *p; p++) {
    int cls = char_class((unsigned char)*p);
    c->by_class[cls]++;
    switch (cls) {
    case 0: c->vowels++; c->letters++; break;
    case 1: c->letters++; break;
    case 2: c->digits++; break;
    case 3: c->spaces++; break;
    case 4: c->punct++; break;
    case 5: c->lines++; break;
    case 6: c->upper++; c->letters++; break;
    default: c->other++; break;
    }
  }
}
