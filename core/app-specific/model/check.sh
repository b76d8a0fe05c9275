#!/usr/bin/env bash
# Checks the model of the library's threads with spin, exhaustively: each configuration must hold, the configurations
# together must reach every step of the model, and each seeded mistake must be found by the property that it breaks.
#   check.sh [FOLDER [NAME...]]   FOLDER takes what spin and pan write; default build/model. With names, only those
#                                 configurations and mistakes are searched again; the table shows all.
# Exit code 0 if all of that is so.
set -euo pipefail
HERE="$(cd "$(dirname "$0")" && pwd)"
mkdir -p "${1:-$HERE/../../../build/model}"
OUT="$(cd "${1:-$HERE/../../../build/model}" && pwd)"
shift "$(($# > 0))"
readonly ONLY=" $* " HERE OUT JOBS=2 MEMORY_MB=1400 DEPTH=20000 # the memory for each of the jobs

# NAME and sizes; each size is a macro of state.pml. With ENDS, runs without an end are looked for too, which takes
# another kind of search and twice the states.
readonly CONFIGURATIONS=(
  "skip     QUEUE_LENGTH=1 FRAMES=3 CLOSES=1"
  "stall    QUEUE_LENGTH=1 FRAMES=1 CLOSES=1 STALLS=1"
  "wait     QUEUE_LENGTH=-1 FRAMES=1 STALLS=1 EXITS=1"
  "waitfail QUEUE_LENGTH=-1 FRAMES=2 CLIENTS=1 CLOSES=1 STALLS=1 EXITS=1 EXCEPTIONS=1 ONCE_CHANNELS=0"
  "fail     QUEUE_LENGTH=1 FRAMES=2 CLOSES=1 EXCEPTIONS=1"
  "accept   QUEUE_LENGTH=1 FRAMES=1 CLOSES=1 ACCEPT_FAILURES=2"
  "server   QUEUE_LENGTH=-1 FRAMES=2 SERVER_FAILURES=1 ONCE_CHANNELS=0"
  "three    QUEUE_LENGTH=1 FRAMES=1 CLIENTS=3 CLOSES=1 PARTS=0"
  "deep     QUEUE_LENGTH=2 FRAMES=4 CLIENTS=1 SPURIOUS=1 ONCE_CHANNELS=0"
  "parts    QUEUE_LENGTH=-2 FRAMES=4 CLIENTS=1 PARTS=3 ONCE_CHANNELS=0"
  "start    QUEUE_LENGTH=1 FRAMES=3 CLIENTS=1 CLOSES=1 ONCE_CHANNELS=2 START_FAILURES=1"
  "ends     QUEUE_LENGTH=1 FRAMES=1 CLOSES=1 ENDS"
  "endswait QUEUE_LENGTH=-1 FRAMES=2 CLIENTS=1 CLOSES=1 STALLS=1 EXCEPTIONS=1 ONCE_CHANNELS=0 ENDS"
)

