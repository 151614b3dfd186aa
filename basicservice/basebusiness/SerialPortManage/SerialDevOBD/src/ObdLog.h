// Log helpers of the plug-in: every line names the module's source path, the function and line.
#pragma once

#include "HostCommon.h"

#define OBD_SRC_SERIALDEV "basicservice/basebusiness/SerialPortManage/SerialDevOBD/src/SerialDevOBD"
#define OBD_SRC_CTRL "basicservice/basebusiness/SerialPortManage/SerialDevOBD/src/COBDCtrl"

#define OBD_DEV_LOG(level, ...) \
    Common::gclDebugPrintf((level), OBD_SRC_SERIALDEV, __func__, __LINE__, __VA_ARGS__)
#define OBD_CTRL_LOG(level, ...) \
    Common::gclDebugPrintf((level), OBD_SRC_CTRL, __func__, __LINE__, __VA_ARGS__)
