#include <string.h>
#include "calc.h"

static long fact(long n) { return n <= 1 ? 1 : n * fact(n - 1); }

static long fib(long n)
{
  if (n < 2)
    return n;
  return fib(n - 1) + fib(n - 2);
}

static long isqrt(long n)
{
  long x = n, y = (x + 1) / 2;
  if (n <= 0)
    return 0;
  while (y < x) {
    x = y;
    y = (x + n / x) / 2;
  }
  return x;
}

static long ident(long n) { return n; }
static long collatz(long n)
{
  long steps = 0;
  while (n > 1 && steps < 1000) {
    n = (n & 1) ? 3 * n + 1 : n / 2;
    steps++;
  }
  return steps;
}

static long gcd(long a, long b) { return b ? gcd(b, a % b) : (a < 0 ? -a : a); }

static const struct {
  const char *name;
  builtin_fn fn;
} builtins[] = {
  { "fact", fact }, { "fib", fib }, { "sqrt", isqrt },
  { "id", ident }, { "collatz", collatz },
};

builtin_fn find_builtin(const char *name)
{
  for (unsigned i = 0; i < sizeof builtins / sizeof builtins[0]; i++)
    if (strcmp(builtins[i].name, name) == 0)
      return builtins[i].fn;
  return 0;
}

/* A long, switch-heavy function: combines a and b in one of many ways. */
long apply_mode(int mode, long a, long b)
{
  long r;
  switch (mode) {
  case 0: r = a + b; break;
  case 1: r = a - b; break;
  case 2: r = a * b; break;
  case 3: r = b ? a / b : 0; break;
  case 4: r = gcd(a, b); break;
  case 5: r = a > b ? a : b; break;
  case 6: r = a < b ? a : b; break;
  case 7: r = a ^ b; break;
  case 8: r = a & b; break;
  case 9: r = a | b; break;
  case 10: r = (a << (b & 15)); break;
  case 11: r = (a >> (b & 15)); break;
  case 12: {
    long lo = a < b ? a : b, hi = a < b ? b : a, s = 0;
    for (long i = lo; i <= hi && i - lo < 100; i++)
      s += i;
    r = s;
    break;
  }
  case 13: {
    long bits = 0;
    unsigned long v = (unsigned long)(a * 31 + b);
    while (v) {
      bits += v & 1;
      v >>= 1;
    }
    r = bits;
    break;
  }
  default: r = -1; break;
  }
  return r;
}
