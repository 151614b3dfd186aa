// Fixture of the end-to-end tests: the plug-in loaded as the recorder loads it (dlopen through
// the host layer), on a real pseudo-terminal, against the box emulator. Host time is virtual and
// the box takes part on it, so command timeouts of seconds pass in milliseconds and host time
// never moves while the box still has a request to answer, however slow the machine.
// E2E_VERBOSE=1 prints the host log and the serial dumps while the tests run.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "BoxEmulator.h"
#include "BoxHostClock.h"
#include "COBDCtrlTestPeer.h"
#include "HostCommon.h"
#include "HostSim.h"
#include "SerialDevOBD.h"

namespace e2e {

using obdbox::BoxEmulator;
using obdbox::BoxOptions;
using obdbox::ByteVec;

class E2eTest : public ::testing::Test {
  protected:
    void SetUp() override {
        hostsim::Reset();
        const bool verbose = getenv("E2E_VERBOSE") != nullptr;
        if (verbose) hostsim::SetDumpLevel(3);
        hostsim::SetLogSink([verbose](int, const std::string& line) {
            if (verbose) fprintf(stderr, "%lld %s\n", hostsim::ClockNowMs(), line.c_str());
        });
        m_token = hostsim::BusSubscribe([this](const hostsim::BusMessage& m) {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!m.response && m.id == 6899) m_canOut.push_back(m.payload);
            if (m.response) m_responses.push_back(m);
            m_bus.push_back(m);
        });
        hostsim::ClockUseVirtual(0);
        // The test's thread takes part: host time moves only while it sleeps (Step).
        m_self = std::make_unique<hostsim::Participant>("test");
        m_self->Enter();
    }
    void TearDown() override {
        // Release gives up the command in hand, whatever the box is doing. The box stops
        // streaming first: once the plug-in stops reading, a full line would hold up the box.
        if (m_host) {
            if (m_box) m_box->Update([](BoxOptions& o) { o.linkPeriodMs = o.streamPeriodMs = 0; });
            EXPECT_EQ(m_host->Release(), 1);
        }
        m_host.reset();
        if (m_box) m_box->Stop();
        hostsim::BusUnsubscribe(m_token);
        m_self.reset();
        hostsim::Reset();
    }
    // The box without any fault (its rates and contents unchanged).
    static BoxOptions Answering(BoxOptions o) {
        o.silent = o.refuse = o.badChecksum = o.escape = o.stopAckAlt = false;
        o.dropEveryNth = o.garbageBytes = o.splitMaxChunk = 0;
        o.unanswered.clear();
        return o;
    }
    void Launch(BoxOptions o = {}, int productType = 0) {
        hostsim::SetProductType(productType);
        auto peer = std::make_shared<hostsim::Participant>("box");
        o.clock = obdsim::BoxHostClock(peer);
        m_box = std::make_unique<BoxEmulator>(o);
        ASSERT_TRUE(m_box->Start()) << m_box->LastError();
        peer->ServeLine(m_box->SlavePath());
        m_host = std::make_unique<hostsim::PluginHost>();
        m_host->SetSerial(m_box->SlavePath());
        ASSERT_TRUE(m_host->Load(OBD_PLUGIN_PATH)) << m_host->LastError();
        ASSERT_EQ(m_host->SerialOpenError(), "");
        ASSERT_EQ(m_host->Initialize(), 0);
        ASSERT_EQ(m_host->RegisterHandlers(), 0);
        ASSERT_TRUE(m_host->Start());
    }
    // Moves host time on in `step` ms steps, giving the plug-in's threads and the box a moment
    // of real time after each, until `done` holds or `hostMs` have passed. Host time, not real
    // time, bounds the wait, so a loaded machine only makes it slower.
    bool StepUntil(const std::function<bool()>& done, long long hostMs, int step = 50) {
        const long long end = hostsim::ClockNowMs() + hostMs;
        while (!done()) {
            if (hostsim::ClockNowMs() >= end) return false;
            Common::P4X_TMSleepMicroSecond(static_cast<unsigned int>(step) * 1000);
        }
        return true;
    }
    void Step(long long hostMs, int step = 50) {
        StepUntil([] { return false; }, hostMs, step);
    }
    std::vector<uint16_t> Codes() const {
        std::vector<uint16_t> c;
        for (const auto& f : m_box->Received()) c.push_back(f.code);
        return c;
    }
    int Count(uint16_t code) const {
        const auto c = Codes();
        return static_cast<int>(std::count(c.begin(), c.end(), code));
    }
    COBDCtrl* Ctrl() const { return static_cast<CSerialDevOBD*>(m_host->Object())->ObdCtrl(); }
    _OBD_DataTable_t Table() const { return COBDCtrlTestPeer(Ctrl()).DataTable(); }
    std::vector<ByteVec> CanOut() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_canOut;
    }

    std::vector<hostsim::BusMessage> Responses() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_responses;
    }
    // Messages the plug-in sent (responses = false) or answered (true) with this id, in order.
    std::vector<hostsim::BusMessage> Bus(int id, bool responses = false) {
        hostsim::BusDrain();  // what was sent so far has reached the listener
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<hostsim::BusMessage> out;
        for (const auto& m : m_bus)
            if (m.id == id && m.response == responses) out.push_back(m);
        return out;
    }
    size_t BusCount(int id, bool responses = false) { return Bus(id, responses).size(); }
    // Box bytes as the CAN-box service relays them: their count, then the bytes.
    static void Relay(ByteVec::const_iterator from, ByteVec::const_iterator to) {
        ByteVec msg(static_cast<size_t>(to - from) + 4, 0);
        msg[0] = static_cast<uint8_t>(to - from);
        std::copy(from, to, msg.begin() + 4);
        hostsim::BusInject(MSG_CAN_BOX_OBD_DATA_IN, msg);
    }
    static void Relay(const ByteVec& bytes) { Relay(bytes.begin(), bytes.end()); }

    std::unique_ptr<hostsim::Participant> m_self;
    std::unique_ptr<BoxEmulator> m_box;
    std::unique_ptr<hostsim::PluginHost> m_host;
    std::mutex m_mutex;
    std::vector<ByteVec> m_canOut;
    std::vector<hostsim::BusMessage> m_bus;
    std::vector<hostsim::BusMessage> m_responses;
    int m_token = 0;
};

}  // namespace e2e
