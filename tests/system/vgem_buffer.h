// SPDX-License-Identifier: Apache-2.0
//
// A real dma-buf, of the kernel's virtual graphics driver, mapped into this process. The kernel
// lets go of it when this object goes.
#pragma once

#include <android-base/unique_fd.h>

#include <cstdint>
#include <string>

class VgemBuffer {
  public:
    // Of `rows` pages. A buffer with a name shows it in /proc/PID/maps.
    VgemBuffer(uint32_t rows, const std::string& name);
    ~VgemBuffer();
    VgemBuffer(const VgemBuffer&) = delete;
    VgemBuffer& operator=(const VgemBuffer&) = delete;

    // Whether all of it worked; if not, what did not is told on the standard error.
    bool ok() const { return mapping != nullptr; }

  private:
    android::base::unique_fd card;
    android::base::unique_fd buffer;
    uint64_t size = 0;  // bytes
    void* mapping = nullptr;
};
