// The serial base: the tty named by the manager's configuration, raw 8N1 by default.
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <memory>
#include <mutex>

#include "CSerialBase.h"
#include "HostInternal.h"
#include "HostSim.h"

namespace {

bool BaudToSpeed(int baud, speed_t& speed) {
    switch (baud) {
        case SERIAL_BAUD_9600:
            speed = B9600;
            return true;
        case SERIAL_BAUD_19200:
            speed = B19200;
            return true;
        case SERIAL_BAUD_38400:
            speed = B38400;
            return true;
        case SERIAL_BAUD_57600:
            speed = B57600;
            return true;
        case SERIAL_BAUD_115200:
            speed = B115200;
            return true;
        case SERIAL_BAUD_230400:
            speed = B230400;
            return true;
        case SERIAL_BAUD_460800:
            speed = B460800;
            return true;
        case SERIAL_BAUD_921600:
            speed = B921600;
            return true;
        default:
            return false;
    }
}

// Raw mode: no echo, no line editing, no CR/LF translation, no XON/XOFF, no signals; reads
// return what is there (VMIN 0, VTIME 0; the fd is non-blocking anyway).
int ApplyTermios(int fd, int baud, int dataBits, int stopBits, int parity, int flow,
                 std::string* error) {
    speed_t speed = B115200;
    if (!BaudToSpeed(baud, speed)) {
        if (error) *error = "unsupported baud rate " + std::to_string(baud);
        return -1;
    }
    termios tio{};
    if (tcgetattr(fd, &tio) != 0) {
        if (error) *error = std::string("not a terminal: ") + std::strerror(errno);
        return -1;
    }
    cfmakeraw(&tio);
    tio.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY | INPCK | ISTRIP);
    tio.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | PARODD | CSTOPB | CRTSCTS);
    tio.c_cflag |= static_cast<tcflag_t>(CLOCAL | CREAD);
    tio.c_cflag |= dataBits == SERIAL_DATA_BIT_7 ? CS7 : CS8;
    if (stopBits == SERIAL_STOP_BIT_2) tio.c_cflag |= CSTOPB;
    if (parity == SERIAL_PARITY_ODD) tio.c_cflag |= PARENB | PARODD;
    if (parity == SERIAL_PARITY_EVEN) tio.c_cflag |= PARENB;
    if (flow == SERIAL_FLOW_HARDWARE) tio.c_cflag |= CRTSCTS;
    tio.c_cc[VMIN] = 0;
    tio.c_cc[VTIME] = 0;
    cfsetispeed(&tio, speed);
    cfsetospeed(&tio, speed);
    if (tcsetattr(fd, TCSANOW, &tio) != 0) {
        if (error) *error = std::string("tcsetattr: ") + std::strerror(errno);
        return -1;
    }
    return 0;
}

// The tap is taken under a lock and called outside it, so that setting it never races a read or
// a write in flight and a slow tap holds back only its own caller.
std::mutex g_tapMutex;
std::shared_ptr<const hostsim::SerialTap> g_tap;

void TapSerial(bool toDevice, const void* data, size_t n) {
    std::shared_ptr<const hostsim::SerialTap> tap;
    {
        std::lock_guard<std::mutex> lock(g_tapMutex);
        tap = g_tap;
    }
    if (tap) (*tap)(toDevice, static_cast<const unsigned char*>(data), n, hostsim::ClockNowMs());
}

}  // namespace

void hostsim::SetSerialTap(SerialTap tap) {
    auto shared = tap ? std::make_shared<const SerialTap>(std::move(tap)) : nullptr;
    std::lock_guard<std::mutex> lock(g_tapMutex);
    g_tap = std::move(shared);
}

CSerialBase::CSerialBase(CPeripheralManage* manage, CMsgClientManage* msgClient,
                         unsigned int periphId, unsigned int portIndex)
    : CPeripheralBase(manage, msgClient, periphId, portIndex) {
    if (manage == nullptr) return;
    CPeripheralManage::Impl* cfg = manage->impl();
    std::string path;
    int baud = SERIAL_BAUD_115200;
    {
        std::lock_guard<std::mutex> lock(cfg->mutex);
        path = cfg->serialPath;
        baud = cfg->baud;
    }
    std::string error;
    if (path.empty()) {
        error = "no serial port configured";
    } else {
        const int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            error = path + ": " + std::strerror(errno);
        } else if (ApplyTermios(fd, baud, SERIAL_DATA_BIT_8, SERIAL_STOP_BIT_1, SERIAL_PARITY_NONE,
                                SERIAL_FLOW_NONE, &error) != 0) {
            error = path + ": " + error;
            ::close(fd);
        } else {
            m_pPeripheralState->serialFd = fd;
            m_pPeripheralState->serialPath = path;
            HOST_LOG(1, "serial %s open at %d 8N1", path.c_str(), baud);
        }
    }
    if (!error.empty()) HOST_LOG(0, "serial port not open: %s", error.c_str());
    std::lock_guard<std::mutex> lock(cfg->mutex);
    cfg->serialOpenError = error;
}

