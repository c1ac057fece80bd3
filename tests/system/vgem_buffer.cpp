// SPDX-License-Identifier: Apache-2.0
#include "tests/system/vgem_buffer.h"

#include <fcntl.h>
#include <linux/dma-buf.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr const char* CARD = "/dev/dri/card0";
constexpr uint32_t PIXEL_BITS = 32;

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
struct DrmGemClose {
    uint32_t handle;
    uint32_t pad;
};
constexpr unsigned long CREATE_DUMB = _IOWR('d', 0xb2, DrmCreateDumb);
constexpr unsigned long HANDLE_TO_FD = _IOWR('d', 0x2d, DrmPrimeHandle);
constexpr unsigned long GEM_CLOSE = _IOW('d', 0x09, DrmGemClose);

}  // namespace

VgemBuffer::VgemBuffer(uint32_t rows, const std::string& name)
    : card(open(CARD, O_RDWR | O_CLOEXEC)) {
    const auto rowPixels = static_cast<uint32_t>(sysconf(_SC_PAGESIZE)) / (PIXEL_BITS / 8);
    DrmCreateDumb dumb = {};
    dumb.height = rows;
    dumb.width = rowPixels;
    dumb.bpp = PIXEL_BITS;
    if (!card.ok() || ioctl(card.get(), CREATE_DUMB, &dumb) != 0) {
        std::perror(CARD);
        return;
    }
    DrmPrimeHandle prime = {.handle = dumb.handle, .flags = O_CLOEXEC | O_RDWR, .fd = -1};
    if (ioctl(card.get(), HANDLE_TO_FD, &prime) != 0) {
        std::perror("dma-buf");
        return;
    }
    buffer.reset(prime.fd);
    // The card's own reference, which would keep the buffer alive.
    DrmGemClose gem = {.handle = dumb.handle, .pad = 0};
    if (ioctl(card.get(), GEM_CLOSE, &gem) != 0 ||
        (!name.empty() && ioctl(buffer.get(), DMA_BUF_SET_NAME_B, name.c_str()) != 0)) {
        std::perror("dma-buf");
        return;
    }
    void* const address =
        mmap(nullptr, dumb.size, PROT_READ | PROT_WRITE, MAP_SHARED, buffer.get(), 0);
    if (address == MAP_FAILED) {
        std::perror("mmap of a dma-buf");
        return;
    }
    size = dumb.size;
    mapping = address;
}

VgemBuffer::~VgemBuffer() {
    buffer.reset();
    if (mapping != nullptr) {
        munmap(mapping, size);
    }
}
