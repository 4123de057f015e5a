/* What GCC does to functions at -O2 (built by coverage_test.cpp, never
   run): main in .text.startup, a hot part with a cold one, clones, a
   function both inlined and kept, and two bodies folded into one. */
#include <stdio.h>

static int table[256];
volatile int sink;

static void fill(int *t, int n, int seed) { /* fill.part.0 */
  if (n <= 0)
    return;
  for (int i = 0; i < n; i++)
    t[i] = (seed = seed * 1103515245 + 12345) >> 8 & 0xff;
}
static __attribute__((noinline)) long scale(const int *t, int n, int f) { /* scale.constprop.0 */
  long s = 0;
  for (int i = 0; i < n; i++)
    s += (long)t[i] * f + (t[i] >> 3);
  return s;
}
__attribute__((cold, noinline)) void report(int x) { fprintf(stderr, "negative %d\n", x); }
__attribute__((noinline)) int check(int x) { /* check and check.cold */
  int r = x * 3 + table[x & 255];
  if (x < 0) {
    report(x);
    sink = r = table[-x & 255] - 1;
  }
  return r;
}
static inline int twice(int x) { return 2 * x + table[x & 7]; }
int (*volatile op)(int) = twice;
static __attribute__((noinline)) int sum_a(const int *p, int n) { int s = 0; for (int i = 0; i < n; i++) s += p[i] ^ 5; return s; }
static __attribute__((noinline)) int sum_b(const int *p, int n) { int s = 0; for (int i = 0; i < n; i++) s += p[i] ^ 5; return s; }
int (*volatile sum)(const int *, int) = sum_b;

int main(int argc, char **argv) {
  fill(table, argc * 100, 1);
  fill(table + 100, argc * 50, 2);
  long s = scale(table, 256, 3) + scale(table, 128, 3) + check(argc) + twice(argc) + op(argc);
  printf("%ld %s\n", s + sum_a(table, 10) + sum(table, 20), argc > 1 ? argv[1] : "-");
  return 0;
}
