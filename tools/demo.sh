#!/usr/bin/env bash
# Builds the library and runs the demo application on its embedded defaults.
set -eu
cd "$(dirname "$0")/.."
bash tools/deps.sh
generator=()
command -v ninja >/dev/null && generator=(-G Ninja)
cmake -S . -B build/normal "${generator[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/normal -j "$(nproc)" --target demo
./build/normal/examples/demo "$@"
