// SPDX-License-Identifier: Apache-2.0
#include "loader/file_offsets.h"

#include <algorithm>

#include "loader/kernel_bytes.h"

namespace Tesu::Bpf {

namespace {

// How much of each structure is searched. files_struct begins with a count and a queue of waiters;
// then comes the pointer to its fdtable, in which the pointer to the array is the second member.
constexpr uint32_t FILES_STRUCT_WORDS = 12;
constexpr uint32_t FDTABLE_WORDS = 3;
constexpr uint32_t FILE_BYTES = 256;
constexpr uint32_t INODE_BYTES = 256;
// struct dma_buf begins with its size.
constexpr uint32_t DMA_BUF_SIZE = 0;
// The first page holds nothing.
constexpr uint64_t LAST_NO_POINTER = 4095;

struct Places {
    uint32_t fileInode;
    uint32_t inodeIno;
};

// The pointers among the words from `begin` to `end`, in bytes.
std::vector<uint64_t> Pointers(const std::vector<uint8_t>& bytes, uint32_t begin, uint32_t end,
                               uint32_t pointerSize) {
    std::vector<uint64_t> pointers;
    for (uint32_t offset = begin; offset < end; offset += pointerSize) {
        const uint64_t value = LoadPointer(bytes, offset, pointerSize);
        if (value > LAST_NO_POINTER && value % pointerSize == 0) {
            pointers.push_back(value);
        }
    }
    return pointers;
}

// The addresses of the files, in their order, if `array` can be that of the open files: equal
// pointers under the descriptors of one file, different ones for different files. Empty: it is not.
std::vector<uint64_t> FilesOfArray(uint64_t array, const std::vector<FileSample>& files,
                                   const ReadKernelMemory& read, uint32_t pointerSize) {
    uint32_t length = 0;
    for (const FileSample& file : files) {
        length = std::max(length, file.descriptors.back() + 1);
    }
    const std::vector<uint8_t> bytes = read(array, length * pointerSize);
    std::vector<uint64_t> addresses;
    for (const FileSample& file : files) {
        const auto entry = [&](uint32_t descriptor) {
            return LoadPointer(bytes, descriptor * pointerSize, pointerSize);
        };
        const uint64_t address = entry(file.descriptors.front());
        const bool isOne =
            std::all_of(file.descriptors.begin(), file.descriptors.end(),
                        [&](uint32_t descriptor) { return entry(descriptor) == address; });
        if (address <= LAST_NO_POINTER || !isOne ||
            std::find(addresses.begin(), addresses.end(), address) != addresses.end()) {
            return {};
        }
        addresses.push_back(address);
    }
    return addresses;
}

// task_struct.files is one of the pointers between the name and task_struct.signal.
std::vector<uint64_t> FindFiles(const std::vector<uint8_t>& task,
                                const std::vector<FileSample>& files, const ReadKernelMemory& read,
                                const TesuKernelLayout& layout) {
    const uint32_t size = layout.pointerSize;
    const auto pointersAt = [&](uint64_t address, uint32_t words) {
        return Pointers(read(address, words * size), 0, words * size, size);
    };
    for (const uint64_t member :
         Pointers(task, layout.taskComm / size * size, layout.taskSignal, size)) {
        for (const uint64_t table : pointersAt(member, FILES_STRUCT_WORDS)) {
            for (const uint64_t array : pointersAt(table, FDTABLE_WORDS)) {
                auto found = FilesOfArray(array, files, read, size);
                if (!found.empty()) {
                    return found;
                }
            }
        }
    }
    return {};
}

// Where the pointer to the inode can be in a file, and the inode's number in the inode.
std::vector<Places> FindPlaces(uint64_t file, uint64_t number, const ReadKernelMemory& read,
                               uint32_t pointerSize) {
    std::vector<Places> places;
    const std::vector<uint8_t> bytes = read(file, FILE_BYTES);
    for (uint32_t offset = 0; offset < bytes.size(); offset += pointerSize) {
        const uint64_t inode = LoadPointer(bytes, offset, pointerSize);
        if (inode == 0) {
            continue;
        }
        const std::vector<uint8_t> inodeBytes = read(inode, INODE_BYTES);
        for (uint32_t ino = 0; ino < inodeBytes.size(); ino += pointerSize) {
            if (LoadPointer(inodeBytes, ino, pointerSize) == number) {
                places.push_back({offset, ino});
            }
        }
    }
    return places;
}

}  // namespace

Result<> GuessFileOffsets(const std::vector<uint8_t>& task, const std::vector<FileSample>& files,
                          const ReadKernelMemory& read, TesuKernelLayout* layout) {
    const std::vector<uint64_t> addresses = FindFiles(task, files, read, *layout);
    if (addresses.empty()) {
        return Failure("task_struct.files: no place matches");
    }
    const uint32_t pointerSize = layout->pointerSize;
    std::vector<Places> places = FindPlaces(addresses[0], files[0].inode, read, pointerSize);
    for (size_t i = 1; i < files.size(); ++i) {
        std::erase_if(places, [&](const Places& place) {
            const uint64_t inode =
                LoadPointer(read(addresses[i] + place.fileInode, pointerSize), 0, pointerSize);
            return inode == 0 || LoadPointer(read(inode + place.inodeIno, pointerSize), 0,
                                             pointerSize) != files[i].inode;
        });
    }
    if (places.size() != 1) {
        return Failure("file.f_inode: " + std::to_string(places.size()) + " places match");
    }
    layout->fileInode = places[0].fileInode;
    layout->inodeIno = places[0].inodeIno;
    layout->dmaBufSize = DMA_BUF_SIZE;
    return {};
}

}  // namespace Tesu::Bpf
