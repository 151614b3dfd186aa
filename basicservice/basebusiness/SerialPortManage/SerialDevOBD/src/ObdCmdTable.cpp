// The command table as constant data. Its invariants are checked at compile time below, so a
// mistyped code cannot reach the wire.
#include "ObdCmdTable.h"

// Defined constexpr after the exported extern declaration: external linkage, read-only data,
// and usable in the compile-time checks below.
extern "C" {
constexpr uint16_t ObdCmdArray[OBD_CMD_COUNT] = {
    0x0000,          // OBD_CMD_NONE
    0x2103, 0x6103,  // hardware version
    0x2105, 0x6105,  // software version
    0x2407, 0x6407,  // upgrade start
    0x2402, 0x6402,  // upgrade file name
    0x2403, 0x6403,  // upgrade file chunk
    0x2404, 0x6404,  // upgrade digest
    0x2111, 0x6111,  // upgrade end
    0x2C01, 0x6C01,  // start data stream
    0x2C04, 0x6C04,  // stop data stream
    0x0000,          // OBD_CMD_FAIL: never sent
    0x0000,          // OBD_CMD_RESERVED
    0x2C03, 0x6C03,  // configure engine
    0x2C23, 0x6C23,  // configure scan-time levels
    0x2C43, 0x6C43,  // configure data-scan levels
    0x2C22, 0x6C22,  // read scan-time levels
    0x2C42, 0x6C42,  // read data-scan levels
    0x2C12, 0x6C12,  // read engine
    0x2C10, 0x2C10,  // link: the box answers with the same code
    0x2C81,          // data stream from the box
    0x6C7F,          // accepted from the box and dropped
    0x2506,          // restart (not answered)
    0x2114,          // jump to application (not answered)
    0x2CF1, 0x6CF1,  // read fault codes
};
}

namespace {

constexpr bool IsAnswerPair(int request) {
    return ObdCmdArray[request + 1] == static_cast<uint16_t>(ObdCmdArray[request] + 0x4000);
}

constexpr bool AllPairsHold() {
    const int requests[] = {
        OBD_CMD_READ_HW_VER,   OBD_CMD_READ_SW_VER, OBD_CMD_UPG_START,   OBD_CMD_UPG_FILE_NAME,
        OBD_CMD_UPG_FILE_DATA, OBD_CMD_UPG_MD5,     OBD_CMD_UPG_END,     OBD_CMD_START_TS,
        OBD_CMD_STOP_TS,       OBD_CMD_CFG_ENGINE,  OBD_CMD_CFG_STL,     OBD_CMD_CFG_DSL,
        OBD_CMD_READ_STL,      OBD_CMD_READ_DSL,    OBD_CMD_READ_ENGINE, OBD_CMD_READ_FAULT_CODE};
    for (int r : requests) {
        if (!IsAnswerPair(r)) return false;
    }
    return true;
}

static_assert(sizeof(ObdCmdArray) == 82, "41 codes of 16 bits");
static_assert(AllPairsHold(), "every answer is its request's code + 0x4000");
static_assert(ObdCmdArray[OBD_CMD_LINK] == ObdCmdArray[OBD_CMD_LINK_ACK], "link echoes its code");
static_assert(ObdCmdArray[OBD_CMD_FAIL] == 0 && ObdCmdArray[OBD_CMD_NONE] == 0, "no-code states");
static_assert(ObdCmdArray[OBD_CMD_READ_FAULT_CODE_ACK] == 0x6CF1, "table ends at index 40");

}  // namespace
