// Records and enumerations shared by the peripheral object and the link controller.
//
// The four device records travel unchanged inside bus messages, so their layout is checked to
// the byte here; the checks run on every target the library is built for.
#pragma once

#include <cstddef>
#include <cstdint>

// Items of device information; the same values index CSerialDevOBD::m_infoPending.
enum GdsGetInfoType_t_ {
    GDS_GET_VERSION = 1,
    GDS_GET_SCAN_TIME_LEVEL = 2,
    GDS_GET_DATA_SCAN_LEVEL = 3,
    GDS_GET_ENGINE = 4,
    GDS_GET_GDS_VERSION = 5,
    GDS_GET_ALARM_THRESHOLD = 7,
    GDS_GET_6AXIS_PROOFREAD = 8,
    GDS_GET_FAULT_CODE = 11,
    GDS_GET_MAX = 14,
};

// Configuration requests.
enum GdsCfgType_t_ {
    GDS_CFG_ENGINE = 1,
    GDS_CFG_SCAN_TIME_LEVEL = 2,
    GDS_CFG_DATA_SCAN_LEVEL = 3,
    GDS_CFG_RESTART = 27,
    GDS_CFG_LINK = 28,
    GDS_CFG_START_TS = 29,
    GDS_CFG_MAX = 30,
};

// Kinds of device information handed to CSerialDevOBD::UpdateDevInfo.
enum IDDataType_Eum {
    ID_DATA_VERSION = 1,
    ID_DATA_ENGINE = 2,
    ID_DATA_SCAN_TIME_LEVEL = 3,
    ID_DATA_DATA_SCAN_LEVEL = 4,
    ID_DATA_UPGRADE_STATE = 5,
    ID_DATA_DEMARCATE_RESULT = 6,
    ID_DATA_GDS_THRESHOLD = 8,
    ID_DATA_FAULT_CODE = 19,
};

// Task types of the send-task queue.
constexpr uint32_t TASK_TYPE_UPGRADE = 0x10000;
constexpr uint32_t TASK_TYPE_GET_INFO = 0x20000;
constexpr uint32_t TASK_TYPE_CONFIG = 0x30000;
constexpr size_t TASK_DATA_SIZE = 240;
constexpr size_t TASK_QUEUE_LIMIT = 100;

// One queued task, held by value.
struct TaskBody_t {
    uint32_t taskType;
    uint32_t cmd;
    unsigned char data[TASK_DATA_SIZE];
};
static_assert(sizeof(TaskBody_t) == 248, "task record");
static_assert(offsetof(TaskBody_t, data) == 8, "task payload offset");

constexpr int PRODUCT_TYPE_CAN_BOX_VALUE = 72;
constexpr int INFO_PENDING_COUNT = 13;

// Device records (native byte order, little-endian on every target; texts NUL-terminated).
struct _OBD_Version_t {
    char HwName[28];
    char DevSerialNum[16];
    char HWVer[12];
    char VerDate[12];
    char DevType[12];
    char BootVer[12];
    char DLVer[12];
    char DiagSWVer[12];
};
static_assert(sizeof(_OBD_Version_t) == 116, "version record");
static_assert(offsetof(_OBD_Version_t, DevSerialNum) == 28, "version record");
static_assert(offsetof(_OBD_Version_t, HWVer) == 44, "version record");
static_assert(offsetof(_OBD_Version_t, VerDate) == 56, "version record");
static_assert(offsetof(_OBD_Version_t, DevType) == 68, "version record");
static_assert(offsetof(_OBD_Version_t, BootVer) == 80, "version record");
static_assert(offsetof(_OBD_Version_t, DLVer) == 92, "version record");
static_assert(offsetof(_OBD_Version_t, DiagSWVer) == 104, "version record");

struct _OBD_Engine_t {
    uint16_t engine_id;
    uint16_t reserved;
    char name[48];
};
static_assert(sizeof(_OBD_Engine_t) == 52, "engine record");
static_assert(offsetof(_OBD_Engine_t, name) == 4, "engine record");

constexpr int OBD_LEVEL_MAX = 3;
constexpr int OBD_LEVEL_DATA_MAX = 32;

struct _OBD_ScanTimeLevelItem_t {
    int32_t level;
    uint32_t time;
};
struct _OBD_ScanTimeLevel_t {
    int32_t num;
    _OBD_ScanTimeLevelItem_t item[OBD_LEVEL_MAX];
};
static_assert(sizeof(_OBD_ScanTimeLevel_t) == 28, "scan-time record");
static_assert(offsetof(_OBD_ScanTimeLevel_t, item) == 4, "scan-time record");
static_assert(offsetof(_OBD_ScanTimeLevelItem_t, time) == 4, "scan-time entry");

struct _OBD_DataStreamLevelItem_t {
    int32_t level;
    int32_t len;
    unsigned char data[OBD_LEVEL_DATA_MAX];
};
struct _OBD_DataStreamLevel_t {
    int32_t num;
    _OBD_DataStreamLevelItem_t item[OBD_LEVEL_MAX];
};
static_assert(sizeof(_OBD_DataStreamLevelItem_t) == 40, "data-scan entry");
static_assert(sizeof(_OBD_DataStreamLevel_t) == 124, "data-scan record");
static_assert(offsetof(_OBD_DataStreamLevel_t, item) == 4, "data-scan record");
static_assert(offsetof(_OBD_DataStreamLevelItem_t, len) == 4, "data-scan entry");
static_assert(offsetof(_OBD_DataStreamLevelItem_t, data) == 8, "data-scan entry");

