// Frame receiver: reassembly of serial reads, head search, cutting by length, unescaping and
// hand-off to the dispatcher.
//
// Untrusted input. Everything here comes from the wire. A length field is only believed as far
// as the bytes really buffered: a frame is cut only once its last byte lies below the fill count,
// and the fill count never exceeds 1023, so a copy of the frame always stays inside the 1024-byte
// buffers; the length field itself is read only where received. The dispatcher gets at most the
// bytes the unescaped frame holds, and the parsers behind it bound every count and text length by
// the payload and by their record.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "COBDCtrl.h"
#include "ObdLog.h"
#include "SerialDevOBD.h"

namespace {

constexpr unsigned char kHead[4] = {0x55, 0xAA, 0xF8, 0xF0};  // head and box-to-plug-in mark
constexpr int kLenOffset = 4;
constexpr int kSeqOffset = 6;
constexpr int kFrameExtra = 7;  // bytes of a frame besides L: head, mark, length, checksum

// Index of the first complete head among the `fill` bytes, or -1.
int FindHead(const unsigned char* buf, int fill) {
    for (int i = 0; i + 4 <= fill; ++i) {
        if (std::memcmp(buf + i, kHead, sizeof(kHead)) == 0) return i;
    }
    return -1;
}

// The length field of the head at `head`, from the bytes received so far: a byte not yet
// received counts as 0 (so a partly received L only grows). Never reads at or past `fill`.
int FrameLength(const unsigned char* buf, int fill, int head) {
    const int hi = head + kLenOffset < fill ? buf[head + kLenOffset] : 0;
    const int lo = head + kLenOffset + 1 < fill ? buf[head + kLenOffset + 1] : 0;
    return (hi << 8) | lo;
}

// How many of the last bytes (at most three) could begin a head that the next read completes.
int HeadStartAtEnd(const unsigned char* buf, int fill) {
    for (int n = std::min(fill, 3); n > 0; --n) {
        if (std::memcmp(buf + fill - n, kHead, static_cast<size_t>(n)) == 0) return n;
    }
    return 0;
}

// Reads the byte at `at` through an escape pair: the raw bytes it takes (1 or 2), or 0 when the
// bytes needed are not received yet.
int EscapedByte(const unsigned char* f, int avail, int at, unsigned char* out) {
    static constexpr unsigned char kPlain[4] = {0, 0x7E, 0x7F, 0x7D};
    if (at >= avail) return 0;
    if (f[at] != 0x7D) {
        *out = f[at];
        return 1;
    }
    if (at + 1 >= avail) return 0;  // a pair or a lone 0x7D: the next byte tells
    const unsigned char code = f[at + 1];
    if (code < 0x01 || code > 0x03) {
        *out = f[at];
        return 1;
    }
    *out = kPlain[code];
    return 2;
}

// The first `n` raw bytes of `f` unescaped into `plain` (`*plainLen` bytes) hold a frame whose
// checksum, its last byte, is the XOR of its bytes from offset 2 to the end of the payload.
bool ChecksumMatches(const unsigned char* f, int n, char* plain, int* plainLen) {
    COBDCtrl::ReverseTransferredContent(reinterpret_cast<const char*>(f), n, plain, plainLen);
    const int m = *plainLen;
    return m >= OBD_FRAME_OVERHEAD &&
           COBDCtrl::CalXOR(plain + 2, m - 3) == static_cast<unsigned char>(plain[m - 1]);
}

// Whether the `n` bytes at `p` may begin a head (none yet: they may too).
bool HeadMayStartAt(const unsigned char* p, int n) {
    return std::memcmp(p, kHead, static_cast<size_t>(std::min(n, 4))) == 0;
}

// Raw length of the escaped frame at `f` (`avail` bytes received from its head on) whose checksum
// matches, unescaped into `plain`: L counting the raw bytes after the length field (escape pairs
// included), or L counting the unescaped bytes (one more raw byte per pair, wherever it lies).
// 0 when neither matches; -1 when that takes bytes not received yet which still fit the buffer.
// A checksum matches by chance once in 256 frames: when both match, the reading followed by a head
// (or by nothing yet) stands, the shorter one if both or neither are.
//
// `countsPairs` is the box's convention as its frames showed it so far (1: L counts the pairs);
// a reading that settles it updates it. A shorter reading that matches with nothing (or only a
// head's start) after it is taken at once from a box that counts its pairs; from one that does
// not, it matched by chance as often as not, so the next bytes decide: reads may end anywhere,
// and one byte at a time they end right there.
int MatchEscapedFrame(const unsigned char* f, int avail, char* plain, int* plainLen,
                      int* countsPairsSeen) {
    int at = kLenOffset;
    int l = 0;
    for (int k = 0; k < 2; ++k) {
        unsigned char b = 0;
        const int n = EscapedByte(f, avail, at, &b);
        if (n == 0) return 0;  // not reached: the cut by the raw length field is complete
        l = (l << 8) | b;
        at += n;
    }
    const bool canWait = avail < OBD_RECV_MAX;
    const int countsPairs = at + l + 1;
    int shorter = 0;  // the shorter reading: -1 not complete, > 0 matched with bytes after it
    if (countsPairs <= OBD_RECV_MAX) {
        if (countsPairs > avail) {
            shorter = -1;
        } else if (ChecksumMatches(f, countsPairs, plain, plainLen)) {
            const int after = avail - countsPairs;
            if (HeadMayStartAt(f + countsPairs, after) &&
                (*countsPairsSeen == 1 || after >= 4 || !canWait)) {
                if (after >= 4) *countsPairsSeen = 1;  // a whole head right after it
                return countsPairs;
            }
            shorter = countsPairs;
        }
    }
    const auto shorterOnly = [&] {
        if (shorter > 0) ChecksumMatches(f, shorter, plain, plainLen);
        return shorter;
    };
    // L unescaped bytes (pairs beyond the shorter cut included), then the checksum.
    for (int got = 0; got < l; ++got) {
        unsigned char b = 0;
        const int n = EscapedByte(f, avail, at, &b);
        if (n == 0) return canWait ? -1 : shorterOnly();
        at += n;
    }
    if (at >= avail) return canWait ? -1 : shorterOnly();
    const int unescaped = at + 1;
    const bool longerMatches =
        unescaped != countsPairs && ChecksumMatches(f, unescaped, plain, plainLen);
    if (longerMatches && (shorter <= 0 || HeadMayStartAt(f + unescaped, avail - unescaped))) {
        *countsPairsSeen = 0;
        return unescaped;
    }
    // Only the shorter reading matches, the longer one being whole: the box counts its pairs.
    if (!longerMatches && shorter > 0 && unescaped != countsPairs) *countsPairsSeen = 1;
    return shorterOnly();
}

}  // namespace

