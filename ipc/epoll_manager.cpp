// SPDX-License-Identifier: Apache-2.0
#include "ipc/epoll_manager.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <new>
#include <utility>

#include "util/log.h"

using Tesu::Bpf::MutexLock;

namespace {

// How long a loop without a control descriptor waits at most, since nothing can wake it.
constexpr int UNCONTROLLED_TIMEOUT_MS = 200;
// Pause after a failed wait, so that a loop that cannot wait does not spin.
constexpr auto WAIT_ERROR_PAUSE = std::chrono::milliseconds(100);

constexpr uint32_t HANG_UP = EPOLLHUP | EPOLLRDHUP;

bool EpollCtl(int epfd, int operation, int fd, unsigned int events) {
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    return epoll_ctl(epfd, operation, fd, &event) != -1;
}

}  // namespace

cpu_set_t CurrentAffinity() {
    cpu_set_t affinity;
    CPU_ZERO(&affinity);
    if (sched_getaffinity(gettid(), sizeof(affinity), &affinity) != 0) {
        TESU_LOGE(TESU_LOG_UTILS,
                  "[EpollManager] init cpu affinity failed! so use default affinity. %s",
                  strerror(errno));
    }
    return affinity;
}

bool EpollCtlAdd(int epfd, int fd, unsigned int events) {
    return EpollCtl(epfd, EPOLL_CTL_ADD, fd, events);
}

bool EpollCtlMod(int epfd, int fd, unsigned int events) {
    return EpollCtl(epfd, EPOLL_CTL_MOD, fd, events);
}

bool Setnonblocking(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    return flags != -1 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

EpollManager::EpollManager(int size, int maxEvents, std::function<int()> initFunction,
                           const char* name, cpu_set_t affinity, int timeout)
    : affinity(affinity),
      name(name != nullptr ? name : TESU_LOG_UTILS),
      epollSize(size),
      maxEvents(maxEvents),
      timeoutMs(timeout),
      initFunction(std::move(initFunction)) {
    if (CPU_COUNT(&this->affinity) == 0) {
        TESU_LOGE(TESU_LOG_UTILS, "[EpollManager] cpu affinity invalid!");
        CPU_SET(0, &this->affinity);
    }
    epollFd.reset(epoll_create(epollSize));  // NOLINT(android-cloexec-epoll-create): set below
    if (!epollFd.ok()) {
        TESU_LOGE(this->name, "[EpollManager] Create epoll failed: %d, message: %s", errno,
                  strerror(errno));
    } else {
        fcntl(epollFd.get(), F_SETFD, FD_CLOEXEC);
    }
    if (maxEvents > 0) {
        eventQueue.reset(static_cast<epoll_event*>(
            std::malloc(sizeof(epoll_event) * static_cast<size_t>(maxEvents))));
    }
    if (eventQueue == nullptr) {
        TESU_LOGE(this->name, "[EpollManager] Allocate event queue failed: %d, message: %s", errno,
                  strerror(errno));
    }
    controlFd.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!controlFd.ok()) {
        TESU_LOGE(this->name, "[EpollManager] Allocate control fd failed: %d, message: %s", errno,
                  strerror(errno));
    }
    if (!EpollCtlAdd(epollFd.get(), controlFd.get(), EPOLLIN)) {
        TESU_LOGE(this->name, "[EpollManager] Setup control fd failed: %d, message: %s", errno,
                  strerror(errno));
    }
}

EpollManager::EpollManager(int size, int maxEvents, std::function<int()> initFunction,
                           const char* name, int timeout)
    : EpollManager(size, maxEvents, std::move(initFunction), name, CurrentAffinity(), timeout) {}

EpollManager::EpollManager(int size, int maxEvents, std::function<int()> initFunction, int timeout)
    : EpollManager(size, maxEvents, std::move(initFunction), TESU_LOG_UTILS, timeout) {}

EpollManager::~EpollManager() {
    stop();
    join();
}

bool EpollManager::addMonitorFd(int fd, EpollCallback monitored) {
    uint32_t events = 0;
    if (monitored.readCallback) {
        events |= EPOLLIN;
    }
    if (monitored.closeCallback) {
        events |= HANG_UP;
    }
    MutexLock lock(mutex);
    if (!EpollCtlAdd(epollFd.get(), fd, events)) {
        TESU_LOGE(name, "[EpollManager] Epoll add monitor fd failed: %d, message: %s", errno,
                  strerror(errno));
        return false;
    }
    monitored.events = events;
    callbacks[fd] = Monitored{.callbacks = std::move(monitored)};
    return true;
}

