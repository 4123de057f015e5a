# Writes a C program of a few hundred KB of o32 text whose hot code is
# spread through it: N functions of about half a KB each (a loop over a
# switch of arithmetic), of which every 25th is called from main's loop;
# each of those calls a chain of two more, found by a fixed hash, so the
# code that runs lies on pages all over the text.  Used by scripts/demo:
#
#   awk -v N=600 -f examples/spread.awk >spread.c
BEGIN {
  if (N == 0) N = 600
  STEP = 25
  print "#include <stdio.h>\n#include <stdlib.h>\n"
  print "typedef unsigned (*fn)(unsigned, unsigned);"
  for (k = 0; k < N; k++) printf "unsigned f%d(unsigned, unsigned);\n", k
  for (k = 0; k < N; k++) {
    printf "unsigned f%d(unsigned x, unsigned d) {\n  unsigned s = x ^ %uu;\n", k, (k * 2654435761) % 4294967296
    print "  for (unsigned i = 0; i < 3; ++i) {\n    switch ((s >> (i + 1)) & 7) {"
    for (c = 0; c < 8; c++)
      printf "    case %d: s = (s * %du + %du) ^ (s >> %d); break;\n", c, 2 * ((k * 8 + c) * 40503 % 65536) + 1,
        (k * 31 + c * 17) % 1000, 1 + (k + c) % 13
    print "    }\n  }"
    printf "  if (d > 0) s += f%d(s, d - 1);\n  return s;\n}\n", (k * 7919 + 13) % N
  }
  printf "static const fn hot[] = {"
  for (k = 0; k < N; k += STEP) printf "f%d, ", k
  print "};\n"
  print "int main(int argc, char **argv) {"
  print "  int rounds = argc > 1 ? atoi(argv[1]) : 1000;\n  unsigned s = 1;"
  print "  for (int r = 0; r < rounds; ++r)\n    for (unsigned k = 0; k < sizeof hot / sizeof hot[0]; ++k)"
  print "      s = hot[k](s + r, 2);"
  print "  printf(\"%u\\n\", s);\n  return 0;\n}"
}
