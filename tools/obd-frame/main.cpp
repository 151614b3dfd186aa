// obd-frame: decodes the box link's frames from a field log, an obd-sim run or a raw capture and
// prints each frame (direction, sequence, command, length, checksum verdict, escapes, payload
// fields), the garbage between frames and frames cut off, then a summary line.
//
// Exit status: 0 when the input was read (whatever it held); 1 when it cannot be read; 2 for bad
// arguments.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>

#include "FrameFields.h"
#include "FrameInput.h"

namespace {

int Fail(const std::string& message, int code) {
    std::fprintf(stderr, "obd-frame: %s\n", message.c_str());
    return code;
}

bool ReadAll(const std::string& path, std::string& content, std::string& error) {
    if (path == "-") {
        std::ostringstream s;
        s << std::cin.rdbuf();
        content = s.str();
        return true;
    }
    std::ifstream f(path, std::ios::binary);
    if (!f) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    std::ostringstream s;
    s << f.rdbuf();
    content = s.str();
    return true;
}

const char* FormatName(obdframe::Format f) {
    switch (f) {
        case obdframe::Format::Log:
            return "log";
        case obdframe::Format::Json:
            return "json";
        case obdframe::Format::Hex:
            return "hex";
        case obdframe::Format::Bin:
            return "bin";
        case obdframe::Format::Auto:
            break;
    }
    return "auto";
}

const char* SourceName(obdframe::Source s) {
    switch (s) {
        case obdframe::Source::Wire:
            return "wire";
        case obdframe::Source::Read:
            return "read";
        case obdframe::Source::Frame:
            return "frame";
        case obdframe::Source::Auto:
            break;
    }
    return "auto";
}

}  // namespace

int Run(int argc, char** argv) {
    CLI::App app{"Decodes the OBD box link's frames from a log, an obd-sim run or a capture."};
    std::string path = "-";
    std::string formatName = "auto";
    std::string sourceName = "auto";
    bool hex = false;
    bool bin = false;
    bool json = false;
    obdframe::PrintOptions print;
    bool noFields = false;
    const std::map<std::string, obdframe::Format> formats = {{"auto", obdframe::Format::Auto},
                                                             {"log", obdframe::Format::Log},
                                                             {"json", obdframe::Format::Json},
                                                             {"hex", obdframe::Format::Hex},
                                                             {"bin", obdframe::Format::Bin}};
    const std::map<std::string, obdframe::Source> sources = {{"auto", obdframe::Source::Auto},
                                                             {"wire", obdframe::Source::Wire},
                                                             {"read", obdframe::Source::Read},
                                                             {"frame", obdframe::Source::Frame}};
    app.add_option("file", path, "input file; - or none: standard input");
    auto* formatOpt = app.add_option("--format", formatName,
                                     "auto (default), log (plug-in log or obd-sim output), json "
                                     "(obd-sim --json), hex (hex text capture), bin (binary)")
                          ->check(CLI::IsMember({"auto", "log", "json", "hex", "bin"}));
    app.add_flag("--hex", hex, "the input is a hex text capture (--format hex)")
        ->excludes(formatOpt);
    app.add_flag("--bin", bin, "the input is a binary capture (--format bin)")->excludes(formatOpt);
    app.add_option("--source", sourceName,
                   "which bytes of a log: wire (obd-sim's wire and bus lines), read (\"obd data:\" "
                   "dumps), frame (\"one obd data:\" dumps); auto (default): the first present")
        ->check(CLI::IsMember({"auto", "wire", "read", "frame"}));
    app.add_flag("--json", json, "one JSON object per line");
    app.add_flag("--bytes", print.bytes, "also print each frame's raw bytes");
    app.add_flag("--no-fields", noFields, "no payload fields, one line per frame");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        return Fail(e.what(), 2);
    }
    if (hex && bin) return Fail("--hex and --bin exclude each other", 2);
    obdframe::Format format = formats.at(formatName);
    const obdframe::Source source = sources.at(sourceName);
    if (hex) format = obdframe::Format::Hex;
    if (bin) format = obdframe::Format::Bin;
    print.fields = !noFields;
    std::signal(SIGPIPE, SIG_DFL);  // `obd-frame log | head` just stops

    std::string content;
    std::string error;
    if (!ReadAll(path, content, error)) return Fail("cannot read " + error, 1);

    const obdframe::Input input = obdframe::ParseInput(content, format, source);
    if (input.badLines > 0) {
        std::fprintf(stderr,
                     "obd-frame: %zu line(s) with unreadable bytes (read up to the fault)\n",
                     input.badLines);
    }
    if (!json) {
        const bool log =
            input.format == obdframe::Format::Log || input.format == obdframe::Format::Json;
        std::printf("# %s input%s%s, %zu chunk(s)\n", FormatName(input.format),
                    log ? ", source " : "", log ? SourceName(input.source) : "",
                    input.chunks.size());
    }
    obdframe::Summary summary;
    for (const obdframe::Placed& p : obdframe::DecodeInput(input)) {
        summary.Add(p.record);
        if (json) {
            std::printf("%s\n", obdframe::FormatJson(p, print).c_str());
        } else {
            for (const std::string& line : obdframe::FormatText(p, print)) {
                std::printf("%s\n", line.c_str());
            }
        }
    }
    std::printf("%s\n", json ? summary.Json().c_str() : summary.Text().c_str());
    return std::fflush(stdout) == 0 ? 0 : 1;
}

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        return Fail(e.what(), 1);
    }
}
