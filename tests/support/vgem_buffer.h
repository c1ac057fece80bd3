// SPDX-License-Identifier: Apache-2.0
//
// A real dma-buf, of the kernel's virtual graphics driver, mapped into this process. The kernel
// lets go of it when this object goes.
#pragma once

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <linux/dma-buf.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "tests/support/temp_dir.h"

class VgemBuffer {
  public:
    // Of `rows` pages. Not ok() where there is no such driver, or one that maps other files in its
    // buffers' place, as that of 5.10 does. A buffer with a name shows it in /proc/PID/maps.
    explicit VgemBuffer(uint32_t rows, const std::string& name = "") {
        const android::base::unique_fd card(open("/dev/dri/card0", O_RDWR | O_CLOEXEC));
        DrmCreateDumb dumb = {};
        dumb.height = rows;
        dumb.width = static_cast<uint32_t>(sysconf(_SC_PAGESIZE)) / 4;
        dumb.bpp = 32;
        ioctl(card.get(), _IOWR('d', 0xb2, DrmCreateDumb), &dumb);
        DrmPrimeHandle prime = {.handle = dumb.handle, .flags = O_CLOEXEC | O_RDWR, .fd = -1};
        ioctl(card.get(), _IOWR('d', 0x2d, DrmPrimeHandle), &prime);
        buffer.reset(prime.fd);
        if (!name.empty()) {
            ioctl(buffer.get(), DMA_BUF_SET_NAME_B, name.c_str());
        }
        size = dumb.size;
        mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, buffer.get(), 0);
    }  // with the card goes its own reference
    ~VgemBuffer() {
        buffer.reset();
        munmap(mapping, size);
    }

    bool ok() const {
        return ReadWholeFile("/proc/self/maps").find("/dmabuf:") != std::string::npos;
    }

  private:
    // Of the kernel's drm interface, for which the C library has no headers.
    struct DrmCreateDumb {
        uint32_t height;
        uint32_t width;
        uint32_t bpp;
        uint32_t flags;
        uint32_t handle;
        uint32_t pitch;
        uint64_t size;
    };
    struct DrmPrimeHandle {
        uint32_t handle;
        uint32_t flags;
        int32_t fd;
    };

    android::base::unique_fd buffer;
    size_t size = 0;  // bytes
    void* mapping = nullptr;
};
