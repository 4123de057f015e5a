#include <stdio.h>
#include <stdlib.h>
#include "calc.h"

static long keep(long v) { return v; }
long (*calc_post)(long) = keep;

static int ready;
static const char *exprs[32];
static int nexprs;

__attribute__((constructor)) static void setup(void)
{
  static const char *const init[] = {
    "1 + 2 * 3", "(1 + 2) * 3", "2 ^ 10", "2 ^ 3 ^ 2", "100 / 7 % 5",
    "fact(10)", "fib(15)", "sqrt(1000000)", "-(3 - 10) * 4",
    "id(0, 12, 30)", "id(4, 84, 36)", "id(12, 1, 20)", "id(13, 7, 9)",
    "collatz(27)", "0x1f + 0x20", "3 +", "4 $ 4", "id(9, 5, 10) + id(10, 1, 4)",
  };
  for (unsigned i = 0; i < sizeof init / sizeof init[0]; i++)
    exprs[nexprs++] = init[i];
  ready = 1;
}

static int cmp_long(const void *a, const void *b)
{
  long x = *(const long *)a, y = *(const long *)b;
  return (x > y) - (x < y);
}

int main(void)
{
  long results[32];
  int n = 0;
  if (!ready) {
    puts("constructor did not run");
    return 1;
  }
  for (int i = 0; i < nexprs; i++) {
    int ok;
    long v = eval_expr(exprs[i], &ok);
    if (ok) {
      printf("%-30s = %ld\n", exprs[i], v);
      results[n++] = v;
    } else {
      printf("%-30s : syntax error\n", exprs[i]);
    }
  }
  qsort(results, n, sizeof results[0], cmp_long);
  printf("sorted:");
  for (int i = 0; i < n; i++)
    printf(" %ld", results[i]);
  printf("\nprimary parses: %d\n", calc_calls);
  for (int k = T_END; k <= T_BAD; k++)
    printf("%s%s", tok_name((enum tok_kind)k), k == T_BAD ? "\n" : " ");
  return 0;
}
