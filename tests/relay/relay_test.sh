#!/usr/bin/env bash
# The media relay against ffmpeg's own encoder and decoder: a generated H.264 stream goes
# through corvane_media_relay on loopback to a receiver that joins mid-stream and to one
# that reads at a quarter of the stream's rate. Whatever each receives must decode
# without a single error, from a key frame on. The relay records its input, and then
# plays the recording back at the pace of its pictures. Then the same over reliable UDP
# (live mode), in and out, with srt-live-transmit and ffmpeg as peers, and a file
# pushed through the echo server's reliable-UDP echo.
#   relay_test.sh PATH_TO_corvane_media_relay PATH_TO_corvane_echo_server HAVE_SRT(0|1)
# Exit 77 (skipped) without ffmpeg, ffprobe, libx264 or python3; also, after the TCP
# checks, without srt-live-transmit or a library built with reliable UDP.
set -euo pipefail

relay=$1
echo_server=$2
have_srt=$3
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
for tool in ffmpeg ffprobe python3 timeout; do
    if ! command -v "$tool" >/dev/null; then
        echo "skipped: $tool is not installed (Debian packages ffmpeg, python3)"
        exit 77
    fi
done
# Whole output first: grep -q would leave ffmpeg writing to a closed pipe.
encoders=$(ffmpeg -hide_banner -encoders 2>/dev/null || true)
if [[ $encoders != *libx264* ]]; then
    echo "skipped: this ffmpeg has no libx264 encoder"
    exit 77
fi

