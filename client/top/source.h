// SPDX-License-Identifier: Apache-2.0
//
// What `tesubpf top` shows the processes of: this machine as it is now, or a recording.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "client/top/controls.h"
#include "client/top/frame.h"
#include "model/process_model.h"
#include "util/result.h"

namespace Tesu::Bpf {

// Used by one thread.
class TopSource {
  public:
    virtual ~TopSource() = default;

    // Readable (POLLIN) when takeEvents() may have something; -1: never. Borrowed.
    virtual int descriptor() const = 0;
    // Takes what has come.
    virtual void takeEvents() = 0;
    // A key asks for what the source is to do. Fails when it makes no sense; then nothing changes.
    virtual Result<> obey(Command command, const std::string& argument) = 0;
    // Brings model and state up to now, for a frame; where time can, it stands still. Fails when
    // there is nothing to be shown.
    virtual Result<> advance(bool isStill, FrameState* state) = 0;
    virtual ProcessModel& model() = 0;
    // Says on standard error why there was less to be shown than there should have been.
    virtual void reportDamage() const {}
};

// The service's events, and what is read of /proc.
Result<std::unique_ptr<TopSource>> MakeLiveSource(const std::string& socketName,
                                                  const std::string& procRoot);

// A recording, as fast as it was made. at: from where on, see REPLAY_TIME_HELP; "": its beginning.
Result<std::unique_ptr<TopSource>> MakeReplaySource(const std::string& path, const std::string& at);

}  // namespace Tesu::Bpf
