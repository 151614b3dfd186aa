#include "GdsLogicAnalyser.h"

#include <cstring>

int Gds_IF_InitLogicAnalyser(tagGdsParam_t* gds) {
    if (gds == nullptr) return -1;
    for (auto& it : gds->obdData.item) {
        it.id = -1;
        it.value = 0.0f;
    }
    return 0;
}

int Gds_IF_UpdateCollectData(CollectDataType_Eum kind, void* data, tagGdsParam_t* gds) {
    if (data == nullptr || gds == nullptr) return -1;
    if (kind == COLLECT_OBD_DATA) std::memcpy(&gds->obdData, data, sizeof(gds->obdData));
    return 0;
}

void Gds_IF_AnalyserData(tagGdsParam_t* gds) {
    (void)gds;
}
