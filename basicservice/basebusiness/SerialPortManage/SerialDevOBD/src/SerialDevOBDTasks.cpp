// Send-task queue, send thread and task dispatch.
//
// Producers (peripheral thread, bus thread) only queue; the send thread is the one consumer and
// the only thread that blocks on the box. m_taskMutex is never held while a task executes.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "COBDCtrl.h"
#include "ObdLog.h"
#include "SerialDevOBD.h"

namespace {
constexpr unsigned int SEND_THREAD_PERIOD_US = 100000;
}  // namespace

// Under m_taskMutex: every task that leaves the queue without running leaves through here. An
// upgrade among them would never report its end, so the caller ends it (FailUnrunUpgrade) once
// the lock is released; the result says whether there was one.
bool CSerialDevOBD::DiscardUnrunTasks(std::deque<TaskBody_t>::iterator first,
                                      std::deque<TaskBody_t>::iterator last) {
    const bool upgrade = std::any_of(
        first, last, [](const TaskBody_t& t) { return t.taskType == TASK_TYPE_UPGRADE; });
    m_sendTaskQueue.erase(first, last);
    return upgrade;
}

int CSerialDevOBD::InsertSendTask(TaskBody_t task) {
    bool upgradeLost = false;
    pthread_mutex_lock(&m_taskMutex);
    bool replaced = false;
    for (auto it = m_sendTaskQueue.begin(); it != m_sendTaskQueue.end(); ++it) {
        if (it->taskType == task.taskType && it->cmd == task.cmd) {
            OBD_DEV_LOG(1, "S38_OBD: Same cmd, delete the old, type = %d, cmd = %d, size = %d\n",
                        static_cast<int>(it->taskType), static_cast<int>(it->cmd),
                        static_cast<int>(m_sendTaskQueue.size()));
            const bool running = it == m_sendTaskQueue.begin() && m_bFrontRunning;
            if (!running) {
                // A waiting twin keeps its place and takes the new payload. Sent to the back, a
                // request made every 5 s (the version read after an install) went behind the
                // link task the 10 s timer queues, which no answer ends (22.5 s), time and again:
                // minutes late behind a box that keeps its link alive.
                *it = task;
                replaced = true;
            } else {
                // The task in hand runs on and leaves unpopped; the new request queues anew.
                m_bFrontRunning = false;
                m_sendTaskQueue.erase(it);
            }
            break;
        }
    }
    if (!replaced) m_sendTaskQueue.push_back(task);
    if (m_sendTaskQueue.size() > TASK_QUEUE_LIMIT) {
        OBD_DEV_LOG(0, "S38_OBD: &&&&&&&& WARNING &&&&&&&&&&&&, send buffer is to large\n\n");
        // The task in hand goes too, but it runs on and reports its own end.
        const auto unrun = m_sendTaskQueue.begin() + (m_bFrontRunning ? 1 : 0);
        upgradeLost = DiscardUnrunTasks(unrun, m_sendTaskQueue.end());
        m_sendTaskQueue.clear();
        m_bFrontRunning = false;
    }
    pthread_mutex_unlock(&m_taskMutex);
    if (upgradeLost) FailUnrunUpgrade();
    return 0;
}

int CSerialDevOBD::Request(GdsGetInfoType_t_ type) {
    TaskBody_t task;
    std::memset(&task, 0, sizeof(task));
    task.taskType = TASK_TYPE_GET_INFO;
    if (type < 1 || type > GDS_GET_MAX || m_pObdCtrl == nullptr) return -1;
    task.cmd = static_cast<uint32_t>(type);
    return InsertSendTask(task);
}

int CSerialDevOBD::ConfigObd(GdsCfgType_t_ type, void* data) {
    TaskBody_t task;
    std::memset(&task, 0, sizeof(task));
    task.taskType = TASK_TYPE_CONFIG;
    if (type < 1 || type > GDS_CFG_MAX || m_pObdCtrl == nullptr) return -1;
    task.cmd = static_cast<uint32_t>(type);
    if (type == GDS_CFG_ENGINE) {
        // A calibration without its engine record has nothing to configure.
        if (data == nullptr) return -1;
        std::memcpy(task.data, data, sizeof(_OBD_Engine_t));
    }
    InsertSendTask(task);
    return 0;
}

