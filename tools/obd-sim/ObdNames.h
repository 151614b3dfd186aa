// Names the simulator gives the OBD items and the analyser's alarms: the column names of a
// scenario, the keys of the decoded JSON and the words of the summary all come from here.
#pragma once

#include <cstdint>
#include <string>

namespace obdsim {

constexpr int kItemCount = 59;

// The item's name: the analyser's 13 interpreted items by meaning ("speed", "engine_speed", ...),
// the others "item_N" with N their index in the table (0-58). nullptr outside 0-58.
const char* ItemName(int index);
// The index of a name ItemName gives, -1 for anything else.
int ItemIndex(const std::string& name);
// Brake, clutch and running brake are states: a scenario holds them between rows instead of
// interpolating.
bool ItemIsState(int index);

// One alarm of the four event words: one bit, or three consecutive bits for levels 1-3.
struct AlarmDef {
    int word;         // 1-4: eventType1Alarms ... eventType4Alarms
    int bit;          // its (lowest) bit
    bool graded;      // three bits, levels 1-3
    const char* key;  // JSON name
    const char* title;
};
constexpr int kAlarmCount = 23;
const AlarmDef& Alarm(int i);  // 0 <= i < kAlarmCount, in word and bit order
// The alarm index whose key is `key`, -1 when none.
int AlarmIndex(const std::string& key);
// The level (1-3; 1 for an ungraded alarm) that the four words show for alarm i, 0 when off.
int AlarmLevel(int i, const uint64_t words[4]);

}  // namespace obdsim
