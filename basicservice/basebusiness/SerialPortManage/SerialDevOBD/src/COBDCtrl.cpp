// Link controller: construction, initialisation, heartbeat and watchdog.
#include "COBDCtrl.h"

#include <cstring>

COBDCtrl::COBDCtrl(CSerialDevOBD* owner)
    : COBDParser(),
      m_pOwner(owner),
      m_dataTable(),
      m_scanTimeLevel(),
      m_version(),
      m_dataScanLevel(),
      m_engine(),
      m_demarcateResult(0),
      m_seqNo(0),
      m_cmdSeqNo(0),
      m_sendMutex(),
      m_bCancelled(0),
      m_waitCmd(OBD_CMD_NONE),
      m_upgState(0),
      m_upgPercent(0),
      m_bBoxAlive(0),
      m_bInited(0),
      m_dataTableMutex(),
      m_noDataCount(0),
      m_recvLen(0),
      m_recvBuf(new unsigned char[OBD_RECV_BUF_SIZE]()),
      m_recvMutex(),
      m_escapeCountsPairs(0),
      m_bReceiving(false),
      m_bCanBoxMode(0),
      m_productType(PRODUCT_TYPE_UNKNOWN),
      m_cmdEvent() {
    for (auto& item : m_dataTable.item) {
        item.id = -1;  // absent until the box sends it
        item.value = 0.0f;
    }
    pthread_mutex_init(&m_dataTableMutex, nullptr);
    P4X_GetProductType(m_productType);
    if (m_productType == PRODUCT_TYPE_CAN_BOX) m_bCanBoxMode = 1;
}

COBDCtrl::~COBDCtrl() {
    pthread_mutex_destroy(&m_dataTableMutex);
}

int COBDCtrl::OBD_Init() {
    if (m_bInited) return -1;
    m_bInited = 1;
    return 0;
}

int COBDCtrl::OBD_CheckObdHeartBeat() {
    return m_bBoxAlive.load();
}

void COBDCtrl::OBD_WatchDog() {
    m_noDataCount = 0;
}

void COBDCtrl::OBD_CheckObdAlive() {
    if (m_noDataCount.load() > 29) {
        m_noDataCount = 0;
    } else {
        ++m_noDataCount;
    }
}

_OBD_DataTable_t COBDCtrl::DataTable() {
    pthread_mutex_lock(&m_dataTableMutex);
    _OBD_DataTable_t copy = m_dataTable;
    pthread_mutex_unlock(&m_dataTableMutex);
    return copy;
}
