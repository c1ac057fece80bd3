// SPDX-License-Identifier: Apache-2.0
//
// A level-triggered readiness loop over epoll, on one thread of its own.
//
// Lifecycle:
//   construct -> addMonitorFd (or let initFunction do it) -> start -> ... -> stop -> destroy
//   stop() asks the loop to end and returns at once; join() and the destructor wait for it.
//   A stop() before start() makes the loop end at its first wait. start() is called once.
//
// Threads: the loop thread alone runs read and close callbacks and, but for writeEventNow(), the
// write callbacks. No lock is held while a callback runs, so a callback may call any member but
// join() and may remove its own descriptor. Every other member may be called from any thread.
//
// Errors: construction never fails; what could not be made (epoll instance, control descriptor,
// event queue) is logged and leaves an object that can be destroyed. Members return false.
#pragma once

#include <android-base/unique_fd.h>
#include <sched.h>
#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <thread>

#include "util/export.h"
#include "util/mutex.h"

// What a callback tells the loop.
enum EpollResult {
    EPOLL_RESULT_OK = 0,            // handled; the same event may go on to the write callback
    EPOLL_RESULT_CONSUMED = 1,      // handled; nothing more for this event
    EPOLL_RESULT_ERROR = -1,        // failed; a write callback's write readiness is turned off
    EPOLL_RESULT_CLOSED = -2,       // the descriptor is gone; nothing more for this event
    EPOLL_RESULT_NOTHING_LEFT = -3  // nothing (more) to do; write readiness is turned off
};

// The callbacks of one watched descriptor. An empty callback is never called.
struct EpollCallback {
    std::function<int(epoll_event)> readCallback;   // EPOLLIN
    std::function<int(epoll_event)> writeCallback;  // EPOLLOUT, or writeEventNow()
    std::function<int(epoll_event)> closeCallback;  // EPOLLHUP or EPOLLRDHUP
    uint32_t events = 0;                            // epoll mask registered now
};

// CPUs of the calling thread; none, which is logged, when they cannot be read.
cpu_set_t CurrentAffinity();

class TESU_API EpollManager {
  public:
    // size: hint for epoll_create. maxEvents: most events taken per wait. initFunction: run once on
    // the loop thread before its first wait, may be empty. name: log tag and thread name, not
    // copied, nullptr for "BpfUtils". affinity: CPUs of the loop thread; an empty set means CPU 0.
    // timeout: milliseconds per wait, -1 for no limit.
    EpollManager(int size, int maxEvents, std::function<int()> initFunction, const char* name,
                 cpu_set_t affinity, int timeout);
    // Takes the affinity of the calling thread.
    EpollManager(int size, int maxEvents, std::function<int()> initFunction, const char* name,
                 int timeout);
    EpollManager(int size, int maxEvents, std::function<int()> initFunction, int timeout);
    ~EpollManager();
    EpollManager(const EpollManager&) = delete;
    EpollManager& operator=(const EpollManager&) = delete;

    // Watches `fd`, which stays the caller's to close (after delMonitorFd). The mask follows from
    // the callbacks that are set; EPOLLOUT is never in it at first.
    bool addMonitorFd(int fd, EpollCallback callbacks);
    bool delMonitorFd(int fd);
    // Ends the connection of a watched socket both ways, so that its close callback is called.
    bool shutdownFd(int fd);

    void start();
    void stop();
    // Waits until the loop thread has ended; returns at once without one. Not from a callback.
    void join();

    // Has the loop call the write callback as soon as `fd` is writable. A request made while that
    // callback is running is never lost: it re-arms after the callback's own disarm.
    bool notifyWriteEventReady(int fd);
    // The same, but only where write readiness is on already; false, and nothing done, where it is
    // not.
    bool joinWriteEvent(int fd);
    bool markWriteEventFinish(int fd);
    // For hosts: runs the write callback on this thread until it says -1 (false) or -3 (true).
    bool writeEventNow(int fd);

    // Sleeps for `milliseconds` or until stop(), whichever is first; true when stopped. For
    // callbacks and the init function, on the loop thread.
    bool waitForStop(int milliseconds) const;

  private:
    struct Monitored {
        EpollCallback callbacks;
        // Counts calls of notifyWriteEventReady: tells a request made since a write callback began
        // from one that the callback has seen.
        uint64_t writeRequests = 0;
    };

    void mainThread();
    void dispatch(const epoll_event& event);
    void finishWrite(int fd, uint64_t requestsSeen);
    bool setWriteEvent(int fd, Monitored& entry, bool armed, const char* caller) REQUIRES(mutex);

    cpu_set_t affinity;
    const char* name;
    int eventCount = 0;
    android::base::unique_fd controlFd;
    std::atomic<bool> running{false};  // changed under `mutex`
    // Never held across a callback; innermost of all locks.
    Tesu::Bpf::Mutex mutex;
    std::thread thread GUARDED_BY(mutex);
    android::base::unique_fd epollFd;
    int epollSize;
    int maxEvents;
    int timeoutMs;
    std::unique_ptr<epoll_event[], decltype(&std::free)> eventQueue{nullptr, &std::free};
    std::map<int, Monitored> callbacks GUARDED_BY(mutex);
    std::function<int()> initFunction;
};

// epoll_ctl ADD and MOD with data.fd = fd; true on success.
TESU_API bool EpollCtlAdd(int epfd, int fd, unsigned int events);
TESU_API bool EpollCtlMod(int epfd, int fd, unsigned int events);
// Adds O_NONBLOCK to the descriptor's flags; true on success, else errno says why.
TESU_API bool Setnonblocking(int fd);
