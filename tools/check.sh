#!/usr/bin/env bash
# Builds and runs the whole test suite three times: an optimised build,
# AddressSanitizer + UndefinedBehaviorSanitizer, and ThreadSanitizer; a full
# check then gives each fuzz target of fuzz/ a few seconds (tools/fuzz.sh).
# Usage: bash tools/check.sh [normal|asan|tsan ...]   (default: all three)
set -eu
cd "$(dirname "$0")/.."
bash tools/deps.sh
jobs=$(nproc)
kinds=("$@")
[ ${#kinds[@]} -gt 0 ] || kinds=(normal asan tsan)
generator=()
command -v ninja >/dev/null && generator=(-G Ninja)

run_kind() {
  local kind=$1 dir=build/$1 sanitize=""
  case $kind in
    normal) sanitize="" ;;
    asan) sanitize="address,undefined" ;;
    tsan) sanitize="thread" ;;
    *) echo "unknown build kind: $kind"; exit 2 ;;
  esac
  echo "== $kind build =="
  if [ -f "$dir/CMakeCache.txt" ] && ! grep -q "CMAKE_GENERATOR:INTERNAL=${generator[1]:-Unix Makefiles}" "$dir/CMakeCache.txt"; then
    rm -rf "$dir"
  fi
  cmake -S . -B "$dir" "${generator[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQEL_SANITIZE="$sanitize" >/dev/null
  cmake --build "$dir" -j "$jobs"
  echo "== $kind tests =="
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --test-dir "$dir" -j "$jobs" --output-on-failure --timeout 300
}

for kind in "${kinds[@]}"; do run_kind "$kind"; done
# A short fuzz pass (4 s a target) on a full check, where clang and its
# fuzzer runtime are installed, or installable in CI; tools/fuzz.sh runs
# longer on request.
if [ $# -eq 0 ]; then
  if command -v clang++ >/dev/null || [ "${CI:-}" = true ]; then
    bash tools/fuzz.sh 4
  else
    echo "no clang: fuzz pass skipped (bash tools/fuzz.sh installs it)"
  fi
fi
echo "all test builds passed: ${kinds[*]}"
