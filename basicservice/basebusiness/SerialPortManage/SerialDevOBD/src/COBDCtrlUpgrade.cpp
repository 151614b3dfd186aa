// Firmware transfer to the box: start, file name and size, the file in 256-byte chunks, its MD5
// text, end. Every step is one command (OBD_SendCmd) and every change of the progress record
// goes to the owner's store, which turns it into the upgrade-state broadcasts.
//
// Runs on the send thread only; m_upgState and m_upgPercent are its own. The file is deleted
// only after the box has accepted the end, so a transfer that stopped half-way can be retried.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "COBDCtrl.h"
#include "SerialDevOBD.h"
#include "md5.h"

namespace {

// Steps and their timeouts (ms) and retries. A silent box holds a full chunk for at most
// 4 x 550 ms before the transfer gives up.
constexpr int kStepTimeoutMs = 2000;
constexpr int kStepRetries = 10;
constexpr int kChunkTimeoutMs = 500;
constexpr int kLastChunkTimeoutMs = 2000;
constexpr int kChunkRetries = 3;
// Offset (4) and length (2) in front of a chunk's bytes; the packet buffer has room to spare.
constexpr int kChunkHead = 6;
constexpr size_t kChunkPacket = 268;
constexpr size_t kReadBlock = 65536;
constexpr int kMd5TextLen = 32;

void PutBe(unsigned char* p, uint32_t v, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) {
        p[i] = static_cast<unsigned char>(v & 0xFFu);
        v >>= 8;
    }
}

void Trace(int line) {
    std::printf("--------------------------------------------Function:%s Line:%d\n",
                "OBD_UpgradeProc", line);
    std::fflush(stdout);
}

// Size of the file at `path`, or -1 with the C library's message. The message names the file:
// the path is fixed at build time, and a missing file is the usual field fault.
long long FileSize(const char* path) {
    struct stat64 st;
    if (path == nullptr) {
        std::perror("stat64()");
        return -1;
    }
    if (stat64(path, &st) != 0) {
        const int error = errno;
        std::fprintf(stderr, "stat64(): %s: %s\n", path, std::strerror(error));
        return -1;
    }
    return static_cast<long long>(st.st_size);
}

// The box is told sizes and offsets in 32 bits: a file that does not fit cannot be described.
constexpr long long kMaxFileSize = 0xFFFFFFFFLL;

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;
struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};
using Buffer = std::unique_ptr<unsigned char, FreeDeleter>;

}  // namespace

void COBDCtrl::ReportUpgrade() {
    UpgradeProgress_t record{m_upgState, m_upgPercent};
    if (m_pOwner != nullptr) m_pOwner->UpdateDevInfo(ID_DATA_UPGRADE_STATE, &record);
}

void COBDCtrl::OBD_SetUpgradePercent(int percent) {
    m_upgPercent = percent;
    ReportUpgrade();
    std::printf("\nUpgrading :%d/100\n", percent);
    std::fflush(stdout);
}

int COBDCtrl::OBD_UpgradeProc(char* path) {
    int r = -1;
    if (path != nullptr) {
        m_upgState = UPG_STATE_START;
        m_upgPercent = 0;
        ReportUpgrade();
        Trace(__LINE__);
        OBD_StopTs();  // the stream would only crowd the line; restarted after the task
        Trace(__LINE__);
        r = OBD_SendCmd(OBD_CMD_UPG_START, OBD_CMD_UPG_START_ACK, nullptr, kStepTimeoutMs,
                        kStepRetries);
        if (r == 0) {
            Trace(__LINE__);
            char name[] = "DOWNLOAD.BIN";  // what the box expects, whatever the path
            r = OBD_UpgradeSendFileName(name, path);
        }
        if (r == 0) {
            m_upgState = UPG_STATE_PROGRESS;
            ReportUpgrade();
            Trace(__LINE__);
            r = OBD_UpgradeSendFile(path);
        }
        if (r == 0) {
            Trace(__LINE__);
            r = OBD_UpgradeSendMD5(path);
        }
        if (r == 0) {
            Trace(__LINE__);
            r = OBD_SendCmd(OBD_CMD_UPG_END, OBD_CMD_UPG_END_ACK, nullptr, kStepTimeoutMs,
                            kStepRetries);
        }
        if (r == 0) {
            m_upgPercent = 100;
            m_upgState = UPG_STATE_SUCCESS;
            ReportUpgrade();
            unlink(path);
            return 0;
        }
    }
    // The percent stays what the last full chunk reported; the file stays for the next try.
    m_upgState = UPG_STATE_FAILED;
    ReportUpgrade();
    return r;
}

