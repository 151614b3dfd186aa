// Device information store.
// (First slice: records are stored and marked received. Change tracking, fault codes, upgrade
// progress and the calibration answer come with the host-messaging work.)
#include <cstring>

#include "SerialDevOBD.h"

int CSerialDevOBD::UpdateDevInfo(IDDataType_Eum type, void* data) {
    if (data == nullptr) return -1;
    pthread_mutex_lock(&m_devInfoMutex);
    switch (type) {
        case ID_DATA_VERSION:
            std::memcpy(&m_devVersion, data, sizeof(m_devVersion));
            m_infoPending[GDS_GET_VERSION] = 0;
            break;
        case ID_DATA_ENGINE:
            std::memcpy(&m_devEngine, data, sizeof(m_devEngine));
            m_infoPending[GDS_GET_ENGINE] = 0;
            break;
        case ID_DATA_SCAN_TIME_LEVEL:
            std::memcpy(&m_devScanTimeLevel, data, sizeof(m_devScanTimeLevel));
            m_infoPending[GDS_GET_SCAN_TIME_LEVEL] = 0;
            break;
        case ID_DATA_DATA_SCAN_LEVEL:
            std::memcpy(&m_devDataScanLevel, data, sizeof(m_devDataScanLevel));
            m_infoPending[GDS_GET_DATA_SCAN_LEVEL] = 0;
            break;
        case ID_DATA_GDS_THRESHOLD:
            std::memcpy(alarmThreshold, data, GDS_THRESHOLD_BYTES);
            m_infoPending[GDS_GET_ALARM_THRESHOLD] = 0;
            break;
        default:
            break;
    }
    pthread_mutex_unlock(&m_devInfoMutex);
    return 0;
}
