// Reaches the link controller's state for tests (friend of COBDCtrl). Header-only, so the
// end-to-end tests can use it on the object inside the dlopen'ed plug-in.
#pragma once

#include <pthread.h>

#include "COBDCtrl.h"

class COBDCtrlTestPeer {
  public:
    explicit COBDCtrlTestPeer(COBDCtrl* c) : m_c(c) {}
    void SetWaitCmd(obdcmd_t v) { m_c->m_waitCmd = v; }
    void SetSeqNo(uint32_t v) { m_c->m_seqNo = v; }
    void SetBoxAlive(int v) { m_c->m_bBoxAlive = v; }
    void SetNoDataCount(int v) { m_c->m_noDataCount = v; }
    int BoxAlive() const { return m_c->m_bBoxAlive.load(); }
    int RecvLen() const { return m_c->m_recvLen; }
    int DemarcateResult() const { return m_c->m_demarcateResult; }
    const _OBD_Version_t& Version() const { return m_c->m_version; }
    const _OBD_Engine_t& Engine() const { return m_c->m_engine; }
    const _OBD_ScanTimeLevel_t& ScanTimeLevel() const { return m_c->m_scanTimeLevel; }
    const _OBD_DataStreamLevel_t& DataScanLevel() const { return m_c->m_dataScanLevel; }
    // The data table under its lock; needs no code of the library (usable on a dlopen'ed one).
    _OBD_DataTable_t DataTable() const {
        pthread_mutex_lock(&m_c->m_dataTableMutex);
        const _OBD_DataTable_t copy = m_c->m_dataTable;
        pthread_mutex_unlock(&m_c->m_dataTableMutex);
        return copy;
    }

  private:
    COBDCtrl* m_c;
};
