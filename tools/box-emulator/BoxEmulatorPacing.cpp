// Line pacing: the box's line carries no more than lineBytesPerSec bytes a second each way, as a
// UART does, so that what is timed against the emulator is what a real line would cost. Each
// direction keeps the time its line is next free; bytes queue behind the ones before them.
#include <algorithm>
#include <thread>

#include "BoxEmulator.h"

namespace obdbox {
namespace {

std::chrono::nanoseconds LineTime(size_t n, int bytesPerSec) {
    return std::chrono::nanoseconds(static_cast<long long>(n) * 1000000000LL / bytesPerSec);
}

}  // namespace

int BoxEmulator::LineBytesPerSec() const {
    std::lock_guard<std::mutex> lock(m_optMutex);
    return m_opt.lineBytesPerSec;
}

// The bytes leave when the line has carried them: a frame is whole at the far end only after its
// last byte's time.
void BoxEmulator::PaceTransmit(size_t n) {
    const int rate = LineBytesPerSec();
    if (rate <= 0 || n == 0) return;
    const auto now = std::chrono::steady_clock::now();
    if (m_txLineFree < now) m_txLineFree = now;
    m_txLineFree += LineTime(n, rate);
    std::this_thread::sleep_until(m_txLineFree);
}

// Bytes just read started to arrive no earlier than now (or than the line was free). They are
// taken in slice by slice, each when its last byte could have arrived, so that a frame counts as
// received at its own time even when the pseudo-terminal handed over several at once.
void BoxEmulator::TakeIn(const uint8_t* data, size_t n) {
    const int rate = LineBytesPerSec();
    if (rate <= 0) {
        OnBytes(data, n);
        return;
    }
    constexpr size_t kSlice = 16;  // 1.4 ms at 115200 baud
    const auto now = std::chrono::steady_clock::now();
    if (m_rxLineFree < now) m_rxLineFree = now;
    for (size_t at = 0; at < n; at += kSlice) {
        const size_t k = std::min(kSlice, n - at);
        m_rxLineFree += LineTime(k, rate);
        std::this_thread::sleep_until(m_rxLineFree);
        OnBytes(data + at, k);
    }
}

}  // namespace obdbox
