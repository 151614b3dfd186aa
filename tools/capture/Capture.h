// Captures of the box link and the bus: classic pcap files (libpcap, link type USER0, microsecond
// timestamps) whose packets each begin with an 8-byte pseudo-header telling what they carry.
//
//   offset 0  u8   version    1
//          1  u8   channel    1 line frame, 2 line chunk, 3 garbage, 4 bus message, 5 inertial,
//                             6 run facts (text lines "key=value", e.g. "product_type=72")
//          2  u8   direction  0 to the plug-in, 1 from the plug-in
//          3  u8   flags      bit 0: a bus answer; bit 1: a frame cut off; the rest 0
//          4  u32  bus id     little-endian; the message id on channel 4, else 0
//          8  ...  payload    line bytes, the bus payload after the host's head, or the
//                             12-byte six-axis record
//
// A packet's time is host time (obd-sim: since the start of the run, from 1970-01-01; a field
// log: its own timestamps). The writer streams to the file as it goes, so a capture of any length
// costs the same memory. Without libpcap the library still builds: Available() is false and Open
// fails saying so, so that the tools can tell the user instead of leaving the options out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// libpcap's handles, named here so that users of the library need not include its header.
struct pcap;
struct pcap_dumper;

namespace obdcap {

enum class Channel : uint8_t { Frame = 1, Chunk = 2, Garbage = 3, Bus = 4, Inertial = 5, Run = 6 };
enum class Direction : uint8_t { ToPlugin = 0, FromPlugin = 1 };
constexpr uint8_t kFlagResponse = 0x01, kFlagCut = 0x02;
constexpr uint8_t kVersion = 1;
// DLT_USER0: a private link type Wireshark hands to a dissector chosen by the user.
constexpr int kLinkType = 147;
// Large enough for any bus payload the host allows in practice and the 64 KiB a test writes; a
// packet longer than this is refused rather than written cut short.
constexpr uint32_t kSnapLen = 262144;

struct PseudoHeader {
    uint8_t version;
    uint8_t channel;
    uint8_t direction;
    uint8_t flags;
    uint32_t busId;
};
static_assert(sizeof(PseudoHeader) == 8, "the pseudo-header is 8 bytes on the wire");
static_assert(offsetof(PseudoHeader, channel) == 1, "pseudo-header layout");
static_assert(offsetof(PseudoHeader, direction) == 2, "pseudo-header layout");
static_assert(offsetof(PseudoHeader, flags) == 3, "pseudo-header layout");
static_assert(offsetof(PseudoHeader, busId) == 4, "pseudo-header layout");
constexpr size_t kHeaderSize = sizeof(PseudoHeader);
constexpr size_t kMaxPayload = kSnapLen - kHeaderSize;

struct Packet {
    long long tUs = 0;  // microseconds since 1970-01-01 00:00:00
    Channel channel = Channel::Frame;
    Direction direction = Direction::ToPlugin;
    uint8_t flags = 0;
    uint32_t busId = 0;
    std::vector<uint8_t> payload;
};

// Field by field, little-endian, whatever the machine's byte order and padding.
void EncodeHeader(const PseudoHeader& h, uint8_t out[kHeaderSize]);
PseudoHeader DecodeHeader(const uint8_t in[kHeaderSize]);
// Empty when the header is one this version writes, else what is wrong with it.
std::string CheckHeader(const PseudoHeader& h);

const char* ChannelName(Channel c);  // "frame", "chunk", "garbage", "bus", "inertial", "run"

// The value of `key` in a run-facts payload ("key=value" lines); false when it is not there.
bool RunFact(const std::vector<uint8_t>& payload, const std::string& key, std::string& value);

// Whether this build reads and writes captures (libpcap was found).
bool Available();
// The message Open gives when it is not.
extern const char* const kUnavailable;

// The latest time a pcap record's unsigned 32-bit seconds can hold (2106-02-07).
constexpr long long kMaxTimeUs = 4294967295LL * 1000000LL + 999999LL;

class Writer {
  public:
    Writer();
    ~Writer();  // closes an open file, ignoring errors: call Close to hear of them
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    bool Open(const std::string& path, std::string& error);
    // False (and the packet left out, counted for Close's error) when nothing is open, the time is
    // before 1970 or past kMaxTimeUs, or the payload is longer than kMaxPayload.
    bool Write(const Packet& p);
    bool Write(long long tUs, Channel channel, Direction direction, uint8_t flags, uint32_t busId,
               const uint8_t* data, size_t n);
    // Flushes and closes; false when the file could not be written whole or packets were refused.
    bool Close(std::string& error);
    bool IsOpen() const { return m_dump != nullptr; }
    unsigned long long Written() const { return m_written; }

  private:
    ::pcap* m_pcap = nullptr;
    ::pcap_dumper* m_dump = nullptr;
    std::string m_path;
    unsigned long long m_written = 0;
    unsigned long long m_refused = 0;
    std::string m_firstRefusal;
    std::vector<uint8_t> m_buf;
};

class Reader {
  public:
    Reader();
    ~Reader();
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // False with `error` when the file cannot be opened, is no pcap file, or has another link
    // type or a snap length below a pseudo-header.
    bool Open(const std::string& path, std::string& error);
    // The next packet: true with `p`; false at the end with `error` empty; false with `error`
    // naming the packet number (from 1) and its byte offset when the file is truncated or corrupt
    // there. After an error every later call gives the same error.
    bool Next(Packet& p, std::string& error);
    // Packets read so far.
    unsigned long long Count() const { return m_count; }

  private:
    ::pcap* m_pcap = nullptr;
    std::string m_path;
    unsigned long long m_count = 0;
    unsigned long long m_offset = 0;  // byte offset of the next packet's record
    std::string m_error;
};

// Whether `head` (the first bytes of a file) opens a classic pcap file of either byte order and
// either time resolution.
bool LooksLikePcap(const uint8_t* head, size_t n);

}  // namespace obdcap
