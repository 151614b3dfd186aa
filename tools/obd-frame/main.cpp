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
#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "FrameFields.h"
#include "FrameInput.h"

namespace {

int Fail(const std::string& message, int code) {
    std::fprintf(stderr, "obd-frame: %s\n", message.c_str());
    return code;
}

// The input is read in blocks and decoded as it comes: memory holds a block, the current line
// and what an open frame or garbage run needs, whatever the input's size. The first kWindow bytes
// are read before anything is printed, so that the format, the source and the chunk count of the
// header come from the whole input when it is no longer.
constexpr size_t kBlock = 65536;
constexpr size_t kWindow = 1 << 20;
// A garbage run or cut-off frame is printed in pieces of at most this many bytes.
constexpr size_t kMaxRun = 65536;
// Records of one direction printed ahead of an open record of the other that began earlier, once
// the records waiting for it hold this many bytes.
constexpr size_t kHoldBytes = 4 << 20;
// Warnings of one kind printed before the rest are only counted.
constexpr size_t kWarningsShown = 20;

class Source {
  public:
    bool Open(const std::string& path, std::string& error) {
        if (path == "-") {
            m_file = stdin;
            return true;
        }
        m_file = std::fopen(path.c_str(), "rb");
        if (m_file == nullptr) {
            error = path + ": " + std::strerror(errno);
            return false;
        }
        m_owned = true;
        return true;
    }
    ~Source() {
        if (m_owned) std::fclose(m_file);
    }
    // Appends up to `n` bytes to `out`; 0 at the end of the input.
    size_t Read(std::string& out, size_t n) {
        const size_t at = out.size();
        out.resize(at + n);
        const size_t got = std::fread(&out[at], 1, n, m_file);
        out.resize(at + got);
        return got;
    }
    bool Failed() const { return std::ferror(m_file) != 0; }

  private:
    std::FILE* m_file = nullptr;
    bool m_owned = false;
};

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

    std::string error;
    Source in;
    if (!in.Open(path, error)) return Fail("cannot read " + error, 1);
    std::string window;
    bool ended = false;
    while (!ended && window.size() < kWindow) ended = in.Read(window, kBlock) == 0;
    if (in.Failed()) return Fail("cannot read " + path + ": " + std::strerror(errno), 1);
    if (format == obdframe::Format::Auto) {
        // A line the window cut is judged when it is whole, not by its first half.
        const size_t nl = ended ? std::string::npos : window.rfind('\n');
        format =
            obdframe::DetectFormat(nl == std::string::npos ? window : window.substr(0, nl + 1));
    }

    size_t linesCut = 0;
    std::vector<obdframe::Chunk> early;  // the window's chunks, until the source is chosen
    obdframe::ChunkDecoder* decoder = nullptr;
    obdframe::Source chosen = source;
    obdframe::InputReader reader(format, [&](obdframe::Chunk&& c) {
        if (decoder == nullptr) {
            early.push_back(std::move(c));
        } else if (c.source == chosen) {
            decoder->Add(std::move(c));
        }
    });
    reader.onLineCut = [&linesCut](size_t line) {
        if (++linesCut <= kWarningsShown) {
            std::fprintf(stderr, "obd-frame: line %zu is longer than %zu bytes: read up to there\n",
                         line, obdframe::InputReader::kMaxLine);
        }
    };
    reader.Feed(window.data(), window.size());
    if (ended) reader.Finish();
    std::string().swap(window);

    auto has = [&early](obdframe::Source s) {
        return std::any_of(early.begin(), early.end(),
                           [s](const obdframe::Chunk& c) { return c.source == s; });
    };
    if (chosen == obdframe::Source::Auto) {
        chosen = has(obdframe::Source::Wire)   ? obdframe::Source::Wire
                 : has(obdframe::Source::Read) ? obdframe::Source::Read
                                               : obdframe::Source::Frame;
    }
    auto badLinesWarning = [&reader] {
        if (reader.BadLines() == 0) return;
        std::fprintf(stderr,
                     "obd-frame: %zu line(s) with unreadable bytes (read up to the fault)\n",
                     reader.BadLines());
    };
    if (ended) badLinesWarning();
    if (!json) {
        const bool log = format == obdframe::Format::Log || format == obdframe::Format::Json;
        const size_t chunks = static_cast<size_t>(std::count_if(
            early.begin(), early.end(),
            [chosen](const obdframe::Chunk& c) { return c.source == chosen && !c.more; }));
        // Binary input is one chunk however long; a longer text input is counted only as it goes.
        std::printf("# %s input%s%s, ", FormatName(format), log ? ", source " : "",
                    log ? SourceName(chosen) : "");
        if (ended || format == obdframe::Format::Bin) {
            std::printf("%zu chunk(s)\n", chunks);
        } else {
            std::printf("streamed\n");
        }
    }

    obdframe::Summary summary;
    obdframe::ChunkDecoder chunkDecoder(
        [&](obdframe::Placed&& p) {
            summary.Add(p.record);
            if (json) {
                std::printf("%s\n", obdframe::FormatJson(p, print).c_str());
            } else {
                for (const std::string& line : obdframe::FormatText(p, print)) {
                    std::printf("%s\n", line.c_str());
                }
            }
        },
        kMaxRun, kHoldBytes);
    decoder = &chunkDecoder;
    for (obdframe::Chunk& c : early) {
        if (c.source == chosen) chunkDecoder.Add(std::move(c));
    }
    std::vector<obdframe::Chunk>().swap(early);
    if (!ended) {
        std::string block;
        for (;;) {
            block.clear();
            if (in.Read(block, kBlock) == 0) break;
            reader.Feed(block.data(), block.size());
        }
        if (in.Failed()) return Fail("cannot read " + path + ": " + std::strerror(errno), 1);
        reader.Finish();
    }
    chunkDecoder.Finish();
    std::printf("%s\n", json ? summary.Json().c_str() : summary.Text().c_str());
    if (!ended) badLinesWarning();
    if (linesCut > kWarningsShown) {
        std::fprintf(stderr, "obd-frame: %zu more line(s) longer than %zu bytes\n",
                     linesCut - kWarningsShown, obdframe::InputReader::kMaxLine);
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        return Fail(e.what(), 1);
    }
}
