#include "Reference.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OBDSIM_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define OBDSIM_SANITIZED 1
#endif
#endif

namespace obdsim {
namespace {

// The analyser's functions have C++ linkage; these are their names under the Itanium C++ ABI,
// which x86-64 and 32-bit ARM share. A changed signature makes Load fail with the name missing.
constexpr const char* kInit = "_Z24Gds_IF_InitLogicAnalyserP13tagGdsParam_t";
constexpr const char* kUpdate =
    "_Z24Gds_IF_UpdateCollectData19CollectDataType_EumPvP13tagGdsParam_t";
constexpr const char* kAnalyse = "_Z19Gds_IF_AnalyserDataP13tagGdsParam_t";
constexpr const char* kStat =
    "_Z20Gds_IF_GetStatisticsP13tagGdsParam_tP20GdsStatisticsData_t_P24EconomyStatisticsData_t_";
constexpr const char* kRelease = "_Z27Gds_IF_ReleaseLogicAnalyserP13tagGdsParam_t";

std::string DlError(const std::string& fallback) {
    const char* e = dlerror();
    return e != nullptr ? e : fallback;
}

// dlopen's a copy of `path` made in a fresh temporary directory; the copy is removed again at
// once (the mapping stays).
void* OpenPrivateCopy(const std::string& path, std::string& error) {
    const char* tmp = std::getenv("TMPDIR");
    std::string dir =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/obd-sim-XXXXXX";
    if (mkdtemp(&dir[0]) == nullptr) {
        error = dir + ": " + std::strerror(errno);
        return nullptr;
    }
    const std::string copy = dir + "/reference.so";
    {
        std::ifstream in(path, std::ios::binary);
        std::ofstream out(copy, std::ios::binary);
        out << in.rdbuf();
        if (!in || !out) error = path + ": cannot copy to " + copy;
    }
    void* lib = error.empty() ? dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL) : nullptr;
    if (lib == nullptr && error.empty()) error = DlError(copy);
    ::unlink(copy.c_str());
    ::rmdir(dir.c_str());
    return lib;
}

}  // namespace

ReferenceAnalyser::~ReferenceAnalyser() {
    if (m_gds != nullptr && m_release != nullptr) m_release(m_gds);
    std::free(m_gds);
    if (m_lib != nullptr) dlclose(m_lib);
}

bool ReferenceAnalyser::Load(const std::string& libraryPath, std::string& error) {
    error.clear();
#ifndef OBDSIM_SANITIZED
    m_lib = dlmopen(LM_ID_NEWLM, libraryPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    m_how = "own namespace";
    if (m_lib == nullptr) (void)dlerror();
#endif
    if (m_lib == nullptr) {
        m_lib = OpenPrivateCopy(libraryPath, error);
        m_how = "private copy";
        if (m_lib == nullptr) return false;
    }
    if (!Resolve(error)) return false;
    m_gds = static_cast<tagGdsParam_t*>(std::calloc(1, sizeof(tagGdsParam_t)));
    if (m_gds == nullptr || m_init(m_gds) != 0) {
        error = "cannot initialise the reference analyser";
        return false;
    }
    for (auto& it : m_table.item) {
        it.id = -1;
        it.value = 0.0f;
    }
    return true;
}

bool ReferenceAnalyser::Resolve(std::string& error) {
    auto get = [&](const char* name) {
        void* f = dlsym(m_lib, name);
        if (f == nullptr && error.empty())
            error = "analyser function missing: " + std::string(name);
        return f;
    };
    m_init = reinterpret_cast<InitFn>(get(kInit));
    m_update = reinterpret_cast<UpdateFn>(get(kUpdate));
    m_analyse = reinterpret_cast<AnalyseFn>(get(kAnalyse));
    m_stat = reinterpret_cast<StatFn>(get(kStat));
    m_release = reinterpret_cast<ReleaseFn>(get(kRelease));
    return error.empty();
}

void ReferenceAnalyser::Frame(const DriveSample& items) {
    if (m_gds == nullptr) return;
    std::lock_guard<std::mutex> lock(m_tableMutex);
    for (int i = 0; i < OBD_ITEM_COUNT; ++i) {
        if (!items.present[static_cast<size_t>(i)]) continue;
        m_table.item[i].id = i;
        m_table.item[i].value = items.value[static_cast<size_t>(i)];
    }
    _OBD_DataTable_t copy = m_table;
    m_update(COLLECT_OBD_DATA, &copy, m_gds);
}

void ReferenceAnalyser::Table(const _OBD_DataTable_t& table) {
    if (m_gds == nullptr) return;
    std::lock_guard<std::mutex> lock(m_tableMutex);
    m_table = table;
    _OBD_DataTable_t copy = m_table;
    m_update(COLLECT_OBD_DATA, &copy, m_gds);
}

void ReferenceAnalyser::SixAxis(const tagSixAxisOrgData& sample) {
    if (m_gds == nullptr) return;
    tagSixAxisOrgData copy = sample;
    m_update(COLLECT_SIX_AXIS_DATA, &copy, m_gds);
}

void ReferenceAnalyser::Second() {
    if (m_gds != nullptr) m_analyse(m_gds);
}

void ReferenceAnalyser::AlarmWords(uint64_t words[4]) const {
    const Alarm_Info_t none{};
    const Alarm_Info_t& a = m_gds != nullptr ? m_gds->collData.alarmInfo : none;
    words[0] = a.eventType1Alarms;
    words[1] = a.eventType2Alarms;
    words[2] = a.eventType3Alarms;
    words[3] = a.eventType4Alarms;
}

bool ReferenceAnalyser::Statistics(GdsStatisticsData_t_& stat,
                                   EconomyStatisticsData_t_& economy) const {
    return m_gds != nullptr && m_stat(m_gds, &stat, &economy) == 0;
}

StatisticsThresold_tag_ ReferenceAnalyser::Thresholds() const {
    // Written once by the initialisation and never again.
    return m_gds != nullptr ? m_gds->statThreshold : StatisticsThresold_tag_{};
}

bool ReferenceAnalyser::ThresholdRecord(uint8_t* out) const {
    if (m_gds == nullptr) return false;
    std::memcpy(out, m_gds, GDS_THRESHOLD_BYTES);
    return true;
}

bool ReferenceAnalyser::SetThresholdRecord(const uint8_t* record) {
    if (m_gds == nullptr) return false;
    // The analyser reads its thresholds under its own lock, and only inside its calls.
    std::memcpy(static_cast<void*>(m_gds), record, GDS_THRESHOLD_BYTES);
    return true;
}

}  // namespace obdsim