work=$(mktemp -d)
pids=()
cleanup() {
    local pid
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
cd "$work"

fail() {
    echo "FAIL: $*"
    for log in relay.out relay.err producer.err live.err copy.err slow.err fast.out fast.err double.out double.err \
        played.err srt-relay.out srt-relay.err feed.err srt-producer.err srt-receiver.err srt-ffmpeg.err echo.out \
        echo.err srt-sender.err; do
        if [[ -s $log ]]; then
            echo "--- $log"
            tail -n 20 "$log"
        fi
    done
    exit 1
}

# Frames of an H.264 file, one "key_frame,pict_type" line each, in display order.
frames() {
    # Side data (x264's SEI) adds fields and lines of its own: keep the two fields.
    ffprobe -v error -select_streams v -show_frames -show_entries frame=key_frame,pict_type -of csv=p=0 "$1" |
        grep -E '^[01],' | cut -d, -f1,2
}

# Waits up to 10 s for a line matching $2 in the file $1.
started() {
    local i
    for ((i = 0; i < 100; ++i)); do
        grep -q "$2" "$1" && return 0
        sleep 0.1
    done
    return 1
}

# Ports free now, asked for together so that they differ: two TCP, then three UDP ones.
read -r in_port out_port srt_in srt_out srt_echo < <(python3 -c '
import socket
s = [socket.socket() for _ in range(2)] + [socket.socket(type=socket.SOCK_DGRAM) for _ in range(3)]
for x in s: x.bind(("127.0.0.1", 0))
print(*(x.getsockname()[1] for x in s))')

# 8 s at 25 fps, a key frame every 25 frames, B-frames between the references.
ffmpeg -v error -f lavfi -i testsrc2=size=640x360:rate=25 -t 8 -c:v libx264 -g 25 -bf 2 \
    -pix_fmt yuv420p -f h264 gen.h264 || fail "ffmpeg could not generate the stream"
gen_frames=$(frames gen.h264 | wc -l)
rate=$(($(stat -c %s gen.h264) / 8))

timeout 40 "$relay" --port "$out_port" --input "tcp:$in_port" --once --stats 1 --record rec.h264 \
    >relay.out 2>relay.err &
pids+=($!)
started relay.out '^media_relay on' || fail "the relay did not start"

timeout 30 ffmpeg -v error -re -i gen.h264 -c copy -f h264 "tcp://127.0.0.1:$in_port" 2>producer.err &
pids+=($!)
sleep 2

# Joining mid-stream: one decodes as it goes, one keeps the bytes, one reads slowly.
timeout 40 ffmpeg -v error -f h264 -i "tcp://127.0.0.1:$out_port" -f null - 2>live.err &
live=$!
timeout 40 ffmpeg -v error -f h264 -i "tcp://127.0.0.1:$out_port" -c copy -f h264 copy.h264 2>copy.err &
copy=$!
timeout 40 python3 "$here/slow_reader.py" "$out_port" slow.h264 $((rate / 4)) 35 2>slow.err &
slow=$!
pids+=("$live" "$copy" "$slow")

wait "$live" || fail "the live decoder failed"
wait "$copy" || fail "the copying receiver failed"
wait "$slow" || fail "the slow reader failed"
wait "${pids[0]}" || fail "the relay failed"

[[ ! -s live.err ]] || fail "the live decoder reported errors"
final=$(grep '^relay: ' relay.out | tail -n 1)
echo "$final"
[[ $final =~ ^relay:\ receivers=[0-9]+\ bytes_out=[0-9]+\ frames_in=([0-9]+)\ aged_frames=([0-9]+)\ max_lag_bytes=[0-9]+$ ]] ||
    fail "no final stats line"
frames_in=${BASH_REMATCH[1]}
aged=${BASH_REMATCH[2]}
# A slice longer than one read adds a frame (the relay says how many on stderr).
missed=$(sed -n 's/^media_relay: \([0-9]*\) slices were longer than one read$/\1/p' relay.err)
((frames_in - ${missed:-0} == gen_frames)) || fail "relay cut $frames_in frames, the stream has $gen_frames"

# The receiver that kept up has every byte from the key frame it started at.
copy_size=$(stat -c %s copy.h264)
((copy_size > 0)) || fail "the copying receiver got nothing"
tail -c "$copy_size" gen.h264 | cmp -s - copy.h264 || fail "the copy is not the end of the stream"
[[ $(frames copy.h264 | head -n 1) == 1,I ]] || fail "the copy does not begin with a key frame"

# The slow one lost whole frames and resumed at key frames: it decodes cleanly.
slow_frames=$(frames slow.h264 | wc -l)
copy_frames=$(frames copy.h264 | wc -l)
echo "frames: stream $gen_frames, relayed $frames_in, copy $copy_frames, slow reader $slow_frames, aged $aged"
((aged > 0 && slow_frames > 0 && slow_frames < copy_frames)) || fail "the slow reader did not fall behind"
[[ $(frames slow.h264 | head -n 1) == 1,I ]] || fail "the slow reader's bytes do not begin with a key frame"
ffmpeg -v error -i slow.h264 -f null - 2>slow-decode.err || fail "the slow reader's bytes do not decode"
[[ ! -s slow-decode.err ]] || fail "decoding the slow reader's bytes: $(head -n 3 slow-decode.err)"

# The recording is the input, byte for byte.
cmp -s gen.h264 rec.h264 || fail "the recording differs from the stream sent"

# Played back: the 8 s at twice the speed, and at normal speed with the first 4 s at
# once, both take 4 s. A receiver of the second gets the end of the file from a key frame.
timeout 20 "$relay" --port "$out_port" --play rec.h264 --rate 2 --once --stats 0 >double.out 2>double.err &
double=$!
timeout 20 "$relay" --port "$in_port" --play rec.h264 --fast-start 4000 --once --stats 0 >fast.out 2>fast.err &
fast=$!
pids+=("$double" "$fast")
sleep 1
timeout 20 ffmpeg -v error -f h264 -i "tcp://127.0.0.1:$in_port" -c copy -f h264 played.h264 2>played.err ||
    fail "the receiver of the played file failed"
wait "$double" || fail "the relay playing at twice the speed failed"
wait "$fast" || fail "the relay playing with a fast start failed"
for run in double fast; do
    line=$(grep '^media_relay: played' "$run.out") || fail "$run: no end of playing"
    echo "$run: $line"
    [[ $line =~ ^media_relay:\ played\ ([0-9]+)\ pictures\ in\ ([0-9]+)\.([0-9]+)\ s$ ]] || fail "$run: $line"
    ((BASH_REMATCH[1] == gen_frames)) || fail "$run played ${BASH_REMATCH[1]} of $gen_frames pictures"
    tenths=$((10#${BASH_REMATCH[2]} * 10 + 10#${BASH_REMATCH[3]:0:1}))
    ((tenths >= 34 && tenths <= 50)) || fail "$run took ${BASH_REMATCH[2]}.${BASH_REMATCH[3]} s, not about 4 s"
done
played_size=$(stat -c %s played.h264)
((played_size > 0)) || fail "the receiver of the played file got nothing"
tail -c "$played_size" gen.h264 | cmp -s - played.h264 || fail "the played copy is not the end of the file"
[[ $(frames played.h264 | head -n 1) == 1,I ]] || fail "the played copy does not begin with a key frame"

if [[ $have_srt != 1 ]]; then
    echo "skipped: the library was built without reliable UDP"
    exit 77
fi
if ! command -v srt-live-transmit >/dev/null; then
    echo "skipped: srt-live-transmit is not installed (Debian package srt-tools)"
    exit 77
fi

# Reliable UDP in and out. srt-live-transmit sends whole messages of 1456 bytes only (the
# stream is padded with zero bytes, allowed after a NAL unit), drops what it read before
# it was connected, and does not end with its input: it is stopped once the input went.
cp gen.h264 padded.h264
head -c $(((1456 - $(stat -c %s gen.h264) % 1456) % 1456)) /dev/zero >>padded.h264
timeout 40 "$relay" --port "$out_port" --input "srt:$srt_in" --srt-port "$srt_out" --srt-latency 400 --once \
    --stats 1 >srt-relay.out 2>srt-relay.err &
srt_relay=$!
pids+=("$srt_relay")
started srt-relay.out '^media_relay on' || fail "the reliable-UDP relay did not start"
mkfifo feed
timeout 30 ffmpeg -v error -re -i padded.h264 -c copy -f h264 -y feed 2>feed.err &
feed=$!
timeout 30 srt-live-transmit -q -a:no file://con "srt://127.0.0.1:$srt_in" <feed >/dev/null 2>srt-producer.err &
producer=$!
pids+=("$feed" "$producer")
sleep 2
timeout 30 srt-live-transmit -q -a:no "srt://127.0.0.1:$srt_out" file://con >srt.h264 2>srt-receiver.err &
receiver=$!
timeout 30 ffmpeg -v error -f h264 -i "srt://127.0.0.1:$srt_out" -c copy -f h264 srt-ffmpeg.h264 2>srt-ffmpeg.err &
ffmpeg_receiver=$!
pids+=("$receiver" "$ffmpeg_receiver")
wait "$feed" || fail "ffmpeg could not feed the reliable-UDP producer"
sleep 1
kill -INT "$producer" 2>/dev/null || true
wait "$srt_relay" || fail "the reliable-UDP relay failed"
wait "$receiver" || fail "the reliable-UDP receiver failed"
# ffmpeg says the relay's close is an input error, and ends as usual.
wait "$ffmpeg_receiver" || fail "the reliable-UDP ffmpeg receiver failed"
echo "srt: $(grep '^relay: ' srt-relay.out | tail -n 1)"
for out in srt.h264 srt-ffmpeg.h264; do
    count=$(frames "$out" | wc -l)
    echo "srt: $out has $count frames"
    ((count > gen_frames / 3)) || fail "$out has $count frames of $gen_frames"
    # Keeping up, it has every byte from the key frame it started at.
    tail -c "$(stat -c %s "$out")" padded.h264 | cmp -s - "$out" || fail "$out is not the end of the stream"
    [[ $(frames "$out" | head -n 1) == 1,I ]] || fail "$out does not begin with a key frame"
    ffmpeg -v error -i "$out" -f null - 2>decode.err || fail "$out does not decode"
    [[ ! -s decode.err ]] || fail "decoding $out: $(head -n 3 decode.err)"
done

# The echo: 200 messages, paced (srt-live-transmit loses most of a burst), once it is
# connected; the echo server counts what it sent back.
timeout 20 "$echo_server" --port "$in_port" --srt "$srt_echo" --srt-latency 400 --seconds 5 >echo.out 2>echo.err &
echo_run=$!
pids+=("$echo_run")
started echo.out '^srt echo listening' || fail "the echo server did not start"
python3 -c '
import sys, time
data = open("gen.h264", "rb").read(1456 * 200)
time.sleep(1)
for i in range(0, len(data), 1456):
    sys.stdout.buffer.write(data[i:i + 1456])
    sys.stdout.flush()
    time.sleep(0.002)' |
    timeout -s INT 3 srt-live-transmit -q -a:no file://con "srt://127.0.0.1:$srt_echo" >/dev/null 2>srt-sender.err ||
    (($? == 124)) || fail "srt-live-transmit could not send to the echo server"
wait "$echo_run" || fail "the echo server failed"
tail -n 1 echo.out
[[ $(tail -n 1 echo.out) == "srt: 1 connections, $((1456 * 200)) bytes echoed" ]] || fail "the echo lost bytes"
echo "ok"