CSerialBase::~CSerialBase() {
    // The port must outlive every call of the peripheral thread.
    StopPeripheralThread();
    if (m_pPeripheralState->serialFd >= 0) ::close(m_pPeripheralState->serialFd);
    m_pPeripheralState->serialFd = -1;
}

int CSerialBase::HandlePeripParamChange() {
    if (m_pPeripheralManage == nullptr || m_pPeripheralState->serialFd < 0) return -1;
    int baud = SERIAL_BAUD_115200;
    {
        std::lock_guard<std::mutex> lock(m_pPeripheralManage->impl()->mutex);
        baud = m_pPeripheralManage->impl()->baud;
    }
    return ApplyTermios(m_pPeripheralState->serialFd, baud, SERIAL_DATA_BIT_8, SERIAL_STOP_BIT_1,
                        SERIAL_PARITY_NONE, SERIAL_FLOW_NONE, nullptr);
}

// One port per peripheral here, so `port` selects nothing.
int CSerialBase::SetMainChipSerialProperty(unsigned char /*port*/, SerialBaudRate baud,
                                           SerialDataBitMode dataBits, SerialStopBitMode stopBits,
                                           SerialParityMode parity, SerialFlowControlMode flow) {
    if (m_pPeripheralState->serialFd < 0) return -1;
    std::string error;
    if (ApplyTermios(m_pPeripheralState->serialFd, baud, dataBits, stopBits, parity, flow,
                     &error) != 0) {
        HOST_LOG(0, "serial property refused: %s", error.c_str());
        return -1;
    }
    return 0;
}

void CSerialBase::SetSerialMaxBufferSize(unsigned int size) {
    // A zero limit could never drain the port and would spin the thread on a readable tty.
    m_pPeripheralState->maxBuffer = size == 0 ? 1 : size;
}

int CSerialBase::GetSerialBufferData(char* buf, unsigned int& len) {
    len = 0;
    if (buf == nullptr || m_pPeripheralState->serialFd < 0) return -1;
    const size_t room = m_pPeripheralState->maxBuffer.load();
    for (;;) {
        const ssize_t n = ::read(m_pPeripheralState->serialFd, buf, room);
        if (n > 0) {
            len = static_cast<unsigned int>(n);
            m_pPeripheralState->bytesTaken.fetch_add(len);
            hostsim::detail::LineReaderTook(m_pPeripheralState->line.load(), len);
            TapSerial(false, buf, len);
            return 0;
        }
        if (n == 0) return 0;
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
        return -1;  // EIO: the far end of the line hung up
    }
}

int CSerialBase::SendDataToPeripheral(const char* data, unsigned int len) {
    const int fd = m_pPeripheralState->serialFd;
    if (fd < 0 || len > static_cast<unsigned int>(INT_MAX)) return -1;
    if (len == 0) return 0;
    if (data == nullptr) return -1;
    // A box that stops reading must not hang the sender forever: give up after this long
    // without any byte accepted (real time; the tty drains in real time).
    constexpr auto kStall = std::chrono::milliseconds(2000);
    std::lock_guard<std::mutex> lock(m_pPeripheralState->writeMutex);
    // Counted before they leave, so that the far end never reads bytes it was not told about.
    hostsim::detail::Line* line = m_pPeripheralState->line.load();
    hostsim::detail::LineReaderWrote(line, len);
    size_t done = 0;
    auto lastProgress = std::chrono::steady_clock::now();
    while (done < len) {
        const ssize_t n = ::write(fd, data + done, len - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
            lastProgress = std::chrono::steady_clock::now();
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            HOST_LOG(0, "serial write failed: %s", std::strerror(errno));
            hostsim::detail::LineReaderWrote(line, -static_cast<long long>(len - done));
            return -1;
        }
        if (std::chrono::steady_clock::now() - lastProgress > kStall) {
            HOST_LOG(0, "serial write stalled after %zu of %u bytes", done, len);
            hostsim::detail::LineReaderWrote(line, -static_cast<long long>(len - done));
            return -1;
        }
        pollfd p{fd, POLLOUT, 0};
        ::poll(&p, 1, 50);
    }
    TapSerial(true, data, len);
    return static_cast<int>(len);
}

int CSerialBase::ClearSerialBufferValue() {
    // Every read hands over all it read, so the host holds nothing to discard. What the kernel
    // holds arrived after that read and belongs to the next frames: flushing it would lose them.
    return 0;
}

int CSerialBase::SetSerialConfigStatus(unsigned char status, unsigned int arg1, unsigned int arg2) {
    HOST_LOG(1, "serial config status %u (%u, %u)", static_cast<unsigned int>(status), arg1, arg2);
    if (m_pPeripheralManage == nullptr) return 0;
    std::lock_guard<std::mutex> lock(m_pPeripheralManage->impl()->mutex);
    m_pPeripheralManage->impl()->lastStatus = status;
    m_pPeripheralManage->impl()->statusCount += 1;
    return 0;
}
