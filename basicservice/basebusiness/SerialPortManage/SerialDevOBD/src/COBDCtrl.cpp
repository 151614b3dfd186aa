#include "COBDCtrl.h"

COBDCtrl::COBDCtrl(CSerialDevOBD* owner) : m_pOwner(owner), m_bInited(0) {}
COBDCtrl::~COBDCtrl() {}

int COBDCtrl::OBD_Init() {
    if (m_bInited) return -1;
    m_bInited = 1;
    return 0;
}
int COBDCtrl::ReceiveData(unsigned char* data, int len) {
    return (data == nullptr || len > 1023) ? -1 : 0;
}
int COBDCtrl::OBD_ReadInfoProc(GdsGetInfoType_t_) {
    return -1;
}
int COBDCtrl::OBD_ConfigProc(GdsCfgType_t_, void* data) {
    return data == nullptr ? -1 : -1;
}
int COBDCtrl::OBD_UpgradeProc(char* path) {
    return path == nullptr ? -1 : -1;
}
int COBDCtrl::OBD_StartTs() {
    return -1;
}
int COBDCtrl::OBD_StopTs() {
    return -1;
}
int COBDCtrl::OBD_CheckObdHeartBeat() {
    return 0;
}
