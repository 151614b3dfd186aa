// Commands towards the box: framing, sending, the wait for the answer, retries, the wrappers
// with their payloads, and the two dispatchers the send thread calls for queued tasks.
//
// One command is in flight at a time: only the send thread sends commands. The power-down
// handler's single stop frame shares the sequence counter, so every frame takes its number and is
// written under m_sendMutex. No lock is held while a command waits.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "COBDCtrl.h"
#include "ObdLog.h"
#include "SerialDevOBD.h"

namespace {

constexpr int kNoPayloadBufSize = 140;
constexpr int kStartTsPayload = 5;
constexpr int kCfgEnginePayload = 10;
constexpr int kStlEntryBytes = 5;

void PutU32Be(unsigned char* p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}

// Entries a configuration record asks for, capped at what the record holds: a count beyond
// that would make us read past the record, and the box could not be told more anyway.
int CappedCount(int32_t num) {
    const int n = static_cast<int>(static_cast<uint32_t>(num) & 0xFFu);
    return n > OBD_LEVEL_MAX ? OBD_LEVEL_MAX : n;
}

}  // namespace

int COBDCtrl::OBD_SendData(char* data, int len) {
    if (data == nullptr || m_pOwner == nullptr) return -1;
    m_pOwner->SendData(data, len);
    return 0;
}

int COBDCtrl::OBD_GenerateObdPackage(obdcmd_t cmd, _OBD_PkgInData_t* in, char* out, int outSize,
                                     int retry) {
    if (out == nullptr || cmd < 0 || cmd >= OBD_CMD_COUNT) return -1;
    // A repetition keeps the number of its command's first attempt, even when the power-down's
    // stop took the next number in between.
    const uint32_t seq = retry == 0 ? (m_cmdSeqNo = ++m_seqNo) : m_cmdSeqNo.load();
    return BuildFrame(cmd, in, out, outSize, seq);
}

int COBDCtrl::BuildFrame(obdcmd_t cmd, _OBD_PkgInData_t* in, char* out, int outSize, uint32_t seq) {
    const uint16_t code = ObdCmdArray[cmd];
    const int payloadLen =
        in != nullptr ? static_cast<int>(static_cast<uint32_t>(in->length) & 0xFFFFu) : 0;
    if (payloadLen + OBD_FRAME_OVERHEAD > outSize) return -1;
    if (payloadLen > 0 && in->data == nullptr) return -1;

    auto* f = reinterpret_cast<unsigned char*>(out);
    const int l = payloadLen + 3;
    f[0] = 0x55;
    f[1] = 0xAA;
    f[2] = 0xF0;
    f[3] = 0xF8;
    f[4] = static_cast<unsigned char>(l >> 8);
    f[5] = static_cast<unsigned char>(l & 0xFF);
    f[6] = static_cast<unsigned char>(seq & 0xFFu);
    f[7] = static_cast<unsigned char>(code >> 8);
    f[8] = static_cast<unsigned char>(code & 0xFF);
    if (payloadLen > 0) std::memcpy(f + 9, in->data, static_cast<size_t>(payloadLen));
    f[9 + payloadLen] = CalXOR(out + 2, 7 + payloadLen);
    return payloadLen + OBD_FRAME_OVERHEAD;
}

int COBDCtrl::OBD_ExecuteCmd(obdcmd_t cmd, _OBD_PkgInData_t* in, int retry) {
    const int payloadLen =
        in != nullptr ? static_cast<int>(static_cast<uint32_t>(in->length) & 0xFFFFu) : 0;
    const int size = in != nullptr ? payloadLen + 12 : kNoPayloadBufSize;
    char* buf = static_cast<char*>(std::calloc(static_cast<size_t>(size), 1));
    if (buf == nullptr) return -1;
    // One frame at a time, numbered as it leaves: the power-down's stop comes from the bus thread.
    std::lock_guard<std::mutex> lock(m_sendMutex);
    const int frameLen = OBD_GenerateObdPackage(cmd, in, buf, size, retry);
    if (frameLen <= 0) {
        std::free(buf);
        return 0;
    }
    // Stored before the frame leaves: a box that answers faster than this thread returns from
    // the write must still find its command awaited, or the answer would release nobody and the
    // request would be repeated after a full timeout.
    m_waitCmd = cmd;
    const int r = OBD_SendData(buf, frameLen);
    std::free(buf);
    return r;
}