unsigned char COBDCtrl::CalXOR(char const* data, int len) {
    if (data == nullptr) return 0;
    const auto* p = reinterpret_cast<const unsigned char*>(data);
    unsigned char x = p[0];
    for (int i = 1; i < len; ++i) x = static_cast<unsigned char>(x ^ p[i]);
    return x;
}

int COBDCtrl::ReverseTransferredContent(char const* in, int inLen, char* out, int* outLen) {
    if (outLen != nullptr) *outLen = 0;
    if (in == nullptr || out == nullptr || outLen == nullptr) return -1;
    const auto* src = reinterpret_cast<const unsigned char*>(in);
    auto* dst = reinterpret_cast<unsigned char*>(out);
    int n = 0;
    int i = 0;
    while (i < inLen) {
        const unsigned char b = src[i];
        // The first and the last byte are never escaped.
        if (i == 0 || i == inLen - 1 || b != 0x7D) {
            dst[n++] = b;
            ++i;
            continue;
        }
        const unsigned char code = src[i + 1];  // exists: i < inLen - 1 here
        if (code >= 0x01 && code <= 0x03) {
            static constexpr unsigned char kPlain[4] = {0, 0x7E, 0x7F, 0x7D};
            dst[n++] = kPlain[code];
            i += 2;
        } else {
            // Not an escape pair: keep the 0x7D and look at the next byte by itself.
            dst[n++] = b;
            ++i;
        }
    }
    *outLen = n;
    return 0;
}

