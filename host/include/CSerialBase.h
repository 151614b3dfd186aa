// Host framework: base of a peripheral on a serial port.
#pragma once

#include "CPeripheralBase.h"

enum SerialBaudRate {
    SERIAL_BAUD_9600 = 9600,
    SERIAL_BAUD_19200 = 19200,
    SERIAL_BAUD_38400 = 38400,
    SERIAL_BAUD_57600 = 57600,
    SERIAL_BAUD_115200 = 115200,
    SERIAL_BAUD_230400 = 230400,
    SERIAL_BAUD_460800 = 460800,
    SERIAL_BAUD_921600 = 921600,
};
enum SerialDataBitMode { SERIAL_DATA_BIT_7 = 7, SERIAL_DATA_BIT_8 = 8 };
enum SerialStopBitMode { SERIAL_STOP_BIT_1 = 1, SERIAL_STOP_BIT_2 = 2 };
enum SerialParityMode { SERIAL_PARITY_NONE = 0, SERIAL_PARITY_ODD = 1, SERIAL_PARITY_EVEN = 2 };
enum SerialFlowControlMode { SERIAL_FLOW_NONE = 0, SERIAL_FLOW_HARDWARE = 1 };

// Slot 9 is overridden here and slot 11, SetMainChipSerialProperty, is added.
class CSerialBase : public CPeripheralBase {
  public:
    // Opens the port that the manager's configuration names for this peripheral.
    CSerialBase(CPeripheralManage* manage, CMsgClientManage* msgClient, unsigned int periphId,
                unsigned int portIndex);
    ~CSerialBase() override;

    int HandlePeripParamChange() override;
    virtual int SetMainChipSerialProperty(unsigned char port, SerialBaudRate baud,
                                          SerialDataBitMode dataBits, SerialStopBitMode stopBits,
                                          SerialParityMode parity, SerialFlowControlMode flow);

    // No read hands over more than `size` bytes.
    void SetSerialMaxBufferSize(unsigned int size);
    // Copies the bytes waiting on the port into `buf` (at most the maximum buffer size) and sets
    // `len` to their count (0 when nothing waits). Peripheral thread. Returns 0, -1 on error.
    int GetSerialBufferData(char* buf, unsigned int& len);
    // Writes all `len` bytes to the port. Any thread. Returns the count written, -1 on error.
    int SendDataToPeripheral(const char* data, unsigned int len);
    // Discards what the host has read and not yet handed over (nothing here: every read hands
    // over all it read). Bytes not yet read stay for the next read. Returns 0.
    int ClearSerialBufferValue();
    // Records the peripheral's configuration status with the host. Returns 0.
    int SetSerialConfigStatus(unsigned char status, unsigned int arg1, unsigned int arg2);
};
