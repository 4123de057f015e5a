#!/bin/sh
# Runs a real program's own tests (or a sample workload) on an executable
# under qemu and compares the result with the reference that build.sh
# recorded from the original builds.
#
#   bench/real/check.sh PROGRAM ABI EXE
#
# PROGRAM is bzip2, jimtcl, duktape, sqlite3, jsoncpp_test or
# jsontestrunner; ABI o32, n32 or n64.  The
# test data and the reference are in the OUTDIR of build.sh: $VESK_REAL_DIR,
# or else the directory of EXE.  Exits 0 when the result is the reference's,
# 1 (with a diff on stderr) otherwise; a crash or a hang (20 s per qemu run,
# 60 s for a group of jimtcl's tests) is a failure whatever the reference
# says.
#
# build.sh records the reference with --result, which prints the result
# instead of comparing it.
#
#   bzip2:   its Makefile's test: compress sample1-3 with -1/-2/-3 and
#            decompress the .bz2 (sample3 with -s), compared with the
#            shipped files; plus a verbose integrity test and the
#            compression of input repetitive enough for the fallback sort.
#   jimtcl:  its test suite, tests/*.test but two (see below), run by
#            the jimsh under test; the result is the suite's report (counts
#            of passed, skipped and failed tests per file, and any failure).
#   duktape: mandel.js, the guide's fib.js, prime.js (on a smaller range:
#            the full one takes a minute under qemu) and process.js, a
#            compile to bytecode and a run of it, and our scripts in
#            bench/real/duktape (regexps, JSON, the language core,
#            Date/Math, strings).
#   sqlite3: the SQL scripts in bench/real/sqlite3, each fed to the shell
#            on a new database file (and no ~/.sqliterc): tables filled by
#            recursive CTEs, joins, grouping, window, date and printf
#            functions, triggers, a transaction rolled back, query plans
#            (core.sql), JSON (json.sql), full-text search (fts.sql), and
#            the shell's output modes, dot commands and built-in extensions
#            (shell.sql).
#   jsoncpp_test: jsoncpp's unit tests (119, some throwing and catching
#            C++ exceptions), all of them; the result is its report.
#   jsontestrunner: jsoncpp's reader and writer tests, what its
#            test/runjsontests.py does: each file of test/data read, written
#            and read back, the value trees printed compared with the
#            .expected file; the fail_* files must be refused in strict mode.
set -eu

mode=compare
if [ "${1:-}" = "--result" ]; then
  mode=result
  shift
fi
if [ $# -ne 3 ]; then
  echo "usage: $0 [--result] PROGRAM ABI EXE" >&2
  exit 2
fi
prog=$1 abi=$2
exe=$(cd "$(dirname "$3")" && pwd)/$(basename "$3")
dir=${VESK_REAL_DIR:-$(dirname "$exe")}
data=$dir/data/$prog
case $abi in
  o32) qemu="qemu-mips -L /usr/mips-linux-gnu" ;;
  n32) qemu="qemu-mipsn32 -L /usr/mips64-linux-gnuabi64" ;;
  n64) qemu="qemu-mips64 -L /usr/mips64-linux-gnuabi64" ;;
  *) echo "check.sh: unknown ABI $abi" >&2; exit 2 ;;
esac
[ -d "$data" ] || { echo "check.sh: no test data in $data (run build.sh)" >&2; exit 2; }

tmp=$(mktemp -d)
top=$tmp
trap 'rm -rf "$top"' EXIT
export TZ=UTC LC_ALL=C

# run WHAT ARG...: runs EXE, notes its exit status in the result and a
# crash or a time-out in $tmp/crashed.
run() {
  what=$1
  shift
  rc=0
  # shellcheck disable=SC2086
  timeout 20 $qemu "$exe" "$@" || rc=$?
  echo "$what: exit $rc" >>"$tmp/status"
  if [ $rc -ge 124 ]; then
    echo "$what: $(basename "$exe") crashed or timed out (exit $rc)" >>"$tmp/crashed"
  fi
}

