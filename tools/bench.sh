#!/usr/bin/env bash
# Builds the benchmarks and runs them, each beside its peer in the same run.
# Boost's lock-free queue is the flows' peer: it is installed here, for the
# benchmarks only; the library itself never uses it.
# Usage: bash tools/bench.sh [benchmark name filter, e.g. dataflow]
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
for bench in build/normal/bench/*_bench; do
  case "$bench" in *"${1:-}"*) ;; *) continue ;; esac
  echo "== $(basename "$bench") =="
  "$bench" --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
done
