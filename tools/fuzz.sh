#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang (installing clang and its
# fuzzer runtime from Debian when missing) and runs each for a while.
# Usage: bash tools/fuzz.sh [seconds per target, default 4] [target ...]
# Findings stop the run with the crashing input in build/fuzz/findings/.
set -eu
cd "$(dirname "$0")/.."
seconds=${1:-4}
shift || true
if ! command -v clang++ >/dev/null || ! ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1; then
  echo "installing: clang libclang-rt-14-dev"
  export DEBIAN_FRONTEND=noninteractive
  apt-get install -y -q clang libclang-rt-14-dev >/dev/null 2>&1 ||
    { apt-get update -q >/dev/null 2>&1 && apt-get install -y -q clang libclang-rt-14-dev >/dev/null; }
fi
generator=()
command -v ninja >/dev/null && generator=(-G Ninja)
dir=build/fuzz
cmake -S . -B "$dir" "${generator[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
  -DQEL_FUZZ=ON -DQEL_BUILD_TESTS=OFF -DQEL_BUILD_BENCH=OFF >/dev/null
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(frame record text pem flowfile)
cmake --build "$dir" -j "$(nproc)" --target "${targets[@]/#/fuzz_}"
mkdir -p "$dir/findings"
for name in "${targets[@]}"; do
  corpus="$dir/corpus/$name"
  mkdir -p "$corpus"
  [ -d "fuzz/seeds/$name" ] && cp -n fuzz/seeds/"$name"/* "$corpus"/ 2>/dev/null || true
  echo "== fuzz_$name for ${seconds}s =="
  log="$dir/findings/$name.log"
  status=0
  UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 ASAN_OPTIONS=detect_leaks=1 \
    "$dir/fuzz/fuzz_$name" -max_total_time="$seconds" -print_final_stats=1 \
      -artifact_prefix="$dir/findings/$name-" "$corpus" >"$log" 2>&1 || status=$?
  grep -E "stat::number_of_executed_units" "$log" || true
  if [ $status -ne 0 ]; then
    grep -E "ERROR|runtime error|SUMMARY|Test unit written" "$log" || tail -20 "$log"
    echo "fuzz_$name failed (exit $status); its log: $log"
    exit 1
  fi
done
echo "fuzz targets ran clean: ${targets[*]}"
