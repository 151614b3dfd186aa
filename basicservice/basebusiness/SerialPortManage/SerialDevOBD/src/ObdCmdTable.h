// The box's command codes, indexed by obdcmd_t.
//
// A request at index N that expects an answer has it at index N + 1, whose code is the request's
// code + 0x4000. The exceptions: the link frame comes back with the request's own code, index 19
// (OBD_CMD_FAIL) is the state a refused upgrade step leaves behind, and the indices without a
// code (0, 19, 20) are never sent. In a frame the code stands most significant byte first.
#pragma once

#include <cstdint>

enum obdcmd_t : int32_t {
    OBD_CMD_NONE = 0,
    OBD_CMD_READ_HW_VER = 1,
    OBD_CMD_READ_HW_VER_ACK = 2,
    OBD_CMD_READ_SW_VER = 3,
    OBD_CMD_READ_SW_VER_ACK = 4,
    OBD_CMD_UPG_START = 5,
    OBD_CMD_UPG_START_ACK = 6,
    OBD_CMD_UPG_FILE_NAME = 7,
    OBD_CMD_UPG_FILE_NAME_ACK = 8,
    OBD_CMD_UPG_FILE_DATA = 9,
    OBD_CMD_UPG_FILE_DATA_ACK = 10,
    OBD_CMD_UPG_MD5 = 11,
    OBD_CMD_UPG_MD5_ACK = 12,
    OBD_CMD_UPG_END = 13,
    OBD_CMD_UPG_END_ACK = 14,
    OBD_CMD_START_TS = 15,
    OBD_CMD_START_TS_ACK = 16,
    OBD_CMD_STOP_TS = 17,
    OBD_CMD_STOP_TS_ACK = 18,
    OBD_CMD_FAIL = 19,
    OBD_CMD_RESERVED = 20,
    OBD_CMD_CFG_ENGINE = 21,
    OBD_CMD_CFG_ENGINE_ACK = 22,
    OBD_CMD_CFG_STL = 23,
    OBD_CMD_CFG_STL_ACK = 24,
    OBD_CMD_CFG_DSL = 25,
    OBD_CMD_CFG_DSL_ACK = 26,
    OBD_CMD_READ_STL = 27,
    OBD_CMD_READ_STL_ACK = 28,
    OBD_CMD_READ_DSL = 29,
    OBD_CMD_READ_DSL_ACK = 30,
    OBD_CMD_READ_ENGINE = 31,
    OBD_CMD_READ_ENGINE_ACK = 32,
    OBD_CMD_LINK = 33,
    OBD_CMD_LINK_ACK = 34,
    OBD_CMD_DATA_STREAM = 35,
    OBD_CMD_IGNORED = 36,
    OBD_CMD_RESTART = 37,
    OBD_CMD_JUMP_APP = 38,
    OBD_CMD_READ_FAULT_CODE = 39,
    OBD_CMD_READ_FAULT_CODE_ACK = 40,
    OBD_CMD_COUNT = 41,
};

// The box also acknowledges a stop of the data stream with this code, which has no index.
constexpr uint16_t OBD_CODE_STOP_TS_ALT_ACK = 0x2301;

// Exported as data with an undecorated name, like the plug-in's entry points, so that tools
// that inspect the library find the table without knowing the compiler's name mangling.
extern "C" {
__attribute__((visibility("default"))) extern const uint16_t ObdCmdArray[OBD_CMD_COUNT];
}
