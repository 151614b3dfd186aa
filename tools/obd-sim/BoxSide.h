// The box's end of the line when the runner makes its own pseudo-terminal.
//
// The plug-in runs on the slave side; this class owns the master side. Today it only taps what
// the plug-in writes; a box emulator takes its place by answering through Write().
#pragma once

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace obdsim {

class BoxSide {
  public:
    // Bytes the plug-in wrote, with the host time they were read at.
    using WireTap = std::function<void(long long tMs, const std::vector<unsigned char>& bytes)>;

    // Takes ownership of `masterFd`.
    BoxSide(int masterFd, WireTap tap);
    virtual ~BoxSide();

    void Start();
    void Stop();
    // Bytes towards the plug-in. Returns false when the line refused them.
    bool Write(const std::vector<unsigned char>& bytes);

    BoxSide(const BoxSide&) = delete;
    BoxSide& operator=(const BoxSide&) = delete;

  protected:
    // What the box does with bytes from the plug-in; the tap only reports them.
    virtual void OnBytesFromPlugin(long long tMs, const std::vector<unsigned char>& bytes);

  private:
    void Run();

    int m_fd;
    WireTap m_tap;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace obdsim
