#include <ctype.h>
#include <string.h>
#include "calc.h"

static const char *const names[] = {
  "end", "num", "ident", "+", "-", "*", "/", "%", "(", ")", ",", "^", "bad",
};

const char *tok_name(enum tok_kind k)
{
  if ((unsigned)k < sizeof names / sizeof names[0])
    return names[k];
  return "?";
}

static void skip_space(struct lexer *lx)
{
  while (*lx->p == ' ' || *lx->p == '\t')
    lx->p++;
}

static long read_number(struct lexer *lx)
{
  long v = 0;
  int base = 10;
  if (lx->p[0] == '0' && (lx->p[1] == 'x' || lx->p[1] == 'X')) {
    base = 16;
    lx->p += 2;
  }
  for (;;) {
    int c = *lx->p, d;
    if (c >= '0' && c <= '9')
      d = c - '0';
    else if (base == 16 && c >= 'a' && c <= 'f')
      d = c - 'a' + 10;
    else
      break;
    v = v * base + d;
    lx->p++;
  }
  return v;
}

void lex_next(struct lexer *lx)
{
  struct token *t = &lx->cur;
  skip_space(lx);
  t->value = 0;
  t->name[0] = 0;
  if (isdigit((unsigned char)*lx->p)) {
    t->kind = T_NUM;
    t->value = read_number(lx);
    return;
  }
  if (isalpha((unsigned char)*lx->p)) {
    size_t n = 0;
    while (isalnum((unsigned char)*lx->p)) {
      if (n + 1 < sizeof t->name)
        t->name[n++] = *lx->p;
      lx->p++;
    }
    t->name[n] = 0;
    t->kind = T_IDENT;
    return;
  }
  /* Dense range of punctuation: the compiler turns this into a table. */
  switch (*lx->p) {
  case 0: t->kind = T_END; return;
  case '%': t->kind = T_PERCENT; break;
  case '(': t->kind = T_LPAREN; break;
  case ')': t->kind = T_RPAREN; break;
  case '*': t->kind = T_STAR; break;
  case '+': t->kind = T_PLUS; break;
  case ',': t->kind = T_COMMA; break;
  case '-': t->kind = T_MINUS; break;
  case '/': t->kind = T_SLASH; break;
  case '^': t->kind = T_CARET; break;
  default: t->kind = T_BAD; break;
  }
  lx->p++;
}

void lex_init(struct lexer *lx, const char *text)
{
  lx->p = text;
  lex_next(lx);
}
