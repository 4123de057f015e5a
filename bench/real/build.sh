#!/bin/sh
# Builds the bench of real programs, from their Debian source packages,
# that the tests reorder with vesk and then check with the programs' own
# tests (check.sh).
#
#   bench/real/build.sh OUTDIR
#
# bzip2, jimtcl's jimsh, duktape's duk and jsoncpp's two test programs
# (C++: jsoncpp_test, its unit tests, and jsontestrunner, which its data
# tests run) are each compiled for o32, n32 and n64, sqlite3's shell for
# o32 only (its compile time), with mdebug
# (-Wa,-mdebug, no -g; not n64, whose mdebug form vesk refuses) and with
# DWARF (-g), in three code models: pie (the compiler's default), no-pie
# (-no-pie) and fno-pie (-fno-pie -no-pie).  Unlike
# bench/programs, these are built as their users build them: -O2 and gcc's
# defaults otherwise (hot/cold splitting, clones, jump tables, relaxed PIC
# calls, .text.startup), plus -Wl,-q to keep the relocations.
#
# Sources are fetched once with apt-get source into
# ${VESK_CACHE:-$HOME/.cache/vesk}/src/<package>_<version>.  Executables
# and their check results are kept in .../real/, keyed by program, package version,
# ABI, debug kind, model and a hash of this script (which holds the flags),
# the jimtcl headers and the compilers' versions (check results: also of
# check.sh and the duktape and sqlite3 scripts).
#
# OUTDIR gets the executables (<program>-<abi>-<debug>-<model>), the test
# data check.sh runs on (data/<program>/), the reference result of each
# program (<program>.expected: every build of a program must give it, or
# the script fails) and manifest.tsv:
#   path program abi debug model
set -eu

here=$(cd "$(dirname "$0")" && pwd)
cache=${VESK_CACHE:-$HOME/.cache/vesk}

# package version
packages="
bzip2 1.0.8-5
jimtcl 0.81+dfsg0-2
duktape 2.7.0-2
sqlite3 3.40.1-2+deb12u2
libjsoncpp 1.9.5-4
"

# The source package of a program, and the programs built from a package,
# which share their objects: a package is compiled as one job.
package_of() {
  case $1 in
    jsoncpp_test | jsontestrunner) echo libjsoncpp ;;
    *) echo "$1" ;;
  esac
}
programs_of() {
  case $1 in
    libjsoncpp) echo "jsoncpp_test jsontestrunner" ;;
    *) echo "$1" ;;
  esac
}
version() { echo "$packages" | awk -v p="$1" '$1 == p { print $2 }'; }
# apt-get source unpacks into <package>-<upstream version>.
srcdir() { v=$(version "$1"); echo "$cache/src/$1_$v/$1-${v%-*}"; }

# jimsh with every extension that needs no extra library, as configure
# --full picks them; _*.c are generated from the Tcl-coded ones (see
# prepare_jimtcl).
jim_tcl_exts="binary glob jsonencode nshelper oo stdlib tclcompat tree"
jim_c_exts="aio array clock eventloop exec file history interp json load namespace pack package posix readdir regexp signal syslog tclprefix"

