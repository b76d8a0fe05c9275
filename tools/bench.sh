#!/usr/bin/env bash
# `./dev bench`: runs the benchmarks of an optimised build and ends with one table of ratios. FrameGoals and FramePath
# measure what they compare by turns in one run; the machine may be busy, so look at ratios and run it more than once.
set -euo pipefail
build="${1:?usage: tools/bench.sh BUILD_FOLDER}"
bench="$build/core/app-specific/bench"
summary="$(mktemp)"
trap 'rm -f "$summary"' EXIT

echo "Machine:  $(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -n 1), $(nproc) cores, $(uname -sr)"
echo "Compiler: $(c++ --version | head -n 1), optimised build"
echo
"$build/core/externals/Util/ALUtilBench" --benchmark_min_time=0.05 2>/dev/null
echo
"$bench/queue_steps" --benchmark_min_time=0.05 2>/dev/null
"$bench/frame_path" "$summary"
"$bench/frame_goals" "$summary"

echo
echo "| Goal | What | Measured | Quartiles of the rounds | Limit | Met |"
echo "|---|---|---|---|---|---|"
cat "$summary"
