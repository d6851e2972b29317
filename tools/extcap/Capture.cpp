// The capture: opens and starts the channel (listen-only unless asked otherwise), sets the
// adapter's acceptance filter as the library fits the capture filter, and streams every frame
// that passes, and every notice as an error frame, into Wireshark's fifo as a pcap stream,
// flushed after each batch, until Wireshark closes the fifo or stops the program.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "CanExtcap.h"
#include "CanPcapWriter.h"
#include "Extcap.h"
#include "vexlo_ext.h"

namespace vexlo_extcap {
namespace {

const unsigned kDevType = 4;

volatile sig_atomic_t g_stop = 0;
int g_stop_pipe[2] = {-1, -1};

void OnStop(int) {
    g_stop = 1;
    char c = 1;
    ssize_t r = write(g_stop_pipe[1], &c, 1);
    (void)r;
}

void InstallStop() {
    if (pipe2(g_stop_pipe, O_CLOEXEC | O_NONBLOCK) != 0) g_stop_pipe[0] = g_stop_pipe[1] = -1;
    struct sigaction sa;
    std::memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnStop;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    // A reader that goes shows as EPIPE on the next write, not as a kill.
    signal(SIGPIPE, SIG_IGN);
}

// A listen-only capture that has heard this many bus errors and not one frame says why that may be.
const unsigned long long kHintAfter = 10;
const unsigned kCanErrBusError = 0x080;  // error class of a bus error (Linux CAN error frames)

// The library's lines during the capture go to standard error, where Wireshark shows them, and to
// the log file; the fifo is the only output. Those of the open are kept, and shown only when the
// library has no word for the failure.
void LogToStderr(void*, int, const char* line) { LibraryLine(line); }
void LogToString(void* lines, int, const char* line) {
    static_cast<std::string*>(lines)->append(line).push_back('\n');
}

class XCapture {
public:
    explicit XCapture(const CaptureRequest& r) : req_(r) {}
    ~XCapture();
    int Run();

private:
    bool Start();
    int Stream();
    int Take();

