// libFuzzer target: arbitrary bytes, cut into arbitrary reads, through the frame receiver and
// everything it dispatches to. Nothing may crash or touch memory out of bounds (ASan/UBSan), and
// whatever the bytes left behind, a good frame at the end of a full read is still recognised.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "COBDCtrl.h"
#include "FakeHost.h"
#include "SerialDevOBD.h"

namespace {

CPeripheralManage* g_manage = nullptr;
CSerialDevOBD* g_obj = nullptr;

// A data-stream frame from the box setting item 59 to `v`.
std::vector<unsigned char> Sentinel(float v) {
    std::vector<unsigned char> f = {0x55, 0xAA, 0xF8, 0xF0, 0x00, 0x08, 0x01, 0x2C, 0x81, 59};
    unsigned char b[4];
    std::memcpy(b, &v, 4);
    f.insert(f.end(), b, b + 4);
    unsigned char x = 0;
    for (size_t i = 2; i < f.size(); ++i) x ^= f[i];
    f.push_back(x);
    return f;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The receiver's resynchronisation dumps go to standard output; keep the fuzzer fast.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return 0;
    fakehost::Reset();
    g_manage = new CPeripheralManage();
    g_obj = static_cast<CSerialDevOBD*>(PeripheralCreate(g_manage, nullptr, 0, 0));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fakehost::Reset();  // the fake records every log line; start each input empty
    COBDCtrl ctrl(g_obj);
    // First byte: how the rest is cut into reads (1..256 bytes each, varied per read).
    const unsigned seedStep = size > 0 ? data[0] : 0;
    size_t pos = size > 0 ? 1 : 0;
    unsigned step = seedStep;
    while (pos < size) {
        step = step * 33u + 7u;
        size_t n = (step % 256u) + 1u;
        if (n > size - pos) n = size - pos;
        std::vector<unsigned char> chunk(data + pos, data + pos + n);
        ctrl.ReceiveData(chunk.data(), static_cast<int>(chunk.size()));
        pos += n;
    }
    // Whatever is pending, a full read ending in a good frame is recognised.
    const float marker = 4321.5f;
    std::vector<unsigned char> read(1023, 0x00);
    const auto good = Sentinel(marker);
    std::memcpy(read.data() + read.size() - good.size(), good.data(), good.size());
    ctrl.ReceiveData(read.data(), static_cast<int>(read.size()));
    const _OBD_DataTable_t table = ctrl.DataTable();
    if (table.item[58].id != 58 || table.item[58].value != marker) __builtin_trap();
    return 0;
}
