// Bus registration and inbound handlers.
// (Not yet built: nothing is registered. The host-messaging work adds the ten handlers.)
#include "SerialDevOBD.h"

int CSerialDevOBD::MessageRegister() {
    return 0;
}
int CSerialDevOBD::MessageUnRegister() {
    return 0;
}