# recipe PACKAGE: sets what it compiles (paths relative to its source
# directory), the flags it needs beyond -O2 and its libraries; a package
# of several programs also sets sources_<program>, what each links (all of
# sources otherwise).
recipe() {
  lang=c
  case $1 in
    bzip2)
      sources="blocksort.c huffman.c crctable.c randtable.c compress.c decompress.c bzlib.c bzip2.c"
      cflags="-D_FILE_OFFSET_BITS=64"
      libs=""
      ;;
    jimtcl)
      sources="_load-static-exts.c jim-subcmd.c jim-interactive.c jim-format.c jim.c utf8.c jimregexp.c jimiocompat.c linenoise.c jim-tty.c jsmn/jsmn.c"
      for e in $jim_c_exts; do sources="$sources jim-$e.c"; done
      for e in $jim_tcl_exts; do sources="$sources _$e.c"; done
      sources="$sources jimsh.c _initjimsh.c"
      # jimtcl's configure asks for _FILE_OFFSET_BITS=64 in jimautoconf.h,
      # but jim-readdir.c includes <stdio.h> before it and so gets the
      # 32-bit readdir, which fails under qemu on a 64-bit host's ext4
      # (EOVERFLOW); on the command line it does what configure meant.
      cflags="-I. -D_FILE_OFFSET_BITS=64 -DUSE_UTF8"
      libs="-lm"
      ;;
    duktape)
      # duk as Makefile.cmdline builds it, with its extras.
      sources="src/duktape.c examples/cmdline/duk_cmdline.c extras/print-alert/duk_print_alert.c extras/console/duk_console.c extras/logging/duk_logging.c extras/module-duktape/duk_module_duktape.c"
      cflags="-std=c99 -Iexamples/cmdline -Isrc
        -DDUK_CMDLINE_PRINTALERT_SUPPORT -Iextras/print-alert
        -DDUK_CMDLINE_CONSOLE_SUPPORT -Iextras/console
        -DDUK_CMDLINE_LOGGING_SUPPORT -Iextras/logging
        -DDUK_CMDLINE_MODULE_SUPPORT -Iextras/module-duktape"
      libs="-lm"
      ;;
    sqlite3)
      # The shell on the amalgamation (see prepare_sqlite3), with the
      # defaults of sqlite's configure (threads, extension loading, math
      # functions) and FTS4, which both Debian's package and the shell's
      # Makefile enable; the rest of Debian's options would cost 20% more
      # compile time.  glibc has pthread and dl in libc.
      sources="sqlite3.c shell.c"
      cflags="-DSQLITE_ENABLE_MATH_FUNCTIONS -DSQLITE_ENABLE_FTS4"
      libs="-lm"
      ;;
    libjsoncpp)
      # The library's sources linked into each of its test programs, as its
      # CMake build links them with the static library; its CMakeLists
      # asks for C++11 with GNU extensions.
      lang=cxx
      lib="src/lib_json/json_reader.cpp src/lib_json/json_value.cpp src/lib_json/json_writer.cpp"
      # shellcheck disable=SC2034 # read through eval
      sources_jsoncpp_test="$lib src/test_lib_json/jsontest.cpp src/test_lib_json/fuzz.cpp src/test_lib_json/main.cpp"
      # shellcheck disable=SC2034
      sources_jsontestrunner="$lib src/jsontestrunner/main.cpp"
      sources="$lib src/test_lib_json/jsontest.cpp src/test_lib_json/fuzz.cpp src/test_lib_json/main.cpp src/jsontestrunner/main.cpp"
      cflags="-std=gnu++11 -Iinclude"
      libs=""
      ;;
  esac
}

# The object a source compiles to: named after the source, less its
# directory unless two sources of the package share a name.
object_of() {
  case $1 in
    src/test_lib_json/main.cpp) echo test_main ;;
    src/jsontestrunner/main.cpp) echo runner_main ;;
    *) basename "$1" | sed 's/\.c$//; s/\.cpp$//' ;;
  esac
}

# The ABIs a program is built for: sqlite3 only for o32, as its one
# 240,000-line file takes two minutes to compile with -g.
abis_of() {
  case $1 in
    sqlite3) echo "o32" ;;
    *) echo "o32 n32 n64" ;;
  esac
}

# compiler ABI LANG
compiler() {
  d=gcc
  [ "$2" = cxx ] && d=g++
  case $1 in
    o32) echo "mips-linux-gnu-$d" ;;
    n32) echo "mips64-linux-gnuabi64-$d -mabi=n32" ;;
    n64) echo "mips64-linux-gnuabi64-$d" ;;
  esac
}

# -no-pie only changes the link (checked with gcc -v): pie and no-pie share
# their objects, compiled once; fno-pie has its own.
models_of() {
  case $1 in
    pic) echo "pie no-pie" ;;
    nopic) echo "fno-pie" ;;
  esac
}

