#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include "shapes.h"

static struct shape shapes[16];
static int nshapes;

static void add(enum shape_kind k, long a, long b, long c)
{
  struct shape *s = &shapes[nshapes++];
  memset(s, 0, sizeof *s);
  s->kind = k;
  s->a = a;
  s->b = b;
  s->c = c;
}

__attribute__((constructor)) static void populate(void)
{
  add(S_CIRCLE, 10, 0, 0);
  add(S_RECT, 30, 4, 0);
  add(S_RECT, 7, 7, 0);
  add(S_SQUARE, 12, 0, 0);
  add(S_TRIANGLE, 3, 4, 5);
  add(S_TRIANGLE, 6, 6, 6);
  add(S_RING, 9, 4, 0);
  add(S_ELLIPSE, 20, 5, 0);
  add(S_HEXAGON, 8, 0, 0);
  add(S_POLY, 0, 0, 0);
  static const struct point star[] = { {0, 0}, {10, 0}, {12, 8}, {5, 14}, {-2, 8} };
  shapes[nshapes - 1].npoints = 5;
  memcpy(shapes[nshapes - 1].pts, star, sizeof star);
}

static void measure(struct shape *s)
{
  s->area2 = shape_table[s->kind]->area2(s);
}

static int by_area(const void *a, const void *b)
{
  const struct shape *x = a, *y = b;
  if (x->area2 != y->area2)
    return x->area2 < y->area2 ? -1 : 1;
  return (int)x->kind - (int)y->kind;
}

static void (*const passes[])(struct shape *) = { measure };

int main(void)
{
  char buf[160];
  long total = 0;
  for (unsigned p = 0; p < sizeof passes / sizeof passes[0]; p++)
    for (int i = 0; i < nshapes; i++)
      passes[p](&shapes[i]);
  qsort(shapes, nshapes, sizeof shapes[0], by_area);
  for (int i = 0; i < nshapes; i++) {
    const struct shape_ops *ops = shape_table[shapes[i].kind];
    printf("%-9s area %6ld.%ld perimeter %4ld  %s\n", ops->name, shapes[i].area2 / 2,
           (shapes[i].area2 & 1) * 5, ops->perimeter(&shapes[i]),
           describe(&shapes[i], buf, sizeof buf));
    total += shapes[i].area2;
  }
  printf("total area %ld.%ld over %d shapes\n", total / 2, (total & 1) * 5, nshapes);
  printf("isqrt(2e9) = %ld\n", isqrt_l(2000000000L));
  return 0;
}
