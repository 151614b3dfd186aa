#include "FrameCapture.h"

#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace obdframe {

namespace {

obdcap::Direction DirectionOf(Dir d) {
    // The box's side is what a field log holds when it says nothing of the line.
    return d == Dir::ToBox ? obdcap::Direction::FromPlugin : obdcap::Direction::ToPlugin;
}

Dir DirOf(obdcap::Direction d) {
    return d == obdcap::Direction::FromPlugin ? Dir::ToBox : Dir::FromBox;
}

const char* SideName(obdcap::Direction d) {
    return d == obdcap::Direction::FromPlugin ? "from_plugin" : "to_plugin";
}

}  // namespace

obdcap::Packet PacketOf(const Placed& p, long long untimedUs) {
    const Record& r = p.record;
    obdcap::Packet out;
    if (p.hasTime) {
        const double us = std::round(p.tEndMs * 1000.0);
        out.tUs = us <= 0.0                                       ? 0
                  : us >= static_cast<double>(obdcap::kMaxTimeUs) ? obdcap::kMaxTimeUs
                                                                  : static_cast<long long>(us);
    } else {
        out.tUs = untimedUs;
    }
    out.channel = r.kind == Kind::Garbage ? obdcap::Channel::Garbage : obdcap::Channel::Frame;
    out.direction = DirectionOf(r.dir != Dir::Unknown ? r.dir : r.lineDir);
    out.flags = r.kind == Kind::Truncated ? obdcap::kFlagCut : 0;
    out.payload = r.raw;
    return out;
}

std::vector<Placed> RecordsOf(const obdcap::Packet& p) {
    std::vector<Placed> out;
    const Dir line = DirOf(p.direction);
    auto place = [&p, &out](Record&& r) {
        Placed placed;
        placed.record = std::move(r);
        placed.hasTime = true;
        placed.tMs = static_cast<double>(p.tUs) / 1000.0;
        placed.tEndMs = placed.tMs;
        out.push_back(std::move(placed));
    };
    if (p.channel == obdcap::Channel::Frame) {
        for (Record& r : DecodeStream(p.payload.data(), p.payload.size(), line))
            place(std::move(r));
    } else if (p.channel == obdcap::Channel::Garbage && !p.payload.empty()) {
        Record r;
        r.kind = Kind::Garbage;
        r.dir = r.lineDir = line;
        r.raw = p.payload;
        place(std::move(r));
    }
    return out;
}

std::string FormatOther(const obdcap::Packet& p, bool json) {
    const double tMs = static_cast<double>(p.tUs) / 1000.0;
    const bool bus = p.channel == obdcap::Channel::Bus;
    const bool response = (p.flags & obdcap::kFlagResponse) != 0;
    if (json) {
        nlohmann::ordered_json j;
        j["t_ms"] = tMs;
        j["kind"] = obdcap::ChannelName(p.channel);
        j["dir"] = SideName(p.direction);
        if (bus) {
            j["id"] = p.busId;
            j["response"] = response;
        }
        j["len"] = p.payload.size();
        j["hex"] = Hex(p.payload.data(), p.payload.size());
        return j.dump();
    }
    char time[48];
    if (tMs == std::floor(tMs)) {
        std::snprintf(time, sizeof(time), "%lld ms  ", p.tUs / 1000);
    } else {
        std::snprintf(time, sizeof(time), "%.3f ms  ", tMs);
    }
    std::string line =
        std::string(time) + obdcap::ChannelName(p.channel) + " " + SideName(p.direction);
    if (bus) line += " id=" + std::to_string(p.busId) + (response ? " response" : "");
    if (p.channel == obdcap::Channel::Run) {
        std::string text(p.payload.begin(), p.payload.end());
        while (!text.empty() && text.back() == '\n') text.pop_back();
        for (char& c : text) c = c == '\n' ? ' ' : (c < 0x20 || c > 0x7E ? '?' : c);
        return line + ": " + text;
    }
    line += " len=" + std::to_string(p.payload.size());
    constexpr size_t kShown = 32;
    if (!p.payload.empty()) line += ": " + Hex(p.payload.data(), p.payload.size(), kShown);
    return line;
}

bool IsCaptureFile(const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) return false;
    uint8_t head[4] = {};
    const size_t n = std::fread(head, 1, sizeof(head), f);
    std::fclose(f);
    return obdcap::LooksLikePcap(head, n);
}

}  // namespace obdframe
