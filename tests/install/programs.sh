#!/usr/bin/env bash
# programs.sh STAGE BINDIR DATADIR VERSION: the installed programs tell their version, and the
# host runs from a copy of the install in another place and draws with the asset catalogue
# it finds beside itself (not the source tree's, which the build also knows of).
set -euo pipefail
stage=$1 bindir=$2 datadir=$3 version=$4

work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT
unset HERALD_ASSETS_DIR
export HOME=$work XDG_CACHE_HOME=$work/cache XDG_CONFIG_HOME=$work/config TMPDIR=$work/tmp
mkdir -p "$TMPDIR"

for program in notification-service herald-sandbox herald; do
  out=$(timeout 10 "$stage/$bindir/$program" --version)
  [[ "$out" == "$program $version" ]] || { echo "$program --version: '$out'" >&2; exit 1; }
done

prefix=$work/prefix
mkdir -p "$prefix/$(dirname "$datadir")"
cp -a "$stage/$bindir" "$prefix/$bindir"
cp -a "$stage/$datadir" "$prefix/$datadir"
host=$prefix/$bindir/notification-service
icon=$prefix/$datadir/herald/assets/images/icon-person-person.png

out=$(echo '{"aps": {"alert": {"title": "Hi", "body": "from the stage"}, "mutable-content": 1}}' |
        timeout 30 "$host" --extension plain -)
grep -q '"body":"from the stage"' <<<"$out" || { echo "plain extension: $out" >&2; exit 1; }

# A team notification without a picture gets the catalogue's icon drawn as its avatar.
echo '{"aps": {"alert": {"title": "New in the brand kit", "body": "3 templates"},
       "mutable-content": 1}, "user_name": "Design Team", "is_team_notification": true}' \
  >"$work/team.json"
avatar() {
  local line png
  line=$(timeout 30 "$host" "$work/team.json")
  png=$(sed -n 's/.*"image":{"png":"\([^"]*\)".*/\1/p' <<<"$line")
  [[ -f "$png" ]] || { echo "no avatar drawn: $line" >&2; exit 1; }
  cp "$png" "$work/$1.png"
}
avatar first
avatar again
cmp -s "$work/first.png" "$work/again.png" || { echo "the same avatar drew differently" >&2; exit 1; }
# Another icon in the copy's catalogue must change the avatar.
cp "$work/first.png" "$icon"
avatar changed
if cmp -s "$work/first.png" "$work/changed.png"; then
  echo "the host did not draw with the catalogue in $prefix/$datadir/herald/assets" >&2
  exit 1
fi
