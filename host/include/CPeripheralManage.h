// Host framework: the peripheral manager that loads the plug-in.
#pragma once

#include <string>

class CPeripheralManage {
  public:
    CPeripheralManage();
    ~CPeripheralManage();
    // Logs `len` bytes of `data` in hexadecimal under `label` when dump level `level` is enabled
    // (levels up to the host's dump level print). Any thread.
    void hex_dump(std::string label, const char* data, unsigned int len, int level);

    CPeripheralManage(const CPeripheralManage&) = delete;
    CPeripheralManage& operator=(const CPeripheralManage&) = delete;

    struct Impl;
    Impl* impl() const { return m_pImpl; }

  private:
    Impl* m_pImpl;  // host-private: serial settings, dump level
};
