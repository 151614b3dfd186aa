// Periodic broadcasts on the bus.
// (Not yet built: each returns without sending. The host-messaging work fills them in.)
#include "SerialDevOBD.h"

int CSerialDevOBD::BroadcastObdOriginalData() {
    return 0;
}
int CSerialDevOBD::BroadcastBlackboxObdData() {
    return 0;
}
int CSerialDevOBD::BroadcastGdsAlarm() {
    return 0;
}
int CSerialDevOBD::BroadcastCanBoxData() {
    return 0;
}
int CSerialDevOBD::BroadcastObdCollectStatus() {
    return 0;
}
int CSerialDevOBD::HandleOBDDataDisConnect() {
    return 0;
}
