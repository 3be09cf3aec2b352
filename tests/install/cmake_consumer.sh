#!/usr/bin/env bash
# cmake_consumer.sh CMAKE GENERATOR CXX STAGE EXAMPLES BUILD: the example in EXAMPLES finds the
# installed package in STAGE with find_package(Herald), builds, logs, and reports a delivery
# to the installed herald-sandbox.
set -euo pipefail
cmake=$1 generator=$2 cxx=$3 stage=$4 examples=$5 build=$6

work=$(mktemp -d)
sandbox_pid=""
cleanup() {
  if [[ -n "$sandbox_pid" ]]; then kill "$sandbox_pid" 2>/dev/null || true; wait "$sandbox_pid" || true; fi
  rm -rf -- "$work"
}
trap cleanup EXIT

launcher=()
if command -v ccache >/dev/null; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
rm -rf -- "$build"
if ! timeout 100 "$cmake" -S "$examples" -B "$build" -G "$generator" -DCMAKE_BUILD_TYPE=Release \
       -DCMAKE_CXX_COMPILER="$cxx" "${launcher[@]}" -DCMAKE_PREFIX_PATH="$stage" \
       >"$work/configure.log" 2>&1; then
  cat "$work/configure.log" >&2
  exit 1
fi
# The package came from the stage, not from somewhere else on this machine.
herald_dir=$(sed -n 's/^Herald_DIR:PATH=//p' "$build/CMakeCache.txt")
[[ "$herald_dir" == "$stage"/* ]] || { echo "Herald found in '$herald_dir', not in $stage" >&2; exit 1; }
timeout 200 "$cmake" --build "$build"

timeout 60 "$stage/bin/herald-sandbox" >"$work/sandbox.out" &
sandbox_pid=$!
url=""
for _ in $(seq 100); do
  url=$(head -n 1 "$work/sandbox.out")
  [[ -n "$url" ]] && break
  sleep 0.1
done
[[ "$url" == http://127.0.0.1:* ]] || { echo "the sandbox printed no URL" >&2; exit 1; }

# Exit 0 only if the sandbox accepted {"event": "DELIVERED"}.
out=$(timeout 30 "$build/herald-example" "$url/track/example-1")
for line in "reporting a delivery" "delivery reported"; do
  grep -q "$line" <<<"$out" || { echo "no '$line' in the example's output: $out" >&2; exit 1; }
done