namespace {

struct CmdWait {
    const std::atomic<obdcmd_t>* state;
    obdcmd_t awaited;
    const std::atomic<bool>* receiving;
    const std::atomic<int>* cancelled;
};

// What ends a command's wait before its deadline: the answer, or the box's refusal, once the
// read that carried it has been handled; or the release's cancel. Whatever else should end a wait
// early belongs here, with an OBD_WakeCmdWait() where it is set.
bool CmdSettled(void* arg) {
    const auto* w = static_cast<const CmdWait*>(arg);
    // Cancelled: after release nobody reads the answer, so waiting on would only delay it.
    if (w->cancelled->load() != 0) return true;
    const obdcmd_t state = w->state->load();
    return (state == w->awaited || state == OBD_CMD_FAIL) && !w->receiving->load();
}

}  // namespace

// Why not a plain poll of m_waitCmd every 50 ms: an answer would wait for the next poll, so every
// command cost at least one whole step although the line needs about 25 ms even for a firmware
// chunk, which halved the upgrade's speed. The wait sleeps instead on m_cmdEvent, which the
// receiver notifies when the read that moved the state has been handled, and ends then. Its
// deadline is what the poll slept in all, n + 1 steps of 50 ms, so a command that is not
// answered times out at the same host time as before (2050 ms for 2000).
int COBDCtrl::OBD_WaitCmd(obdcmd_t awaited, int timeoutMs) {
    const int steps = timeoutMs / OBD_WAIT_STEP_MS;
    CmdWait wait{&m_waitCmd, awaited, &m_bReceiving, &m_bCancelled};
    if (steps >= 0) {
        const uint64_t us = (static_cast<uint64_t>(steps) + 1) * OBD_WAIT_STEP_US;
        const uint64_t most = std::numeric_limits<unsigned int>::max();
        m_cmdEvent.WaitMicroSecond(static_cast<unsigned int>(us < most ? us : most), CmdSettled,
                                   &wait);
    }
    const obdcmd_t state = m_waitCmd.load();
    if (state == awaited) return 0;
    if (state == OBD_CMD_FAIL) return 1;
    return 2;  // timed out, or cancelled
}

int COBDCtrl::OBD_SendCmd(obdcmd_t request, obdcmd_t awaited, _OBD_PkgInData_t* in, int timeoutMs,
                          int retries) {
    for (int k = 0; k <= retries; ++k) {
        // Release has begun and nobody reads the answers: give up rather than retry for a minute.
        if (m_bCancelled.load() != 0) return -1;
        OBD_ExecuteCmd(request, in, k != 0 ? 1 : 0);
        if (OBD_WaitCmd(awaited, timeoutMs) == 0) return 0;
    }
    return -1;
}

void COBDCtrl::OBD_CancelCommands() {
    m_bCancelled = 1;
    OBD_WakeCmdWait();
}

int COBDCtrl::OBD_ReadVersion() {
    // Behind the CAN box only the software version can be read.
    if (m_bCanBoxMode == 0) {
        const int r = OBD_SendCmd(OBD_CMD_READ_HW_VER, OBD_CMD_READ_HW_VER_ACK, nullptr,
                                  OBD_CMD_TIMEOUT_MS, OBD_CMD_RETRIES);
        if (r != 0) return r;
    }
    return OBD_SendCmd(OBD_CMD_READ_SW_VER, OBD_CMD_READ_SW_VER_ACK, nullptr, OBD_CMD_TIMEOUT_MS,
                       OBD_CMD_RETRIES);
}

int COBDCtrl::OBD_ReadScanTimeLevel() {
    return OBD_SendCmd(OBD_CMD_READ_STL, OBD_CMD_READ_STL_ACK, nullptr, OBD_CMD_TIMEOUT_MS,
                       OBD_CMD_RETRIES);
}

int COBDCtrl::OBD_ReadDataScanLevel() {
    return OBD_SendCmd(OBD_CMD_READ_DSL, OBD_CMD_READ_DSL_ACK, nullptr, OBD_CMD_TIMEOUT_MS,
                       OBD_CMD_RETRIES);
}