int CSerialDevOBD::RequestGdsDevFeature() {
    if (m_bUpgrading.load() != 0) {
        OBD_DEV_LOG(3, "S38_OBD: Upgrading......, so not request anything\n");
        return 0;
    }
    pthread_mutex_lock(&m_devInfoMutex);
    const bool needVersion = m_infoPending[GDS_GET_VERSION] == 1;
    const bool needEngine = m_infoPending[GDS_GET_ENGINE] == 1;
    const bool needThreshold = m_infoPending[GDS_GET_ALARM_THRESHOLD] == 1;
    pthread_mutex_unlock(&m_devInfoMutex);
    if (needVersion) Request(GDS_GET_VERSION);
    if (needEngine) Request(GDS_GET_ENGINE);
    if (needThreshold) UpdateDevInfo(ID_DATA_GDS_THRESHOLD, &m_gdsParam);
    return 0;
}

void* CSerialDevOBD::TaskSendThreadEntry(void* object) {
    if (object == nullptr) return nullptr;
    std::printf("CSerialDevGDS::TaskSendThreadEntry pid = %d\n", static_cast<int>(getpid()));
    std::fflush(stdout);
    static_cast<CSerialDevOBD*>(object)->TaskSendRoutine();
    return nullptr;
}

void CSerialDevOBD::TaskSendRoutine() {
    while (m_bTaskThreadRun.load() != 0) {
        bool upgradeLost = false;
        pthread_mutex_lock(&m_taskMutex);
        if (!m_sendTaskQueue.empty()) {
            TaskBody_t task = m_sendTaskQueue.front();
            // In CAN-box mode the box only understands the software-version read and the start of
            // its data stream; everything else is dropped unexecuted.
            if (m_bCanBoxMode == 0 || task.cmd == 1 || task.cmd == 29) {
                m_bFrontRunning = true;
                pthread_mutex_unlock(&m_taskMutex);
                HandleOBDTask(&task);
                pthread_mutex_lock(&m_taskMutex);
                // Remove the task that ran, not what is now in front: a twin may have replaced it.
                if (m_bFrontRunning) m_sendTaskQueue.pop_front();
                m_bFrontRunning = false;
            } else {
                upgradeLost =
                    DiscardUnrunTasks(m_sendTaskQueue.begin(), m_sendTaskQueue.begin() + 1);
            }
        }
        pthread_mutex_unlock(&m_taskMutex);
        if (upgradeLost) FailUnrunUpgrade();
        Common::P4X_TMSleepMicroSecond(SEND_THREAD_PERIOD_US);
    }
    // Acknowledge the destructor's stop request; the object may be gone right after this store.
    m_bTaskThreadRun = 1;
}

int CSerialDevOBD::HandleOBDTask(TaskBody_t* task) {
    if (m_pObdCtrl == nullptr || task == nullptr) return -1;
    switch (task->taskType) {
        case TASK_TYPE_GET_INFO:
            m_pObdCtrl->OBD_ReadInfoProc(static_cast<GdsGetInfoType_t_>(task->cmd));
            m_pObdCtrl->OBD_StartTs();
            break;
        case TASK_TYPE_CONFIG:
            m_pObdCtrl->OBD_ConfigProc(static_cast<GdsCfgType_t_>(task->cmd), task->data);
            if (task->cmd != GDS_CFG_START_TS) m_pObdCtrl->OBD_StartTs();
            break;
        case TASK_TYPE_UPGRADE:
            OBD_DEV_LOG(1, "S38_OBD: task->taskType = %d\n", static_cast<int>(task->taskType));
            // The path is NUL-terminated within the payload by whoever queued it; make sure.
            task->data[TASK_DATA_SIZE - 1] = 0;
            m_pObdCtrl->OBD_UpgradeProc(reinterpret_cast<char*>(task->data));
            m_pObdCtrl->OBD_StartTs();
            break;
        default:
            break;
    }
    return 0;
}

size_t CSerialDevOBD::QueuedTaskCount() {
    pthread_mutex_lock(&m_taskMutex);
    const size_t n = m_sendTaskQueue.size();
    pthread_mutex_unlock(&m_taskMutex);
    return n;
}

std::deque<TaskBody_t> CSerialDevOBD::QueuedTasks() {
    pthread_mutex_lock(&m_taskMutex);
    std::deque<TaskBody_t> copy = m_sendTaskQueue;
    pthread_mutex_unlock(&m_taskMutex);
    return copy;
}
