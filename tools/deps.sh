#!/usr/bin/env bash
# Installs what the build and the tests need when it is missing (Debian).
set -eu
need=()
command -v cmake >/dev/null || need+=(cmake)
command -v g++ >/dev/null || need+=(g++)
[ -x /usr/bin/python3 ] || need+=(python3)   # the catalogue generator and its freshness check
[ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev)
[ -f /usr/include/benchmark/benchmark.h ] || need+=(libbenchmark-dev)
[ -f /usr/include/openssl/evp.h ] || need+=(libssl-dev)
command -v openssl >/dev/null || need+=(openssl)
command -v ccache >/dev/null || need+=(ccache)
command -v pkg-config >/dev/null || need+=(pkg-config)   # the install test links through pkg-config
if [ ${#need[@]} -gt 0 ]; then
  echo "installing: ${need[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get install -y -q "${need[@]}" >/dev/null 2>&1 ||
    { apt-get update -q >/dev/null 2>&1 && apt-get install -y -q "${need[@]}" >/dev/null; } ||
    echo "could not install some of: ${need[*]} (ccache is optional)"
fi
