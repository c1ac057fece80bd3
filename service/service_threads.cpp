// SPDX-License-Identifier: Apache-2.0
//
// The poll threads and their supervision.
#include <android-base/properties.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>
#include <system_error>
#include <utility>

#include "proc/proc_text.h"
#include "records/contract.h"
#include "service/service_affinity.h"
#include "service/tesu_bpf_service.h"
#include "util/log.h"
#include "util/time_util.h"

namespace Tesu::Bpf {

namespace {

using std::chrono::seconds;

constexpr seconds READINESS_STEP{1};
constexpr seconds SUPERVISION_STEP{60};
constexpr seconds LONGEST_INTERVAL{86400};

seconds SecondsOf(const char* property) {
    const int64_t value = ParseNumber(android::base::GetProperty(property, "0"));
    return std::clamp(seconds(value), seconds(0), LONGEST_INTERVAL);
}

template <class Body>
std::thread CreateThread(Body body) {
    try {
        return std::thread(std::move(body));
    } catch (const std::system_error& error) {
        throw std::system_error(error.code(), "thread constructor failed");
    }
}

void PrepareThread(const char* threadName, const char* caller) {
    prctl(PR_SET_NAME, threadName);
    const cpu_set_t affinity = ServiceAffinity();
    if (sched_setaffinity(gettid(), sizeof(affinity), &affinity) != 0) {
        TESU_LOGE(TESU_LOG_SERVICE, "[TesuBpfService][%s] set thread affinity failed. %s", caller,
                  strerror(errno));
    }
}

int AttachPrograms(const BpfProgramTable& table, const char* caller) {
    const int failures = AttachAllTesuBpfProgram(TesuBpfService::BPF_FS_PATH, table);
    if (failures != 0) {
        TESU_LOGE(TESU_LOG_SERVICE, "[TesuBpfService][%s] Attach all tesu bpf error: %d", caller,
                  failures);
    }
    return failures;
}

}  // namespace

void TesuBpfService::createCoreThread() {
    if (!eventThread.joinable()) {
        eventThread = CreateThread([this] { eventProduceThread(); });
    }
}

// The GPL thread has no readiness wait of its own: the core thread's must be over, whether that
// thread or Wait() asks.
void TesuBpfService::createGplThreadIfDue() {
    if (ready && running && !gplEventThread.joinable() && checkKernelVersion()) {
        gplEventThread = CreateThread([this] { gpleventProduceThread(); });
    }
}

void TesuBpfService::createCareThreadIfDue() {
    if (!ready || !running || careThread.joinable()) {
        return;
    }
    const seconds pins = SecondsOf(WATCH_PINS_PROPERTY);
    const seconds table = SecondsOf(MEND_TABLE_PROPERTY);
    if (pins + table > seconds(0)) {
        careThread = CreateThread([this, pins, table] {
            PrepareThread("BpfServiceCare", "care");
            care(pins, table);
        });
    }
}

bool TesuBpfService::sleepUnlessStopped(std::chrono::milliseconds duration) {
    MutexLock lock(servicelock);
    return servicelock.waitFor(stopCondition, duration, [this] { return !running; });
}

int TesuBpfService::eventProduceThread() {
    PrepareThread("BpfServicePoll", "eventProduceThread");
    ipcManager->start();
    while (android::base::GetProperty(TESU_BPF_READY, "0") == "0") {
        if (sleepUnlessStopped(READINESS_STEP)) {
            return 0;
        }
    }
    if (!InitBasetime()) {
        TESU_LOGE(TESU_LOG_SERVICE,
                  "[TesuBpfService][eventProduceThread] Init base time failed! errMsg: %s",
                  strerror(errno));
    }
    {
        MutexLock lock(servicelock);
        ready = true;
        createGplThreadIfDue();
        createCareThreadIfDue();
    }
    const int failures = AttachPrograms(PROG_EVENT_MAP, "eventProduceThread");
    eventMonitor();
    return failures;
}

int TesuBpfService::gpleventProduceThread() {
    PrepareThread("BpfServicePGpl", "gpleventProduceThread");
    const int failures = AttachPrograms(PROG_GPL_EVENT_MAP, "gpleventProduceThread");
    gpleventMonitor();
    return failures;
}

int TesuBpfService::Wait() {
    do {
        MutexLock lock(servicelock);
        if (!running && !stopped) {
            return 0;
        }
        try {
            if (running) {
                createCoreThread();
                createGplThreadIfDue();
                createCareThreadIfDue();
            }
        } catch (const std::bad_alloc&) {
            TESU_LOGE(TESU_LOG_SERVICE, "[TesuBpfService][Wait] no memory for the threads");
        }
    } while (!sleepUnlessStopped(SUPERVISION_STEP));
    stop();
    joinPollThreads();
    ipcManager->shutdown();
    return 0;
}

// Core first: it may still be about to create the others. The handles are taken out of the
// object, since a poll thread needs servicelock to end.
void TesuBpfService::joinPollThreads() {
    for (std::thread* handle : {&eventThread, &gplEventThread, &careThread}) {
        std::thread ending;
        {
            MutexLock lock(servicelock);
            ending.swap(*handle);
        }
        if (ending.joinable()) {
            ending.join();
        }
    }
}

}  // namespace Tesu::Bpf
