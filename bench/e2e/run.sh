#!/usr/bin/env bash
# End-to-end benchmark: one delivery through the host (base extension: report, then show),
# one through the application's extension (initials avatar, 200 KB thumbnail), and one
# sign-in with two push tokens through the `herald` command, against the local sandbox, each
# beside a floor program that does only the network part with libcurl (the same POST; one
# GET of the thumbnail; the same two PUTs). Reports for each the median time from
# start to exit, the median CPU time and the peak resident memory, and the ratios to the
# floors. Programs compared with each other run alternately, after one uncounted run each.
#
#   bench/e2e/run.sh [RUNS]        (default 20; HERALD_BIN_DIR overrides build/bin)
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
bin=${HERALD_BIN_DIR:-$root/build/bin}
runs=${1:-20}
for program in herald-sandbox notification-service herald e2e_floor_post e2e_floor_fetch e2e_floor_tokens e2e_measure; do
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

# What the host writes (attachments, drawn avatars, caches) stays in the work folder and goes
# with it; the floors write nothing.
mkdir -p "$work/tmp" "$work/cache"
export TMPDIR=$work/tmp XDG_CACHE_HOME=$work/cache

# Each group of programs is measured in one e2e_measure call, which alternates their runs so
# that the load of the machine at any moment falls on all of them alike.
declare -A ms cpu kb maxkb
measure() {  # "key|label|command..." ...
  local -a keys labels args
  local spec
  for spec in "$@"; do
    IFS='|' read -r -a parts <<<"$spec"
    keys+=("${parts[0]}")
    labels+=("${parts[1]}")
    args+=(-- "${parts[@]:2}")
  done
  local lines
  lines=$("$bin/e2e_measure" --runs "$runs" "${args[@]}")
  local i line
  for i in "${!keys[@]}"; do
    line=$(sed -n "$((i + 1))p" <<<"$lines")
    ms[${keys[$i]}]=$(sed -E 's/.*median_ms=([0-9.]+).*/\1/' <<<"$line")
    cpu[${keys[$i]}]=$(sed -E 's/.*cpu_ms=([0-9.]+).*/\1/' <<<"$line")
    kb[${keys[$i]}]=$(sed -E 's/.* peak_rss_kb=([0-9]+).*/\1/' <<<"$line")
    maxkb[${keys[$i]}]=$(sed -E 's/.*max_peak_rss_kb=([0-9]+).*/\1/' <<<"$line")
    printf '  %-50s %6s ms %6s ms cpu %6s KB (max %s)\n' "${labels[$i]}" "${ms[${keys[$i]}]}" \
      "${cpu[${keys[$i]}]}" "${kb[${keys[$i]}]}" "${maxkb[${keys[$i]}]}"
  done
}
ratio() {  # key, floor key, label
  awk -v l="$3" -v h="${ms[$1]}" -v f="${ms[$2]}" -v hk="${kb[$1]}" -v fk="${kb[$2]}" \
    -v mk="${maxkb[$1]}" 'BEGIN { printf "  %s: %.2fx time, %.2fx memory (%.1f MB, at most %.1f MB)\n",
                                         l, h / f, hk / fk, hk / 1024, mk / 1024 }'
}

echo "end to end, $runs runs each, alternating (medians of wall time from start to exit, of CPU"
echo "time of all threads and of peak resident memory; the largest peak in brackets):"
measure "host|host: notification-service --extension base|$bin/notification-service|--extension|base|$work/payload.json" \
  "plain|plain: notification-service --extension plain|$bin/notification-service|--extension|plain|$work/payload.json" \
  "floor|floor: e2e_floor_post (one libcurl POST)|$bin/e2e_floor_post|$url/track/floor"
ratio host floor "host / floor"

# The application's extension on a notification that uses all of it: a drawn initials avatar
# and a 200 KB JPEG thumbnail from loopback, beside a floor that only fetches that thumbnail.
cat >"$work/service.json" <<JSON
{"aps": {"alert": {"title": "New comment", "body": "Ada: nice shadow"}, "mutable-content": 1},
 "user_name": "Ada", "user_initials": "AB", "profile_picture_background_color": "#3A7BD5",
 "thumbnail_url": "$url/_sandbox/bytes/204800.jpg", "trackingUrl": "$url/track/bench"}
JSON
echo
echo "the application's extension, initials avatar and a 200 KB thumbnail:"
measure "service|service: notification-service (default extension)|$bin/notification-service|$work/service.json" \
  "fetch|floor: e2e_floor_fetch (one GET of the thumbnail)|$bin/e2e_floor_fetch|$url/_sandbox/bytes/204800.jpg"
ratio service fetch "service / floor"

# Signing in with two push tokens: from `herald signin` to the credentials stored (with their
# fsyncs) and both tokens registered, beside a floor that only makes the two PUTs. Every run
# after the first also signs the previous run's user out first, locally, as a sign-in does.
jwt=$(curl -s -X POST "$url/_sandbox/users/bench/token" | python3 -c 'import json, sys; print(json.load(sys.stdin)["jwt"])')
mkdir -p "$work/config"
export FLOOR_JWT=$jwt
echo
echo "herald signin with two push tokens:"
measure "signin|herald signin --token apn=aa --token firebase-fcm=bb|$bin/herald|--endpoint|$url|--config-dir|$work/config|signin|--user|bench|--jwt|$jwt|--token|apn=aa|--token|firebase-fcm=bb" \
  "tokens|floor: e2e_floor_tokens (two libcurl PUTs)|$bin/e2e_floor_tokens|$url/users/bench/tokens/"
ratio signin tokens "signin / floor"
