#include <stdio.h>
#include "shapes.h"

/* pi scaled by 1000 */
#define PI1000 3142L

static long circle_area2(const struct shape *s) { return 2 * PI1000 * s->a * s->a / 1000; }
static long circle_perim(const struct shape *s) { return 2 * PI1000 * s->a / 1000; }
static long rect_area2(const struct shape *s) { return 2 * s->a * s->b; }
static long rect_perim(const struct shape *s) { return 2 * (s->a + s->b); }
static long square_area2(const struct shape *s) { return 2 * s->a * s->a; }
static long square_perim(const struct shape *s) { return 4 * s->a; }

static long tri_area2(const struct shape *s)
{
  /* Heron's formula in integers: 16 A^2 = (a+b+c)(-a+b+c)(a-b+c)(a+b-c) */
  long p = (s->a + s->b + s->c) * (-s->a + s->b + s->c) * (s->a - s->b + s->c) *
           (s->a + s->b - s->c);
  return isqrt_l(p) / 2;
}
static long tri_perim(const struct shape *s) { return s->a + s->b + s->c; }
static long poly_a(const struct shape *s) { return poly_area2(s->pts, s->npoints); }
static long poly_p(const struct shape *s) { return poly_perimeter(s->pts, s->npoints); }
static long ring_area2(const struct shape *s)
{
  return 2 * PI1000 * (s->a * s->a - s->b * s->b) / 1000;
}
static long ring_perim(const struct shape *s) { return 2 * PI1000 * (s->a + s->b) / 1000; }
static long ellipse_area2(const struct shape *s) { return 2 * PI1000 * s->a * s->b / 1000; }
static long ellipse_perim(const struct shape *s)
{
  /* Ramanujan's first approximation, scaled */
  long a = s->a, b = s->b;
  long h = 3 * (a + b) - isqrt_l((3 * a + b) * (a + 3 * b));
  return PI1000 * h / 1000;
}
static long hex_area2(const struct shape *s) { return 3 * 1732L * s->a * s->a / 1000; }
static long hex_perim(const struct shape *s) { return 6 * s->a; }

static const struct shape_ops circle_ops = { "circle", circle_area2, circle_perim };
static const struct shape_ops rect_ops = { "rect", rect_area2, rect_perim };
static const struct shape_ops square_ops = { "square", square_area2, square_perim };
static const struct shape_ops tri_ops = { "triangle", tri_area2, tri_perim };
static const struct shape_ops poly_ops = { "polygon", poly_a, poly_p };
static const struct shape_ops ring_ops = { "ring", ring_area2, ring_perim };
static const struct shape_ops ellipse_ops = { "ellipse", ellipse_area2, ellipse_perim };
static const struct shape_ops hex_ops = { "hexagon", hex_area2, hex_perim };

const struct shape_ops *const shape_table[S_KINDS] = {
  &circle_ops, &rect_ops, &square_ops, &tri_ops, &poly_ops, &ring_ops, &ellipse_ops, &hex_ops,
};

/* Long function with a dense switch over the kinds. */
const char *describe(const struct shape *s, char *buf, int size)
{
  switch (s->kind) {
  case S_CIRCLE:
    snprintf(buf, size, "circle r=%ld", s->a);
    break;
  case S_RECT:
    if (s->a == s->b)
      snprintf(buf, size, "rect %ldx%ld (really a square)", s->a, s->b);
    else
      snprintf(buf, size, "rect %ldx%ld%s", s->a, s->b, s->a > 2 * s->b ? " (wide)" : "");
    break;
  case S_SQUARE:
    snprintf(buf, size, "square side=%ld", s->a);
    break;
  case S_TRIANGLE:
    if (s->a == s->b && s->b == s->c)
      snprintf(buf, size, "equilateral triangle %ld", s->a);
    else if (s->a == s->b || s->b == s->c || s->a == s->c)
      snprintf(buf, size, "isosceles triangle %ld,%ld,%ld", s->a, s->b, s->c);
    else
      snprintf(buf, size, "triangle %ld,%ld,%ld", s->a, s->b, s->c);
    break;
  case S_POLY: {
    int n = snprintf(buf, size, "polygon of %d points:", s->npoints);
    for (int i = 0; i < s->npoints && n < size; i++)
      n += snprintf(buf + n, size - n, " (%ld,%ld)", s->pts[i].x, s->pts[i].y);
    break;
  }
  case S_RING:
    snprintf(buf, size, "ring %ld..%ld", s->b, s->a);
    break;
  case S_ELLIPSE:
    snprintf(buf, size, "ellipse %ldx%ld", s->a, s->b);
    break;
  case S_HEXAGON:
    snprintf(buf, size, "hexagon side=%ld", s->a);
    break;
  default:
    snprintf(buf, size, "unknown shape %d", (int)s->kind);
    break;
  }
  return buf;
}
