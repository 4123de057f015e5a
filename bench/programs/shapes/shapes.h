/* Integer geometry over a few kinds of shape: a bench program. */
#ifndef SHAPES_H
#define SHAPES_H

enum shape_kind { S_CIRCLE, S_RECT, S_SQUARE, S_TRIANGLE, S_POLY, S_RING,
                  S_ELLIPSE, S_HEXAGON, S_KINDS };

struct point { long x, y; };

struct shape {
  enum shape_kind kind;
  long a, b, c;          /* dimensions, meaning depends on kind */
  int npoints;
  struct point pts[8];
  long area2;            /* twice the area, filled in by measure() */
};

struct shape_ops {
  const char *name;
  long (*area2)(const struct shape *);
  long (*perimeter)(const struct shape *);
};

extern const struct shape_ops *const shape_table[S_KINDS];
long isqrt_l(long n);
long poly_area2(const struct point *pts, int n);
long poly_perimeter(const struct point *pts, int n);
const char *describe(const struct shape *s, char *buf, int size);

#endif
