// Decoding of the plug-in's outbound bus messages for --json's "decoded" object. The field names
// are listed in the README; item and alarm names come from ObdNames.h.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace obdsim {

using Json = nlohmann::ordered_json;

// The decoded payload of a message the plug-in sent (`response` false: a send with its own id;
// true: an answer, `id` being the id of the message it answers). Null for ids it does not know;
// {"error": ...} for a known id whose payload has the wrong size.
Json Decode(int id, bool response, const std::vector<unsigned char>& payload);

// Pieces that the summary and the status line read as well.
// The four event words of an alarm message (208 bytes); false for another size.
bool AlarmWords(const std::vector<unsigned char>& payload, uint64_t words[4]);
// Value of item `index` in an OBD data message (504 bytes); false when absent or another size.
bool ItemValue(const std::vector<unsigned char>& payload, int index, float& value);

// A float as JSON shows it best: the shortest decimal that reads back as the same float.
double Num(float v);

}  // namespace obdsim
