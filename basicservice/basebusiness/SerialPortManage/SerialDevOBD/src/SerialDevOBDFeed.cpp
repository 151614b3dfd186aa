// Sample feed from the data stream into the analyser.
// (First slice: the table reaches the analyser. Change records and link state come later.)
#include "SerialDevOBD.h"

int CSerialDevOBD::UpdateCollectData(CollectDataType_Eum kind, void* data) {
    if (data == nullptr) return -1;
    Gds_IF_UpdateCollectData(kind, data, &m_gdsParam);
    return 0;
}