int COBDCtrl::ReceiveData(unsigned char* data, int len) {
    if (data == nullptr) {
        std::printf("[CGDSBoardCtrl::ReceiveData] pData is NULL\n");
        std::fflush(stdout);
        return -1;
    }
    if (len < 0) return -1;  // a negative count carries no bytes

    // Serial reads (peripheral thread) and relayed bytes (bus thread) never mix in the buffer.
    std::lock_guard<std::mutex> lock(m_recvMutex);
    // A command released by an answer in this read goes on only once the read is handled: the
    // clear at its end would discard the box's next answer, were the next request already out.
    struct Handling {
        COBDCtrl* c;
        ~Handling() {
            c->m_bReceiving = false;
            c->OBD_WakeCmdWait();
        }
    } handling{this};
    m_bReceiving = true;
    // Deliberately no size limit: a full host read (1024 bytes) is taken in pieces that fit.
    // CutFrames always leaves room: what it keeps is shorter than a frame that fits the buffer.
    int pos = 0;
    do {
        const int n = std::min(len - pos, OBD_RECV_MAX - m_recvLen);
        if (n > 0) std::memcpy(m_recvBuf.get() + m_recvLen, data + pos, static_cast<size_t>(n));
        m_recvLen += n;
        pos += n;
        CutFrames(pos == len);
    } while (pos < len);
    return 0;
}

void COBDCtrl::CutFrames(bool endOfRead) {
    unsigned char* const buf = m_recvBuf.get();
    // Keeps the last `keep` bytes at the start of the buffer and zeroes the rest.
    const auto keepTail = [&](int keep) {
        std::memmove(buf, buf + m_recvLen - keep, static_cast<size_t>(keep));
        std::memset(buf + keep, 0, static_cast<size_t>(OBD_RECV_BUF_SIZE - keep));
        m_recvLen = keep;
    };
    char raw[OBD_RECV_BUF_SIZE];
    char plain[OBD_RECV_BUF_SIZE];
    while (m_recvLen >= 1) {
        int head = FindHead(buf, m_recvLen);
        // A length that could never fit the buffer cannot belong to a frame: such a "head" is
        // noise, and waiting for it would only hold back the good frames behind it.
        while (head >= 0 && FrameLength(buf, m_recvLen, head) + kFrameExtra > OBD_RECV_MAX) {
            const int next = FindHead(buf + head + 1, m_recvLen - head - 1);
            head = next < 0 ? -1 : head + 1 + next;
        }
        if (head < 0) {
            // Deliberately kept: bytes that may begin a head, since a read may end inside one.
            const int keep = HeadStartAtEnd(buf, m_recvLen);
            const int drop = m_recvLen - keep;
            if (drop > 0) {
                std::printf("####Analy original data failed, no frame head and tail, length = %d\n",
                            drop);
                for (int i = 0; i < drop; ++i) std::printf("0x%x ", buf[i]);
                std::printf("\n\n");
                std::fflush(stdout);
            }
            keepTail(keep);
            return;
        }
        const int l = FrameLength(buf, m_recvLen, head);
        const int end = head + kSeqOffset + l;  // index of the checksum byte
        if (end >= m_recvLen) {
            keepTail(m_recvLen - head);  // incomplete: keep it from its head on, wait for the rest
            return;
        }
        int frameLen = l + kFrameExtra;
        int handLen = l;
        std::memset(plain, 0, sizeof(plain));
        int plainLen = 0;
        ReverseTransferredContent(reinterpret_cast<const char*>(buf + head), frameLen, plain,
                                  &plainLen);
        if (plainLen < frameLen) {
            // Whether the box counts its escape pairs in L is its own choice: the checksum tells.
            const int matched = MatchEscapedFrame(buf + head, m_recvLen - head, plain, &plainLen,
                                                  &m_escapeCountsPairs);
            if (matched < 0) {
                keepTail(m_recvLen - head);  // the longer reading is not complete yet
                return;
            }
            if (matched > 0) {
                frameLen = matched;
                handLen = plainLen - kFrameExtra;
                std::memset(plain + plainLen, 0, sizeof(plain) - static_cast<size_t>(plainLen));
            } else {
                std::memset(plain, 0, sizeof(plain));
                ReverseTransferredContent(reinterpret_cast<const char*>(buf + head), frameLen,
                                          plain, &plainLen);
            }
        }
        std::memcpy(raw, buf + head, static_cast<size_t>(frameLen));
        if (m_pOwner != nullptr && m_pOwner->PeripheralManage() != nullptr) {
            m_pOwner->PeripheralManage()->hex_dump("one obd data:", raw,
                                                   static_cast<unsigned int>(frameLen), 3);
        }
        if (HandleData(plain + kSeqOffset, handLen) == -1) {
            OBD_CTRL_LOG(0, "####Analy original data failed, crc error, length = %d\n", frameLen);
        }
        keepTail(m_recvLen - (head + frameLen));
        // The host's buffer is cleared once a read is used up exactly by its frames.
        if (m_recvLen == 0 && endOfRead && m_pOwner != nullptr) m_pOwner->ClearSerialBufferValue();
    }
}
