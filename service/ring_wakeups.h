// SPDX-License-Identifier: Apache-2.0
//
// Tells the programs of a ring that its reader comes by itself, so that their records need not wake
// it: the interrupt for that costs a program more than the record does.
//
// A program looks at the word when its record has its place in the ring, and wakes or does not when
// the record is complete. So a reader that wants to be woken takes the word back, rests, reads once
// more, and waits only if it then found the ring without any record, complete or not (RingPace).
// What was written before the word was taken back has been read by then, and whatever comes after
// wakes it.
//
// The poll thread of the ring.
#pragma once

#include <cstdint>

namespace Tesu::Bpf {

class RingWakeups {
  public:
    // Pins of other loaders may lack the map: then every reader is woken, as it is where no reader
    // says otherwise. Takes back what a service left that was killed.
    explicit RingWakeups(const char* polledPath);
    ~RingWakeups();
    RingWakeups(const RingWakeups&) = delete;
    RingWakeups& operator=(const RingWakeups&) = delete;

    void setWanted(bool isWanted);

  private:
    uint32_t* polled = nullptr;  // shared with the kernel; null: there is none
};

}  // namespace Tesu::Bpf
