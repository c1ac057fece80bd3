// SPDX-License-Identifier: Apache-2.0
//
// The process model with its sources: /proc and the service's event stream.
//
// Two threads: the stream's applies events, a batch at a time; the owner's reads /proc when that is
// called for, and takes views. A mutex guards the model; nobody reads /proc or draws under it.
#pragma once

#include <android-base/unique_fd.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "client/event_stream.h"
#include "client/process_model.h"
#include "client/top_frame.h"

namespace Tesu::Bpf {

// Every member but the stream's callbacks belongs to the owner's thread.
class LiveProcesses {
  public:
    LiveProcesses(const std::string& socketName, const std::string& procRoot);
    LiveProcesses(const LiveProcesses&) = delete;
    LiveProcesses& operator=(const LiveProcesses&) = delete;

    // False when the system has no descriptor left for it.
    bool start();

    // Readable as soon as there is news since the last refresh(). Borrowed.
    int newsFd() const { return wakeFd.get(); }

    // Reads of /proc what is due: all of it after a connection was made, single processes that have
    // settled after their fork. False when /proc cannot be read.
    bool refresh();
    // Has the next refresh() read all of /proc.
    void readAgain() { isSnapshotWanted = true; }

    ProcessView view(const ViewRequest& request);
    Connection connection() const { return connectionState; }

  private:
    EventStreamListener makeListener();
    void onBatchEnd();
    void setConnection(Connection state);
    void wake();
    bool readEverything();
    void readSettled();

    const android::base::unique_fd wakeFd;
    ProcReader reader;
    bool hasSnapshot = false;

    std::atomic<bool> isWoken{false};
    std::atomic<bool> isSnapshotWanted{false};
    std::atomic<Connection> connectionState{Connection::CONNECTING};

    std::mutex modelMutex;
    ProcessModel model;  // guarded by modelMutex

    std::vector<Event> batch;  // the stream's thread
    // Its thread uses what is above; it ends first.
    std::unique_ptr<EventStream> stream;
};

}  // namespace Tesu::Bpf