# MISTAKE, the property that it breaks, and sizes.
readonly MISTAKES=(
  "STOP_WITHOUT_MUTEX           END_STATE       QUEUE_LENGTH=1"
  "SIGNAL_BEFORE_MERGE          END_STATE       QUEUE_LENGTH=1"
  "STOP_CUTS_NOBODY             END_STATE       QUEUE_LENGTH=-1 STALLS=1"
  "NEWCOMER_CUTS_NOBODY         END_STATE       QUEUE_LENGTH=1 STALLS=1"
  "REPLACEMENT_WAKES_NOBODY     END_STATE       QUEUE_LENGTH=1"
  "GATE_WITHOUT_TURNS           END_STATE       QUEUE_LENGTH=1"
  "JOIN_UNDER_SOCKET_MUTEX      END_STATE       QUEUE_LENGTH=1 CLOSES=1"
  "ROOM_WAIT_IGNORES_EXIT       END_STATE       QUEUE_LENGTH=-1 STALLS=1 EXITS=1"
  "ROOM_WAIT_IGNORES_SENDER     END_STATE       QUEUE_LENGTH=-1 EXCEPTIONS=1"
  "DROPPED_CYCLE_IS_FORGOTTEN   END_STATE       QUEUE_LENGTH=1 CLOSES=1"
  "MARKED_SENDER_GOES_ON        NO_END          QUEUE_LENGTH=1 FRAMES=2 CLOSES=1 ENDS"
  "JOB_DONE_TWICE               ONE_OWNER       QUEUE_LENGTH=1"
  "CLEARED_BEFORE_JOIN          ONE_OWNER       QUEUE_LENGTH=1 CLOSES=1"
  "WHOLE_RETURNED_TWICE         ONE_OWNER       QUEUE_LENGTH=1"
  "RETURN_IS_LOST               ONE_OWNER       QUEUE_LENGTH=1"
  "MERGE_INTO_FRONT             CYCLE_CLOSED    QUEUE_LENGTH=-1"
  "TAKE_LEAVES_CYCLE_OPEN       CYCLE_CLOSED    QUEUE_LENGTH=1"
  "ONCE_LEAVES_WHEN_TAKEN       ONCE_FIRST      QUEUE_LENGTH=1"
  "ONCE_STATE_AFTER_MERGE       ONCE_FIRST      QUEUE_LENGTH=1"
  "LOST_CLIENT_IS_NOT_MARKED    ONCE_FIRST      QUEUE_LENGTH=1 CLOSES=1"
  "MARK_READ_BEFORE_ID          ONCE_FIRST      QUEUE_LENGTH=1 CLOSES=1"
  "MARK_CLEARED_FIRST           ONCE_FIRST      QUEUE_LENGTH=1 CLOSES=1"
  "MARK_NEVER_CLEARED           NOBODY_STRANDED QUEUE_LENGTH=1 CLOSES=1"
  "START_KEEPS_STATE            NOBODY_STRANDED QUEUE_LENGTH=1"
  "SERVER_FAILURE_KEEPS_CLIENT  NOBODY_STRANDED QUEUE_LENGTH=1 SERVER_FAILURES=1"
  "HALF_CYCLE_LEFT_BEHIND       WHOLE_CYCLES    QUEUE_LENGTH=1 EXCEPTIONS=1"
  "START_REAPS_NOBODY           ONE_SENDER      QUEUE_LENGTH=1 EXCEPTIONS=1"
  "LOST_SOCKET_STAYS_WATCHED    SOCKET_LIVES    QUEUE_LENGTH=1 STALLS=1 CLOSES=1"
  "SERVER_TAKES_NO_LOCK         SOCKET_LIVES    QUEUE_LENGTH=1"
)

# search FOLDER OPTIMISATION SIZES... - leaves pan's report in FOLDER/report.
search() {
  local folder="$OUT/$1" optimisation="$2" kind=(-DSAFETY) looks=() macros=() size
  shift 2
  for size in "$@"; do
    if [ "$size" = ENDS ]; then kind=(-DNP) looks=(-l); else macros+=("-D$size"); fi
  done
  rm -rf "$folder" && mkdir -p "$folder" && cd "$folder"
  spin -a "${macros[@]}" "$HERE/threads.pml" >spin.log
  gcc "$optimisation" -w "${kind[@]}" -DCOLLAPSE -DMEMLIM="$MEMORY_MB" -o pan pan.c
  ./pan "-m$DEPTH" -w22 "${looks[@]}" >report 2>&1 || true
}

complete() { grep -qs 'errors: 0' "$1" && ! grep -qE 'not completed|max search depth' "$1"; }

# The property that a report says is broken; "holds" if none, and "unfinished" if not everything was looked at.
broken() {
  local name
  case "$(grep -m1 '^pan:1:' "$1" 2>/dev/null || true)" in
  *"invalid end state"*) echo END_STATE ;;
  *"non-progress cycle"*) echo NO_END ;;
  *"assertion violated"*)
    name="$(grep -m1 '^pan:1:' "$1" | grep -oE '[A-Z]+_[A-Z]+' | head -n 1)"
    echo "${name:-unknown}"
    ;;
  "") complete "$1" && echo holds || echo unfinished ;;
  *) echo unknown ;;
  esac
}

