#!/usr/bin/env bash
# End-to-end benchmark: one delivery through the host (base extension: report, then show)
# and one through the application's extension (initials avatar, 200 KB thumbnail), against
# the local sandbox, each beside a floor program that does only the network part with
# libcurl (the same POST; one GET of the thumbnail). Reports the median start-to-exit time and the peak resident memory.
#
#   bench/e2e/run.sh [RUNS]        (default 20; HERALD_BIN_DIR overrides build/bin)
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
bin=${HERALD_BIN_DIR:-$root/build/bin}
runs=${1:-20}
for program in herald-sandbox notification-service e2e_floor_post e2e_floor_fetch e2e_measure; do
  [ -x "$bin/$program" ] || { echo "e2e: $bin/$program is missing; build first (make build)" >&2; exit 1; }
done

work=$(mktemp -d)
sandbox_pid=""
cleanup() {
  [ -n "$sandbox_pid" ] && kill "$sandbox_pid" 2>/dev/null && wait "$sandbox_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

"$bin/herald-sandbox" --port 0 >"$work/sandbox.out" &
sandbox_pid=$!
for _ in $(seq 100); do [ -s "$work/sandbox.out" ] && break; sleep 0.05; done
url=$(head -n 1 "$work/sandbox.out")
[ -n "$url" ] || { echo "e2e: the sandbox did not start" >&2; exit 1; }

cat >"$work/payload.json" <<JSON
{"aps": {"alert": {"title": "Bench", "body": "One delivery"}, "mutable-content": 1},
 "trackingUrl": "$url/track/bench"}
JSON

measure() {  # key, label, command...
  local key=$1 label=$2
  shift 2
  local line
  line=$("$bin/e2e_measure" --runs "$runs" -- "$@")
  local median rss
  median=$(sed -E 's/.*median_ms=([0-9.]+).*/\1/' <<<"$line")
  rss=$(sed -E 's/.*peak_rss_kb=([0-9]+).*/\1/' <<<"$line")
  printf '  %-48s %8s ms %8s KB\n' "$label" "$median" "$rss"
  printf -v "${key}_ms" '%s' "$median"
  printf -v "${key}_kb" '%s' "$rss"
}

echo "end to end, $runs runs each (median start-to-exit time, peak resident memory):"
measure host "host: notification-service --extension base" \
  "$bin/notification-service" --extension base "$work/payload.json"
measure plain "plain: notification-service --extension plain" \
  "$bin/notification-service" --extension plain "$work/payload.json"
measure floor "floor: e2e_floor_post (one libcurl POST)" "$bin/e2e_floor_post" "$url/track/floor"
awk -v h="$host_ms" -v f="$floor_ms" -v hk="$host_kb" -v fk="$floor_kb" \
  'BEGIN { printf "  host / floor: %.2fx time, %.2fx memory\n", h / f, hk / fk }'

# The application's extension on a notification that uses all of it: a drawn initials avatar
# and a 200 KB JPEG thumbnail from loopback, beside a floor that only fetches that thumbnail.
cat >"$work/service.json" <<JSON
{"aps": {"alert": {"title": "New comment", "body": "Ada: nice shadow"}, "mutable-content": 1},
 "user_name": "Ada", "user_initials": "AB", "profile_picture_background_color": "#3A7BD5",
 "thumbnail_url": "$url/_sandbox/bytes/204800.jpg", "trackingUrl": "$url/track/bench"}
JSON
echo
echo "the application's extension, initials avatar and a 200 KB thumbnail:"
measure service "service: notification-service (default extension)" \
  "$bin/notification-service" "$work/service.json"
measure fetch "floor: e2e_floor_fetch (one GET of the thumbnail)" \
  "$bin/e2e_floor_fetch" "$url/_sandbox/bytes/204800.jpg"
awk -v h="$service_ms" -v f="$fetch_ms" -v hk="$service_kb" -v fk="$fetch_kb" \
  'BEGIN { printf "  service / floor: %.2fx time, %.2fx memory\n", h / f, hk / fk }'
