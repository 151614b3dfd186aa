// Payload parsers of the box's answers. See COBDParser.h for the rule on what does not fit.
#include "COBDParser.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

namespace {

const unsigned char* Bytes(const char* p) {
    return reinterpret_cast<const unsigned char*>(p);
}

uint32_t U16Be(const unsigned char* p) {
    return (static_cast<uint32_t>(p[0]) << 8) | p[1];
}

uint32_t U32Be(const unsigned char* p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | p[3];
}

struct TextField {
    char* dst;
    int size;
};

// Walks texts {uint16 n, n bytes} into the fields in order. A text of length 0, too long for its
// field or running past the payload leaves the field empty; a refused text is still skipped
// whole, so the next one is read at its place. Once the walk has left the payload, the remaining
// fields are empty too.
void ParseTexts(const unsigned char* p, int len, const TextField* fields, int count) {
    int pos = 0;
    for (int k = 0; k < count; ++k) {
        char* dst = fields[k].dst;
        dst[0] = '\0';
        if (pos + 2 > len) continue;
        const int n = static_cast<int>(U16Be(p + pos));
        pos += 2;
        if (n >= 1 && n <= fields[k].size - 1 && pos + n <= len) {
            std::memcpy(dst, p + pos, static_cast<size_t>(n));
            dst[n] = '\0';
        }
        pos += n;
    }
}

}  // namespace

int COBDParser::OBD_ParserHwVer(char* payload, int len, _OBD_Version_t* out) {
    if (payload == nullptr || out == nullptr) return -1;
    const TextField fields[] = {{out->HwName, sizeof(out->HwName)},
                                {out->DevSerialNum, sizeof(out->DevSerialNum)},
                                {out->HWVer, sizeof(out->HWVer)},
                                {out->VerDate, sizeof(out->VerDate)},
                                {out->DevType, sizeof(out->DevType)}};
    ParseTexts(Bytes(payload), len, fields, 5);
    return 0;
}

int COBDParser::OBD_ParserSwVer(char* payload, int len, _OBD_Version_t* out) {
    if (payload == nullptr || out == nullptr) return -1;
    const TextField fields[] = {{out->BootVer, sizeof(out->BootVer)},
                                {out->DLVer, sizeof(out->DLVer)},
                                {out->DiagSWVer, sizeof(out->DiagSWVer)}};
    ParseTexts(Bytes(payload), len, fields, 3);
    return 0;
}

int COBDParser::OBD_ParserEngineInfo(char* payload, int len, _OBD_Engine_t* out) {
    if (payload == nullptr || out == nullptr || len < 2) return -1;
    out->engine_id = static_cast<uint16_t>(U16Be(Bytes(payload)));
    return 0;
}

int COBDParser::OBD_ParserScanTimeLevel(char* payload, int len, _OBD_ScanTimeLevel_t* out) {
    if (payload == nullptr || out == nullptr || len < 1) return -1;
    const unsigned char* p = Bytes(payload);
    constexpr int kEntry = 5;
    int n = p[0];
    if (n > OBD_LEVEL_MAX) n = OBD_LEVEL_MAX;
    if (n > (len - 1) / kEntry) n = (len - 1) / kEntry;
    out->num = n;
    for (int k = 0; k < n; ++k) {
        const unsigned char* e = p + 1 + static_cast<ptrdiff_t>(k) * kEntry;
        out->item[k].level = e[0];
        out->item[k].time = U32Be(e + 1);
    }
    return 0;
}

int COBDParser::OBD_ParserDataStreamLevelInfo(char* payload, int len, _OBD_DataStreamLevel_t* out) {
    if (payload == nullptr || out == nullptr || len < 1) return -1;
    const unsigned char* p = Bytes(payload);
    const int announced = p[0];
    int pos = 1;
    int k = 0;
    while (k < announced && k < OBD_LEVEL_MAX && pos + 2 <= len) {
        const int n = p[pos + 1];
        int copy = n < len - pos - 2 ? n : len - pos - 2;
        if (copy > OBD_LEVEL_DATA_MAX) copy = OBD_LEVEL_DATA_MAX;
        out->item[k].level = p[pos];
        out->item[k].len = copy;
        std::memcpy(out->item[k].data, p + pos + 2, static_cast<size_t>(copy));
        pos += 2 + n;
        ++k;
    }
    out->num = k;
    return 0;
}

int COBDParser::OBD_ParserUpgAck(char* payload, int len, int* result) {
    if (payload == nullptr || result == nullptr || len < 1) return -1;
    const int status = Bytes(payload)[0];
    // 4 is the box's "accepted"; 0 stays 0 and counts as accepted too.
    *result = status == 4 ? 0 : status;
    return 0;
}

int COBDParser::OBD_ParserCommonPack(char* payload, int len, int* result) {
    if (payload == nullptr || result == nullptr) {
        std::printf("[GDS_ParserCommonPack]:iPacketData or oResult data buffer is NULL\n");
        std::fflush(stdout);
        return -1;
    }
    const unsigned char* p = Bytes(payload);
    if (len != 1) {
        std::printf(
            "[GDS_ParserCommonPack]: illegal data. Response data length is not correct...\n");
        for (int i = 0; i < len; ++i) std::printf("0x%x ", p[i]);
        std::printf("\n");
        std::fflush(stdout);
        return -1;
    }
    std::printf("0x%x \n", p[0]);
    std::fflush(stdout);
    *result = p[0];
    return 0;
}

int COBDParser::OBD_ParserCfgEngineAck(char* payload, int len, int* result) {
    return OBD_ParserCommonPack(payload, len, result);
}

namespace {
int NoVerdict(const char* payload, int* result) {
    if (payload == nullptr || result == nullptr) return -1;
    *result = 0;
    return 0;
}
}  // namespace

int COBDParser::OBD_ParserStartTsAck(char* payload, int, int* result) {
    return NoVerdict(payload, result);
}
int COBDParser::OBD_ParserCloseTsAck(char* payload, int, int* result) {
    return NoVerdict(payload, result);
}
int COBDParser::OBD_ParserCfgSTLAck(char* payload, int, int* result) {
    return NoVerdict(payload, result);
}
int COBDParser::OBD_ParserCfgDSLAck(char* payload, int, int* result) {
    return NoVerdict(payload, result);
}