bool EpollManager::delMonitorFd(int fd) {
    MutexLock lock(mutex);
    if (epoll_ctl(epollFd.get(), EPOLL_CTL_DEL, fd, nullptr) == -1) {
        TESU_LOGE(name, "[EpollManager] Epoll del fd from epoll failed: %d, message: %s", errno,
                  strerror(errno));
        return false;
    }
    callbacks.erase(fd);
    return true;
}

// Under the lock, since a descriptor is closed only after it was taken out.
bool EpollManager::shutdownFd(int fd) {
    MutexLock lock(mutex);
    return callbacks.contains(fd) && ::shutdown(fd, SHUT_RDWR) == 0;
}

void EpollManager::start() {
    TESU_LOGI(name, "[EpollManager] main thread starting...");
    MutexLock lock(mutex);
    running = true;
    thread = std::thread(&EpollManager::mainThread, this);
}

void EpollManager::stop() {
    MutexLock lock(mutex);
    running = false;
    if (controlFd.ok()) {
        eventfd_write(controlFd.get(), 1);
    }
}

void EpollManager::join() {
    std::thread ended;
    {
        MutexLock lock(mutex);
        ended.swap(thread);
    }
    if (ended.joinable()) {
        ended.join();
    }
}

bool EpollManager::waitForStop(int milliseconds) const {
    // stop() leaves the control counter readable until the loop takes it, and only the loop thread
    // sleeps here.
    pollfd control{.fd = controlFd.get(), .events = POLLIN, .revents = 0};
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        int step = left.count() > 0 ? static_cast<int>(left.count()) : 0;
        if (!controlFd.ok() && step > UNCONTROLLED_TIMEOUT_MS) {
            step = UNCONTROLLED_TIMEOUT_MS;
        }
        if (poll(&control, 1, step) > 0) {
            return true;
        }
        if (!controlFd.ok() && !running) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
    }
}

void EpollManager::mainThread() {
    // Process-wide on purpose: a client that goes away while it is written to must not end the
    // host.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGQUIT, SIG_IGN);
    prctl(PR_SET_NAME, name);
    if (sched_setaffinity(gettid(), sizeof(affinity), &affinity) != 0) {
        TESU_LOGE(name, "[EpollManager][mainThread] init epoll manager thread affinity failed! %s",
                  strerror(errno));
    }
    if (initFunction) {
        initFunction();
    }
    const int timeout = !controlFd.ok() && (timeoutMs < 0 || timeoutMs > UNCONTROLLED_TIMEOUT_MS)
                            ? UNCONTROLLED_TIMEOUT_MS
                            : timeoutMs;
    bool errorLogged = false;
    while (running) {
        eventCount = epoll_wait(epollFd.get(), eventQueue.get(), maxEvents, timeout);
        if (eventCount == -1 && errno != EINTR) {
            if (!errorLogged) {
                TESU_LOGE(name, "[EpollManager][mainThread] epoll wait failed: %d, message: %s",
                          errno, strerror(errno));
                errorLogged = true;
            }
            std::this_thread::sleep_for(WAIT_ERROR_PAUSE);
        }
        for (int i = 0; i < eventCount; ++i) {
            if (eventQueue[i].data.fd == controlFd.get()) {
                eventfd_t count = 0;
                eventfd_read(controlFd.get(), &count);
                return;
            }
            try {
                dispatch(eventQueue[i]);
            } catch (const std::bad_alloc&) {
                TESU_LOGE(name, "[EpollManager][mainThread] no memory for an event of fd %d",
                          eventQueue[i].data.fd);
                std::this_thread::sleep_for(WAIT_ERROR_PAUSE);
            }
        }
    }
}

