#!/bin/sh
# What reordering buys on the real programs: for each o32 build of the
# bench (bench/real/build.sh), annotate it, profile one workload with
# vesk-profile in each order (temporal: procedures run close together in
# time placed together, the default; hot: hottest first by entry count; c3:
# call-chain clusters), lay it out with vesk, and run the original and the
# reordered executables on the same workload under vesk-profile --compare.
# Prints a Markdown table of pages of text touched (and the ideal: the
# executed procedures packed together), simulated TLB misses (16 entries of
# 4 KB pages, 48 entries of 8 KB page pairs) and I-cache misses (8 KB
# direct-mapped, 32-byte lines), and the overhead of profiling: the time of
# a traced run over that of a plain qemu run, both measured in this run.
#
#   bench/profile_figures.sh [BUILD [VARIANT]]
#
# BUILD is the build directory (default build: it needs vesk, vesk-annotate,
# vesk-profile and BUILD/real-programs); VARIANT the build of each program
# (default o32-dwarf-pie); PROGRAMS, if set, the programs to run.  Work
# files go to BUILD/profile-figures.
set -eu
cd "$(dirname "$0")/.."
build=$(cd "${1:-build}" && pwd)
variant=${2:-o32-dwarf-pie}
real=$build/real-programs
work=$build/profile-figures
rm -rf "$work"
mkdir -p "$work"
cd "$work"
data=$real/data

# The workload of each program: a few million blocks.
workload() {
  case $1 in
    bzip2) echo "-d -c -k $data/bzip2/sample1.bz2" ;;
    jimtcl) echo "$work/jim.tcl" ;;
    duktape) echo "$data/duktape/mandel.js" ;;
    sqlite3) echo ":memory: -init /dev/null" ;;
    jsoncpp_test) echo "" ;; # its unit tests, all of them
  esac
}
cat >jim.tcl <<'TCL'
proc fib {n} { if {$n < 2} { return $n }; expr {[fib [expr {$n - 1}]] + [fib [expr {$n - 2}]]} }
set d [dict create]
for {set i 0} {$i < 300} {incr i} {
  dict set d k$i [format %05d $i]
  lappend l [string reverse [string toupper "item$i"]]
  regexp {([0-9]+)} "abc$i" -> n
}
puts [fib 15] ; puts [llength [lsort $l]] ; puts [dict size $d] ; puts [string map {a b} [join $l ,]]
TCL
stdin_of() {
  case $1 in
    sqlite3) echo "$data/sqlite3/shell.sql" ;;
    *) echo /dev/null ;;
  esac
}

# field FILE ROW-PREFIX COLUMN: a number from vesk-profile --compare's table.
field() { grep "^$2" "$1" | awk -v c="$3" '{ print $(NF - 3 + c) }'; }

orders="temporal hot c3"
printf '| program | text | pages: original | temporal | hot | c3 | ideal | TLB 16x4K: original | temporal | hot | c3 | TLB 48x8K: original | temporal | hot | c3 | I-cache 8K: original | temporal | hot | c3 |\n'
printf '|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n'
for prog in ${PROGRAMS:-bzip2 jimtcl duktape sqlite3 jsoncpp_test}; do
  exe=$real/$prog-$variant
  [ -f "$exe" ] || continue
  "$build/vesk-annotate" "$exe" -o "$prog"
  args=$(workload $prog)
  in=$(stdin_of $prog)
  for order in $orders; do
    # shellcheck disable=SC2086
    # The program's exit status passes through (sqlite3's script has an
    # error on purpose).
    "$build/vesk-profile" --order $order -o $prog.$order.fb -- ./$prog $args <"$in" >/dev/null 2>&1 || true
    "$build/vesk" -v $prog $prog.$order.fb -o $prog.$order 2>$prog.$order.vesk >/dev/null
    if grep -q "Procedure not found" $prog.$order.vesk; then
      echo "$prog: vesk did not find procedures of the feedback:" >&2
      grep "Procedure not found" $prog.$order.vesk >&2
      exit 1
    fi
    # shellcheck disable=SC2086
    "$build/vesk-profile" --compare ./$prog ./$prog.$order --heatmap $prog.$order.svg -- $args <"$in" \
      >$prog.$order.cmp 2>/dev/null || { cat $prog.$order.cmp >&2; exit 1; }
  done
  size=$(mips-linux-gnu-readelf -SW "$exe" | awk '$2 == ".text" { print $6 }')
  text="$((0x$size / 1024)) K"
  # The original, then each order's reordered run.
  figures() {
    printf ' %s |' "$(field $prog.temporal.cmp "$1" 1)"
    for order in $orders; do printf ' %s |' "$(field $prog.$order.cmp "$1" 2)"; done
  }
  printf '| %s | %s |%s %s |%s%s%s\n' "$prog" "$text" "$(figures '4 KB pages')" "$(field $prog.hot.cmp ideal 2)" \
    "$(figures 'TLB misses, 16')" "$(figures 'TLB misses, 48')" "$(figures 'I-cache')"
done

# The overhead of profiling, on jimtcl's workload: best of three each.
exe=./jimtcl
if [ -f "$exe" ]; then
  best() { # milliseconds
    b=""
    for _ in 1 2 3; do
      s=$(date +%s%N)
      "$@" >/dev/null 2>&1 </dev/null
      t=$((($(date +%s%N) - s) / 1000000))
      if [ -z "$b" ] || [ "$t" -lt "$b" ]; then b=$t; fi
    done
    echo "$b"
  }
  plain=$(best qemu-mips -L /usr/mips-linux-gnu $exe "$work/jim.tcl")
  traced=$(best "$build/vesk-profile" -o overhead.fb -- $exe "$work/jim.tcl")
  echo
  echo "profiling overhead (jimtcl): plain qemu $plain ms, vesk-profile $traced ms, ratio $((traced / plain))"
fi
