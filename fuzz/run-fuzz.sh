#!/usr/bin/env bash
# Runs every fuzz target of a build for a bounded time.
#
#   fuzz/run-fuzz.sh BUILD_DIR [SECONDS]
#
# Each target <Name>Fuzz in BUILD_DIR/fuzz/ runs for SECONDS (default 60)
# on its committed seed corpus fuzz/corpus/<Name>/ (read only) and a
# scratch corpus fuzz/corpus-work/<Name>/ (git-ignored) that keeps what it
# finds from one run to the next; fuzz/<Name>.dict is used when present.
# A crashing input is written to fuzz/corpus-work/artifacts/<Name>/. The exit
# status is non-zero when any target found a crash, a leak or a time-out.
set -uo pipefail

HERE="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
BUILD_DIR="${1:?usage: run-fuzz.sh BUILD_DIR [SECONDS]}"
SECONDS_EACH="${2:-60}"

shopt -s nullglob
targets=("$BUILD_DIR"/fuzz/*Fuzz)
if [ "${#targets[@]}" -eq 0 ]; then
  echo "run-fuzz: no fuzz targets in $BUILD_DIR/fuzz" >&2
  exit 2
fi

failed=()
for bin in "${targets[@]}"; do
  [ -x "$bin" ] || continue
  name="$(basename "$bin")"
  seed="$HERE/corpus/$name"
  work="$HERE/corpus-work/$name"
  artifacts="$HERE/corpus-work/artifacts/$name"
  mkdir -p "$seed" "$work" "$artifacts"
  args=(-max_total_time="$SECONDS_EACH" -timeout=10 -max_len=8192 -print_final_stats=1
        -artifact_prefix="$artifacts/")
  [ -f "$HERE/$name.dict" ] && args+=(-dict="$HERE/$name.dict")
  printf '\n==> fuzzing %s for %s s\n' "$name" "$SECONDS_EACH"
  # The first corpus directory receives new inputs; the seeds stay as committed.
  if ! "$bin" "${args[@]}" "$work" "$seed"; then
    failed+=("$name")
  fi
done

if [ "${#failed[@]}" -gt 0 ]; then
  echo "run-fuzz: failures in: ${failed[*]} (inputs under $HERE/corpus-work/artifacts/)" >&2
  exit 1
fi
echo "run-fuzz: no failure found"
