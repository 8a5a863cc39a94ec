#!/bin/sh
# Runs one fuzz target over its committed corpus without writing into it:
#   run_target.sh <target> <corpus dir> [libFuzzer options...]
# What the run finds new goes to a scratch corpus that is removed afterwards;
# a crashing input is kept as crash-* in the working directory. Standard
# error of the target (the library's own log lines) is closed; the fuzzer's
# reports and the targets' "BROKEN:" lines still show.
set -eu
target=$1
corpus=$2
shift 2
scratch=$(mktemp -d "${TMPDIR:-/tmp}/dravinhold-corpus-XXXXXX")
trap 'rm -rf "$scratch"' EXIT
"$target" -close_fd_mask=2 -print_final_stats=1 "$@" "$scratch" "$corpus"