result_bzip2() {
  cd "$data"
  for n in 1 2 3; do
    run "compress -$n" -$n <sample$n.ref >"$tmp/sample$n.rb2"
    s=-d
    [ $n = 3 ] && s=-ds
    run "decompress $s" $s <sample$n.bz2 >"$tmp/sample$n.tst"
    cmp -s "$tmp/sample$n.rb2" sample$n.bz2 && echo "sample$n.bz2: same" || echo "sample$n.bz2: differs"
    cmp -s "$tmp/sample$n.tst" sample$n.ref && echo "sample$n.ref: same" || echo "sample$n.ref: differs"
  done
  run "test -vv" -tvv sample2.bz2 2>&1
  yes abcab | head -c 300000 >"$tmp/rep"
  run "compress -9vv" -9vv <"$tmp/rep" 2>&1 | cksum
  cat "$tmp/status"
}

# The test suite runs in four groups at the same time, each with the
# suite's own driver (tests/runall.tcl: every file in a child interpreter,
# one line of counts per file, the details of any failure): one qemu
# start-up per file would cost more than the tests.  Most of the time goes
# in sleeps of the exec tests, which get group 1.
# socket.test binds fixed TCP ports (5000, 5001): group 3 holds a lock so
# that two checks never run it at once.  Left out, as they fail when the
# machine is busy: lock.test, which races a child jimsh's start-up (a new
# qemu) against a 0.1 s sleep, timer.test, whose timers 20 ms apart must
# fire in order, interactive.test, which types at a pseudo-terminal 0.25 s
# after a prompt, signal.test, whose alarms race sleeps, and event.test,
# whose timed events must come in order.  Every other file gave the same
# result with the cores busy.  Tests that run [info
# nameofexecutable] get a wrapper that runs the same executable under qemu
# (argv[0] set with -0).
jim_group() {
  case $1 in
    exec.test | exec2.test | jimsh.test | tailcall.test) echo 1 ;;
    socket.test) echo 3 ;;
    lock.test | timer.test | interactive.test | signal.test | event.test) ;;
    *) echo 2 ;;
  esac
}
result_jimtcl() {
  # shellcheck disable=SC2016
  printf '#!/bin/sh\nexec %s -0 "$0" "%s" "$@"\n' "$qemu" "$exe" >"$tmp/jimsh"
  chmod +x "$tmp/jimsh"
  for g in 1 2 3; do
    # Each group in its own copy: the files create and delete
    # scratch files under fixed names.
    mkdir "$tmp/$g"
    cp -R "$data/tests" "$data/tcltest.tcl" "$tmp/$g/"
    for f in "$tmp/$g"/tests/*.test; do
      [ "$(jim_group "$(basename "$f")")" = $g ] || rm "$f"
    done
  done
  # shellcheck disable=SC2016
  printf '1\n2\n3\n' | xargs -P3 -n1 sh -c '
    cd "$0/$1/tests" || exit 255
    lock=""
    [ "$1" = 3 ] && lock="flock /tmp/vesk-jimtcl-ports.lock"
    # A group runs many files: more time than for one run.
    rc=0
    $lock timeout 60 "$0/jimsh" runall.tcl >../out 2>&1 </dev/null || rc=$?
    # runall.tcl exits 1 when a test fails, which its output shows.
    [ $rc -le 1 ] || echo "group $1 of the tests: crashed or timed out (exit $rc)" >>"$0/crashed"
  ' "$tmp"
  cat "$tmp/1/out" "$tmp/2/out" "$tmp/3/out"
}

result_duktape() {
  cd "$data"
  run mandel.js mandel.js
  run fib.js fib.js
  run prime.js prime.js -e "
    var r = [];
    for (var i = 1; i < 30000; i++) { if (primeCheck(i) && i % 1000 == 999) { r.push(i); } }
    print(r.join(' '));"
  run process.js process.js -e "
    print(processLine('  <a href=\"x\"> *bold* & caf\u00e9 *two* '));"
  run "compile fib.js" -c "$tmp/fib.bin" fib.js
  run "run fib.bin" -b "$tmp/fib.bin"
  for f in datemath.js json.js lang.js regexp.js strings.js; do
    run "$f" "$f" 2>&1
  done
  cat "$tmp/status"
}

result_sqlite3() {
  cd "$tmp" # shell.sql writes and imports a CSV file
  : >sqliterc # read instead of ~/.sqliterc
  for f in core json fts shell; do
    run "$f.sql" -init sqliterc "$f.db" <"$data/$f.sql" 2>&1
  done
  cat "$tmp/status"
}

result_jsoncpp_test() {
  cd "$tmp"
  run "jsoncpp_test" 2>&1
  cat "$tmp/status"
}

# As runjsontests.py compares: line by line, leading and trailing blanks
# and blank lines at either end left out.
trimmed() { sed 's/\r//g; s/^[[:space:]]*//; s/[[:space:]]*$//' "$1" | awk 'NF { for (; blank > 0; blank--) print ""; print; started = 1; next } started { blank++ }'; }
# runjsontests.py runs each file with three writers in turn, one qemu
# start-up each; here each file gets one of them, in turn (the unit tests
# cover every writer too).
result_jsontestrunner() {
  cp "$data"/*.json "$tmp/"
  cd "$tmp"
  i=0
  for f in *.json; do
    b=${f%.json}
    case $f in
      fail_*)
        run "$f --json-checker" --json-checker "$f" 2>/dev/null
        ;;
      *)
        set -- StyledWriter StyledStreamWriter BuiltStyledStreamWriter
        shift $((i % 3))
        i=$((i + 1))
        run "$f $1" --json-writer "$1" "$f" 2>&1
        trimmed "$data/$b.expected" >"$b.want"
        for out in actual actual-rewrite; do
          if [ -f "$b.$out" ] && trimmed "$b.$out" | cmp -s - "$b.want"; then
            echo "$b.$out: same"
          else
            echo "$b.$out: differs"
          fi
        done
        cksum <"$b.rewrite"
        ;;
    esac
  done
  cat "$tmp/status"
}

result() {
  case $prog in
    bzip2) result_bzip2 >"$tmp/result" ;;
    duktape) result_duktape >"$tmp/result" ;;
    jimtcl) result_jimtcl >"$tmp/result" ;;
    sqlite3) result_sqlite3 >"$tmp/result" ;;
    jsoncpp_test) result_jsoncpp_test >"$tmp/result" ;;
    jsontestrunner) result_jsontestrunner >"$tmp/result" ;;
    *) echo "check.sh: unknown program $prog" >&2; exit 2 ;;
  esac
}
result

if [ -s "$tmp/crashed" ]; then
  cat "$tmp/crashed" >&2
  exit 1
fi
if [ $mode = result ]; then
  # The reference is what every build gives; a failure a busy machine
  # caused is not part of it.
  for again in 1 2; do
    grep -qE 'Failed +[1-9]' "$tmp/result" || break
    tmp=$tmp/again$again
    mkdir "$tmp"
    result
  done
  cat "$tmp/result"
  exit 0
fi
# A busy machine can still upset a test that waits on a clock; a wrong
# program differs every time, so a difference is looked at once more.
if ! cmp -s "$dir/$prog.expected" "$tmp/result"; then
  tmp=$tmp/again
  mkdir "$tmp"
  result
fi
if [ -s "$tmp/crashed" ]; then
  cat "$tmp/crashed" >&2
  exit 1
fi
if ! cmp -s "$dir/$prog.expected" "$tmp/result"; then
  echo "check.sh: $prog on $exe differs from the reference:" >&2
  diff "$dir/$prog.expected" "$tmp/result" | head -n 40 >&2 || true
  exit 1
fi
