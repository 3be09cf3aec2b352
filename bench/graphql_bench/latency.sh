#!/usr/bin/env bash
# How long a `{ count }` waits on the sandbox while three other clients loop over the worst
# GraphQL documents (24 levels of fragment pairs, 865 aliased pages of 100, a variable type
# nested 30,000 deep), beside the same count with nobody else asking. Needs python3.
#   bench/graphql_bench/latency.sh      (HERALD_BIN_DIR: where herald-sandbox is)
set -u
root=$(cd "$(dirname "$0")/../.." && pwd)
bin=${HERALD_BIN_DIR:-$root/build/bin}/herald-sandbox
urlfile=$(mktemp)
$bin > "$urlfile" 2>/dev/null &
pid=$!
sleep 0.5
url=$(head -1 "$urlfile")
python3 - "$url" <<'PY'
import json, sys, threading, time, urllib.request
url = sys.argv[1] + "/inbox/q"
def ask(q):
    req = urllib.request.Request(url, data=json.dumps({"query": q}).encode(), headers={"x-herald-user-id": "ada", "x-herald-client-key": "sandbox-client-key"})
    try:
        with urllib.request.urlopen(req) as r: return r.status
    except urllib.error.HTTPError as e: return e.code
pairs = "{ ...F0a ...F0b }" + "".join(f" fragment F{i}{s} on Query {{ " + ("count" if i == 24 else f"...F{i+1}a ...F{i+1}b") + " }" for i in range(25) for s in "ab")
pages = "{" + "".join(f" p{i}: messages(limit: 100) {{ nodes {{ messageId }} }}" for i in range(865)) + " }"
deep = "query Q($v: " + "["*30000 + "Int" + "]"*30000 + ") { count }"
stop = False
def hostile(doc):
    while not stop: ask(doc)
threads = [threading.Thread(target=hostile, args=(d,)) for d in (pairs, pages, deep)]
for t in threads: t.start()
time.sleep(0.3)
lat = []
for i in range(200):
    t0 = time.perf_counter(); s = ask("{ count }"); lat.append((time.perf_counter() - t0) * 1000)
    assert s == 200
stop = True
for t in threads: t.join()
lat.sort()
print(f"count under hostile load: median {lat[100]:.1f} ms, p95 {lat[190]:.1f} ms, max {lat[-1]:.1f} ms (200 requests)")
quiet = []
for i in range(200):
    t0 = time.perf_counter(); ask("{ count }"); quiet.append((time.perf_counter() - t0) * 1000)
quiet.sort()
print(f"count alone:                median {quiet[100]:.1f} ms, p95 {quiet[190]:.1f} ms, max {quiet[-1]:.1f} ms")
PY
kill $pid
rm -f "$urlfile"
