// libFuzzer target: arbitrary messages, head included, to every bus handler the plug-in
// registers. A message is another service's bytes: whatever its length word or inner counts say,
// no handler may read past the message or write past a record (ASan/UBSan watch), and every
// answer has its record's size: 652 bytes for the configuration, 20 for the upgrade state, 4
// for a calibration result.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "FakeHost.h"
#include "SerialDevOBD.h"

namespace {

CPeripheralManage* g_manage = nullptr;
CSerialDevOBD* g_obj = nullptr;

const int kIds[] = {33115, 348, 1071, 6698, 6729, 6779, 6731, 1194, 6898, 6893};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return 0;
    fakehost::Reset();
    // A link controller without a send thread: relayed bytes reach the receiver and a power-down
    // reaches the box, with the fake's sleeps cut to nothing.
    fakehost::FailThreadCreation(true);
    fakehost::SetSleepDivisor(0);
    g_manage = new CPeripheralManage();
    g_obj = static_cast<CSerialDevOBD*>(PeripheralCreate(g_manage, nullptr, 0, 0));
    g_obj->PeripheralInitialize();
    g_obj->MessageRegister();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const int id = kIds[data[0] % (sizeof(kIds) / sizeof(kIds[0]))];
    // Exactly the message's bytes on the heap, so a read one past its end is caught.
    std::vector<char> msg(data + 1, data + size);
    fakehost::DeliverRaw(id, msg.empty() ? nullptr : msg.data(), static_cast<int>(msg.size()));
    const auto responses = fakehost::Responses();
    // The head is the fuzzer's too: what an answer must be follows from the id delivered.
    size_t want = 0;
    if (id == MSG_GET_GDS_CONFIG_INFO) want = sizeof(GdsConfigInfo_t);
    if (id == MSG_TRIGGER_PERIPHERAL_UPGRADE || id == MSG_GET_PERIPHERAL_UPGRADE_STATE)
        want = sizeof(UpgradeResult_t);
    if (id == MSG_CAN_BOX_OBD_DATA_IN) want = sizeof(int32_t);  // a relayed calibration answer
    for (const auto& r : responses) {
        if (r.payload.size() != want) __builtin_trap();
    }
    fakehost::ClearRecords();
    return 0;
}
