#include "shapes.h"

long isqrt_l(long n)
{
  /* the bound keeps mid * mid inside 32 bits, so every ABI agrees */
  long lo = 0, hi = n / 2 + 1 < 46341 ? n / 2 + 1 : 46341;
  if (n < 2)
    return n;
  while (lo < hi) {
    long mid = lo + (hi - lo + 1) / 2;
    if (mid <= n / mid)
      lo = mid;
    else
      hi = mid - 1;
  }
  return lo;
}

/* Fan triangulation, recursively: area of the first triangle plus the
   area of the polygon without its second vertex. */
static long fan(const struct point *o, const struct point *pts, int n)
{
  if (n < 2)
    return 0;
  long cross = (pts[0].x - o->x) * (pts[1].y - o->y) - (pts[1].x - o->x) * (pts[0].y - o->y);
  return cross + fan(o, pts + 1, n - 1);
}

long poly_area2(const struct point *pts, int n)
{
  if (n < 3)
    return 0;
  long a = fan(&pts[0], pts + 1, n - 1);
  return a < 0 ? -a : a;
}

static long dist(struct point p, struct point q)
{
  long dx = p.x - q.x, dy = p.y - q.y;
  return isqrt_l(dx * dx + dy * dy);
}

long poly_perimeter(const struct point *pts, int n)
{
  long s = 0;
  for (int i = 0; i < n; i++)
    s += dist(pts[i], pts[(i + 1) % n]);
  return s;
}
