// capture_bench write FILE N: N line frames of 50 bytes through the writer;
// capture_bench read FILE: reads them back. Peak memory stays flat whatever N:
//   cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DOBD_BENCH=ON
//   cmake --build build-bench -j2 --target capture_bench
//   /usr/bin/time -v build-bench/bin/capture_bench write /tmp/m.pcap 1000000
//   /usr/bin/time -v build-bench/bin/capture_bench read /tmp/m.pcap
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Capture.h"

int main(int argc, char** argv) {
    std::string error;
    if (argc == 4 && std::strcmp(argv[1], "write") == 0) {
        obdcap::Writer w;
        if (!w.Open(argv[2], error)) return std::fprintf(stderr, "%s\n", error.c_str()), 1;
        const long long n = std::atoll(argv[3]);
        std::vector<uint8_t> frame(50);
        for (long long i = 0; i < n; ++i) {
            frame[6] = static_cast<uint8_t>(i);
            w.Write(i * 1000, obdcap::Channel::Frame, obdcap::Direction::ToPlugin, 0, 0,
                    frame.data(), frame.size());
        }
        if (!w.Close(error)) return std::fprintf(stderr, "%s\n", error.c_str()), 1;
        std::printf("wrote %llu packets\n", w.Written());
        return 0;
    }
    if (argc == 3 && std::strcmp(argv[1], "read") == 0) {
        obdcap::Reader r;
        if (!r.Open(argv[2], error)) return std::fprintf(stderr, "%s\n", error.c_str()), 1;
        obdcap::Packet p;
        unsigned long long bytes = 0;
        while (r.Next(p, error)) bytes += p.payload.size();
        if (!error.empty()) return std::fprintf(stderr, "%s\n", error.c_str()), 1;
        std::printf("read %llu packets, %llu payload bytes\n", r.Count(), bytes);
        return 0;
    }
    std::fprintf(stderr, "usage: capture_bench write FILE N | read FILE\n");
    return 2;
}
