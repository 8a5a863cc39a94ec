#!/bin/sh
# Installs the Debian packages the build needs, if any is missing. Run as root.
set -eu

packages="cmake make g++ pkg-config libleveldb-dev libsnappy-dev libprotobuf-dev
protobuf-compiler libpoco-dev libgtest-dev libgmock-dev libbenchmark-dev
clang libclang-rt-14-dev"

missing=""
for package in $packages; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing="$missing $package"
  fi
done

if [ -n "$missing" ]; then
  echo "Installing:$missing"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  # shellcheck disable=SC2086
  apt-get install -y -q --no-install-recommends $missing
fi
