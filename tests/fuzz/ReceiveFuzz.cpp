// libFuzzer target: arbitrary bytes, cut into arbitrary reads, through the frame receiver and
// everything it dispatches to. Nothing may crash or touch memory out of bounds (ASan/UBSan), and
// whatever the bytes left behind, a good frame after a full buffer of filler is still recognised.
#include <algorithm>
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
    // Its reassembly buffer is on the heap, exactly its size: ASan sees any access past it.
    COBDCtrl ctrl(g_obj);
    auto feed = [&ctrl](std::vector<unsigned char> read) {  // exactly sized, on the heap too
        ctrl.ReceiveData(read.data(), static_cast<int>(read.size()));
    };
    // The input is a sequence of reads, each a size and its bytes: a byte below 0x80 gives
    // 1..128 bytes; another, with the byte after it, 1..1100 (a full host read and more).
    size_t pos = 0;
    while (pos < size) {
        size_t n = data[pos++];
        if (n >= 0x80) {
            if (pos >= size) break;
            n = (((n & 0x7F) << 8) | data[pos++]) % 1100;
        }
        n = std::min(n + 1, size - pos);
        feed(std::vector<unsigned char>(data + pos, data + pos + n));
        pos += n;
    }
    // Whatever is pending, it gives way within a full buffer of filler: a good frame after 1023
    // bytes is recognised, and it leaves the buffer empty.
    const auto recovers = [&](float marker) {
        std::vector<unsigned char> read(1023, 0x00);
        const auto good = Sentinel(marker);
        read.insert(read.end(), good.begin(), good.end());
        feed(read);
        const _OBD_DataTable_t table = ctrl.DataTable();
        if (table.item[58].id != 58 || table.item[58].value != marker) __builtin_trap();
    };
    recovers(4321.5f);
    // A full buffer whose last four bytes are a head, after the input's last bytes: the head's
    // length field is not there yet and must not be read from beyond the buffer.
    std::vector<unsigned char> full(1023, 0x00);
    const auto head = Sentinel(1.0f);
    const size_t tail = std::min<size_t>(size, full.size() - 4);
    std::copy(data + size - tail, data + size, full.end() - 4 - static_cast<long>(tail));
    std::copy(head.begin(), head.begin() + 4, full.end() - 4);
    feed(full);
    feed(std::vector<unsigned char>(head.begin() + 4, head.end()));
    recovers(-17.25f);
    return 0;
}