int COBDCtrl::OBD_UpgradeSendFileName(char* name, char* path) {
    if (name == nullptr) return -1;
    const size_t n = std::strlen(name) + 1;
    if (n > static_cast<size_t>(OBD_UPG_NAME_MAX) + 1) return -1;
    const long long size = FileSize(path);
    if (size < 0 || size > kMaxFileSize) return -1;
    unsigned char packet[OBD_UPG_NAME_PACKET] = {};
    PutBe(packet, static_cast<uint32_t>(n), 2);
    std::memcpy(packet + 2, name, n);
    PutBe(packet + 2 + n, static_cast<uint32_t>(size), 4);
    _OBD_PkgInData_t in{static_cast<int>(n) + 6, reinterpret_cast<char*>(packet)};
    return OBD_SendCmd(OBD_CMD_UPG_FILE_NAME, OBD_CMD_UPG_FILE_NAME_ACK, &in, kStepTimeoutMs,
                       kStepRetries);
}

int COBDCtrl::OBD_UpgradeSendFile(char* path) {
    if (path == nullptr) return -1;
    const long long size = FileSize(path);
    if (size < 0) return -1;
    File file(std::fopen(path, "rb"));
    Buffer packet(static_cast<unsigned char*>(std::malloc(kChunkPacket)));
    Buffer block(static_cast<unsigned char*>(std::malloc(kReadBlock)));
    if (!file || !packet || !block) return -1;

    // Sends one chunk of `len` bytes at `offset`: 500 ms an attempt for a full chunk, 2 s for the
    // shorter last one.
    auto send = [&](uint32_t offset, const unsigned char* data, int len) {
        std::memset(packet.get(), 0, kChunkPacket);
        PutBe(packet.get(), offset, 4);
        PutBe(packet.get() + 4, static_cast<uint32_t>(len), 2);
        std::memcpy(packet.get() + kChunkHead, data, static_cast<size_t>(len));
        _OBD_PkgInData_t in{kChunkHead + len, reinterpret_cast<char*>(packet.get())};
        return OBD_SendCmd(OBD_CMD_UPG_FILE_DATA, OBD_CMD_UPG_FILE_DATA_ACK, &in,
                           len == OBD_UPG_CHUNK ? kChunkTimeoutMs : kLastChunkTimeoutMs,
                           kChunkRetries);
    };
    uint64_t offset = 0;
    while (std::feof(file.get()) == 0) {
        const size_t got = std::fread(block.get(), 1, kReadBlock, file.get());
        if (got == 0) {
            if (std::ferror(file.get()) != 0) return -1;
            break;
        }
        const size_t full = got / OBD_UPG_CHUNK;
        for (size_t k = 0; k < full; ++k) {
            const int r =
                send(static_cast<uint32_t>(offset), block.get() + k * OBD_UPG_CHUNK, OBD_UPG_CHUNK);
            if (r != 0) return r;
            offset += OBD_UPG_CHUNK;
            // 64 bits: offset x 100 overflows 32 bits from 42,949,673 bytes on. A file that grew
            // since its size was taken reports no more than 100.
            const uint64_t total = static_cast<uint64_t>(size);
            OBD_SetUpgradePercent(offset >= total ? 100 : static_cast<int>(offset * 100 / total));
        }
        const int rest = static_cast<int>(got % OBD_UPG_CHUNK);
        if (rest != 0) {
            const int r =
                send(static_cast<uint32_t>(offset), block.get() + full * OBD_UPG_CHUNK, rest);
            if (r != 0) return r;
            offset += static_cast<uint64_t>(rest);
        }
    }
    return 0;
}

int COBDCtrl::OBD_UpgradeSendMD5(char* path) {
    const long long size = FileSize(path);
    if (size < 0) return -1;
    std::printf("fileState.st_size:%d\n", static_cast<int>(size));
    File file(std::fopen(path, "rb"));
    Buffer block(static_cast<unsigned char*>(std::malloc(kReadBlock)));
    if (!file || !block) return -1;
    // The digest of the file's first `size` bytes, the ones its size announced, read in blocks
    // rather than whole: a firmware image need not sit in memory twice.
    MD5_CTX ctx;
    kestrel_MD5Init(&ctx);
    uint64_t left = static_cast<uint64_t>(size);
    while (left > 0) {
        const size_t want = left < kReadBlock ? static_cast<size_t>(left) : kReadBlock;
        const size_t got = std::fread(block.get(), 1, want, file.get());
        if (got == 0) break;
        kestrel_MD5Update(&ctx, block.get(), static_cast<unsigned int>(got));
        left -= got;
    }
    file.reset();
    unsigned char digest[16];
    kestrel_MD5Final(digest, &ctx);
    std::printf("out_md: ");
    for (unsigned char b : digest) std::printf("%x ", b);
    std::printf("\n");
    char text[kMd5TextLen + 1];
    for (int i = 0; i < 16; ++i) std::snprintf(text + 2 * i, 3, "%02x", digest[i]);
    std::printf("MD5Out:%s\n", text);
    std::fflush(stdout);
    _OBD_PkgInData_t in{kMd5TextLen, text};
    return OBD_SendCmd(OBD_CMD_UPG_MD5, OBD_CMD_UPG_MD5_ACK, &in, kStepTimeoutMs, kStepRetries);
}