int COBDCtrl::OBD_ReadEngine() {
    return OBD_SendCmd(OBD_CMD_READ_ENGINE, OBD_CMD_READ_ENGINE_ACK, nullptr, OBD_CMD_TIMEOUT_MS,
                       OBD_CMD_RETRIES);
}

int COBDCtrl::OBD_ReadFaultCode() {
    return OBD_SendCmd(OBD_CMD_READ_FAULT_CODE, OBD_CMD_READ_FAULT_CODE_ACK, nullptr,
                       OBD_CMD_TIMEOUT_MS, OBD_CMD_RETRIES);
}

int COBDCtrl::OBD_Link() {
    // Released only by an engine answer; the box's own link frames set the heartbeat instead.
    return OBD_SendCmd(OBD_CMD_LINK, OBD_CMD_READ_ENGINE_ACK, nullptr, OBD_CMD_TIMEOUT_MS,
                       OBD_CMD_RETRIES);
}

int COBDCtrl::OBD_Restart() {
    std::printf("====================restart OBD===============\n");
    std::fflush(stdout);
    // Not answered: sent twice and reported as -1.
    return OBD_SendCmd(OBD_CMD_RESTART, OBD_CMD_NONE, nullptr, OBD_RESET_TIMEOUT_MS,
                       OBD_RESET_RETRIES);
}

int COBDCtrl::OBD_JumpApp() {
    return OBD_SendCmd(OBD_CMD_JUMP_APP, OBD_CMD_NONE, nullptr, OBD_RESET_TIMEOUT_MS,
                       OBD_RESET_RETRIES);
}

int COBDCtrl::OBD_StartTs() {
    char payload[kStartTsPayload] = {static_cast<char>(0xFF), 0, 0, 0, 0};
    _OBD_PkgInData_t in{kStartTsPayload, payload};
    return OBD_SendCmd(OBD_CMD_START_TS, OBD_CMD_START_TS_ACK, &in, OBD_CMD_TIMEOUT_MS,
                       OBD_CMD_RETRIES);
}

int COBDCtrl::OBD_StopTs() {
    return OBD_SendCmd(OBD_CMD_STOP_TS, OBD_CMD_STOP_TS_ACK, nullptr, OBD_CMD_TIMEOUT_MS,
                       OBD_CMD_RETRIES);
}

int COBDCtrl::OBD_StopTsNoWait() {
    // Behind the CAN box a stop is never relayed (see SendData): there is nothing to send.
    if (m_bCanBoxMode != 0) return -1;
    char frame[OBD_FRAME_OVERHEAD];
    std::lock_guard<std::mutex> lock(m_sendMutex);
    // The awaited command stays as it is: this frame is not waited for, and the send thread's
    // command in hand must still be released by its own answer.
    const int len = BuildFrame(OBD_CMD_STOP_TS, nullptr, frame, sizeof(frame), ++m_seqNo);
    return OBD_SendData(frame, len);
}

int COBDCtrl::OBD_CfgEngine(void* engine) {
    if (engine == nullptr) return -1;
    _OBD_Engine_t rec;
    std::memcpy(&rec, engine, sizeof(rec));  // the task payload need not be aligned
    unsigned char payload[kCfgEnginePayload] = {};
    payload[0] = static_cast<unsigned char>(rec.engine_id >> 8);
    payload[1] = static_cast<unsigned char>(rec.engine_id & 0xFF);
    _OBD_PkgInData_t in{kCfgEnginePayload, reinterpret_cast<char*>(payload)};
    const int r = OBD_SendCmd(OBD_CMD_CFG_ENGINE, OBD_CMD_CFG_ENGINE_ACK, &in, OBD_CMD_TIMEOUT_MS,
                              OBD_CMD_RETRIES);
    // A box that never answered (or, behind the CAN box, was never asked) would leave the
    // requester of the calibration waiting for good: it is told of the failure. A local, not
    // m_demarcateResult, which the receiving thread writes.
    if (r != 0 && m_pOwner != nullptr) {
        int failed = -1;
        m_pOwner->UpdateDevInfo(ID_DATA_DEMARCATE_RESULT, &failed);
    }
    return r;
}

