# shellcheck shell=bash
# Sourced by run-demo, run-tests, bench/run and bench/fanout/run: the Debian/Ubuntu packages
# a build needs, and the step that installs the missing ones with apt.
# shellcheck disable=SC2034 # the lists are used by the scripts that source this file

# Native build, the test suites and the benchmarks: OpenSSL 3 for TLS and the openssl
# command its tests talk to; telnet, driven by expect, is the console tests' real client;
# googletest is the source tree under /usr/src/googletest that the Windows cross build
# compiles; the media relay test (tests/relay) encodes with ffmpeg's libx264, decodes with
# ffmpeg and ffprobe, and reads slowly with python3; libsrt is the reliable-UDP transport
# and srt-live-transmit (srt-tools) the real peer of its tests; nftables' nft makes the
# lossy path of those tests where the kernel has no netem.
CORVANE_BASE_PACKAGES=(cmake ninja-build g++ make pkg-config libssl-dev openssl telnet expect
                       libgtest-dev libgmock-dev googletest libbenchmark-dev ffmpeg python3
                       libsrt-openssl-dev srt-tools nftables)
# The Windows cross build and Wine to run its programs; dpkg-dev unpacks the Debian source
# packages that scripts/mingw-deps builds the target's OpenSSL and libsrt from.
CORVANE_CROSS_PACKAGES=(g++-mingw-w64-x86-64 wine64 dpkg-dev)
# The fuzz stage: clang and its libFuzzer and sanitizer runtimes.
CORVANE_FUZZ_PACKAGES=(clang libclang-rt-14-dev)
# The echo benchmark (bench/run): the peer libraries its servers are written on, ss to
# see a server listen, taskset to pin it; strace for its --syscalls mode.
CORVANE_BENCH_PACKAGES=(libevent-dev libuv1-dev libasio-dev iproute2 util-linux)
CORVANE_STRACE_PACKAGES=(strace)
# The media fan-out benchmark (bench/fanout/run): GStreamer's gst-launch-1.0 and the elements
# its pipeline uses (tcpserversrc/tcpserversink in plugins-base, h264parse in plugins-bad),
# ffmpeg with libx264 to make the H.264 streams, ss and taskset.
CORVANE_FANOUT_PACKAGES=(gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good
                         gstreamer1.0-plugins-bad ffmpeg iproute2 util-linux)

# Installs whichever of the named packages is not installed yet; does nothing (and needs
# no network) when all are there. Uses sudo when not run as root.
corvane_require_packages() {
    local missing=() pkg
    for pkg in "$@"; do
        if ! dpkg -s "$pkg" 2>/dev/null | grep -qx 'Status: install ok installed'; then
            missing+=("$pkg")
        fi
    done
    if ((${#missing[@]} == 0)); then
        return 0
    fi

    if ! command -v apt-get >/dev/null; then
        echo "error: missing packages (${missing[*]}) and no apt-get to install them" >&2
        return 1
    fi
    local sudo=()
    if [[ $(id -u) != 0 ]]; then
        if ! command -v sudo >/dev/null; then
            echo "error: missing packages (${missing[*]}); run as root or install sudo" >&2
            return 1
        fi
        sudo=(sudo)
    fi
    echo "==> installing missing packages: ${missing[*]}"
    "${sudo[@]}" apt-get update
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y --no-install-recommends "${missing[@]}"
}

# CMakePresets.json needs CMake 3.25 (Debian 12 has it; older releases do not).
corvane_require_cmake() {
    local version
    version=$(cmake --version | sed -n 's/^cmake version \([0-9]*\.[0-9]*\).*/\1/p')
    if ! printf '3.25\n%s\n' "$version" | sort -C -V; then
        echo "error: CMake $version is too old: the presets need 3.25 or later" >&2
        return 1
    fi
}
