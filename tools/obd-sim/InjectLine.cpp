#include "InjectLine.h"

#include <cctype>
#include <climits>
#include <sstream>

namespace obdsim {
namespace {

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Whole-token unsigned number, decimal or 0x-hex, at most `max`.
bool ParseNumber(const std::string& token, long long max, long long& value) {
    if (token.empty()) return false;
    int base = 10;
    size_t i = 0;
    if (token.size() > 2 && token[0] == '0' && (token[1] == 'x' || token[1] == 'X')) {
        base = 16;
        i = 2;
    }
    long long v = 0;
    for (; i < token.size(); ++i) {
        const int d =
            base == 16 ? HexDigit(token[i])
                       : (std::isdigit(static_cast<unsigned char>(token[i])) ? token[i] - '0' : -1);
        if (d < 0) return false;
        if (v > (max - d) / base) return false;
        v = v * base + d;
    }
    value = v;
    return true;
}

// A token as an error message quotes it: garbage (a binary file given by mistake) comes out
// short and printable.
std::string Shown(const std::string& token) {
    constexpr size_t kShown = 24;
    std::string out;
    for (size_t i = 0; i < token.size() && i < kShown; ++i) {
        const unsigned char c = static_cast<unsigned char>(token[i]);
        out += std::isprint(c) != 0 ? static_cast<char>(c) : '?';
    }
    if (token.size() > kShown) out += "...";
    return out;
}

}  // namespace

ParseResult ParseInjectLine(const std::string& line, InjectLine& out, std::string& error) {
    std::string text = line.substr(0, line.find('#'));
    std::istringstream in(text);
    std::string token;
    if (!(in >> token)) return ParseResult::Skip;
    InjectLine result;
    if (token[0] == '@') {
        long long t = 0;
        if (!ParseNumber(token.substr(1), LLONG_MAX / 1000, t)) {
            error = "bad time '" + Shown(token) + "'";
            return ParseResult::Error;
        }
        result.timed = true;
        result.tMs = t;
        if (!(in >> token)) {
            error = "message id missing";
            return ParseResult::Error;
        }
    }
    long long id = 0;
    if (!ParseNumber(token, INT_MAX, id)) {
        error = "bad message id '" + Shown(token) + "'";
        return ParseResult::Error;
    }
    result.id = static_cast<int>(id);
    std::string hex;
    while (in >> token) hex += token;
    if (hex.size() % 2 != 0) {
        error = "odd number of hex digits in payload";
        return ParseResult::Error;
    }
    result.payload.reserve(hex.size() / 2);
    for (size_t i = 0; i < hex.size(); i += 2) {
        const int hi = HexDigit(hex[i]);
        const int lo = HexDigit(hex[i + 1]);
        if (hi < 0 || lo < 0) {
            error = "bad hex payload '" + Shown(hex.substr(i, 2)) + "'";
            return ParseResult::Error;
        }
        result.payload.push_back(static_cast<unsigned char>(hi * 16 + lo));
    }
    out = std::move(result);
    return ParseResult::Message;
}

}  // namespace obdsim