int COBDCtrl::OBD_CfgScanTimeLevel(void* levels) {
    if (levels == nullptr) return -1;
    _OBD_ScanTimeLevel_t rec;
    std::memcpy(&rec, levels, sizeof(rec));
    unsigned char payload[1 + OBD_LEVEL_MAX * kStlEntryBytes] = {};
    const int n = CappedCount(rec.num);
    int p = 0;
    payload[p++] = static_cast<unsigned char>(n);
    for (int k = 0; k < n; ++k) {
        payload[p++] = static_cast<unsigned char>(static_cast<uint32_t>(rec.item[k].level) & 0xFF);
        PutU32Be(payload + p, rec.item[k].time);
        p += 4;
    }
    _OBD_PkgInData_t in{p, reinterpret_cast<char*>(payload)};
    return OBD_SendCmd(OBD_CMD_CFG_STL, OBD_CMD_CFG_STL_ACK, &in, OBD_CMD_TIMEOUT_MS,
                       OBD_CMD_RETRIES);
}

int COBDCtrl::OBD_CfgDataScanLevel(void* levels) {
    if (levels == nullptr) return -1;
    _OBD_DataStreamLevel_t rec;
    std::memcpy(&rec, levels, sizeof(rec));
    unsigned char payload[1 + OBD_LEVEL_MAX * (2 + OBD_LEVEL_DATA_MAX)] = {};
    const int n = CappedCount(rec.num);
    int p = 0;
    payload[p++] = static_cast<unsigned char>(n);
    for (int k = 0; k < n; ++k) {
        // Same rule as the count: never more data bytes than the entry holds.
        int len = static_cast<int>(static_cast<uint32_t>(rec.item[k].len) & 0xFFu);
        if (len > OBD_LEVEL_DATA_MAX) len = OBD_LEVEL_DATA_MAX;
        payload[p++] = static_cast<unsigned char>(static_cast<uint32_t>(rec.item[k].level) & 0xFF);
        payload[p++] = static_cast<unsigned char>(len);
        std::memcpy(payload + p, rec.item[k].data, static_cast<size_t>(len));
        p += len;
    }
    _OBD_PkgInData_t in{p, reinterpret_cast<char*>(payload)};
    return OBD_SendCmd(OBD_CMD_CFG_DSL, OBD_CMD_CFG_DSL_ACK, &in, OBD_CMD_TIMEOUT_MS,
                       OBD_CMD_RETRIES);
}

int COBDCtrl::OBD_ReadInfoProc(GdsGetInfoType_t_ type) {
    // Answers must not drown in the data stream; the send thread restarts it after the task.
    const int stopped = m_bCanBoxMode == 0 ? OBD_StopTs() : -1;
    switch (type) {
        case GDS_GET_VERSION:
            return OBD_ReadVersion();
        case GDS_GET_SCAN_TIME_LEVEL:
            return OBD_ReadScanTimeLevel();
        case GDS_GET_DATA_SCAN_LEVEL:
            return OBD_ReadDataScanLevel();
        case GDS_GET_ENGINE:
            return OBD_ReadEngine();
        case GDS_GET_FAULT_CODE:
            return OBD_ReadFaultCode();
        default:
            return stopped;
    }
}

int COBDCtrl::OBD_ConfigProc(GdsCfgType_t_ type, void* data) {
    if (data == nullptr) return -1;
    const int stopped = m_bCanBoxMode == 0 ? OBD_StopTs() : -1;
    switch (type) {
        case GDS_CFG_ENGINE:
            return OBD_CfgEngine(data);
        case GDS_CFG_SCAN_TIME_LEVEL:
            return OBD_CfgScanTimeLevel(data);
        case GDS_CFG_DATA_SCAN_LEVEL:
            return OBD_CfgDataScanLevel(data);
        case GDS_CFG_RESTART:
            return OBD_Restart();
        case GDS_CFG_LINK:
            return OBD_Link();
        case GDS_CFG_START_TS: {
            const int r = OBD_StartTs();
            // A fresh stream: the heartbeat must be earned again by the box's next link frame.
            if (r == 0) m_bBoxAlive = 0;
            return r;
        }
        default:
            return stopped;
    }
}
