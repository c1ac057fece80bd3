// SPDX-License-Identifier: Apache-2.0
//
// The real objects, loaded and pinned in the sandbox: attaching them, switching classes of events
// on, and reading what they write.
#pragma once

#include <android-base/unique_fd.h>
#include <bpf/libbpf.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "loader/load_set.h"
#include "records/raw_event.h"

namespace Tesu::Bpf {

enum class PinnedRing { CORE, GPL };

// The object whose ring it is, as in the names of pins.
const char* ObjectName(PinnedRing ring);

// What the loader does by default.
LoadOptions BuiltObjects();

// Loads and pins anew; `messages` gets everything the loader says. Whether all of it could be
// loaded.
bool LoadPins(const LoadOptions& options, std::string* messages);

// A descriptor of the map or program of that pin name; invalid where there is none.
android::base::unique_fd OpenPin(const std::string& name);
android::base::unique_fd OpenPinnedMap(PinnedRing ring, const std::string& map);

// Attaches the object's programs of that event ("sched_sched_switch"); detached when the result is
// closed. Invalid on failure, errno says why.
android::base::unique_fd AttachPinnedTracepoint(PinnedRing object, const std::string& event);
// Runs a kprobe program ("enter_fd_install") on calls of (or returns from) a function of this
// program instead of the kernel's, in any process.
android::base::unique_fd AttachPinnedToFunction(PinnedRing object, const std::string& event,
                                                const void* function);

void SetRingFlags(PinnedRing ring, uint64_t flags);
uint64_t ReadRingStatus(PinnedRing ring, uint32_t key);

// Takes the records of a ring, in order. For one thread.
class RecordCollector {
  public:
    explicit RecordCollector(PinnedRing ring);

    // Takes what is in the ring now; returns how many records that were.
    int drain();

    const std::vector<std::string>& records() const { return collected; }

    // The records of one type, in order; `T` is their struct.
    template <typename T>
    std::vector<T> ofType(uint32_t type) const {
        std::vector<T> found;
        for (const std::string& bytes : collected) {
            if (Read<RawEventHeader>(bytes).type == type) {
                found.push_back(Read<T>(bytes));
            }
        }
        return found;
    }

    template <typename T>
    static T Read(const std::string& bytes) {
        T record = {};
        bytes.copy(reinterpret_cast<char*>(&record), sizeof(record));
        return record;
    }

  private:
    static int onRecord(void* collector, void* data, size_t size);

    android::base::unique_fd mapFd;
    std::unique_ptr<::ring_buffer, decltype(&ring_buffer__free)> reader;
    std::vector<std::string> collected;
};

}  // namespace Tesu::Bpf
