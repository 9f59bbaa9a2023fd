#!/usr/bin/env bash
# A long two-channel live session in real time through the real Qt adapters, the
# recorders and the WebSocket client, against the loopback fake server: ossevra-cli live
# with two speech files as the channels. Reports the CPU time per minute of audio (as a
# share of one core) and the growth of resident memory, extrapolated to an hour.
#   bench/live-session.sh [MINUTES]      default 20
set -euo pipefail
minutes="${1:-20}"
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

# Speech every 8 seconds on each side, the microphone 4 seconds after the computer.
espeak-ng -v ja -w "$work/ja.wav" "きょうは いい てんき ですね。"
espeak-ng -v cmn-latn-pinyin -w "$work/zh.wav" "wo3 men5 qu4 san4 bu4 ba5."
python3 - "$work" "$minutes" <<'PY'
import sys, wave
work, minutes = sys.argv[1], float(sys.argv[2])
def track(line, offset, out):
    w = wave.open(f"{work}/{line}.wav"); rate = w.getframerate(); speech = w.readframes(w.getnframes())
    total = int(minutes * 60 * rate); period = 8 * rate
    data = bytearray(total * 2)
    at = int(offset * rate)
    while at + len(speech) // 2 < total:
        data[at * 2: at * 2 + len(speech)] = speech; at += period
    o = wave.open(f"{work}/{out}.wav", "wb"); o.setnchannels(1); o.setsampwidth(2); o.setframerate(rate)
    o.writeframes(bytes(data)); o.close()
track("ja", 0.5, "system"); track("zh", 4.5, "microphone")
PY
cat > "$work/scenario.jsonl" <<'JSONL'
{"on": "connect", "send": {"type": "session.created", "session": {"id": "sess_bench"}}}
{"on": "append", "every": 200, "speaker": 1, "send": [{"type": "session.input_transcript.delta", "delta": "今日はいい天気ですね。"}, {"type": "session.output_transcript.delta", "delta": "今天天气很好。"}]}
{"on": "append", "every": 200, "speaker": 2, "send": {"type": "session.input_transcript.delta", "delta": "我们去散步吧。"}}
{"on": "session.close", "send": {"type": "session.closed"}}
{"on": "session.close", "after_ms": 50, "close": {"code": 1000, "reason": "bye"}}
JSONL
"$fake" --scenario "$work/scenario.jsonl" > "$work/port" &
fake_pid=$!
for _ in $(seq 1 50); do [ -s "$work/port" ] && break; sleep 0.1; done
port="$(head -1 "$work/port")"

OSV_SUPPORT_DIR="$work/support" XDG_CONFIG_HOME="$work/config" OPENAI_API_KEY=sk-bench OSV_TEST_RUN=1 \
    OSV_OPENAI_BASE_URL="http://127.0.0.1:$port/v1" \
    "$cli" live --system "$work/system.wav" --microphone "$work/microphone.wav" --separate --json --tail 1 \
    > "$work/out.jsonl" 2> "$work/err.txt" &
pid=$!
ticks="$(getconf CLK_TCK)"
sample() {  # seconds of CPU, resident kB
    local stat rss
    stat="$(cut -d' ' -f14,15 "/proc/$pid/stat" 2>/dev/null)" || return 1
    rss="$(awk '/VmRSS/ {print $2}' "/proc/$pid/status" 2>/dev/null)" || return 1
    echo "$(echo "$stat" | awk -v t="$ticks" '{print ($1 + $2) / t}') $rss"
}
sleep 60
read -r cpu0 rss0 < <(sample)
start=$(date +%s)
echo "after 1 min: cpu ${cpu0}s, rss ${rss0} kB"
last_cpu=$cpu0; last_rss=$rss0
# Sampled while the files still play: the wind-down (drain, merge of the whole recording)
# is no part of the cost of a minute on air.
on_air_until=$(( start + ${minutes%.*} * 60 - 70 ))
elapsed=0
while kill -0 "$pid" 2>/dev/null && [ "$(date +%s)" -lt "$on_air_until" ]; do
    sleep 30
    if s="$(sample)"; then
        read -r last_cpu last_rss <<<"$s"
        elapsed=$(( $(date +%s) - start ))
        echo "  +${elapsed}s: cpu ${last_cpu}s, rss ${last_rss} kB"
    fi
done
wait "$pid" || true
echo "session: $(grep -c '"captions"' "$work/out.jsonl") captions lines, status $(tail -1 "$work/out.jsonl" | python3 -c 'import json,sys; print(json.loads(sys.stdin.read())["recording"]["status"])')"
awk -v c0="$cpu0" -v c1="$last_cpu" -v r0="$rss0" -v r1="$last_rss" -v e="$elapsed" 'BEGIN {
    m = e / 60.0
    printf "CPU per minute of audio: %.2f s (%.2f %% of one core)\n", (c1 - c0) / m, (c1 - c0) / e * 100
    printf "resident memory: %d kB -> %d kB over %.1f min, %.1f MB per hour extrapolated\n", r0, r1, m, (r1 - r0) / 1024.0 / m * 60
}'
