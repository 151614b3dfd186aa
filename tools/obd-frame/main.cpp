// obd-frame: decodes the box link's frames from a field log, an obd-sim run or a raw capture and
// prints each frame (direction, sequence, command, length, checksum verdict, escapes, payload
// fields), the garbage between frames and frames cut off, then a summary line. It reads pcap
// captures too (obd-sim --capture) and with --pcap writes what it cut from logs as one.
//
// Exit status: 0 when the input was read (whatever it held); 1 when it cannot be read; 2 for bad
// arguments.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Capture.h"
#include "FrameCapture.h"
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

struct Header {
    obdframe::Format format = obdframe::Format::Auto;
    obdframe::Source source = obdframe::Source::Auto;
    std::string text;  // "# log input, source wire, 12 chunk(s)"
};
struct Output {
    std::function<void(const Header&)> header;  // once, before the first record
    std::function<void(obdframe::Placed&&)> record;
};

// Reads one input (a log, JSON, hex or binary) and hands on every record it cuts; 0, or 1 (told)
// when the input cannot be read.
int Decode(const std::string& path, obdframe::Format format, const obdframe::Source source,
           const Output& out) {
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
    {
        const bool log = format == obdframe::Format::Log || format == obdframe::Format::Json;
        const size_t chunks = static_cast<size_t>(std::count_if(
            early.begin(), early.end(),
            [chosen](const obdframe::Chunk& c) { return c.source == chosen && !c.more; }));
        // Binary input is one chunk however long; a longer text input is counted only as it goes.
        Header h;
        h.format = format;
        h.source = chosen;
        h.text = std::string("# ") + FormatName(format) + " input" +
                 (log ? std::string(", source ") + SourceName(chosen) : std::string()) + ", " +
                 (ended || format == obdframe::Format::Bin ? std::to_string(chunks) + " chunk(s)"
                                                           : std::string("streamed"));
        out.header(h);
    }

    obdframe::ChunkDecoder chunkDecoder(out.record, kMaxRun, kHoldBytes);
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
    if (!ended) badLinesWarning();
    if (linesCut > kWarningsShown) {
        std::fprintf(stderr, "obd-frame: %zu more line(s) longer than %zu bytes\n",
                     linesCut - kWarningsShown, obdframe::InputReader::kMaxLine);
    }
    return 0;
}

void PrintRecord(const obdframe::Placed& p, bool json, const obdframe::PrintOptions& print) {
    if (json) {
        std::printf("%s\n", obdframe::FormatJson(p, print).c_str());
        return;
    }
    for (const std::string& line : obdframe::FormatText(p, print))
        std::printf("%s\n", line.c_str());
}

// A capture as input: its line frames and garbage as obd-frame prints any input, its bus messages
// and inertial samples one line each, all in the capture's order; the raw chunks are only counted
// (their bytes are those of the frames).
int PrintCapture(const std::string& path, bool json, const obdframe::PrintOptions& print) {
    obdcap::Reader reader;
    std::string error;
    if (!reader.Open(path, error)) return Fail(error, 1);
    if (!json) std::printf("# pcap input\n");
    obdframe::Summary summary;
    unsigned long long counts[6] = {};
    obdcap::Packet p;
    while (reader.Next(p, error)) {
        ++counts[static_cast<size_t>(p.channel)];
        if (p.channel == obdcap::Channel::Frame || p.channel == obdcap::Channel::Garbage) {
            for (const obdframe::Placed& placed : obdframe::RecordsOf(p)) {
                summary.Add(placed.record);
                PrintRecord(placed, json, print);
            }
        } else if (p.channel != obdcap::Channel::Chunk) {
            std::printf("%s\n", obdframe::FormatOther(p, json).c_str());
        }
    }
    if (!json) {
        std::printf(
            "# capture: %llu packet(s): %llu line frame(s), %llu garbage, %llu chunk(s), "
            "%llu bus message(s), %llu inertial sample(s)\n",
            reader.Count(), counts[1], counts[3], counts[2], counts[4], counts[5]);
    }
    std::printf("%s\n", json ? summary.Json().c_str() : summary.Text().c_str());
    if (!error.empty()) return Fail(error, 1);
    return std::fflush(stdout) == 0 ? 0 : 1;
}

// --pcap: every input's records, one packet each, in one capture.
int WriteCapture(const std::vector<std::string>& paths, const std::string& outPath,
                 obdframe::Format format, obdframe::Source source) {
    obdcap::Writer writer;
    std::string error;
    for (const std::string& path : paths) {
        if (path != "-" && obdframe::IsCaptureFile(path)) {
            return Fail(path + " is a capture already", 2);
        }
    }
    if (!writer.Open(outPath, error)) return Fail(error, 1);
    obdframe::Summary summary;
    unsigned long long packets = 0, timed = 0;
    Output out;
    out.header = [](const Header& h) { std::fprintf(stderr, "obd-frame: %s\n", h.text.c_str()); };
    // Records without time are numbered in order instead: 0, 1, 2 ... microseconds.
    out.record = [&](obdframe::Placed&& p) {
        summary.Add(p.record);
        if (p.hasTime) ++timed;
        writer.Write(obdframe::PacketOf(p, static_cast<long long>(packets)));
        ++packets;
    };
    for (const std::string& path : paths) {
        const int status = Decode(path, format, source, out);
        if (status != 0) return status;
    }
    if (!writer.Close(error)) return Fail(error, 1);
    std::fprintf(stderr, "obd-frame: %s: %llu packet(s), %s\n", outPath.c_str(), packets,
                 timed == packets ? "times from the input"
                 : timed == 0
                     ? "no times in the input: numbered 0, 1, 2 ... us in order"
                     : "times from the input where it had them, else the packet's number in us");
    std::printf("%s\n", summary.Text().c_str());
    return std::fflush(stdout) == 0 ? 0 : 1;
}

}  // namespace

int Run(int argc, char** argv) {
    CLI::App app{"Decodes the OBD box link's frames from a log, an obd-sim run or a capture."};
    std::vector<std::string> paths;
    std::string pcapOut;
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
    app.add_option("file", paths,
                   "input file; - or none: standard input; a pcap capture is recognised (several "
                   "inputs with --pcap)");
    app.add_option("--pcap", pcapOut,
                   "write the frames, garbage and cut-off frames as a pcap capture to this file "
                   "instead of printing them; times from the input, else 0, 1, 2 ... us");
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

    if (!pcapOut.empty()) {
        if (!obdcap::Available()) return Fail(std::string("--pcap: ") + obdcap::kUnavailable, 2);
        if (paths.empty()) paths.push_back("-");
        return WriteCapture(paths, pcapOut, format, source);
    }
    if (paths.size() > 1) return Fail("one input at a time (several only with --pcap)", 2);
    const std::string path = paths.empty() ? "-" : paths.front();
    if (path != "-" && obdframe::IsCaptureFile(path)) {
        if (!obdcap::Available())
            return Fail(path + ": a pcap capture, " + obdcap::kUnavailable, 2);
        return PrintCapture(path, json, print);
    }

    obdframe::Summary summary;
    Output out;
    out.header = [json](const Header& h) {
        if (!json) std::printf("%s\n", h.text.c_str());
    };
    out.record = [&](obdframe::Placed&& p) {
        summary.Add(p.record);
        PrintRecord(p, json, print);
    };
    const int status = Decode(path, format, source, out);
    if (status != 0) return status;
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