void EpollManager::dispatch(const epoll_event& event) {
    const int fd = event.data.fd;
    // Copied before the call: a callback may remove its own entry.
    const auto copyOf = [&](std::function<int(epoll_event)> EpollCallback::*callback) {
        MutexLock lock(mutex);
        return callbacks[fd].callbacks.*callback;
    };
    if ((event.events & HANG_UP) != 0) {
        if (const auto callback = copyOf(&EpollCallback::closeCallback)) {
            callback(event);
            return;
        }
    }
    if ((event.events & EPOLLIN) != 0) {
        if (const auto callback = copyOf(&EpollCallback::readCallback)) {
            const int result = callback(event);
            if (result == EPOLL_RESULT_NOTHING_LEFT || result == EPOLL_RESULT_CLOSED ||
                result == EPOLL_RESULT_ERROR || result == EPOLL_RESULT_CONSUMED) {
                return;
            }
        }
    }
    if ((event.events & EPOLLOUT) != 0) {
        std::function<int(epoll_event)> callback;
        uint64_t requestsSeen = 0;
        {
            MutexLock lock(mutex);
            const Monitored& entry = callbacks[fd];
            callback = entry.callbacks.writeCallback;
            requestsSeen = entry.writeRequests;
        }
        if (callback) {
            const int result = callback(event);
            if (result == EPOLL_RESULT_ERROR || result == EPOLL_RESULT_NOTHING_LEFT) {
                finishWrite(fd, requestsSeen);
            }
        }
    }
}

// Ends a round of writing. A producer that queued after the write callback looked found EPOLLOUT
// still armed and made no kernel call; its request shows as a count beyond `requestsSeen`, and
// write readiness is armed again for it.
void EpollManager::finishWrite(int fd, uint64_t requestsSeen) {
    if (!markWriteEventFinish(fd)) {
        TESU_LOGE(name, "[EpollManager][mainThread] mark write event finish failed!");
    }
    MutexLock lock(mutex);
    const auto found = callbacks.find(fd);
    if (found != callbacks.end() && found->second.writeRequests != requestsSeen) {
        setWriteEvent(fd, found->second, true, "notifyWriteEventReady");
    }
}

bool EpollManager::setWriteEvent(int fd, Monitored& entry, bool armed, const char* caller) {
    uint32_t events = entry.callbacks.events & ~static_cast<uint32_t>(EPOLLOUT);
    if (armed && entry.callbacks.writeCallback) {
        events |= EPOLLOUT;
    }
    if (!EpollCtlMod(epollFd.get(), fd, events)) {
        TESU_LOGE(name, "[EpollManager][%s] Epoll mod monitor failed, fd: %d, message: %s", caller,
                  fd, strerror(errno));
        return false;
    }
    entry.callbacks.events = events;
    return true;
}

bool EpollManager::notifyWriteEventReady(int fd) {
    MutexLock lock(mutex);
    const auto found = callbacks.find(fd);
    if (found == callbacks.end()) {
        TESU_LOGE(name, "[EpollManager][notifyWriteEventReady] the socket fd does not exist");
        return false;
    }
    ++found->second.writeRequests;
    if ((found->second.callbacks.events & EPOLLOUT) != 0) {
        return true;
    }
    return setWriteEvent(fd, found->second, true, "notifyWriteEventReady");
}

bool EpollManager::joinWriteEvent(int fd) {
    MutexLock lock(mutex);
    const auto found = callbacks.find(fd);
    if (found == callbacks.end() || (found->second.callbacks.events & EPOLLOUT) == 0) {
        return false;
    }
    ++found->second.writeRequests;
    return true;
}

bool EpollManager::markWriteEventFinish(int fd) {
    MutexLock lock(mutex);
    const auto found = callbacks.find(fd);
    if (found == callbacks.end()) {
        TESU_LOGE(name, "[EpollManager][markWriteEventFinish] the socket fd does not exist");
        return false;
    }
    return setWriteEvent(fd, found->second, false, "markWriteEventFinish");
}

bool EpollManager::writeEventNow(int fd) {
    std::function<int(epoll_event)> callback;
    {
        MutexLock lock(mutex);
        const auto found = callbacks.find(fd);
        if (found == callbacks.end()) {
            TESU_LOGE(name, "[EpollManager][notifyWriteEventReady] the socket fd does not exist");
            return false;
        }
        callback = found->second.callbacks.writeCallback;
    }
    if (!callback) {
        return false;
    }
    epoll_event event{};
    event.data.fd = fd;
    while (true) {
        const int result = callback(event);
        if (result == EPOLL_RESULT_ERROR) {
            return false;
        }
        if (result == EPOLL_RESULT_NOTHING_LEFT) {
            return true;
        }
    }
}
