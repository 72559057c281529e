#!/usr/bin/env bash
# Builds the benchmarks and runs them, each beside its peer in the same run.
# Boost's lock-free queue is the flows' peer: it is installed here, for the
# benchmarks only; the library itself never uses it.
# Usage: bash tools/bench.sh [program name filter, e.g. dataflow] [benchmark flags]
# e.g. a short pass: bash tools/bench.sh "" --benchmark_repetitions=1
# Every program must end by itself; one that runs past 15 minutes is
# stopped and reported, and the script then fails at its end.
set -eu
cd "$(dirname "$0")/.."
bash tools/deps.sh
if [ ! -f /usr/include/boost/lockfree/spsc_queue.hpp ]; then
  DEBIAN_FRONTEND=noninteractive apt-get install -y -q libboost-dev >/dev/null 2>&1 ||
    { apt-get update -q >/dev/null 2>&1 && DEBIAN_FRONTEND=noninteractive apt-get install -y -q libboost-dev >/dev/null; } ||
    echo "libboost-dev not installed: the flow benchmark runs without its peer"
fi
generator=()
command -v ninja >/dev/null && generator=(-G Ninja)
cmake -S . -B build/normal "${generator[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/normal -j "$(nproc)"
filter=${1:-}
[ $# -gt 0 ] && shift
flags=(--benchmark_repetitions=3 --benchmark_report_aggregates_only=true "$@")
hung=()
for bench in build/normal/bench/*_bench; do
  case "$bench" in *"$filter"*) ;; *) continue ;; esac
  echo "== $(basename "$bench") =="
  rc=0
  timeout 900 "$bench" "${flags[@]}" || rc=$?
  if [ "$rc" -eq 124 ]; then
    echo "!! $(basename "$bench") did not end within 15 minutes"
    hung+=("$(basename "$bench")")
  elif [ "$rc" -ne 0 ]; then
    echo "!! $(basename "$bench") failed with status $rc"
    hung+=("$(basename "$bench")")
  fi
done
if [ ${#hung[@]} -gt 0 ]; then
  echo "benchmarks that did not finish: ${hung[*]}"
  exit 1
fi
