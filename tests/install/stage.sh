#!/usr/bin/env bash
# stage.sh CMAKE BUILD_DIR STAGE: installs the build into a fresh STAGE, as a user would.
set -euo pipefail
cmake=$1 build=$2 stage=$3

rm -rf -- "$stage"
timeout 100 "$cmake" --install "$build" --prefix "$stage" >/dev/null

# What a user of the libraries and programs expects to find, and nothing of the tests.
for path in bin/notification-service bin/herald-sandbox share/herald/assets/colors \
            share/herald/assets/images include/logwell/logwell.hpp include/platform/version.hpp; do
  [[ -e "$stage/$path" ]] || { echo "missing from the install: $path" >&2; exit 1; }
done
config=$(find "$stage" -name HeraldConfig.cmake)
[[ -n "$config" ]] || { echo "no HeraldConfig.cmake installed" >&2; exit 1; }
[[ -e "$(dirname "$config")/HeraldConfigVersion.cmake" ]] || { echo "no version file" >&2; exit 1; }
unwanted=$(find "$stage" \( -name '*_tests' -o -name '*_bench' -o -name 'e2e_*' \
                            -o -name 'libtest_support*' -o -path '*/assets/tools*' \) -print)
if [[ -n "$unwanted" ]]; then
  echo "installed but not for users: $unwanted" >&2
  exit 1
fi
