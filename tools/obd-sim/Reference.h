// The reference analyser behind the summary's trip statistics.
//
// No broadcast carries the analyser's statistics, and the simulator uses the plug-in only as the
// recorder does. The library exports the analyser for hosts, though, so the summary's statistics
// come from a second copy of the same library fed with the same samples the plug-in received (the
// box's data-stream frames and the inertial samples) and run once per second of vehicle time.
// The copy must be a separate one: the analyser keeps process-wide state (its lock and the
// latches of some checks), which the plug-in's copy must not share. It is loaded with
// dlmopen(LM_ID_NEWLM), a link-map namespace of its own. Sanitizer runtimes cannot be loaded a
// second time into a new namespace (AddressSanitizer aborts, ThreadSanitizer refuses), so in such
// builds, or wherever dlmopen fails, a private copy of the library file is dlopen'ed instead:
// RTLD_LOCAL and a file of its own give it its own code and data in the main namespace.
#pragma once

#include <bitset>
#include <cstdint>
#include <mutex>
#include <string>

#include "Drive.h"
#include "GdsLogicAnalyser.h"

namespace obdsim {

class ReferenceAnalyser {
  public:
    ReferenceAnalyser() = default;
    ~ReferenceAnalyser();
    ReferenceAnalyser(const ReferenceAnalyser&) = delete;
    ReferenceAnalyser& operator=(const ReferenceAnalyser&) = delete;

    // Loads its copy of `libraryPath` and initialises the analyser. False with `error` set when
    // the library or one of its analyser functions cannot be had.
    bool Load(const std::string& libraryPath, std::string& error);
    bool Loaded() const { return m_gds != nullptr; }
    // "own namespace" or "private copy".
    const char* How() const { return m_how; }

    // One data-stream frame: the items it carries replace theirs in the table, the others keep
    // their last values, as in the plug-in's table.
    void Frame(const DriveSample& items);
    // A whole table (when the plug-in's own broadcasts are the only source).
    void Table(const _OBD_DataTable_t& table);
    void SixAxis(const tagSixAxisOrgData& sample);
    // The once-a-second evaluation.
    void Second();
    // The four event words of the last evaluation.
    void AlarmWords(uint64_t words[4]) const;
    bool Statistics(GdsStatisticsData_t_& stat, EconomyStatisticsData_t_& economy) const;
    // The analyser's thresholds (the band edges of the statistics).
    StatisticsThresold_tag_ Thresholds() const;
    // The whole 238-byte threshold record (alarm then statistics thresholds): read, or replaced
    // before the first sample for a what-if analysis. False when nothing is loaded.
    bool ThresholdRecord(uint8_t* out) const;
    bool SetThresholdRecord(const uint8_t* record);

  private:
    using InitFn = int (*)(tagGdsParam_t*);
    using UpdateFn = int (*)(CollectDataType_Eum, void*, tagGdsParam_t*);
    using AnalyseFn = void (*)(tagGdsParam_t*);
    using StatFn = int (*)(tagGdsParam_t*, GdsStatisticsData_t_*, EconomyStatisticsData_t_*);
    using ReleaseFn = int (*)(tagGdsParam_t*);

    bool Resolve(std::string& error);

    void* m_lib = nullptr;
    const char* m_how = "";
    InitFn m_init = nullptr;
    UpdateFn m_update = nullptr;
    AnalyseFn m_analyse = nullptr;
    StatFn m_stat = nullptr;
    ReleaseFn m_release = nullptr;
    tagGdsParam_t* m_gds = nullptr;   // the analyser's calls serialise on its own lock
    mutable std::mutex m_tableMutex;  // guards m_table
    _OBD_DataTable_t m_table{};
};

}  // namespace obdsim
