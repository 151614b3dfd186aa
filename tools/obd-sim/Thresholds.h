// What-if thresholds: the analyser's 238-byte threshold record (the alarm thresholds followed by
// the statistics thresholds) named field by field as the analyser's own code names them, and read
// from a JSON file that changes some of them.
//
// A file is one JSON object. Its names are the record's fields: "accLevel1",
// "revving.engineSpeed1", "voltage.chargeVolt12", "throttle.level[2].throttle", "speedBand[1]",
// and the unused bytes too ("reserved180[3]"). A field may also be given nested, as in the code
// ({"revving": {"engineSpeed1": 2500}}), and an array whole ({"speedBand": [0, 30, 60, 90, 120]}).
// Every value is an integer within the field's type (s16, u16, u8). Unknown names, values out of
// range and fractions are refused with the name in the message; nothing is applied then.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Decode.h"

namespace obdsim {

constexpr size_t kThresholdBytes = 238;

struct ThresholdField {
    std::string name;  // as the code names it, arrays element by element: "speedBand[1]"
    size_t offset;     // from the start of the 238 bytes
    size_t size;       // 1 or 2
    bool isSigned;
};

// Every field of the 238 bytes, in offset order; together they cover each byte exactly once.
const std::vector<ThresholdField>& ThresholdFields();
const ThresholdField* FindThresholdField(const std::string& name);

struct ThresholdEdit {
    const ThresholdField* field;
    long long value;
};

// Reads the edits of a JSON text; false with `error` (naming the field) when any is refused.
bool ParseThresholds(const std::string& text, std::vector<ThresholdEdit>& edits,
                     std::string& error);
// The same from a file; the error names the file.
bool LoadThresholds(const std::string& path, std::vector<ThresholdEdit>& edits, std::string& error);
// Writes the edits into the record, little-endian as the record is laid out.
void ApplyThresholds(const std::vector<ThresholdEdit>& edits, uint8_t* record);
// A field's value in the record.
long long ThresholdValue(const ThresholdField& field, const uint8_t* record);

// The edits as a JSON object, name to value, in the order given.
Json ThresholdsJson(const std::vector<ThresholdEdit>& edits);

}  // namespace obdsim
