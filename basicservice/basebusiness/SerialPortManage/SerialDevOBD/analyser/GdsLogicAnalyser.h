// Driving-behaviour analyser: records and interface.
// (Minimal form; the analyser's full data model replaces it.)
#pragma once

#include <cstddef>
#include <cstdint>

#define GDS_EXPORT __attribute__((visibility("default")))

constexpr int OBD_ITEM_COUNT = 59;

struct OBD_DataItem_t {
    int32_t id;
    float value;
};
struct _OBD_DataTable_t {
    OBD_DataItem_t item[OBD_ITEM_COUNT];
};
static_assert(sizeof(_OBD_DataTable_t) == 472, "OBD data table");

enum CollectDataType_Eum {
    COLLECT_OBD_DATA = 2,
    COLLECT_GSENSOR_DATA = 3,
    COLLECT_SIX_AXIS_DATA = 4,
};

constexpr size_t GDS_THRESHOLD_BYTES = 238;

struct tagGdsParam_t {
    unsigned char thresholds[GDS_THRESHOLD_BYTES];
    _OBD_DataTable_t obdData;
};

GDS_EXPORT int Gds_IF_InitLogicAnalyser(tagGdsParam_t* gds);
GDS_EXPORT int Gds_IF_UpdateCollectData(CollectDataType_Eum kind, void* data, tagGdsParam_t* gds);
GDS_EXPORT void Gds_IF_AnalyserData(tagGdsParam_t* gds);