// Fault-code report handed to UpdateDevInfo; `data` points into the received frame. In memory
// only: its size follows the pointer width, so it never goes into a bus payload.
struct _OBD_FaultCode_t {
    int32_t result;
    int32_t size;
    const char* data;
};

// Upgrade progress handed to UpdateDevInfo.
enum { UPG_STATE_START = 1, UPG_STATE_PROGRESS = 2, UPG_STATE_SUCCESS = 3, UPG_STATE_FAILED = 4 };
struct UpgradeProgress_t {
    int32_t state;
    int32_t percent;
};
static_assert(sizeof(UpgradeProgress_t) == 8, "upgrade progress");
static_assert(offsetof(UpgradeProgress_t, percent) == 4, "upgrade progress");

// Upgrade states on the bus, and the device id of the OBD box in upgrade messages.
enum { PERIP_UPG_STATE_PROGRESS = 0, PERIP_UPG_STATE_FAILED = 9, PERIP_UPG_STATE_SUCCESS = 10 };
constexpr int UPG_DEVICE_OBD = 7;

// The firmware file an upgrade trigger sends to the box: the build setting of the same name
// (CMake cache), so that tests and the simulator can use a directory of their own.
#ifndef OBD_UPGRADE_FILE_PATH
#define OBD_UPGRADE_FILE_PATH "/var/run/DOWNLOAD.bin"
#endif

// Upgrade state record of the bus (20 bytes).
struct UpgradeResult_t {
    int8_t source;
    uint8_t device;
    uint8_t state;
    int8_t percent;
    uint8_t reserved[16];
};
static_assert(sizeof(UpgradeResult_t) == 20, "upgrade state record");
static_assert(offsetof(UpgradeResult_t, reserved) == 4, "upgrade state record");

// Configuration and status record: the answer to MSG_GET_GDS_CONFIG_INFO and the periodic
// status report. A field from the store is valid only when its bit is set in `mask`.
constexpr uint32_t CFG_MASK_VERSION = 0x001;
constexpr uint32_t CFG_MASK_SCAN_TIME_LEVEL = 0x002;
constexpr uint32_t CFG_MASK_DATA_SCAN_LEVEL = 0x004;
constexpr uint32_t CFG_MASK_ENGINE = 0x008;
constexpr uint32_t CFG_MASK_ALARM_THRESHOLD = 0x040;
constexpr uint32_t CFG_MASK_MODE = 0x200;
constexpr uint32_t CFG_MASK_OBD_STATE = 0x400;

struct GdsConfigInfo_t {
    uint32_t mask;
    _OBD_Version_t version;
    _OBD_ScanTimeLevel_t scanTimeLevel;
    _OBD_DataStreamLevel_t dataScanLevel;
    _OBD_Engine_t engine;
    char gdsVersion[32];
    uint8_t item6;
    uint8_t reserved1[3];
    unsigned char alarmThreshold[238];
    unsigned char sixAxisProofread[12];
    uint8_t mode;
    uint8_t obd_state;
    uint8_t reserved2[40];
};
static_assert(sizeof(GdsConfigInfo_t) == 652, "configuration record");
static_assert(offsetof(GdsConfigInfo_t, version) == 4, "configuration record");
static_assert(offsetof(GdsConfigInfo_t, scanTimeLevel) == 120, "configuration record");
static_assert(offsetof(GdsConfigInfo_t, dataScanLevel) == 148, "configuration record");
static_assert(offsetof(GdsConfigInfo_t, engine) == 272, "configuration record");
static_assert(offsetof(GdsConfigInfo_t, gdsVersion) == 324, "configuration record");
static_assert(offsetof(GdsConfigInfo_t, item6) == 356, "configuration record");
static_assert(offsetof(GdsConfigInfo_t, alarmThreshold) == 360, "configuration record");
static_assert(offsetof(GdsConfigInfo_t, sixAxisProofread) == 598, "configuration record");
static_assert(offsetof(GdsConfigInfo_t, mode) == 610, "configuration record");
static_assert(offsetof(GdsConfigInfo_t, obd_state) == 611, "configuration record");
static_assert(offsetof(GdsConfigInfo_t, reserved2) == 612, "configuration record");

// Bus message ids.
enum MsgId_Eum {
    MSG_GDS_PARAM_UPDATE = 348,
    MSG_INERTIA_SENSOR_DATA = 1071,
    MSG_POWER_DOWN = 1194,
    MSG_GET_GDS_CONFIG_INFO = 6698,
    MSG_GDS_CONFIG_INFO_REPORT = 6699,
    MSG_OBD_ORIGINAL_DATA = 6702,
    MSG_BLACKBOX_OBD_DATA = 6714,
    MSG_GDS_ALARM = 6720,
    MSG_TRIGGER_PERIPHERAL_UPGRADE = 6729,
    MSG_PERIPHERAL_UPGRADE_STATE = 6730,
    MSG_GET_PERIPHERAL_UPGRADE_STATE = 6731,
    MSG_TRIGGER_OBD_DEMACATE = 6779,
    MSG_CAN_BOX_DATA = 6877,
    MSG_CAN_BOX_TOTAL_MILEAGE = 6893,
    MSG_CAN_BOX_OBD_DATA_IN = 6898,
    MSG_CAN_BOX_OBD_DATA_OUT = 6899,
    MSG_GDS_PARAM_UPDATE_EX = 33115,
};
