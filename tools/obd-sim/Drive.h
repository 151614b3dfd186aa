// A drive: what the vehicle does over time, as the box and the inertial sensor report it.
//
// A drive is a set of channels, each a list of keyframes (vehicle time, value): one channel per
// OBD item the box reports and one per six-axis component. Any vehicle time is answered from the
// keyframes on either side (interpolated, or the earlier one held), so the data-stream rate of the
// box and the rate of inertial samples are free of the rate at which the drive was written or
// recorded. Before its first keyframe an item is absent (the box has not sent it); after its last
// the value holds.
//
// The built-in drive and every scenario (Scenario.h) are drives; the feed (Feeder.h) turns one
// into data-stream frames and inertial messages.
#pragma once

#include <array>
#include <bitset>
#include <string>
#include <vector>

#include "ObdNames.h"

namespace obdsim {

// Six-axis components after the 59 items: acceleration in g, rotation rate in degrees per second.
enum MotionChannel { kAccX = kItemCount, kAccY, kAccZ, kRotX, kRotY, kRotZ, kChannelCount };

struct Motion {
    float acc[3] = {0, 0, 0};  // g: X forward, Y left, Z up
    float rot[3] = {0, 0, 0};  // degrees per second; Z positive turning left
};

struct DriveSample {
    std::array<float, kItemCount> value{};
    std::bitset<kItemCount> present;
};

// An alarm that a drive is written to provoke. The analyser raises it once its condition has held
// for `holdS` of its once-a-second runs, nominally at `startS` of vehicle time. The plug-in runs
// them when a 100 ms cycle finds a second or more gone since the last run, so on a clock with
// late cycles its "second" lasts longer and a long hold ends later in vehicle time (TripLog
// counts the hold in the steps the plug-in made).
struct ExpectedAlarm {
    std::string key;  // ObdNames alarm key
    double startS;
    double holdS;
    int level;  // highest level it reaches (1 for ungraded alarms)
};

class Drive {
  public:
    // Linear: interpolated between keyframes. Hold: the last keyframe's value until the next.
    enum class Mode { Linear, Hold };
    struct Channel {
        int id = 0;  // item index 0-58 or a MotionChannel
        Mode mode = Mode::Linear;
        std::vector<double> t;  // strictly increasing vehicle seconds
        std::vector<float> v;
    };

    explicit Drive(std::string name = "") : m_name(std::move(name)) {}

    // Replaces a channel with the same id. Keyframes must be in time order.
    void SetChannel(Channel channel);
    const std::string& Name() const { return m_name; }
    // Vehicle time of the last keyframe of any channel.
    double DurationS() const;
    bool HasMotion() const;

    DriveSample ItemsAt(double tS) const;
    Motion MotionAt(double tS) const;

    // The phase of the drive at tS ("" when the drive has none).
    std::string PhaseAt(double tS) const;
    void AddPhase(double startS, std::string name) { m_phases.push_back({startS, name}); }
    const std::vector<ExpectedAlarm>& Expected() const { return m_expected; }
    void SetExpected(std::vector<ExpectedAlarm> e) { m_expected = std::move(e); }

  private:
    static float ValueAt(const Channel& c, double tS);

    std::string m_name;
    std::vector<Channel> m_channels;
    std::vector<std::pair<double, std::string>> m_phases;
    std::vector<ExpectedAlarm> m_expected;
};

// The drive obd-sim runs without --scenario: a winter morning's trip of about a quarter of an
// hour with a known alarm in every family (see its table in Drive.cpp).
Drive BuiltinDrive();

}  // namespace obdsim
