// SPDX-License-Identifier: Apache-2.0
//
// The service: one object per process, which attaches the pinned eBPF programs, drains the two ring
// buffers and serves clients.
//
//   BpfServiceMain()            creates and starts it, returns at once
//   GetInstance()->Wait()       supervises until stop(), then joins the poll threads
//   GetInstance()->stop()       from any thread but a poll thread; ends everything within a second
//
// A service that was stopped is not started again. It never destroys the object itself. One that
// cannot go on as it should says so by restartFd(): its host then ends, to be started again.
//
// Threads: "BpfServicePoll" runs eventProduceThread, "BpfServicePGpl" gpleventProduceThread,
// "BpfServiceTr" (the socket loop) the client callbacks, "BpfServiceCare" what is looked after from
// time to time, if a property asks for it.
//
// Host properties that are read: "persist.sys.stability.bpfframework.disable" ("1" disables the
// service), "sys.tesu_bpf_ready" ("0": programs are not pinned yet), "ro.kernel.version" ("6.1"
// starts the GPL thread), "sys.tesu_bpf_watch_pins" (seconds between two looks at the pins),
// "sys.tesu_bpf_mend_table" (seconds between two comparisons of the task table with /proc). On a
// host that is not Android they must be set before BpfServiceMain().
#pragma once

#include <android-base/unique_fd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "events/event_manager.h"
#include "ipc/ipc_package.h"
#include "ipc/ipc_package_handler.h"
#include "ipc/unix_ipc_manager.h"
#include "service/bpf_program.h"
#include "service/client_limits.h"
#include "service/ring_account.h"
#include "task/table_mending.h"
#include "task/task_event_handlers.h"
#include "util/export.h"
#include "util/mutex.h"

namespace Tesu::Bpf {

class RingReplacement;

// Starts the service. False when the disable property says so or, which is logged, when it was
// stopped before.
// Throws std::system_error when the poll thread cannot be created.
TESU_API bool BpfServiceMain();

// Exit status of a host that is to be started again.
inline constexpr int EXIT_TO_BE_RESTARTED = 5;

// Index of a ring buffer in the service's arrays.
enum RingIndex { RING_CORE = 0, RING_GPL = 1, RING_COUNT = 2 };

class TESU_API TesuBpfService {
  public:
    TesuBpfService(const TesuBpfService&) = delete;
    TesuBpfService& operator=(const TesuBpfService&) = delete;

    static TesuBpfService* GetInstance();

    // False once the service was stopped; true, and nothing done, while it runs.
    bool start();
    // Always 0; at once when there was no start.
    int Wait();
    int stop();
    static bool checkKernelVersion();

    // Readable from the moment on at which only a new process can help: a monitor ended with an
    // error (but for want of pins, which nobody's restart brings), or, if looked for, other
    // programs were pinned than those in use. Borrowed.
    int restartFd() const { return restartEvent.get(); }
    // Why, at first, in words that follow the name of the host; empty while there is no reason. Any
    // thread.
    std::string restartReason();

    // Bodies of the poll threads. Result of the attachment (number of failures), 0 when stopped
    // before it.
    int eventProduceThread();
    int gpleventProduceThread();

    // Drain one ring buffer until stop(): 0; -1 after a setup failure or six poll errors in a row.
    int eventMonitor();
    int gpleventMonitor();

    // Counts, forwards and handles one record, on the poll thread of its buffer. `ctx` is ignored.
    // -1 for a record of unknown type, else the handler's result. The record is valid only during
    // the call.
    static int handleBpfRingBuffEvent(void* ctx, void* data, unsigned size);

    // False when the buffer had lost records for want of space (the mark is then cleared) and for
    // an index that is none. Without `force` the kernel is asked at most every 30 seconds.
    bool checkBpfRingBuffStatus(int which, bool force);
    // Any thread; nothing but zeros for an index that is none.
    RingStatus ringStatus(int which) const;
    bool enableCoreBpf(int which, bool enable);
    bool enableNormalBpf(int which, bool enable);

    // Task record handlers; always 0.
    int handleTesuTaskInitEvent(char* data, int64_t size);
    int handleSched_SchedProcessFork(char* data, int64_t size);
    int handleSched_SchedProcessExit(char* data, int64_t size);
    int handleKmem_RssStat(char* data, int64_t size);
    // For hosts: the handler of a record type that clients receive unchanged; not for types that
    // are forwarded anyway.
    int handleBpfPassthrough(char* data, int64_t size);
    // -1 when the process has gone.
    static int getProcessInfo(int32_t pid, UpdateProcessExdata* out);

    // Describe from /proc what was there before the programs: tasks, open descriptors, dma-bufs.
    int initTaskInfo();
    int initFdBpfProg();
    int initDmabufBpfProg();

    // Client callbacks, on the socket loop thread.
    int onClientLibConnection(int fd);
    int onClientLibClose(int fd);
    int onClientLibReadable(int fd, BufferState* readBuffer, BufferState* writeBuffer);
    int onClientLibWriteable(int fd, BufferState* writeBuffer);
    int onEventProvideReqCallBack(int fd, char* body, long long length, BufferState* writeBuffer);

    // For hosts: has the socket loop send what is queued for each client, in order.
    void notifyClientEventReady(const std::vector<int>& fds);

    static Mutex servicelock;

