// Link controller of the OBD box: frame receiver, commands with their answer wait, dispatch of
// the box's answers to the parsers of COBDParser.
//
// Threads:
//  - receiving: ReceiveData (peripheral thread for serial bytes; bus thread for bytes relayed in
//    CAN-box mode). ReceiveData serialises its callers with m_recvMutex; the dispatch it runs
//    takes m_dataTableMutex (one item at a time) and, through UpdateDevInfo, the owner's
//    m_devInfoMutex. So a caller of ReceiveData must not hold m_devInfoMutex.
//  - sending: the commands (send thread) and the power-down's single stop (bus thread). A frame
//    takes its sequence number and goes out under m_sendMutex; nothing holds it while waiting. A
//    command waits on m_cmdEvent, which the receiver notifies when it has moved the
//    awaited-command state, and the release's cancel too.
// Sources: COBDCtrl.cpp (lifecycle), COBDCtrlReceive.cpp (framing, receiver),
// COBDCtrlCmd.cpp (commands), COBDCtrlDispatch.cpp (dispatch), COBDParser.cpp (parsers),
// COBDCtrlUpgrade.cpp (firmware transfer).
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "../analyser/GdsLogicAnalyser.h"
#include "COBDParser.h"
#include "HostCommon.h"
#include "ObdCmdTable.h"
#include "ObdTypes.h"

class CSerialDevOBD;

// Payload handed to a command; `data` is the caller's and valid for the call.
struct _OBD_PkgInData_t {
    int length;  // only the low 16 bits are framed
    char* data;
};

constexpr int OBD_RECV_BUF_SIZE = 1024;
// The most the reassembly buffer ever holds; a longer read is taken in pieces of this size.
constexpr int OBD_RECV_MAX = OBD_RECV_BUF_SIZE - 1;
// Frame: head 55 AA, direction, length L (2), sequence, code (2), payload, checksum.
constexpr int OBD_FRAME_OVERHEAD = 10;
constexpr int OBD_DATA_ITEM_BYTES = 5;
// Command wait: poll period and the timeouts and retries of the wrappers.
constexpr unsigned int OBD_WAIT_STEP_US = 50000;
constexpr int OBD_WAIT_STEP_MS = 50;
constexpr int OBD_CMD_TIMEOUT_MS = 2000;
constexpr int OBD_CMD_RETRIES = 10;
constexpr int OBD_RESET_TIMEOUT_MS = 100;
constexpr int OBD_RESET_RETRIES = 1;
// Firmware transfer: chunk size, and what the name packet can carry (a 128-byte packet with 2
// length and 4 size bytes, the name's NUL included).
constexpr int OBD_UPG_CHUNK = 256;
constexpr int OBD_UPG_NAME_PACKET = 128;
constexpr int OBD_UPG_NAME_MAX = OBD_UPG_NAME_PACKET - 7;

class COBDCtrl : public COBDParser {
  public:
    explicit COBDCtrl(CSerialDevOBD* owner);
    ~COBDCtrl();

    COBDCtrl(const COBDCtrl&) = delete;
    COBDCtrl& operator=(const COBDCtrl&) = delete;

    // 0 and initialised the first time; -1 when already initialised.
    int OBD_Init();

    // ---- receiver (COBDCtrlReceive.cpp) ----
    // Takes the bytes of one read, of any length: reassembles, cuts and dispatches every complete
    // frame. -1 for null data or a negative length, else 0. Any thread; calls are serialised.
    int ReceiveData(unsigned char* data, int len);
    // Undoes the box's escaping (7D 01 -> 7E, 7D 02 -> 7F, 7D 03 -> 7D; first and last byte
    // never escaped). `out` must hold `inLen` bytes. -1 (and *outLen 0) for a null pointer.
    static int ReverseTransferredContent(char const* in, int inLen, char* out, int* outLen);
    // Exclusive-or of the first `len` bytes (the first byte alone for len <= 1; 0 for null).
    static unsigned char CalXOR(char const* data, int len);

    // ---- dispatch (COBDCtrlDispatch.cpp) ----
    // `frame` points at the sequence byte of an unescaped frame, `len` counts its sequence byte,
    // code and payload. Returns the handling branch's result, -1 when refused.
    int HandleData(char* frame, int len);
    // Data-stream payload: items of {id, float LSB first}. 0, or -1 for a bad length.
    int OBD_HandleOrgData(char* payload, int len);

    // ---- commands (COBDCtrlCmd.cpp) ----
    int OBD_SendData(char* data, int len);
    // Frame length, or -1 (no buffer, unknown command, payload does not fit).
    int OBD_GenerateObdPackage(obdcmd_t cmd, _OBD_PkgInData_t* in, char* out, int outSize,
                               int retry);
    int OBD_ExecuteCmd(obdcmd_t cmd, _OBD_PkgInData_t* in, int retry);
    // 0 answered, 1 refused by the box, 2 timed out (or cancelled).
    int OBD_WaitCmd(obdcmd_t awaited, int timeoutMs);
    // Makes a waiting command look at the awaited-command state again. Any thread.
    void OBD_WakeCmdWait() { m_cmdEvent.Notify(); }
    // 0 answered, -1 not answered after retries + 1 attempts, or cancelled.
    int OBD_SendCmd(obdcmd_t request, obdcmd_t awaited, _OBD_PkgInData_t* in, int timeoutMs,
                    int retries);
    // For good (release): no further attempt starts and a waiting one gives up at its next poll.
    void OBD_CancelCommands();

