#!/bin/sh
# What the shared library shows to the loader, compared with what it promises.
#   exports NM LIBRARY       the public names and no others
#   needs READELF LIBRARY    no library but those of C and C++; the soname
#   target READELF LIBRARY   armv7, floating-point arguments in floating-point registers
#   points NM LIBRARY STATIC WITH_POINTS   no trace of the tests' points in the first two; the third shows some
set -eu
export LC_ALL=C
check=$1 tool=$2 library=$3

# expect WHAT FOUND EXPECTED: lists of lines
expect() {
  if [ "$2" != "$3" ]; then
    printf '%s: %s\nexpected:\n%s\nfound:\n%s\n' "$library" "$1" "$3" "$2"
    exit 1
  fi
}

case $check in
exports)
  expect "exported names" "$("$tool" -D --defined-only "$library" | awk '{ print $NF }' | sort)" \
"CLodestone_GetLastErrorString
CLodestone_Lodestone_Apply
CLodestone_Lodestone_Init
CLodestone_Lodestone_QueryVersion
Lodestone_QueryVersion
_ZN9Lodestone14Lodestone_InitEiRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE
_ZN9Lodestone15Lodestone_ApplyEP14AlgoMeasBufferji
_ZN9Lodestone18GetLastErrorStringB5cxx11Ev"
  ;;
needs)
  dynamic=$("$tool" -d "$library")
  expect "soname" "$(echo "$dynamic" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')" liblodestone.so.0
  needed=$(echo "$dynamic" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
  [ -n "$needed" ]
  expect "needed beside the C and C++ libraries" \
    "$(echo "$needed" | sed -E '/^(libstdc\+\+\.so\.6|libm\.so\.6|libc\.so\.6|libgcc_s\.so\.1|ld-linux.*)$/d')" ""
  ;;
target)
  attributes=$("$tool" -A "$library" | sed -nE 's/^ *(Tag_(CPU_arch|ABI_VFP_args|Advanced_SIMD_arch): .*)/\1/p')
  expect "target" "$attributes" \
"Tag_CPU_arch: v7
Tag_Advanced_SIMD_arch: NEONv1
Tag_ABI_VFP_args: VFP registers"
  ;;
points)
  traces() { { "$tool" "$1"; cat "$1"; } | grep -a -c -e lodestoneTestPoint -e point:mark_set || true; }
  expect "traces of points" "$(traces "$library")" 0
  expect "traces of points in $4" "$(traces "$4")" 0
  [ "$(traces "$5")" -gt 1 ]
  ;;
*)
  echo "unknown check: $check"
  exit 2
  ;;
esac
