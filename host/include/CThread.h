// Host framework: thread base of every peripheral object.
#pragma once

namespace Common {

// Owns the host's peripheral thread. The virtual slots 0 to 4 of every peripheral object are
// declared here, in this order: destructors (0, 1), ThreadFuncImpl (2), PreBeginThread (3),
// PostExitThread (4).
class CThread {
  public:
    CThread();
    virtual ~CThread();
    // Body of the host's thread; CPeripheralBase supplies it.
    virtual int ThreadFuncImpl() = 0;
    // Called on the new thread before, and after, ThreadFuncImpl. Default: nothing, 0.
    virtual int PreBeginThread();
    virtual int PostExitThread();

    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

  protected:
    struct ThreadState;
    ThreadState* m_pThreadState;  // host-private
};

}  // namespace Common