    CaptureRequest req_;
    unsigned dev_ = 0, ch_ = 0;
    std::vector<VEXLO_FILTER> filters_;
    int exact_ = 1;  // 1: the adapter's filter passes exactly the frames of the capture filter
    bool open_ = false;
    unsigned long long heard_ = 0, bus_errors_ = 0;  // frames and bus errors the channel received
    bool hinted_ = false;
    int fifo_ = -1;  // until the writer takes it
    vexlo_tool::XPcapWriter out_;
};

XCapture::~XCapture() {
    if (fifo_ >= 0) close(fifo_);
    if (!open_) return;
    VCI_ResetCAN(kDevType, dev_, ch_);
    VCI_CloseDevice(kDevType, dev_);
}

bool XCapture::Start() {
    std::string lines;
    vexlo_set_log(LogToString, &lines);
    bool opened = VCI_OpenDevice(kDevType, dev_, 0) != 0;
    vexlo_set_log(LogToStderr, nullptr);
    if (!opened) {
        const char* text = nullptr;
        int why = vexlo_open_error(&text);
        if (why == VEXLO_OPEN_BUSY) {
            Complain("adapter %u is in use by another program (a vexlo command or server, or a capture of its "
                     "other channel)",
                     dev_);
        } else if (why == VEXLO_OPEN_MISSING) {
            Complain("no adapter at position %u: is it plugged in?", dev_);
        } else {
            if (!lines.empty()) lines.pop_back();
            if (!lines.empty()) LibraryLine(lines.c_str());
            Complain("cannot open adapter %u: %s", dev_, text && *text ? text : "the adapter could not be opened");
        }
        return false;
    }
    open_ = true;
    CAN_INIT init;
    std::memset(&init, 0, sizeof(init));
    exact_ = vexlo_filter_fit(filters_.data(), static_cast<unsigned>(filters_.size()), &init);
    init.BusTiming0 = req_.btr0;
    init.BusTiming1 = req_.btr1;
    init.ListenOnly = req_.listen_only ? 1 : 0;
    if (exact_ < 0 || !VCI_InitCAN(kDevType, dev_, ch_, &init) || !VCI_StartCAN(kDevType, dev_, ch_)) {
        Complain("cannot start channel %u of adapter %u", ch_, dev_);
        return false;
    }
    return true;
}

int XCapture::Stream() {
    int rfd = vexlo_receive_fd(dev_, ch_);
    if (rfd < 0) {
        Complain("no receive descriptor for channel %u of adapter %u", ch_, dev_);
        return kExitFail;
    }
    std::string error;
    FILE* fifo = fdopen(fifo_, "wb");
    if (fifo) fifo_ = -1;  // the writer owns it now
    if (!fifo || !out_.Adopt(fifo, false, &error) || !out_.Flush()) {
        Complain("cannot write to '%s': %s", req_.fifo.c_str(),
                 error.empty() ? std::strerror(out_.errno_value() ? out_.errno_value() : errno) : error.c_str());
        return kExitFail;
    }
    int ofd = out_.fd();
    // A first take also lets notices wake the descriptor.
    int status = Take();
    while (status < 0 && !g_stop) {
        // The fifo's descriptor with no events asked: poll reports POLLERR once its reader has
        // gone, so a silent bus still ends the capture when Wireshark stops reading.
        pollfd fds[3] = {{rfd, POLLIN, 0}, {g_stop_pipe[0], POLLIN, 0}, {ofd, 0, 0}};
        if (poll(fds, 3, -1) < 0 && errno != EINTR) {
            Complain("poll: %s", std::strerror(errno));
            return kExitFail;
        }
        if (fds[2].revents & (POLLERR | POLLHUP)) return kExitOk;
        if (fds[0].revents & POLLIN) status = Take();
    }
    return status < 0 ? kExitOk : status;
}

// Writes what the channel's queue holds into the fifo: -1 to go on, else the exit status.
int XCapture::Take() {
    VEXLO_FRAME buf[512];
    int got = vexlo_receive(dev_, ch_, buf, 512, 0);
    if (got == VEXLO_GONE) {
        out_.Flush();
        // Left to the system at the exit: resetting and closing a gone adapter only waits.
        open_ = false;
        Complain("adapter %u was unplugged", dev_);
        return kExitFail;
    }
    if (got < 0) {
        Complain("cannot receive from channel %u of adapter %u", ch_, dev_);
        return kExitFail;
    }
    for (int i = 0; i < got; ++i) {
        const VEXLO_FRAME& f = buf[i];
        // Notices always go through: the capture filter selects frames.
        bool notice = (f.flags & VEXLO_FRAME_ERROR) != 0;
        if (!notice) ++heard_;
        else if (f.frame.Id & kCanErrBusError) ++bus_errors_;
        if (!notice && exact_ != 1 &&
            vexlo_filter_pass(filters_.data(), static_cast<unsigned>(filters_.size()), &f.frame) != 1)
            continue;
        out_.Write(f);
    }
    if (req_.listen_only && !hinted_ && heard_ == 0 && bus_errors_ >= kHintAfter) {
        // A lone sender on a bus, heard by listen-only nodes only, never completes a frame; the
        // listeners hear its error flags. Said once, the capture goes on.
        hinted_ = true;
        Complain("channel %u of adapter %u hears only bus errors and no frame: no node on the bus acknowledges "
                 "frames while this capture is listen-only (start a node that does, or capture with listen-only "
                 "off), or the bit rate is not the bus's",
                 ch_, dev_);
    }
    if (got > 0 && !out_.Flush()) {
        if (out_.errno_value() == EPIPE) return kExitOk;  // Wireshark stopped reading
        Complain("cannot write to '%s': %s", req_.fifo.c_str(), std::strerror(out_.errno_value()));
        return kExitFail;
    }
    return -1;
}

int XCapture::Run() {
    if (!vexlo_tool::ParseExtcapInterface(req_.interface, &dev_, &ch_)) {
        Complain("unknown interface '%s' (vexlo<ADAPTER>can<CHANNEL>, for example vexlo0can1)",
                 req_.interface.c_str());
        return kExitUsage;
    }
    std::string error;
    if (!vexlo_tool::ParseFilterList(req_.filter, &filters_, &error)) {
        Complain("capture filter: %s", error.c_str());
        return kExitUsage;
    }
    if (req_.fifo.empty()) {
        Complain("--capture needs --fifo PATH");
        return kExitUsage;
    }
    InstallStop();
    // Wireshark opens the fifo for reading as it starts the program, and waits for that open to
    // complete: open it first (a plain file is made), so that a capture that cannot start ends Wireshark's wait too.
    fifo_ = open(req_.fifo.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fifo_ < 0) {
        Complain("cannot open '%s': %s", req_.fifo.c_str(), std::strerror(errno));
        return kExitFail;
    }
    if (!Start()) return kExitFail;
    int status = Stream();
    std::string error2;
    if (!out_.Close(&error2) && status == kExitOk && out_.errno_value() != EPIPE) {
        Complain("cannot write to '%s': %s", req_.fifo.c_str(), error2.c_str());
        status = kExitFail;
    }
    return status;
}

}  // namespace

int Capture(const CaptureRequest& request) {
    XCapture capture(request);
    return capture.Run();
}

}  // namespace vexlo_extcap
