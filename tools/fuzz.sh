#!/usr/bin/env bash
# `./dev fuzz`: runs the fuzzers of a fuzz build, two at a time, and ends with one table. What they learn stays in
# BUILD/found and is where the next run begins; an input that breaks something stays in BUILD/findings, and the exit code
# tells. The inputs that belong to the repository are only read.
set -euo pipefail
build="${1:?usage: tools/fuzz.sh BUILD_FOLDER [SECONDS [TARGET...]]}"
seconds="${2:-600}"
shift $(($# < 2 ? $# : 2))
source="$(cd "$(dirname "$0")/.." && pwd)"

declare -A FOLDERS=([config]=core/app-specific/fuzz [stream]=client/fuzz [record]=client/fuzz [layout]=client/fuzz)
declare -A LONGEST=([config]=512 [stream]=2048 [record]=2048 [layout]=1024) # bytes of an input
targets=("$@")
[ "${#targets[@]}" -gt 0 ] || targets=(config stream record layout)
for target in "${targets[@]}"; do
  [ -n "${FOLDERS[$target]:-}" ] || {
    echo "fuzz: there is no target '$target' (${!FOLDERS[*]})" >&2
    exit 2
  }
done
case "$seconds" in
'' | 0* | *[!0-9]*)
  echo "fuzz: '$seconds' is no number of seconds" >&2
  exit 2
  ;;
esac
mkdir -p "$build/findings"
# For speed: freed memory is watched for less long than by default, and blocks know less of where they come from.
export ASAN_OPTIONS="quarantine_size_mb=16:malloc_context_size=5:${ASAN_OPTIONS:-}"
running=()
trap '[ "${#running[@]}" -eq 0 ] || kill "${running[@]}" 2>/dev/null || true' EXIT

# run TARGET - one fuzzer, for its time or up to its first finding.
run() {
  local target="$1" folder="${FOLDERS[$1]}" dictionary=()
  mkdir -p "$build/found/$target"
  [ ! -e "$source/$folder/$target.dict" ] || dictionary=("-dict=$source/$folder/$target.dict")
  exec "$build/$folder/fuzz_$target" "-max_total_time=$seconds" "-max_len=${LONGEST[$target]}" -timeout=20 -rss_limit_mb=2048 \
    -malloc_limit_mb=256 -print_final_stats=1 -reload=0 "-artifact_prefix=$build/findings/$target-" \
    "${dictionary[@]}" "$build/found/$target" "$source/$folder/corpus/$target" >"$build/$target.log" 2>&1
}

# figure TARGET NAME - the last number behind NAME in the fuzzer's log.
figure() {
  local found
  found="$(sed -nE "s/.*[: ]$2:? +([0-9]+).*/\1/p" "$build/$1.log" | tail -n 1)"
  echo "${found:--}" # a finding among the first inputs comes before the figures
}

# row TARGET VERDICT
row() {
  local folder="${FOLDERS[$1]}"
  local committed learnt
  committed="$(find "$source/$folder/corpus/$1" -type f | wc -l)"
  learnt="$(find "$build/found/$1" -type f | wc -l)"
  echo "| $1 | $(figure "$1" number_of_executed_units) | $(figure "$1" cov) | $committed | $learnt | $2 |"
}

# report TARGET - what was found, and how to go on with it.
report() {
  local file
  file="$(sed -n 's/.*Test unit written to //p' "$build/$1.log" | tail -n 1)"
  {
    echo "fuzz: FINDING in target $1"
    grep -aE "check failed|ERROR:|runtime error:|SUMMARY:" "$build/$1.log" | head -n 5 || true
    echo "  input:    ${file:-none was written, see the log}"
    echo "  log:      $build/$1.log"
    echo "  again:    $build/${FOLDERS[$1]}/fuzz_$1 ${file:-}"
    echo "  to keep:  cp ${file:-INPUT} ${FOLDERS[$1]}/corpus/$1/regression-NAME, with the change that mends it"
  } >&2
}

summary=()
failed=0
echo "Fuzzing ${targets[*]} for $seconds s each, two at a time"
for ((i = 0; i < ${#targets[@]}; i += 2)); do
  pair=("${targets[@]:i:2}")
  running=()
  for target in "${pair[@]}"; do
    run "$target" &
    running+=($!)
  done
  for j in "${!pair[@]}"; do
    verdict="none"
    wait "${running[$j]}" || {
      verdict="FOUND"
      failed=1
      report "${pair[$j]}"
    }
    summary+=("$(row "${pair[$j]}" "$verdict")")
    echo "${summary[-1]}"
  done
done
running=()

echo
echo "| Target | Executions | Edges covered | Inputs kept in the repository | Inputs learnt | Findings |"
echo "|---|---|---|---|---|---|"
printf '%s\n' "${summary[@]}"
exit "$failed"