    int OBD_ReadVersion();
    int OBD_ReadScanTimeLevel();
    int OBD_ReadDataScanLevel();
    int OBD_ReadEngine();
    int OBD_ReadFaultCode();
    int OBD_Link();
    int OBD_Restart();
    int OBD_JumpApp();
    int OBD_StartTs();
    int OBD_StopTs();
    // One stop frame, neither waited for nor repeated, leaving the awaited command alone (the
    // power-down handler). Serial mode only: 0 sent, -1 otherwise.
    int OBD_StopTsNoWait();
    int OBD_CfgEngine(void* engine);         // _OBD_Engine_t
    int OBD_CfgScanTimeLevel(void* levels);  // _OBD_ScanTimeLevel_t
    int OBD_CfgDataScanLevel(void* levels);  // _OBD_DataStreamLevel_t

    int OBD_ReadInfoProc(GdsGetInfoType_t_ type);
    int OBD_ConfigProc(GdsCfgType_t_ type, void* data);

    // ---- firmware transfer (COBDCtrlUpgrade.cpp; send thread) ----
    // The whole transfer of the file at `path`: 0, or the failing step's result (-1 for a null
    // path). Deletes the file once the box has accepted the end.
    int OBD_UpgradeProc(char* path);
    // File-name packet: `name` (at most OBD_UPG_NAME_MAX characters) and the size of `path`.
    int OBD_UpgradeSendFileName(char* name, char* path);
    // The file's contents in chunks, with a progress report after each full chunk.
    int OBD_UpgradeSendFile(char* path);
    // The file's MD5 as 32 lowercase hex digits.
    int OBD_UpgradeSendMD5(char* path);
    void OBD_SetUpgradePercent(int percent);

    // ---- heartbeat and watchdog ----
    int OBD_CheckObdHeartBeat();
    void OBD_WatchDog();
    void OBD_CheckObdAlive();

    // ---- read-only views (diagnostics and tests) ----
    obdcmd_t WaitCmdState() const { return m_waitCmd.load(); }
    uint32_t SeqNo() const { return m_seqNo.load(); }
    int NoDataCount() const { return m_noDataCount.load(); }
    bool IsCanBoxMode() const { return m_bCanBoxMode != 0; }
    // A copy of the data table, taken under its lock.
    _OBD_DataTable_t DataTable();

  private:
    friend class COBDCtrlTestPeer;

    // Cuts and dispatches the complete frames buffered; `endOfRead`: no more bytes of this read.
    void CutFrames(bool endOfRead);
    // Frames `cmd` with sequence number `seq`: frame length, or -1 when it does not fit.
    static int BuildFrame(obdcmd_t cmd, _OBD_PkgInData_t* in, char* out, int outSize, uint32_t seq);

    CSerialDevOBD* m_pOwner;
    _OBD_DataTable_t m_dataTable;
    _OBD_ScanTimeLevel_t m_scanTimeLevel;
    _OBD_Version_t m_version;
    _OBD_DataStreamLevel_t m_dataScanLevel;
    _OBD_Engine_t m_engine;
    int32_t m_demarcateResult;
    std::atomic<uint32_t> m_seqNo;
    // The number of the send thread's command in hand, which its repetitions carry.
    std::atomic<uint32_t> m_cmdSeqNo;
    std::mutex m_sendMutex;
    std::atomic<int> m_bCancelled;
    // Written by the send thread (before each send) and the receiving thread (answers), polled by
    // the send thread.
    std::atomic<obdcmd_t> m_waitCmd;
    // Upgrade progress record {state, percent}; written and reported by the send thread only.
    int32_t m_upgState;
    int32_t m_upgPercent;
    std::atomic<int> m_bBoxAlive;
    int m_bInited;
    pthread_mutex_t m_dataTableMutex;
    std::atomic<int> m_noDataCount;
    // Reassembly buffer of OBD_RECV_BUF_SIZE bytes; bytes beyond m_recvLen are kept zero. Guarded
    // by m_recvMutex. Allocated once, exactly that size, so that the sanitizers see any access
    // past its end (inside the object the next member would absorb it).
    int m_recvLen;
    std::unique_ptr<unsigned char[]> m_recvBuf;
    std::mutex m_recvMutex;
    // The box's length convention as its escaped frames showed it: 1 when L counts the escape
    // pairs, 0 when it counts the unescaped bytes (as the frame format defines L, so the start).
    // Guarded by m_recvMutex.
    int m_escapeCountsPairs;
    // Set while ReceiveData handles a read; the command wait holds on until it is done.
    std::atomic<bool> m_bReceiving;
    unsigned char m_bCanBoxMode;  // set once by the constructor
    eProductType m_productType;
    // Wakes the command wait when the dispatcher has moved m_waitCmd.
    Common::CTMWaitEvent m_cmdEvent;

    // Hands {m_upgState, m_upgPercent} to the owner's device-information store.
    void ReportUpgrade();
};