states() { sed -n 's/^ *\([0-9]*\) states, stored.*/\1/p' "$1" 2>/dev/null || true; }
depth() { sed -n 's/.*depth reached \([0-9]*\),.*/\1/p' "$1" 2>/dev/null || true; }

# Steps of a configuration, one a line: "took" or "left", and where: an inline is there once for each of its calls.
steps() {
  local folder="$OUT/$1"
  [ -x "$folder/pan" ] && [ -e "$folder/report" ] || return 0
  { cat "$folder/report"; echo "=== table"; "$folder/pan" -d; } | awk '
    /^=== table/ { table = 1 }
    !table && /^unreached in proctype/ { process = $4 }
    !table && match($0, /, state [0-9]+, /) { left[process, substr($0, RSTART + 8, RLENGTH - 10)] = 1 }
    table && /^proctype/ { process = $2 }
    table && /^\tstate +[0-9]+ -/ {
      place = $0
      sub(/^.*[.]pml:/, "", place)
      line = place
      sub(/ =>.*/, "", line)
      sub(/^[0-9]+ => /, "", place)
      gsub(/-\(-\([0-9]+\)\)|[0-9]+/, "n", place) # sizes differ
      print (((process, $2) in left) ? "left" : "took") "\t" process ", line " line ": " place
    }' || true
}

# At most JOBS at a time.
search_in_background() {
  [ -z "${ONLY// /}" ] || [[ "$ONLY" == *" $1 "* ]] || return 0
  while [ "$(jobs -rp | wc -l)" -ge "$JOBS" ]; do wait -n || true; done
  search "$@" &
}

search_all() {
  local entry words
  for entry in "${CONFIGURATIONS[@]}"; do
    read -ra words <<<"$entry"
    search_in_background "${words[0]}" -O2 "${words[@]:1}"
  done
  for entry in "${MISTAKES[@]}"; do
    read -ra words <<<"$entry"
    search_in_background "${words[0]}" -O0 "MISTAKE_${words[0]}" "${words[@]:2}"
  done
  wait
}

FAILURES=0
line() { printf '%-28s %10s %6s  %s\n' "$@"; }
fail() { FAILURES=$((FAILURES + 1)); }

show_configurations() {
  local entry words report result
  line CONFIGURATION STATES DEPTH RESULT
  for entry in "${CONFIGURATIONS[@]}"; do
    read -ra words <<<"$entry"
    report="$OUT/${words[0]}/report"
    result="$(broken "$report")"
    [ "$result" = holds ] || fail
    line "${words[0]}" "$(states "$report")" "$(depth "$report")" "$result"
  done
}

show_mistakes() {
  local entry words report result
  line MISTAKE STATES DEPTH "CAUGHT BY"
  for entry in "${MISTAKES[@]}"; do
    read -ra words <<<"$entry"
    report="$OUT/${words[0]}/report"
    result="$(broken "$report")"
    [ "$result" = "${words[1]}" ] || { fail; result="$result, not by ${words[1]}: NOT CAUGHT"; }
    line "${words[0]}" "$(states "$report")" "$(depth "$report")" "$result"
  done
}

# What no configuration reaches says nothing about the library. Two kinds are meant to be like that: an assertion that
# only a fault leads to, and the end of the sender's process, which waits for the next thread to play.
show_unreached() {
  local entry words
  for entry in "${CONFIGURATIONS[@]}"; do
    read -ra words <<<"$entry"
    steps "${words[0]}"
  done | grep -vE ': (assert|-end-)' | sort -u >"$OUT/steps"
  comm -23 <(sed -n 's/^left\t//p' "$OUT/steps") <(sed -n 's/^took\t//p' "$OUT/steps") >"$OUT/unreached"
  echo "Of $(cut -f 2 "$OUT/steps" | sort -u | wc -l) steps, those that no configuration reaches: $(wc -l <"$OUT/unreached")"
  cat "$OUT/unreached"
  [ ! -s "$OUT/unreached" ] || fail
}

search_all
show_configurations
echo
show_mistakes
echo
show_unreached
echo "Trails of what failed: spin -t -p -g in the folder of that name in $OUT"
[ "$FAILURES" -eq 0 ]
