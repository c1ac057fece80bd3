// SPDX-License-Identifier: Apache-2.0
//
// The singleton: how it is made, started, stopped and taken down. Its threads are in
// service_threads.cpp.
#include "service/tesu_bpf_service.h"

#include <android-base/properties.h>
#include <sys/eventfd.h>

#include "records/contract.h"
#include "records/raw_event.h"
#include "service/service_affinity.h"
#include "util/log.h"
#include "util/monotonic_clock.h"
#include "util/singleton.h"

namespace Tesu::Bpf {

namespace {

constexpr const char* SOCKET_THREAD_NAME = "BpfServiceTr";
constexpr int EPOLL_SIZE = 10;
constexpr int MAX_EVENTS_PER_WAIT = 32;

}  // namespace

Mutex TesuBpfService::servicelock;
std::atomic<TesuBpfService*> TesuBpfService::instance{nullptr};

bool BpfServiceMain() {
    if (android::base::GetProperty(DISABLE_PROPERTY, "0") == "1") {
        TESU_LOGI(TESU_LOG_SERVICE, "[BpfServiceMain] Starting TESU Bpf Service disabled!");
        return false;
    }
    TESU_LOGI(TESU_LOG_SERVICE, "[BpfServiceMain] Starting TESU Bpf Service");
    return TesuBpfService::GetInstance()->start();
}

TesuBpfService* TesuBpfService::GetInstance() {
    // The constructor takes tesuRawEventManagerLock under servicelock, which nests the other way
    // round everywhere else; while there is no service nobody does that.
    return GetOrMake(instance, servicelock, [] { return new TesuBpfService(); });
}

TesuBpfService::TesuBpfService()
    : refreshNames{"main", "re-initialized>"},
      taskHandlers(
          TesuTaskManager::GetInstance(), &refreshNames,
          [](const void* notification, uint32_t size) {
              EventManager::GetInstance()->AppendEvent(static_cast<const char*>(notification),
                                                       size);
          },
          getProcessInfo),
      stopFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      mendingEvent(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      restartEvent(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    IpcHandlerState callbacks;
    callbacks.saveUnuseBuffer = true;
    callbacks.closeOnError = true;
    callbacks.reserved = true;
    callbacks.readable = [this](int fd, BufferState* readBuffer, BufferState* writeBuffer) {
        return onClientLibReadable(fd, readBuffer, writeBuffer);
    };
    callbacks.writeable = [this](int fd, BufferState* writeBuffer) {
        return onClientLibWriteable(fd, writeBuffer);
    };
    callbacks.admit = [this](int fd) {
        return admission->admit(fd, EventManager::GetInstance()->clientCount());
    };
    callbacks.connection = [this](int fd) { onClientLibConnection(fd); };
    callbacks.close = [this](int fd) { onClientLibClose(fd); };
    ipcManager = std::make_unique<UnixIpcManager>(true, IPC_BUFFER_SIZE, SERVICE_SOCKET_NAME,
                                                  callbacks, SOCKET_THREAD_NAME, ServiceAffinity(),
                                                  EPOLL_SIZE, MAX_EVENTS_PER_WAIT);
    packageManager = std::make_unique<IpcPackageManager>();
    packageHandler = std::make_unique<IpcPackageHandler>(std::map<unsigned int, IpcHandlerFunction>{
        {IPC_PACKAGE_REQUEST,
         [this](int fd, char* body, int length, BufferState* writeBuffer) {
             return onEventProvideReqCallBack(fd, body, length, writeBuffer);
         }},
        {IPC_PACKAGE_RESPONSE, {}},
        {IPC_PACKAGE_RESERVED, {}},
        {IPC_PACKAGE_EVENT, {}},
    });
    const auto handle = [this](int (TesuBpfService::*handler)(char*, int64_t)) {
        return [this, handler](char* data, int64_t size) { return (this->*handler)(data, size); };
    };
    eventHandlers = {
        {RAW_EVENT_TASK_INIT, handle(&TesuBpfService::handleTesuTaskInitEvent)},
        {RAW_EVENT_RSS_STAT, handle(&TesuBpfService::handleKmem_RssStat)},
        {RAW_EVENT_TASK_CREATE, handle(&TesuBpfService::handleSched_SchedProcessFork)},
        {RAW_EVENT_TASK_EXIT, handle(&TesuBpfService::handleSched_SchedProcessExit)},
    };
    EventManager::GetInstance()->setClientQueues(
        &clientPackageManagers,
        {.send = [this](int fd) { return ipcManager->writeWhatFits(fd); },
         .sendLater = [this](int fd) { return ipcManager->notifyNeedWriteData(fd) != 0; },
         .disconnect = [this](int fd) { ipcManager->disconnect(fd); }});
}

TesuBpfService::~TesuBpfService() {
    stop();
    joinPollThreads();
    // The fan-out ends before what it sends to goes, and the queues go after those who empty them.
    EventManager* const events = EventManager::GetInstance();
    events->setClientQueues(&clientPackageManagers);
    ipcManager.reset();
    packageManager.reset();
    packageHandler.reset();
    events->setClientQueues(nullptr);
    clientPackageManagers.clear();
    for (const int which : {RING_GPL, RING_CORE}) {
        statusMapFd[which].reset();
    }
    for (const int which : {RING_GPL, RING_CORE}) {
        ringbufMapFd[which].reset();
    }
    instance = nullptr;
}

bool TesuBpfService::start() {
    MutexLock lock(servicelock);
    if (stopped) {
        TESU_LOGE(TESU_LOG_SERVICE, "[TesuBpfService][start] the service was stopped");
        return false;
    }
    if (!running) {
        startTime = MonotonicNanoseconds();
        EventManager::GetInstance()->setLimits(ReadEventLimits());
        admission = std::make_unique<ClientAdmission>();
    }
    running = true;
    createCoreThread();
    return true;
}

int TesuBpfService::stop() {
    MutexLock lock(servicelock);
    ipcManager->stop();
    stopped = true;
    running = false;
    stopCondition.notify_all();
    if (stopFd.ok()) {
        eventfd_write(stopFd.get(), 1);
    }
    return 0;
}

bool TesuBpfService::checkKernelVersion() {
    return android::base::GetProperty(KERNEL_VERSION_PROP, "0") == "6.1";
}

}  // namespace Tesu::Bpf
