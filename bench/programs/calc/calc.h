/* A small integer expression calculator used as a bench program. */
#ifndef CALC_H
#define CALC_H

enum tok_kind { T_END, T_NUM, T_IDENT, T_PLUS, T_MINUS, T_STAR, T_SLASH,
                T_PERCENT, T_LPAREN, T_RPAREN, T_COMMA, T_CARET, T_BAD };

struct token {
  enum tok_kind kind;
  long value;
  char name[16];
};

struct lexer {
  const char *p;
  struct token cur;
};

void lex_init(struct lexer *lx, const char *text);
void lex_next(struct lexer *lx);
const char *tok_name(enum tok_kind k);

long eval_expr(const char *text, int *ok);

typedef long (*builtin_fn)(long);
builtin_fn find_builtin(const char *name);
long apply_mode(int mode, long a, long b);
extern int calc_calls;
extern long (*calc_post)(long);

#endif
