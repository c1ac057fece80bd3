// SPDX-License-Identifier: Apache-2.0
#include "ipc/frame.h"

#include <stdio.h>
#include <sys/socket.h>

void WriteRequest(char* frame, uint32_t requestId, const char* command, const void* data,
                  uint32_t dataSize) {
    const uint32_t bodyLength = IPC_REQUEST_HEAD_SIZE + dataSize;
    const uint32_t head[] = {IPC_PACKAGE_HEADER_SIZE + bodyLength, IPC_PACKAGE_REQUEST, bodyLength,
                             requestId};
    memset(frame, 0, REQUEST_FRAME_SIZE(dataSize));
    memcpy(frame, head, sizeof(head));
    strcpy(frame + sizeof(head), command);
    char* const end = frame + sizeof(head) + IPC_COMMAND_SIZE;
    memcpy(end, &dataSize, sizeof(dataSize));
    if (dataSize > 0) {
        memcpy(end + sizeof(dataSize), data, dataSize);
    }
}

ssize_t ReceiveFrames(int fd, struct FrameBuffer* buffer) {
    buffer->length -= buffer->cursor;
    memmove(buffer->data, buffer->data + buffer->cursor, buffer->length);
    buffer->cursor = 0;
    const ssize_t count =
        recv(fd, buffer->data + buffer->length, buffer->capacity - buffer->length, 0);
    buffer->length += count > 0 ? (size_t)count : 0;
    return count;
}

enum FrameState TakePackage(struct FrameBuffer* buffer, struct Package* package,
                            char fault[FRAME_FAULT_SIZE]) {
    const size_t available = buffer->length - buffer->cursor;
    if (available < IPC_FRAME_HEADER_SIZE) {
        return FRAME_INCOMPLETE;
    }
    const char* const frame = buffer->data + buffer->cursor;
    const uint32_t frameLength = ReadWord(frame);
    // 64 bits: a hostile length plus its header must not wrap.
    const uint64_t whole = (uint64_t)IPC_FRAME_HEADER_SIZE + frameLength;
    if (frameLength < IPC_PACKAGE_HEADER_SIZE || whole > buffer->capacity) {
        snprintf(fault, FRAME_FAULT_SIZE, "a frame of %u bytes (possible are %u to %u)",
                 (unsigned)frameLength, IPC_PACKAGE_HEADER_SIZE,
                 (unsigned)buffer->capacity - IPC_FRAME_HEADER_SIZE);
        return FRAME_IMPOSSIBLE;
    }
    if (available < whole) {
        return FRAME_INCOMPLETE;
    }
    const char* const start = frame + IPC_FRAME_HEADER_SIZE;
    const uint32_t bodyLength = ReadWord(start + sizeof(uint32_t));
    if (bodyLength != frameLength - IPC_PACKAGE_HEADER_SIZE) {
        snprintf(fault, FRAME_FAULT_SIZE, "a frame of %u bytes with a body of %u",
                 (unsigned)frameLength, (unsigned)bodyLength);
        return FRAME_IMPOSSIBLE;
    }
    buffer->cursor += (size_t)whole;
    *package = (struct Package){ReadWord(start), bodyLength, start + IPC_PACKAGE_HEADER_SIZE};
    return FRAME_TAKEN;
}
