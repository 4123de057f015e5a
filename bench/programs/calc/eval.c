#include <string.h>
#include "calc.h"

int calc_calls;

static long op_add(long a, long b) { return a + b; }
static long op_sub(long a, long b) { return a - b; }
static long op_mul(long a, long b) { return a * b; }
static long op_div(long a, long b) { return b ? a / b : 0; }
static long op_mod(long a, long b) { return b ? a % b : 0; }

static long power(long base, long exp)
{
  if (exp <= 0)
    return 1;
  if (exp & 1)
    return base * power(base, exp - 1);
  long h = power(base, exp / 2);
  return h * h;
}

struct binop {
  enum tok_kind kind;
  int prec;
  long (*fn)(long, long);
};

/* Operator table: function pointers held in initialised data. */
static const struct binop binops[] = {
  { T_PLUS, 1, op_add },
  { T_MINUS, 1, op_sub },
  { T_STAR, 2, op_mul },
  { T_SLASH, 2, op_div },
  { T_PERCENT, 2, op_mod },
  { T_CARET, 3, power },
};

static const struct binop *find_binop(enum tok_kind k)
{
  for (unsigned i = 0; i < sizeof binops / sizeof binops[0]; i++)
    if (binops[i].kind == k)
      return &binops[i];
  return 0;
}

static long parse_binary(struct lexer *lx, int min_prec, int *ok);

static long parse_primary(struct lexer *lx, int *ok)
{
  struct token t = lx->cur;
  calc_calls++;
  switch (t.kind) {
  case T_NUM:
    lex_next(lx);
    return t.value;
  case T_MINUS:
    lex_next(lx);
    return -parse_primary(lx, ok);
  case T_LPAREN: {
    lex_next(lx);
    long v = parse_binary(lx, 1, ok);
    if (lx->cur.kind != T_RPAREN)
      *ok = 0;
    lex_next(lx);
    return v;
  }
  case T_IDENT: {
    builtin_fn fn = find_builtin(t.name);
    lex_next(lx);
    if (!fn || lx->cur.kind != T_LPAREN) {
      *ok = 0;
      return 0;
    }
    lex_next(lx);
    long arg = parse_binary(lx, 1, ok);
    if (lx->cur.kind == T_COMMA) {
      /* two-argument form: mode(m, a, b) is handled by apply_mode */
      lex_next(lx);
      long b = parse_binary(lx, 1, ok);
      long c = 0;
      if (lx->cur.kind == T_COMMA) {
        lex_next(lx);
        c = parse_binary(lx, 1, ok);
      }
      arg = apply_mode((int)arg, b, c);
    }
    if (lx->cur.kind != T_RPAREN)
      *ok = 0;
    lex_next(lx);
    return fn(arg);
  }
  default:
    *ok = 0;
    return 0;
  }
}

static long parse_binary(struct lexer *lx, int min_prec, int *ok)
{
  long lhs = parse_primary(lx, ok);
  for (;;) {
    const struct binop *op = find_binop(lx->cur.kind);
    if (!op || op->prec < min_prec || !*ok)
      return lhs;
    lex_next(lx);
    /* ^ is right-associative, the others left-associative */
    long rhs = parse_binary(lx, op->kind == T_CARET ? op->prec : op->prec + 1, ok);
    lhs = op->fn(lhs, rhs);
  }
}

long eval_expr(const char *text, int *ok)
{
  struct lexer lx;
  *ok = 1;
  lex_init(&lx, text);
  long v = parse_binary(&lx, 1, ok);
  if (lx.cur.kind != T_END)
    *ok = 0;
  return calc_post ? calc_post(v) : v;
}
