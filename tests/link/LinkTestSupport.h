// Shared helpers of the link tests: frames built independently of the plug-in's own framing, a
// peer that reaches the controller's state, and a scripted box that answers on another thread.
#pragma once

#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "COBDCtrl.h"
#include "COBDCtrlTestPeer.h"
#include "CoreTestSupport.h"

using Bytes = std::vector<unsigned char>;

inline Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// "55 AA F0" -> bytes.
inline Bytes Hex(const std::string& s) {
    Bytes out;
    std::istringstream in(s);
    unsigned int b;
    while (in >> std::hex >> b) out.push_back(static_cast<unsigned char>(b));
    return out;
}

// What `f` prints on stdout (only around the code under test, so failures stay visible).
template <typename F>
std::string Printed(F f) {
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

// A frame as the box sends it (direction F8 F0), not escaped.
inline Bytes BoxFrame(uint16_t code, const Bytes& payload = {}, unsigned char seq = 0x11) {
    const size_t l = payload.size() + 3;
    Bytes f = Cat(
        {{0x55, 0xAA, 0xF8, 0xF0, static_cast<unsigned char>(l >> 8), static_cast<unsigned char>(l),
          seq, static_cast<unsigned char>(code >> 8), static_cast<unsigned char>(code)},
         payload});
    unsigned char x = 0;
    for (size_t i = 2; i < f.size(); ++i) x ^= f[i];
    f.push_back(x);
    return f;
}

// Data-stream payload item: id, float least significant byte first.
inline Bytes Item(unsigned char id, float v) {
    unsigned char b[4];
    std::memcpy(b, &v, 4);
    return {id, b[0], b[1], b[2], b[3]};
}
inline Bytes DataFrame(unsigned char id, float v) {
    return BoxFrame(0x2C81, Item(id, v));
}

// Answers the plug-in's frames from another thread, as the box would: watches the fake serial
// port and feeds each answer that `respond` gives back through ReceiveData. It takes part in the
// plug-in's waits (fakehost::AttachAnswerer), so a wait ends by the answer or, once the box has
// had its say, at its deadline: the outcome never depends on when this thread gets the CPU.
// Clear the fake's records between steps with ClearRecords, not Reset, which detaches the box.
class ScriptedBox {
  public:
    // (code, sequence number) of a frame sent -> the frames that answer it.
    using Responder = std::function<std::vector<Bytes>(uint16_t, unsigned char)>;
    ScriptedBox(COBDCtrl* ctrl, Responder respond) : m_ctrl(ctrl), m_respond(std::move(respond)) {
        fakehost::AttachAnswerer(true);
        m_thread = std::thread([this] { Run(); });
    }
    ~ScriptedBox() {
        m_stop = true;
        m_thread.join();
        fakehost::AttachAnswerer(false);
    }

  private:
    void Run() {
        uint64_t epoch = 0, seenEpoch = 0;
        size_t seen = 0;
        while (!m_stop) {
            const auto writes = fakehost::SerialWrites(&epoch);
            if (epoch != seenEpoch) seen = 0;  // the test cleared the records
            seenEpoch = epoch;
            for (; seen < writes.size(); ++seen) {
                const Bytes& w = writes[seen];
                for (Bytes a : m_respond(static_cast<uint16_t>((w[7] << 8) | w[8]), w[6]))
                    m_ctrl->ReceiveData(a.data(), static_cast<int>(a.size()));
            }
            fakehost::AnswererHandled(epoch, seen);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }
    COBDCtrl* m_ctrl;
    Responder m_respond;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;  // started last: Run uses the members above
};

// Fixture: a peripheral object with a link controller and no send thread, so the test is the
// only one that sends.
class LinkTest : public CoreTest {
  protected:
    void SetUp() override {
        CoreTest::SetUp();
        CreateWithCtrl(ProductType());
        m_ctrl = m_obj->ObdCtrl();
    }
    virtual int ProductType() const { return 0; }
    int Feed(Bytes b) { return m_ctrl->ReceiveData(b.data(), static_cast<int>(b.size())); }
    // The frame from its sequence byte on, as the receiver hands it over, in a buffer of
    // exactly its size: the sanitizer build sees any read past the payload.
    int Handle(uint16_t code, const Bytes& payload = {}) {
        const Bytes b =
            Cat({{0x42, static_cast<unsigned char>(code >> 8), static_cast<unsigned char>(code)},
                 payload});
        // Not the vector's own storage: its capacity may exceed its size.
        const std::unique_ptr<char[]> exact(new char[b.size()]);
        std::memcpy(exact.get(), b.data(), b.size());
        return m_ctrl->HandleData(exact.get(), static_cast<int>(b.size()));
    }
    // Raw frames the receiver cut and dispatched, in order.
    static std::vector<Bytes> Dispatched() {
        std::vector<Bytes> out;
        for (const auto& d : fakehost::Dumps())
            if (d.label == "one obd data:" && d.level == 3) out.push_back(d.bytes);
        return out;
    }
    static std::vector<uint16_t> SentCodes() {
        std::vector<uint16_t> out;
        for (const auto& w : fakehost::SerialWrites())
            out.push_back(static_cast<uint16_t>((w[7] << 8) | w[8]));
        return out;
    }
    COBDCtrlTestPeer Peer() { return COBDCtrlTestPeer(m_ctrl); }
    float Value(int index) { return m_ctrl->DataTable().item[index].value; }

    COBDCtrl* m_ctrl = nullptr;
};
