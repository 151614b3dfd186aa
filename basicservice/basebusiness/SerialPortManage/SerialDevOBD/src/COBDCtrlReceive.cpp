// Frame receiver: reassembly of serial reads, head search, cutting by length, unescaping and
// hand-off to the dispatcher.
//
// Untrusted input. Everything here comes from the wire. A length field is only believed as far
// as the bytes really buffered: a frame is cut only once its last byte (index head + 6 + L) lies
// below the fill count, and the fill count never exceeds 1023, so a copy of L + 7 bytes always
// stays inside the 1024-byte buffers. The dispatcher gets L, never more than was received, and
// the parsers behind it bound every count and text length by the payload and by their record.
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
    // A negative count carries no bytes; refuse it like an oversized read.
    if (len > OBD_RECV_MAX || len < 0) return -1;

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
    if (m_recvLen + len > OBD_RECV_MAX) {
        std::memset(m_recvBuf, 0, sizeof(m_recvBuf));
        m_recvLen = 0;
    }
    if (len > 0) std::memcpy(m_recvBuf + m_recvLen, data, static_cast<size_t>(len));
    m_recvLen += len;

    char raw[OBD_RECV_BUF_SIZE];
    char plain[OBD_RECV_BUF_SIZE];
    while (m_recvLen >= 1) {
        int head = FindHead(m_recvBuf, m_recvLen);
        // A length that could never fit the buffer cannot belong to a frame: such a "head" is
        // noise, and waiting for it would only hold back the good frames behind it.
        while (head >= 0) {
            const int l = (m_recvBuf[head + kLenOffset] << 8) | m_recvBuf[head + kLenOffset + 1];
            if (l + kFrameExtra <= OBD_RECV_MAX) break;  // (a partly received L only grows)
            const int next = FindHead(m_recvBuf + head + 1, m_recvLen - head - 1);
            head = next < 0 ? -1 : head + 1 + next;
        }
        if (head < 0) {
            std::printf("####Analy original data failed, no frame head and tail, length = %d\n",
                        m_recvLen);
            for (int i = 0; i < m_recvLen; ++i) std::printf("0x%x ", m_recvBuf[i]);
            std::printf("\n\n");
            std::fflush(stdout);
            std::memset(m_recvBuf, 0, sizeof(m_recvBuf));
            m_recvLen = 0;
            return 0;
        }
        // Bytes past the fill count are zero, so a length not yet received reads as short and
        // the frame below counts as incomplete.
        const int l = (m_recvBuf[head + kLenOffset] << 8) | m_recvBuf[head + kLenOffset + 1];
        const int end = head + kSeqOffset + l;  // index of the checksum byte
        if (end >= m_recvLen) {
            // Incomplete: keep it from its head on and wait for the rest.
            const int keep = m_recvLen - head;
            std::memmove(m_recvBuf, m_recvBuf + head, static_cast<size_t>(keep));
            std::memset(m_recvBuf + keep, 0, static_cast<size_t>(OBD_RECV_BUF_SIZE - keep));
            m_recvLen = keep;
            return 0;
        }
        const int frameLen = l + kFrameExtra;
        std::memcpy(raw, m_recvBuf + head, static_cast<size_t>(frameLen));
        if (m_pOwner != nullptr && m_pOwner->PeripheralManage() != nullptr) {
            m_pOwner->PeripheralManage()->hex_dump("one obd data:", raw,
                                                   static_cast<unsigned int>(frameLen), 3);
        }
        std::memset(plain, 0, sizeof(plain));
        int plainLen = 0;
        ReverseTransferredContent(raw, frameLen, plain, &plainLen);
        if (HandleData(plain + kSeqOffset, l) == -1) {
            OBD_CTRL_LOG(0, "####Analy original data failed, crc error, length = %d\n", frameLen);
        }
        const int consumed = end + 1;
        if (consumed >= m_recvLen) {
            std::memset(m_recvBuf, 0, sizeof(m_recvBuf));
            m_recvLen = 0;
            if (m_pOwner != nullptr) m_pOwner->ClearSerialBufferValue();
            return 0;
        }
        const int rest = m_recvLen - consumed;
        std::memmove(m_recvBuf, m_recvBuf + consumed, static_cast<size_t>(rest));
        std::memset(m_recvBuf + rest, 0, static_cast<size_t>(OBD_RECV_BUF_SIZE - rest));
        m_recvLen = rest;
    }
    return 0;
}
