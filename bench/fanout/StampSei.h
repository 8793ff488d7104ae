// The SEI NAL unit the fan-out producer puts into every access unit, and how the load
// client reads it back.
//
// Layout (after the 4-byte start code):
//   0x06                      NAL header: SEI, nal_ref_idc 0
//   0x05                      payload type 5: user data unregistered
//   kPayloadSize              payload size
//   kUuid[16]                 marks our payload among other SEI messages
//   40 bytes                  sequence (u64), send time (u64, CLOCK_MONOTONIC ns) and the
//                             length in bytes of the rest of the access unit after this
//                             NAL (u32), big-endian, one byte per nibble as 0x40 | nibble
//   0x80                      rbsp trailing bits
// The nibble bytes are never zero, so the payload cannot contain 00 00 0x and needs no
// emulation prevention; the patched fields keep the NAL the same length.
#pragma once

#include <cstddef>
#include <cstdint>

namespace FanoutBench {

constexpr std::uint8_t kUuid[16] = {0xC0, 0x4E, 0x1A, 0x7E, 0x5F, 0x3D, 0x92, 0x11,
                                    0xA7, 0x6B, 0x2C, 0x48, 0x9E, 0xD1, 0x35, 0xF6};
constexpr std::size_t kFieldBytes = 8 + 8 + 4;            // seq, time, tail
constexpr std::size_t kPayloadSize = 16 + 2 * kFieldBytes;  // 56
// NAL header, type, size, payload, trailing bits.
constexpr std::size_t kSeiNalBytes = 3 + kPayloadSize + 1;  // 60, without start code
constexpr std::size_t kNibbleOffset = 3 + 16;              // from the NAL header byte

struct Stamp {
    std::uint64_t seq = 0;
    std::uint64_t time_ns = 0;
    std::uint32_t tail = 0;
};

inline void PutNibbles(std::uint8_t* out, std::uint64_t value, int bytes)
{
    for (int i = 0; i < 2 * bytes; ++i) {
        int shift = 4 * (2 * bytes - 1 - i);
        out[i] = static_cast<std::uint8_t>(0x40 | ((value >> shift) & 0xF));
    }
}

/// Fills a whole SEI NAL (without start code) into `nal[kSeiNalBytes]`.
inline void WriteSei(std::uint8_t* nal, const Stamp& stamp)
{
    nal[0] = 0x06;
    nal[1] = 0x05;
    nal[2] = static_cast<std::uint8_t>(kPayloadSize);
    for (std::size_t i = 0; i < 16; ++i) {
        nal[3 + i] = kUuid[i];
    }
    PutNibbles(nal + kNibbleOffset, stamp.seq, 8);
    PutNibbles(nal + kNibbleOffset + 16, stamp.time_ns, 8);
    PutNibbles(nal + kNibbleOffset + 32, stamp.tail, 4);
    nal[kSeiNalBytes - 1] = 0x80;
}

/// Reads a stamp from the first kSeiNalBytes of a NAL (header byte first); false when it
/// is not ours.
inline bool ReadSei(const std::uint8_t* nal, Stamp& stamp)
{
    if (nal[0] != 0x06 || nal[1] != 0x05 || nal[2] != kPayloadSize) {
        return false;
    }
    for (std::size_t i = 0; i < 16; ++i) {
        if (nal[3 + i] != kUuid[i]) {
            return false;
        }
    }
    std::uint64_t fields[3] = {0, 0, 0};
    const int widths[3] = {8, 8, 4};
    const std::uint8_t* p = nal + kNibbleOffset;
    for (int f = 0; f < 3; ++f) {
        for (int i = 0; i < 2 * widths[f]; ++i, ++p) {
            if ((*p & 0xF0) != 0x40) {
                return false;
            }
            fields[f] = (fields[f] << 4) | (*p & 0x0F);
        }
    }
    stamp.seq = fields[0];
    stamp.time_ns = fields[1];
    stamp.tail = static_cast<std::uint32_t>(fields[2]);
    return true;
}

}  // namespace FanoutBench