    static const std::string PROC_FS_PATH;
    static const std::string SUBTASK_PATH_TEMPLATE;
    static const std::string TASK_STATUS_TEMPLATE;
    static const std::string TASK_STATUS_PID_TEMPLATE;
    static const std::string TASK_STAT_TEMPLATE;
    static const std::string TASK_MAPS_TEMPLATE;
    static const std::string TASK_FD_TEMPLATE;
    static const std::string TASK_COMM_PREFIX;
    static const std::string TASK_PPID_PREFIX;
    static const std::string TASK_RSS_ANON_PREFIX;
    static const std::string TASK_RSS_FILE_PREFIX;
    static const std::string TASK_RSS_SHMEM_PREFIX;
    static const std::string TASK_VM_SWAP_PREFIX;
    static const std::string TASK_PROC_UID_PREFIX;
    static const std::string TASK_DMABUF_PREFIX;
    static const std::string BPF_FS_PATH;
    static const std::string TESU_BPF_READY;
    static const std::string KERNEL_VERSION_PROP;
    static const BpfProgramTable PROG_EVENT_MAP;
    static const BpfProgramTable PROG_GPL_EVENT_MAP;

    ~TesuBpfService();

  private:
    // What differs between the two monitors, and what each has at hand.
    struct RingMonitor;

    TesuBpfService();

    bool reportStatus(int fd, uint32_t requestId);
    void createCoreThread() REQUIRES(servicelock);
    void createGplThreadIfDue() REQUIRES(servicelock);
    void createCareThreadIfDue() REQUIRES(servicelock);
    void joinPollThreads();
    // Body of the care thread. How often it looks at the pins and at the table; 0: never.
    void care(std::chrono::seconds pinInterval, std::chrono::seconds tableInterval);
    bool hasOtherPins();
    void compareTable(std::chrono::seconds interval);
    // On the core ring's poll thread, between two readings.
    void mendTable(RingMonitor& monitor);
    // The reason is a literal.
    void requestRestart(const char* reason);
    // True when stopped, at the latest after `duration`.
    bool sleepUnlessStopped(std::chrono::milliseconds duration);

    int runMonitor(RingMonitor monitor);
    int drainRing(RingMonitor& monitor);
    void lookForLosses(RingMonitor& monitor);
    uint64_t countLosses(const RingMonitor& monitor);
    void dropBacklog(RingMonitor& monitor, RingReplacement& replacement);
    int pollRing(RingMonitor& monitor, RingReplacement& replacement);
    void replaceRing(RingMonitor& monitor, RingReplacement& replacement);
    int restFor(std::chrono::nanoseconds duration);
    int waitForRecords(const RingMonitor& monitor);
    // What libbpf calls for each record of `monitor`: hands it on and ends the poll when the
    // service stops.
    static int onRingRecord(void* monitor, void* data, size_t size);
    int statusMap(int which);
    bool switchStatusFlag(int which, uint64_t flag, bool enable);

    static std::atomic<TesuBpfService*> instance;

    // Handler of each record type, called on the poll thread that owns the record's buffer. Filled
    // by the constructor, then only read.
    std::map<int32_t, std::function<int32_t(char*, int64_t)>> eventHandlers;
    std::atomic<bool> running{false};  // changed under servicelock
    // Set once by stop(), under servicelock; what takes long looks at it and ends early.
    std::atomic<bool> stopped{false};
    int64_t startTime = 0;  // monotonic nanoseconds; from start() on
    // Set once readiness and time base are there: the GPL thread may start.
    bool ready GUARDED_BY(servicelock) = false;
    // Seconds since the epoch; each element belongs to its poll thread.
    std::array<int64_t, RING_COUNT> lastStatusCheck{};
    std::array<RingAccount, RING_COUNT> ringAccounts;
    // Each element belongs to its poll thread.
    std::array<android::base::unique_fd, RING_COUNT> ringbufMapFd;
    std::array<android::base::unique_fd, RING_COUNT> statusMapFd GUARDED_BY(servicelock);
    // Names whose parent and name are read again from /proc on memory events. Only read after
    // construction, so refreshLock is taken by nobody.
    std::set<std::string> refreshNames;
    Mutex refreshLock;
    TaskEventHandlers taskHandlers;
    std::thread eventThread GUARDED_BY(servicelock);
    std::thread gplEventThread GUARDED_BY(servicelock);
    std::thread careThread GUARDED_BY(servicelock);
    std::unique_ptr<UnixIpcManager> ipcManager;
    // Made by start(), then the socket loop thread's.
    std::unique_ptr<ClientAdmission> admission;
    // For hosts; nothing in the service uses it.
    std::unique_ptr<IpcPackageManager> packageManager;
    std::unique_ptr<IpcPackageHandler> packageHandler;
    std::map<int, IpcPackageManager> clientPackageManagers
        GUARDED_BY(EventManager::tesuRawEventManagerLock);

    // Wakes what waits for stop(): threads asleep through the condition (with servicelock), polls
    // through the descriptor, which stays readable from stop() on.
    std::condition_variable stopCondition;
    android::base::unique_fd stopFd;

    // What the care thread found for the core monitor to put right. It belongs to the monitor while
    // `isMendingDue`, which the care thread sets and the monitor clears, and else to the care
    // thread. The event wakes the monitor.
    TableMending mending;
    std::atomic<bool> isMendingDue{false};
    android::base::unique_fd mendingEvent;
    // Of the core ring when the table was compared last; the care thread's.
    uint64_t lostAtComparison = 0;

    android::base::unique_fd restartEvent;
    const char* reasonToRestart GUARDED_BY(servicelock) = "";
};

}  // namespace Tesu::Bpf
