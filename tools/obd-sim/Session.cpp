#include "Session.h"

#include <unistd.h>

#include <algorithm>

#include "BoxHostClock.h"
#include "HostCommon.h"

namespace obdsim {

Session::Session(SessionOptions options) : m_opt(std::move(options)) {}

Session::~Session() {
    Release();
    Stop();
}

bool Session::Start(std::string& error) {
    hostsim::SetProductType(m_opt.productType);
    // From here this thread takes part: the box, the plug-in, the bus and the feeder get their
    // turns in the order they are started, which makes the run repeat byte for byte.
    hostsim::ClockUseVirtual(0);
    m_self = std::make_unique<hostsim::Participant>("session");
    m_self->Enter();
    m_feeder = std::make_unique<Feeder>(m_opt.drive, m_opt.reference, m_opt.frameTap);
    m_feeder->SetSixAxisTap(m_opt.sixAxisTap);
    m_feeder->SetSixAxisHeld(m_opt.sixAxisHeld);
    m_feeder->SetSixAxisPhaseMs(m_opt.sixAxisPhaseMs);

    obdbox::BoxOptions o;
    o.streamPeriodMs = 1000;
    o.values = [this] {
        obdbox::DataItems items = m_feeder->Frame();
        if (m_opt.alterValues) m_opt.alterValues(hostsim::ClockNowMs(), items);
        return items;
    };
    if (m_opt.box) m_opt.box(o);
    auto peer = std::make_shared<hostsim::Participant>("obd-box");
    o.clock = BoxHostClock(peer);
    m_emulator = std::make_unique<obdbox::BoxEmulator>(std::move(o));
    if (!m_emulator->Start()) {
        error = "box emulator: " + m_emulator->LastError();
        return false;
    }
    std::string line = m_emulator->SlavePath();
    peer->ServeCountedLine(line);
    if (m_opt.productType == 72) {
        m_relay = std::make_unique<CanRelay>(line, CanRelay::Tap{}, m_opt.onRelayed);
        if (!m_relay->Start(error)) {
            error = "CAN-box relay: " + error;
            return false;
        }
        line = m_relay->PluginLinePath();
    } else if (m_opt.serialTap) {
        hostsim::SetSerialTap(m_opt.serialTap);
        m_tapSet = true;
    }
    if (m_opt.onBus) m_token = hostsim::BusSubscribe(m_opt.onBus);

    m_host = std::make_unique<hostsim::PluginHost>();
    m_host->SetSerial(line, m_opt.baud);
    if (!m_host->Load(m_opt.plugin)) {
        error = "cannot load plug-in: " + m_host->LastError();
        m_host.reset();
        return false;
    }
    if (!m_host->SerialOpenError().empty()) {
        error = "cannot open serial port: " + m_host->SerialOpenError();
        Release();
        return false;
    }
    // A failing initialisation leaves the object running with its status false, as on the
    // recorder; its own log says why.
    m_host->Initialize();
    m_host->RegisterHandlers();
    m_host->Start();
    m_feeder->Start();
    return true;
}

long long Session::RunUntil(long long endMs, long long stepMs,
                            const std::function<bool(long long)>& step) {
    if (!m_host || m_released) return hostsim::ClockNowMs();
    stepMs = std::max(1LL, stepMs);
    long long now = hostsim::ClockNowMs();
    m_self->Run([&] {
        while (now < endMs) {
            if (step && !step(now)) break;
            const long long next = std::min(endMs, (now / stepMs + 1) * stepMs);
            Common::P4X_TMSleepMicroSecond(static_cast<unsigned int>((next - now) * 1000));
            now = hostsim::ClockNowMs();
        }
        // The messages of this instant come in turns after this thread's: let it finish.
        Common::P4X_TMSleepMicroSecond(1000);
    });
    return now;
}

long long Session::Release() {
    if (!m_host || m_released) return 0;
    m_released = true;
    if (m_feeder) m_feeder->Stop();
    const long long before = hostsim::ClockNowMs();
    m_host->Release();
    const long long took = hostsim::ClockNowMs() - before;
    m_host.reset();
    return took;
}

void Session::Stop() {
    if (m_tapSet) hostsim::SetSerialTap({});
    m_tapSet = false;
    if (m_token != 0) {
        hostsim::BusDrain();
        hostsim::BusUnsubscribe(m_token);
        m_token = 0;
    }
    if (m_relay) m_relay->Stop();
    if (m_emulator) m_emulator->Stop();
    m_relay.reset();
    m_feeder.reset();
    m_emulator.reset();
    m_self.reset();
}

std::string DefaultPluginPath() {
    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n <= 0) return "libSerialDevOBD.so";
    std::string path(self, static_cast<size_t>(n));
    const size_t slash = path.rfind('/');
    return (slash == std::string::npos ? std::string(".") : path.substr(0, slash)) +
           "/libSerialDevOBD.so";
}

}  // namespace obdsim
