// SPDX-License-Identifier: Apache-2.0
//
// The processes of this machine as they are now: a model, driven by the service's events and by
// what is read of /proc. Its owner polls descriptor() and takes what has come, and lets it advance
// from time to time: at least once a second, a quarter of one after events, and at once when
// isCurrent() no longer holds.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "libtesubpf/event_stream.h"
#include "model/process_model.h"
#include "proc/process_snapshot.h"
#include "util/result.h"

namespace Tesu::Bpf {

// Used by one thread at a time.
class LiveProcesses {
  public:
    // What the model lives on.
    static constexpr uint32_t TYPES[] = {RAW_EVENT_TASK_INIT,   RAW_EVENT_RSS_STAT,
                                         RAW_EVENT_TASK_CREATE, RAW_EVENT_TASK_EXIT,
                                         RAW_EVENT_FD_UPDATE,   NOTIFICATION_RECORDS_LOST};

    // Gets each event before the model does; null: it is no record.
    using Observer = std::function<void(const tesubpf_event& item, const Event* record)>;

    static Result<LiveProcesses> open(const std::string& socketName, const std::string& procRoot);

    // Readable (POLLIN) when takeEvents() may have something. Borrowed.
    int descriptor() const { return tesubpf_fd(stream.get()); }

    // Takes what has come, up to one buffer of it, so that a flood of events holds up nothing else.
    void takeEvents(const Observer& observe);

    // Lets the time pass, and reads of /proc what is due: all of it after a connection was made, or
    // single processes. Fails when /proc cannot be read.
    Result<> advance();

    // Whether /proc was read since the subscriptions stand; without a service, ever.
    bool isCurrent() const { return !isProcDue; }
    void readProcAgain() { isProcDue = true; }

    ProcessModel model;

  private:
    LiveProcesses(EventStream stream, const std::string& procRoot)
        : stream(std::move(stream)), procRoot(procRoot), reader(procRoot) {}

    EventStream stream;
    std::string procRoot;
    ProcReader reader;
    bool isProcDue = true;  // until there is a service, and without one, /proc is all there is
};

}  // namespace Tesu::Bpf