# Hashes: hb covers what goes into an executable, hc also what goes into a
# check result.
hashes() {
  hb=$({ cat "$here/build.sh" "$here"/jimtcl/*.h
         for c in gcc g++; do
           mips-linux-gnu-$c --version | head -n1
           mips64-linux-gnuabi64-$c --version | head -n1
         done
         mips-linux-gnu-ld --version | head -n1; } | sha256sum | cut -c1-16)
  hc=$({ echo "$hb"; cat "$here/check.sh" "$here"/duktape/*.js "$here"/sqlite3/*.sql; } | sha256sum | cut -c1-16)
}

# Internal entry point, called through xargs: compile one package for one
# ABI, debug kind and code generation (pic/nopic), link the models of its
# programs, and put the executables in the cache.
if [ "${1:-}" = "--compile" ]; then
  pkg=$2 abi=$3 debug=$4 cg=$5 hb=$6 tmp=$7
  ver=$(version "$pkg")
  recipe "$pkg"
  cc=$(compiler "$abi" "$lang")
  names=""
  for prog in $(programs_of "$pkg"); do
    for model in $(models_of "$cg"); do names="$names $prog-$abi-$debug-$model"; done
  done
  case $cg in
    pic) cgflags="" ;;
    nopic) cgflags="-fno-pie" ;;
  esac
  work=$tmp/$pkg-$abi-$debug-$cg
  rm -rf "$work"
  mkdir -p "$work"
  # The programs' own warnings would drown everything else: they go to a
  # log, shown when something fails.
  log=$work/log
  fail() {
    cat "$log" >&2
    echo "build.sh: cannot build$names: $1" >&2
    exit 255 # stops xargs
  }
  cd "$(srcdir "$pkg")"
  for src in $sources; do
    obj=$work/$(object_of "$src")
    if [ "$debug" = dwarf ]; then
      # shellcheck disable=SC2086
      $cc -O2 $cgflags $cflags -g -c -o "$obj.o" "$src" 2>>"$log" || fail "compiling $src"
    else
      # The assembler names each mdebug file descriptor after its input,
      # which would be gcc's temporary file: compile to assembly and give
      # it the source's name with a line marker.
      # shellcheck disable=SC2086
      $cc -O2 $cgflags $cflags -S -o "$obj.s" "$src" 2>>"$log" || fail "compiling $src"
      sed -i "1i # 1 \"$src\"" "$obj.s"
      # shellcheck disable=SC2086
      $cc -O2 $cgflags -Wa,-mdebug -c -o "$obj.o" "$obj.s" 2>>"$log" || fail "assembling $src"
    fi
  done
  mkdir -p "$cache/real/exe"
  for prog in $(programs_of "$pkg"); do
    # A program of a package of several links its own sources' objects, in
    # their order; a package's one program every object.
    eval "own=\${sources_$prog:-}"
    set --
    for src in $own; do set -- "$@" "$work/$(object_of "$src").o"; done
    [ -n "$own" ] || set -- "$work"/*.o
    for model in $(models_of "$cg"); do
      case $model in
        pie) mflags="" ;;
        no-pie) mflags="-no-pie" ;;
        fno-pie) mflags="-fno-pie -no-pie" ;;
      esac
      name=$prog-$abi-$debug-$model
      # shellcheck disable=SC2086
      $cc -O2 $mflags -Wl,-q -o "$work/$name" "$@" $libs 2>>"$log" || fail "linking $name"
      # Drop what older versions of the script or package left.
      rm -f "$cache/real/exe/$prog-"*"-$abi-$debug-$model-"*
      mv "$work/$name" "$cache/real/exe/$prog-$ver-$abi-$debug-$model-$hb"
    done
  done
  rm -rf "$work"
  exit 0
fi

# Internal entry point, called through xargs: record the check result of
# one executable in the cache.
if [ "${1:-}" = "--check" ]; then
  out=$2 prog=$3 abi=$4 name=$5 key=$6
  mkdir -p "$cache/real/result"
  rm -f "$cache/real/result/${key%-*}-"*
  if ! VESK_REAL_DIR=$out "$here/check.sh" --result "$prog" "$abi" "$out/$name" \
      >"$cache/real/result/$key.tmp"; then
    echo "build.sh: the check of $name fails on the original build" >&2
    rm -f "$cache/real/result/$key.tmp"
    exit 255
  fi
  mv "$cache/real/result/$key.tmp" "$cache/real/result/$key"
  exit 0
fi

if [ $# -ne 1 ]; then
  echo "usage: $0 OUTDIR" >&2
  exit 2
fi
mkdir -p "$1"
out=$(cd "$1" && pwd)

hashes
up_to_date() { [ -f "$out/manifest.tsv" ] && [ "$(cat "$out/.stamp" 2>/dev/null)" = "$hc" ]; }
up_to_date && exit 0
# One run at a time per cache: runs into different OUTDIRs share the
# executables and results, and each run prunes what it replaces.
mkdir -p "$cache"
exec 9>"$cache/lock"
flock 9
up_to_date && exit 0
rm -f "$out/.stamp" "$out/manifest.tsv"

fetch() {
  pkg=$1
  ver=$(version "$pkg")
  [ -d "$(srcdir "$pkg")" ] && return 0
  dir=$cache/src/${pkg}_$ver
  echo "build.sh: fetching the source of $pkg $ver"
  rm -rf "$dir.tmp"
  mkdir -p "$dir.tmp"
  if ! (cd "$dir.tmp" && apt-get source -q "$pkg=$ver" >apt.log 2>&1) ||
     [ ! -d "$dir.tmp/$pkg-${ver%-*}" ]; then
    cat "$dir.tmp/apt.log" >&2 || true
    echo "build.sh: cannot fetch the source of $pkg $ver (are deb-src lines enabled? see scripts/setup)" >&2
    exit 1
  fi
  rm -rf "$dir"
  mv "$dir.tmp" "$dir"
}

# jimtcl's build generates C files from Tcl sources with its own scripts,
# run by a bootstrap jimsh compiled for the host, and takes its
# configuration headers from configure; ours are fixed (bench/real/jimtcl).
prepare_jimtcl() {
  d=$(srcdir jimtcl)
  if [ ! -x "$d/autosetup/jimsh0" ]; then
    (cd "$d" && sh make-bootstrap-jim >autosetup/jimsh0.c &&
     cc -O1 -o autosetup/jimsh0.tmp autosetup/jimsh0.c &&
     mv autosetup/jimsh0.tmp autosetup/jimsh0) ||
      { echo "build.sh: cannot build the host jimsh that generates jimtcl's sources" >&2; exit 1; }
  fi
  (
    cd "$d"
    cp "$here/jimtcl/jim-config.h" "$here/jimtcl/jimautoconf.h" .
    for e in $jim_tcl_exts initjimsh; do
      autosetup/jimsh0 make-c-ext.tcl "$e.tcl" >"_$e.c.tmp"
      mv "_$e.c.tmp" "_$e.c"
    done
    # shellcheck disable=SC2086
    autosetup/jimsh0 make-load-static-exts.tcl $jim_c_exts $jim_tcl_exts >_load-static-exts.c.tmp
    mv _load-static-exts.c.tmp _load-static-exts.c
    autosetup/jimsh0 parse-unidata.tcl -width UnicodeData.txt EastAsianWidth.txt >_unicode_mapping.c.tmp
    mv _unicode_mapping.c.tmp _unicode_mapping.c
  ) || { echo "build.sh: cannot generate jimtcl's sources" >&2; exit 1; }
}

# sqlite3's shell is built from the amalgamation (sqlite3.c and shell.c),
# which sqlite's own tooling generates from the source tree: configure and
# make, on the host, with tclsh.  The generated files are kept in the
# source directory, less the test suite and the web site (120 MB).
prepare_sqlite3() {
  d=$(srcdir sqlite3)
  [ -f "$d/shell.c" ] && return 0
  echo "build.sh: generating sqlite3's amalgamation"
  rm -rf "$d/amalgamation"
  mkdir "$d/amalgamation"
  (cd "$d/amalgamation" &&
   ../configure --disable-tcl --disable-readline >log 2>&1 &&
   make sqlite3.c shell.c >>log 2>&1 &&
   mv sqlite3.h sqlite3.c .. && mv shell.c ..) ||
    { cat "$d/amalgamation/log" >&2; echo "build.sh: cannot generate sqlite3's amalgamation" >&2; exit 1; }
  rm -rf "$d/amalgamation" "$d/test" "$d/www"
}

# In the manifest's order (the tests take turns along it); the compile
# jobs run in this order too, but sqlite3's first, then jsoncpp's: the
# longest builds first.
programs="duktape jimtcl bzip2 sqlite3 jsoncpp_test jsontestrunner"

# Every executable: name program abi debug model codegen
list() {
  for prog in $programs; do
    for abi in $(abis_of "$prog"); do
      for debug in mdebug dwarf; do
        [ "$abi" = n64 ] && [ $debug = mdebug ] && continue
        for cg in pic nopic; do
          for model in $(models_of $cg); do
            echo "$prog-$abi-$debug-$model $prog $abi $debug $model $cg"
          done
        done
      done
    done
  done
}

tmp=$out/.work
rm -rf "$tmp"
mkdir -p "$tmp"
# One job per package, ABI, debug kind and code generation.
list | while read -r name prog abi debug model cg; do
  pkg=$(package_of "$prog")
  [ -f "$cache/real/exe/$prog-$(version "$pkg")-$abi-$debug-$model-$hb" ] ||
    echo "$pkg $abi $debug $cg $hb $tmp"
done | awk '!seen[$0]++' >"$tmp/all-jobs"
{ grep '^sqlite3 ' "$tmp/all-jobs"; grep '^libjsoncpp ' "$tmp/all-jobs"
  grep -v '^sqlite3 \|^libjsoncpp ' "$tmp/all-jobs"; } >"$tmp/jobs" || true

for pkg in $(for prog in $programs; do package_of "$prog"; done | awk '!seen[$0]++'); do fetch "$pkg"; done
if grep -q '^jimtcl ' "$tmp/jobs"; then prepare_jimtcl; fi
if grep -q '^sqlite3 ' "$tmp/jobs"; then prepare_sqlite3; fi

# The jobs do not inherit the lock (9>&-): a stray child of a test must not
# hold it after this run.
# shellcheck disable=SC2016
xargs -r -P2 -L1 sh -c '"$0" --compile "$@"' "$here/build.sh" <"$tmp/jobs" 9>&-

# The test data check.sh runs on.
rm -rf "$out/data"
for prog in $programs; do mkdir -p "$out/data/$prog"; done
(cd "$(srcdir bzip2)" && cp sample1.ref sample2.ref sample3.ref sample1.bz2 sample2.bz2 sample3.bz2 "$out/data/bzip2/")
(cd "$(srcdir jimtcl)" && cp -R tests tcltest.tcl "$out/data/jimtcl/")
(cd "$(srcdir duktape)" && cp mandel.js examples/guide/fib.js examples/guide/prime.js examples/guide/process.js "$out/data/duktape/")
cp "$here"/duktape/*.js "$out/data/duktape/"
cp "$here"/sqlite3/*.sql "$out/data/sqlite3/"
(cd "$(srcdir libjsoncpp)" && cp test/data/*.json test/data/*.expected "$out/data/jsontestrunner/")

list | while read -r name prog abi debug model cg; do
  ver=$(version "$(package_of "$prog")")
  cp "$cache/real/exe/$prog-$ver-$abi-$debug-$model-$hb" "$out/$name"
  key=$prog-$ver-$abi-$debug-$model-$hc
  [ -f "$cache/real/result/$key" ] || echo "$out $prog $abi $name $key"
done >"$tmp/checks"
# shellcheck disable=SC2016
xargs -r -P2 -L1 sh -c '"$0" --check "$@"' "$here/build.sh" <"$tmp/checks" 9>&-

# Every build of a program must give the same result; it is the reference
# check.sh compares with.
for prog in $programs; do
  ver=$(version "$(package_of "$prog")")
  ref=""
  list | while read -r name p abi debug model cg; do
    [ "$p" = "$prog" ] || continue
    result=$cache/real/result/$prog-$ver-$abi-$debug-$model-$hc
    if [ -z "$ref" ]; then
      ref=$name
      cp "$result" "$out/$prog.expected"
    elif ! cmp -s "$out/$prog.expected" "$result"; then
      echo "build.sh: the check of $name gives another result than $ref:" >&2
      diff "$out/$prog.expected" "$result" | head -n 40 >&2 || true
      exit 1
    fi
  done
done

list | while read -r name prog abi debug model cg; do
  printf '%s\t%s\t%s\t%s\t%s\n' "$out/$name" "$prog" "$abi" "$debug" "$model"
done >"$out/manifest.tsv.tmp"
mv "$out/manifest.tsv.tmp" "$out/manifest.tsv"
rm -rf "$tmp"
echo "$hc" >"$out/.stamp"
