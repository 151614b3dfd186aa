// Link controller of the OBD box: receiver, commands and their answer wait.
// (Minimal form: the calls the peripheral object makes. The box link replaces it.)
#pragma once

#include "COBDParser.h"
#include "ObdTypes.h"

class CSerialDevOBD;

class COBDCtrl : public COBDParser {
  public:
    explicit COBDCtrl(CSerialDevOBD* owner);
    ~COBDCtrl();

    int OBD_Init();
    int ReceiveData(unsigned char* data, int len);
    int OBD_ReadInfoProc(GdsGetInfoType_t_ type);
    int OBD_ConfigProc(GdsCfgType_t_ type, void* data);
    int OBD_UpgradeProc(char* path);
    int OBD_StartTs();
    int OBD_StopTs();
    int OBD_CheckObdHeartBeat();

  private:
    CSerialDevOBD* m_pOwner;
    int m_bInited;
};
