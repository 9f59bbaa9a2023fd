#!/usr/bin/env bash
# A long two-channel session against the fake with a fault every two minutes, cycling
# through the fault scenarios, and the connections rotated every five minutes: how many
# faults the session survived, its longest caption gap, the recognised sentences lost
# (what the fake sent against what the recording filed) and its memory. Not part of CI.
#   bench/soak.sh [MINUTES]      default 30
set -euo pipefail
minutes="${1:-30}"
root="$(cd "$(dirname "$0")/.." && pwd)"
source "$root/scripts/common.sh"
"$root/scripts/bootstrap"
# OSV_BENCH_BUILD names a build folder to use as it is (e.g. build/debug); else an optimised one.
build="${OSV_BENCH_BUILD:-build/release}"
if [ -z "${OSV_BENCH_BUILD:-}" ]; then
    configure_and_build build/release -DCMAKE_BUILD_TYPE=Release -DOSV_BUILD_TESTS=OFF >/dev/null
fi
cli="$root/$build/src/cli/ossevra-cli"
fake="$root/$build/tools/fake-realtime/fake-realtime"
work="$(mktemp -d)"
trap 'kill "${fake_pid:-}" 2>/dev/null || true; rm -rf "$work"' EXIT

# Speech on both sides all along: the computer every 8 s, the microphone 4 s later.
espeak-ng -v ja -w "$work/ja.wav" "きょうは いい てんき ですね。"
espeak-ng -v cmn-latn-pinyin -w "$work/zh.wav" "wo3 men5 qu4 san4 bu4 ba5."
python3 - "$work" "$minutes" <<'PY'
import json, sys, wave
work, minutes = sys.argv[1], float(sys.argv[2])
def track(line, offset, out):
    w = wave.open(f"{work}/{line}.wav"); rate = w.getframerate(); speech = w.readframes(w.getnframes())
    total = int(minutes * 60 * rate); data = bytearray(total * 2); at = int(offset * rate)
    while at + len(speech) // 2 < total:
        data[at * 2: at * 2 + len(speech)] = speech; at += 8 * rate
    o = wave.open(f"{work}/{out}.wav", "wb"); o.setnchannels(1); o.setsampwidth(2); o.setframerate(rate)
    o.writeframes(bytes(data)); o.close()
track("ja", 0.5, "system"); track("zh", 4.5, "microphone")

# Every connection recognises its speaker about every two seconds of audio. Connections
# take turns at a fault two minutes in (6,050 appends of 20 ms); every third has none and
# lives until it is rotated.
rules = [
    {"on": "connect", "send": {"type": "session.created", "session": {"id": "sess_soak"}}},
    {"on": "append", "every": 100, "send": [{"type": "session.input_transcript.delta", "delta": "今日はいい天気ですね。"},
                                             {"type": "session.output_transcript.delta", "delta": "今天天气很好。"}]},
    {"on": "session.close", "send": {"type": "session.closed"}},
    {"on": "session.close", "after_ms": 50, "close": {"code": 1000, "reason": "bye"}},
]
faults = ["drop", "stall", "close", "rate", None]
for connection in range(1, 400):
    kind = faults[(connection - 1) % len(faults)]
    at = {"on": "append", "nth": 6050, "connection": connection}
    if kind == "drop": rules.append({**at, "drop": True})
    elif kind == "stall": rules.insert(0, {**at, "stall": True})
    elif kind == "close": rules.append({**at, "close": {"code": 1011, "reason": "internal error"}})
    elif kind == "rate":
        rules.append({**at, "error": {"type": "rate_limit_exceeded", "code": "rate_limit_exceeded", "message": "Rate limit reached"}})
        rules.append({**at, "after_ms": 100, "close": {"code": 1008, "reason": "rate limited"}})
with open(f"{work}/scenario.jsonl", "w") as f:
    for r in rules: f.write(json.dumps(r, ensure_ascii=False) + "\n")
PY
"$fake" --scenario "$work/scenario.jsonl" --record "$work/received.jsonl" > "$work/port" &
fake_pid=$!
for _ in $(seq 1 50); do [ -s "$work/port" ] && break; sleep 0.1; done
port="$(head -1 "$work/port")"

OSV_SUPPORT_DIR="$work/support" XDG_CONFIG_HOME="$work/config" OPENAI_API_KEY=sk-soak OSV_TEST_RUN=1 \
    OSV_OPENAI_BASE_URL="http://127.0.0.1:$port/v1" OSV_REALTIME_ROTATE_AFTER=300 \
    "$cli" live --system "$work/system.wav" --microphone "$work/microphone.wav" --separate --json --tail 3 \
    > "$work/out.jsonl" 2> "$work/err.txt" &
pid=$!
rss() { awk '/VmRSS/ {print $2}' "/proc/$pid/status" 2>/dev/null || echo 0; }
sleep 30
rss0="$(rss)"
rss1="$rss0"
while kill -0 "$pid" 2>/dev/null; do
    sleep 30
    r="$(rss)"; [ "$r" != "0" ] && rss1="$r"
done
wait "$pid" || true
python3 - "$work" "$rss0" "$rss1" <<'PY'
import json, sys
work, rss0, rss1 = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
out = [json.loads(l) for l in open(f"{work}/out.jsonl") if l.strip()]
codes = [l["debug"]["code"] for l in out if "debug" in l and l["debug"]["code"]]
recording = out[-1].get("recording", {})
print("status:", recording.get("status"), " audio:", round(recording.get("duration", 0), 1), "s")
for c in ["realtime_reconnect_scheduled", "realtime_reconnected", "recognition_stalled", "outage_audio_flushed",
          "realtime_rotation_succeeded", "realtime_rotation_failed"]:
    print(f"  {c}: {codes.count(c)}")
# What the fake sent: a sentence every 100 appends of a connection, up to its fault.
appends, stalled = {}, set()
for l in open(f"{work}/received.jsonl"):
    e = json.loads(l)
    if e.get("event") == "message" and e.get("message", {}).get("type") == "session.input_audio_buffer.append":
        appends[e["connection"]] = appends.get(e["connection"], 0) + 1
faults = ["drop", "stall", "close", "rate", None]
sent = 0
for c, n in appends.items():
    kind = faults[(c - 1) % len(faults)]
    sent += (min(n, 6049) if kind else n) // 100
survived = sum(1 for c, n in appends.items() if faults[(c - 1) % len(faults)] and n >= 6050)
rid = recording.get("id")
filed = [json.loads(l) for l in open(f"{work}/support/transcripts/{rid}.jsonl")]
times = sorted(e.get("receivedAt", e["at"]) for e in filed if "sourceDelta" in e.get("payload", {}))
gaps = [b - a for a, b in zip(times, times[1:])]
print("faults survived:", survived, " connections:", len(appends))
print("recognised sentences: sent", sent, " filed", len(times), " lost", max(0, sent - len(times)))
print("longest gap between recognised sentences:", round(max(gaps), 1) if gaps else None, "s")
print(f"resident memory: {rss0} kB after 30 s, {rss1} kB at the end")
PY
