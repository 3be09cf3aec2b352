#!/usr/bin/env bash
# pkg_config.sh CXX PKGCONFIG_DIR VERSION: every installed herald-*.pc resolves, the installed
# headers compile with their flags, and a program that logs through Logwell compiles and links
# in one line from `pkg-config --cflags --libs`.
set -euo pipefail
cxx=$1 pcdir=$2 version=$3

export PKG_CONFIG_PATH=$pcdir
work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT

modules=()
for pc in "$pcdir"/herald-*.pc; do
  [[ -e "$pc" ]] && modules+=("$(basename "$pc" .pc)")
done
[[ ${#modules[@]} -gt 0 ]] || { echo "no herald-*.pc in $pcdir" >&2; exit 1; }
for module in "${modules[@]}"; do
  pkg-config --print-errors --exists "$module"
  [[ "$(pkg-config --modversion "$module")" == "$version" ]] ||
    { echo "$module: version $(pkg-config --modversion "$module"), not $version" >&2; exit 1; }
done

# Every installed header compiles with the flags of the modules: none of them needs a header
# that stayed in the source tree, or another project's folder that a .pc file does not name.
includedir=$(pkg-config --variable=includedir herald-platform)
(cd "$includedir" && find . -name '*.hpp' | sort | sed 's|^\./\(.*\)|#include "\1"|') >"$work/all.cpp"
[[ -s "$work/all.cpp" ]] || { echo "no headers in $includedir" >&2; exit 1; }
# shellcheck disable=SC2046  # the flags are meant to split
timeout 200 "$cxx" -std=c++20 -fsyntax-only "$work/all.cpp" $(pkg-config --cflags "${modules[@]}")

cat >"$work/hello.cpp" <<'CPP'
#include "logwell/logwell.hpp"

int main() {
  logwell::Logwell::addDestination(std::make_shared<logwell::ConsoleDestination>());
  logwell::Logwell::info("hello through pkg-config", {{"answer", 42}});
  return logwell::Logwell::flush(2) ? 0 : 1;
}
CPP
# shellcheck disable=SC2046  # the flags are meant to split
timeout 200 "$cxx" -std=c++20 -o "$work/hello" "$work/hello.cpp" $(pkg-config --cflags --libs herald-logwell)
out=$(timeout 20 "$work/hello")
grep -q "hello through pkg-config" <<<"$out" || { echo "unexpected output: $out" >&2; exit 1; }
