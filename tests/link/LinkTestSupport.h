// Shared helpers of the link tests: frames built independently of the plug-in's own framing, a
// peer that reaches the controller's state, and a scripted box that answers on another thread.
#pragma once

#include <atomic>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "COBDCtrl.h"
#include "COBDCtrlTestPeer.h"
#include "CoreTestSupport.h"

using Bytes = std::vector<unsigned char>;

inline unsigned char Xor(const Bytes& b, size_t from, size_t to) {
    unsigned char x = 0;
    for (size_t i = from; i < to; ++i) x ^= b[i];
    return x;
}

// A frame as the box sends it (direction F8 F0), not escaped.
inline Bytes BoxFrame(uint16_t code, const Bytes& payload = {}, unsigned char seq = 0x11) {
    const size_t l = payload.size() + 3;
    Bytes f = {0x55,
               0xAA,
               0xF8,
               0xF0,
               static_cast<unsigned char>(l >> 8),
               static_cast<unsigned char>(l & 0xFF),
               seq,
               static_cast<unsigned char>(code >> 8),
               static_cast<unsigned char>(code & 0xFF)};
    f.insert(f.end(), payload.begin(), payload.end());
    f.push_back(Xor(f, 2, f.size()));
    return f;
}

// Data-stream payload item: id, float least significant byte first.
inline Bytes Item(unsigned char id, float v) {
    unsigned char b[4];
    std::memcpy(b, &v, 4);
    return {id, b[0], b[1], b[2], b[3]};
}

inline Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// A plug-in frame as written to the port, decoded.
struct SentFrame {
    unsigned char seq;
    uint16_t code;
    Bytes payload;
};
inline SentFrame Decode(const Bytes& f) {
    SentFrame s{};
    if (f.size() < 10) return s;
    s.seq = f[6];
    s.code = static_cast<uint16_t>((f[7] << 8) | f[8]);
    s.payload.assign(f.begin() + 9, f.end() - 1);
    return s;
}

// Answers the plug-in's frames from another thread, as the box would: watches the fake serial
// port and feeds each answer that `respond` gives back through ReceiveData.
class ScriptedBox {
  public:
    using Responder = std::function<std::vector<Bytes>(const SentFrame&)>;
    ScriptedBox(COBDCtrl* ctrl, Responder respond)
        : m_ctrl(ctrl), m_respond(std::move(respond)), m_thread([this] { Run(); }) {}
    ~ScriptedBox() {
        m_stop = true;
        m_thread.join();
    }

  private:
    void Run() {
        size_t seen = 0;
        while (!m_stop) {
            const auto writes = fakehost::SerialWrites();
            if (writes.size() < seen) seen = 0;  // the test reset the fake host
            for (; seen < writes.size(); ++seen) {
                for (Bytes answer : m_respond(Decode(writes[seen]))) {
                    m_ctrl->ReceiveData(answer.data(), static_cast<int>(answer.size()));
                }
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }
    COBDCtrl* m_ctrl;
    Responder m_respond;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
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
    int Handle(Bytes frameFromSeq) {
        return m_ctrl->HandleData(reinterpret_cast<char*>(frameFromSeq.data()),
                                  static_cast<int>(frameFromSeq.size()));
    }
    // Raw frames the receiver cut and dispatched, in order.
    static std::vector<Bytes> Dispatched() {
        std::vector<Bytes> out;
        for (const auto& d : fakehost::Dumps()) {
            if (d.label == "one obd data:" && d.level == 3) out.push_back(d.bytes);
        }
        return out;
    }
    static std::vector<SentFrame> Sent() {
        std::vector<SentFrame> out;
        for (const auto& w : fakehost::SerialWrites()) out.push_back(Decode(w));
        return out;
    }
    COBDCtrlTestPeer Peer() { return COBDCtrlTestPeer(m_ctrl); }

    COBDCtrl* m_ctrl = nullptr;
};
