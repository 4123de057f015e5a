#!/bin/sh
# Builds the bench of real MIPS executables that the tests run vesk on.
#
#   bench/programs/build.sh OUTDIR
#
# Every program (one directory of C sources here) is compiled for o32, n32
# and n64, with mdebug (-Wa,-mdebug, no -g; not n64, see below) and with DWARF (-g) debug
# information, in three code models: pie (the compiler's default), no-pie
# (-no-pie: position-independent code linked at a fixed address) and fno-pie
# (-fno-pie -no-pie: non-PIC code).  o32 gets an extra set built with
# -mno-explicit-relocs (macro-expanded GOT accesses).  Always -O2 -Wl,-q, so
# the executables keep their relocations.
#
# Each executable is run under qemu; its output is recorded as
# OUTDIR/<name>.expected.  All builds of one program must print the same
# thing, or the script fails.  OUTDIR/manifest.tsv lists the executables:
#   path program abi debug model explicit-relocs(yes/no)
#
# Debian 12's toolchain builds every combination, but for n64 it writes the
# 64-bit form of the mdebug table, which vesk does not read: n64 is built
# with DWARF only.
set -eu

here=$(cd "$(dirname "$0")" && pwd)

# Internal entry points, called through xargs below.
if [ "${1:-}" = "--compile" ]; then
  shift
  out=$1 prog=$2 abi=$3 debug=$4 model=$5 explicit=$6
  case $abi in
    o32) cc="mips-linux-gnu-gcc" ;;
    n32) cc="mips64-linux-gnuabi64-gcc -mabi=n32" ;;
    n64) cc="mips64-linux-gnuabi64-gcc" ;;
  esac
  case $model in
    pie) mflags="" ;;
    no-pie) mflags="-no-pie" ;;
    fno-pie) mflags="-fno-pie -no-pie" ;;
  esac
  name=$prog-$abi-$debug-$model
  xflags=""
  if [ "$explicit" = no ]; then
    name=$name-noexplicit
    xflags="-mno-explicit-relocs"
  fi
  flags="-O2 $mflags $xflags"
  cd "$here/$prog"
  ok=yes
  if [ "$debug" = dwarf ]; then
    # shellcheck disable=SC2086
    $cc $flags -g -Wl,-q -o "$out/$name.tmp" *.c || ok=no
  else
    # At -O2 gcc moves main and constructors into .text.startup, and the
    # assembler then records their mdebug symbol values relative to the
    # wrong section: the procedure table would be wrong.  Keep every
    # function in .text for mdebug builds.
    flags="$flags -fno-reorder-functions"
    # gcc hands the assembler a temporary file, and the assembler names
    # each mdebug file descriptor after its input: every file would be
    # called /tmp/ccXXXXXX.s, differently on every build.  So compile to
    # assembly first and give the assembler the source name with a line
    # marker; the file descriptors then say main.c, eval.c, ...
    work=$out/.work-$name
    rm -rf "$work"
    mkdir -p "$work"
    for src in *.c; do
      # shellcheck disable=SC2086
      $cc $flags -S -o "$work/${src%.c}.s" "$src" || ok=no
      sed -i "1i # 1 \"$src\"" "$work/${src%.c}.s"
    done
    # shellcheck disable=SC2086
    [ $ok = no ] || (cd "$work" && $cc $flags -Wa,-mdebug -Wl,-q -o "$out/$name.tmp" *.s) || ok=no
    rm -rf "$work"
  fi
  if [ $ok = no ]; then
    echo "build.sh: cannot build $name" >&2
    exit 255 # stops xargs
  fi
  mv "$out/$name.tmp" "$out/$name"
  exit 0
fi
if [ "${1:-}" = "--run" ]; then
  out=$2 name=$3 abi=$4
  case $abi in
    o32) set -- qemu-mips -L /usr/mips-linux-gnu ;;
    n32) set -- qemu-mipsn32 -L /usr/mips64-linux-gnuabi64 ;;
    n64) set -- qemu-mips64 -L /usr/mips64-linux-gnuabi64 ;;
  esac
  if ! timeout 60 "$@" "$out/$name" >"$out/$name.expected.tmp"; then
    echo "build.sh: $name fails under $1" >&2
    exit 255
  fi
  mv "$out/$name.expected.tmp" "$out/$name.expected"
  exit 0
fi

if [ $# -ne 1 ]; then
  echo "usage: $0 OUTDIR" >&2
  exit 2
fi
mkdir -p "$1"
out=$(cd "$1" && pwd)

programs=$(cd "$here" && for d in */; do [ -f "$d/main.c" ] && echo "${d%/}"; done)

# Rebuild only when a source (or this script) changed.
stamp=$(cd "$here" && cat build.sh */*.c */*.h | sha256sum | cut -d' ' -f1)
if [ -f "$out/manifest.tsv" ] && [ "$(cat "$out/.stamp" 2>/dev/null)" = "$stamp" ]; then
  exit 0
fi
rm -f "$out/.stamp" "$out/manifest.tsv"

jobs=$out/.jobs
: >"$jobs"
for prog in $programs; do
  for abi in o32 n32 n64; do
    for debug in mdebug dwarf; do
      # For n64 the assembler writes the 64-bit form of the mdebug symbol
      # table, which vesk does not read (it refuses it with a clear
      # message); the n64 bench is DWARF only.
      [ $abi = n64 ] && [ $debug = mdebug ] && continue
      for model in pie no-pie fno-pie; do
        echo "$prog $abi $debug $model yes" >>"$jobs"
        if [ $abi = o32 ]; then
          echo "$prog $abi $debug $model no" >>"$jobs"
        fi
      done
    done
  done
done

# shellcheck disable=SC2016
xargs -P2 -L1 sh -c '"$0" --compile "$1" "$2" "$3" "$4" "$5" "$6"' "$here/build.sh" "$out" <"$jobs"

names() {
  while read -r prog abi debug model explicit; do
    name=$prog-$abi-$debug-$model
    [ "$explicit" = no ] && name=$name-noexplicit
    echo "$name $abi $prog $debug $model $explicit"
  done <"$jobs"
}

# shellcheck disable=SC2016
names | xargs -P2 -L1 sh -c '"$0" --run "$1" "$2" "$3"' "$here/build.sh" "$out"

# Every build of a program must print the same thing.
status=0
for prog in $programs; do
  ref=$out/$prog-o32-dwarf-pie.expected
  names | while read -r name abi p debug model explicit; do
    [ "$p" = "$prog" ] || continue
    if ! cmp -s "$ref" "$out/$name.expected"; then
      echo "build.sh: $name prints something else than $prog-o32-dwarf-pie:" >&2
      diff "$ref" "$out/$name.expected" >&2 || true
      exit 1
    fi
  done || status=1
done
[ $status -eq 0 ] || exit 1

names | while read -r name abi prog debug model explicit; do
  printf '%s\t%s\t%s\t%s\t%s\t%s\n' "$out/$name" "$prog" "$abi" "$debug" "$model" "$explicit"
done >"$out/manifest.tsv.tmp"
mv "$out/manifest.tsv.tmp" "$out/manifest.tsv"
rm -f "$jobs"
echo "$stamp" >"$out/.stamp"
