// One line of an inject script: "[@T_MS] ID [HEX]".
#pragma once

#include <string>
#include <vector>

namespace obdsim {

struct InjectLine {
    bool timed = false;
    long long tMs = 0;  // host time to deliver at, when `timed`
    int id = 0;
    std::vector<unsigned char> payload;
};

enum class ParseResult { Message, Skip, Error };

// Parses one line. Blank lines and comments ("#" to the end of the line) give Skip. ID is
// decimal or 0x-prefixed hexadecimal; HEX is the payload, two digits per byte, with or without
// blanks between bytes. On Error, `error` says why.
ParseResult ParseInjectLine(const std::string& line, InjectLine& out, std::string& error);

}  // namespace obdsim
