// libFuzzer target: arbitrary bytes through obd-frame, as a raw stream or as any of its text
// inputs, decoded and printed both ways. Nothing may crash or touch memory out of bounds
// (ASan/UBSan), and the decoder must account for every byte of a stream exactly once, in order.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "FrameDecoder.h"
#include "FrameFields.h"
#include "FrameInput.h"

namespace {

void Check(bool ok) {
    if (!ok) std::abort();
}

void Print(const obdframe::Placed& p) {
    const obdframe::PrintOptions o{true, true};
    size_t n = obdframe::FormatJson(p, o).size();
    for (const std::string& line : obdframe::FormatText(p, o)) n += line.size();
    Check(n > 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const uint8_t mode = data[0];
    ++data;
    --size;
    if (mode % 2 == 0) {
        static const obdframe::Dir kDirs[] = {obdframe::Dir::Unknown, obdframe::Dir::ToBox,
                                              obdframe::Dir::FromBox};
        const std::vector<obdframe::Record> records =
            obdframe::DecodeStream(data, size, kDirs[(mode / 2) % 3]);
        size_t at = 0;
        for (const obdframe::Record& r : records) {
            Check(r.offset == at && !r.raw.empty() && at + r.raw.size() <= size);
            for (size_t i = 0; i < r.raw.size(); ++i) Check(r.raw[i] == data[at + i]);
            at += r.raw.size();
            if (r.kind == obdframe::Kind::Frame) {
                Check(r.length >= 3 && r.length <= obdframe::kMaxLength && r.HasCode());
                Check(r.checksumOk == (r.checksum == r.computed));
            }
            Print({r, true, 1.5, 1});
        }
        Check(at == size);
        // In pieces of the sizes the input's own bytes give, the same records.
        obdframe::StreamDecoder pieces(kDirs[(mode / 2) % 3]);
        std::vector<obdframe::Record> streamed;
        for (size_t i = 0; i < size;) {
            const size_t n = std::min<size_t>(1 + data[i] % 64, size - i);
            pieces.Feed(data + i, n);
            i += n;
            for (obdframe::Record& r : pieces.Take()) streamed.push_back(std::move(r));
        }
        pieces.Finish();
        for (obdframe::Record& r : pieces.Take()) streamed.push_back(std::move(r));
        Check(streamed.size() == records.size());
        for (size_t i = 0; i < records.size(); ++i) {
            Check(streamed[i].kind == records[i].kind && streamed[i].raw == records[i].raw &&
                  streamed[i].body == records[i].body);
        }
        return 0;
    }
    static const obdframe::Format kFormats[] = {obdframe::Format::Auto, obdframe::Format::Log,
                                                obdframe::Format::Json, obdframe::Format::Hex};
    static const obdframe::Source kSources[] = {obdframe::Source::Auto, obdframe::Source::Wire,
                                                obdframe::Source::Read, obdframe::Source::Frame};
    const std::string text(reinterpret_cast<const char*>(data), size);
    const obdframe::Input in =
        obdframe::ParseInput(text, kFormats[(mode / 2) % 4], kSources[(mode / 8) % 4]);
    for (const obdframe::Placed& p : obdframe::DecodeInput(in)) Print(p);
    return 0;
}
